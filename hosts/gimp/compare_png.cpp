// Compares a plane of one image with a plane of another, byte for byte, for the GIMP batch test.
//
//   qx_gimp_compare A.png CHANNEL_A B.png CHANNEL_B [--mean-below N]
//
// CHANNEL: the index in the file's own channel order as OpenCV reads it (B, G, R, A); a grey
// file has channel 0 only. Exit 0 when every byte agrees (with --mean-below: when the mean
// absolute difference is below N), 1 when not, with the count and first place of the
// differences, 2 on a usage or reading error.
#include <cstdio>
#include <cstdlib>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

namespace {

bool readChannel(const char* path, const char* channelText, cv::Mat* out) {
    const cv::Mat image = cv::imread(path, cv::IMREAD_UNCHANGED);
    const int channel = std::atoi(channelText);
    if (image.empty() || image.depth() != CV_8U) {
        std::fprintf(stderr, "qx_gimp_compare: %s: not an 8-bit image\n", path);
        return false;
    }
    if (channel < 0 || channel >= image.channels()) {
        std::fprintf(stderr, "qx_gimp_compare: %s has %d channels, no channel %d\n", path,
                     image.channels(), channel);
        return false;
    }
    cv::extractChannel(image, *out, channel);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const bool mean = argc == 7 && std::string(argv[5]) == "--mean-below";
    if (argc != 5 && !mean) {
        std::fprintf(stderr, "usage: qx_gimp_compare A CH_A B CH_B [--mean-below N]\n");
        return 2;
    }
    cv::Mat a, b;
    if (!readChannel(argv[1], argv[2], &a) || !readChannel(argv[3], argv[4], &b)) return 2;
    if (a.size() != b.size()) {
        std::fprintf(stderr, "qx_gimp_compare: sizes differ (%dx%d, %dx%d)\n", a.cols, a.rows,
                     b.cols, b.rows);
        return 1;
    }
    const long counted = static_cast<long>(a.total());
    long differ = 0;
    double sum = 0.0;
    int firstX = -1, firstY = -1, maxDiff = 0;
    for (int y = 0; y < a.rows; ++y) {
        for (int x = 0; x < a.cols; ++x) {
            const int d = std::abs(int(a.at<unsigned char>(y, x)) - int(b.at<unsigned char>(y, x)));
            sum += d;
            if (d == 0) continue;
            if (differ++ == 0) firstX = x, firstY = y;
            if (d > maxDiff) maxDiff = d;
        }
    }
    if (mean) {
        const double limit = std::atof(argv[6]), meanDiff = sum / counted;
        std::printf("%s ch %s vs %s ch %s: mean difference %.3f (limit %.3f)\n", argv[1],
                    argv[2], argv[3], argv[4], meanDiff, limit);
        return meanDiff < limit ? 0 : 1;
    }
    if (differ) {
        std::printf("%s ch %s vs %s ch %s: %ld of %ld bytes differ (first at %d,%d; largest "
                    "difference %d)\n",
                    argv[1], argv[2], argv[3], argv[4], differ, counted, firstX, firstY, maxDiff);
        return 1;
    }
    std::printf("%s ch %s = %s ch %s (%ld bytes)\n", argv[1], argv[2], argv[3], argv[4], counted);
    return 0;
}
