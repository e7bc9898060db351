// Compares a plane of one image with a plane of another for the GIMP batch test.
//
//   qx_gimp_compare A.png CHANNEL_A B.png CHANNEL_B [--mean-below N]
//
// CHANNEL: the index in the file's channel order as OpenCV reads it (B, G, R, A). Exit 0 when
// every byte agrees (with --mean-below: when the mean absolute difference is below N), 1 when
// not, 2 on a usage or reading error.
#include <cstdio>
#include <cstdlib>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>

static cv::Mat readChannel(const char* path, const char* channel) {
    const cv::Mat image = cv::imread(path, cv::IMREAD_UNCHANGED);
    const int c = std::atoi(channel);
    cv::Mat plane;
    if (image.depth() == CV_8U && c >= 0 && c < image.channels()) cv::extractChannel(image, plane, c);
    else std::fprintf(stderr, "qx_gimp_compare: %s has no 8-bit channel %s\n", path, channel);
    return plane;
}

int main(int argc, char** argv) {
    const bool mean = argc == 7 && std::string(argv[5]) == "--mean-below";
    if (argc != 5 && !mean) {
        std::fprintf(stderr, "usage: qx_gimp_compare A CH_A B CH_B [--mean-below N]\n");
        return 2;
    }
    const cv::Mat a = readChannel(argv[1], argv[2]), b = readChannel(argv[3], argv[4]);
    if (a.empty() || b.empty()) return 2;
    if (a.size() != b.size()) {
        std::printf("%s and %s differ in size\n", argv[1], argv[3]);
        return 1;
    }
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    const double meanDiff = cv::mean(diff)[0];
    const int differ = cv::countNonZero(diff);
    std::printf("%s ch %s vs %s ch %s: %d of %d bytes differ, mean difference %.3f\n", argv[1],
                argv[2], argv[3], argv[4], differ, static_cast<int>(a.total()), meanDiff);
    return (mean ? meanDiff < std::atof(argv[6]) : differ == 0) ? 0 : 1;
}
