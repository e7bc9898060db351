// Composites with a known foreground, built from the alpha-matting photos as the data folder's
// README describes: for image k with ground-truth alpha a, F is photo (k + 1) mod 10 and B photo
// (k + 5) mod 10, both resized (bilinear) to a's size, and I = a*F + (1 - a)*B rounded to 8 bits.
// The error of an estimate F' is the sum over 0 < a < 1 of a * (|dR| + |dG| + |dB|) on the 0..1
// scale, / 1000.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

namespace bench {

struct Composite {
    std::string name;   // GTnn
    cv::Mat alpha;      // 8-bit ground truth
    cv::Mat fg;         // 8-bit BGR, the true foreground
    cv::Mat composite;  // 8-bit BGR
};

// The photos' file names, sorted; empty when the folder is absent.
inline std::vector<std::string> photoNames(const std::filesystem::path& dir) {
    std::vector<std::string> names;
    if (!std::filesystem::exists(dir / "input") || !std::filesystem::exists(dir / "gt"))
        return names;
    for (const auto& e : std::filesystem::directory_iterator(dir / "input"))
        if (e.path().extension() == ".png") names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// `size`: the composite's size, the ground truth resized to it (bilinear); empty: as it is.
inline Composite makeComposite(const std::filesystem::path& dir,
                               const std::vector<std::string>& names, size_t k,
                               cv::Size size = cv::Size()) {
    Composite s;
    s.name = names[k].substr(0, names[k].size() - 4);
    s.alpha = cv::imread((dir / "gt" / names[k]).string(), cv::IMREAD_GRAYSCALE);
    if (!size.empty()) cv::resize(s.alpha, s.alpha, size, 0, 0, cv::INTER_LINEAR);
    cv::Mat f = cv::imread((dir / "input" / names[(k + 1) % names.size()]).string());
    cv::Mat b = cv::imread((dir / "input" / names[(k + 5) % names.size()]).string());
    cv::resize(f, f, s.alpha.size(), 0, 0, cv::INTER_LINEAR);
    cv::resize(b, b, s.alpha.size(), 0, 0, cv::INTER_LINEAR);
    s.fg = f;
    s.composite.create(s.alpha.size(), CV_8UC3);
    for (int y = 0; y < s.alpha.rows; ++y)
        for (int x = 0; x < s.alpha.cols; ++x) {
            const double a = s.alpha.at<uchar>(y, x) / 255.0;
            const cv::Vec3b fv = f.at<cv::Vec3b>(y, x), bv = b.at<cv::Vec3b>(y, x);
            cv::Vec3b& o = s.composite.at<cv::Vec3b>(y, x);
            for (int c = 0; c < 3; ++c)
                o[c] = cv::saturate_cast<uchar>(
                    std::lround(255.0 * (a * fv[c] / 255.0 + (1 - a) * bv[c] / 255.0)));
        }
    return s;
}

// Error of an estimate (3 or 4 bytes a pixel, colour bytes first) over 0 < a < 1; `inset`
// leaves out a frame of that many pixels.
inline double foregroundError(const cv::Mat& alpha, const cv::Mat& fg, const cv::Mat& est,
                              int inset = 0) {
    double e = 0;
    const int ch = est.channels();
    for (int y = inset; y < alpha.rows - inset; ++y)
        for (int x = inset; x < alpha.cols - inset; ++x) {
            const int av = alpha.at<uchar>(y, x);
            if (av == 0 || av == 255) continue;
            const uchar* p = est.ptr<uchar>(y) + ch * x;
            const cv::Vec3b f = fg.at<cv::Vec3b>(y, x);
            double d = 0;
            for (int c = 0; c < 3; ++c) d += std::abs(int(p[c]) - int(f[c])) / 255.0;
            e += av / 255.0 * d;
        }
    return e / 1000.0;
}

}  // namespace bench
