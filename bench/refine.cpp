// Refining coarse masks (skipped when the data folder is absent). For each photo the coarse
// mask is what a segmentation model leaves: the ground truth thresholded at 128, opened and
// closed with a 9-pixel disc, blurred with sigma 3. SAD over all pixels (in thousands) of:
// the coarse mask itself, a fixed band of 10 pixels along its 128 edge solved by the tri-map
// workflow, and qxwRefineMask; with the ratios to the coarse mask's own SAD and the time.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "composites.h"
#include "qxworkflow.h"

namespace fs = std::filesystem;

namespace {

double sadAll(const cv::Mat& a, const cv::Mat& gt) {
    cv::Mat d;
    cv::absdiff(a, gt, d);
    return cv::sum(d)[0] / 255.0 / 1000.0;
}

cv::Mat coarseMask(const cv::Mat& gt) {
    const cv::Mat disc = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(9, 9));
    cv::Mat m = gt >= 128;
    cv::morphologyEx(m, m, cv::MORPH_OPEN, disc);
    cv::morphologyEx(m, m, cv::MORPH_CLOSE, disc);
    cv::GaussianBlur(m, m, cv::Size(), 3.0);
    return m;
}

QxwImage view(const cv::Mat& bgr) { return {bgr.data, int(bgr.step), 3, bgr.cols, bgr.rows, QXW_BGR}; }

cv::Mat fixedBand(const cv::Mat& bgr, const cv::Mat& mask) {
    const cv::Mat hard = mask >= 128, k = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(11, 11));
    cv::Mat in, out;
    cv::erode(hard, in, k);
    cv::dilate(hard, out, k);
    cv::Mat tri(mask.size(), CV_8UC1, cv::Scalar(128));
    tri.setTo(255, in);
    tri.setTo(0, ~out);
    cv::Mat alpha(mask.size(), CV_8UC1);
    const QxwImage img = view(bgr);
    QxwJob job{};
    if (qxwMatteTrimap(&img, tri.data, int(tri.step), 255, 0, 255, 0, alpha.data, int(alpha.step),
                       &job) != QXW_OK)
        std::fprintf(stderr, "fixed band: %s\n", job.message);
    return alpha;
}

}  // namespace

int main() {
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    const std::vector<std::string> names = bench::photoNames(dir);
    if (names.empty()) {
        std::printf("refine benchmark: %s is absent, nothing to measure\n", dir.c_str());
        return 0;
    }
    std::printf("SAD over all pixels (thousands): coarse mask, fixed 10-pixel band, refine\n");
    double sum[3] = {0, 0, 0}, seconds = 0;
    for (const std::string& name : names) {
        const cv::Mat bgr = cv::imread((dir / "input" / name).string(), cv::IMREAD_COLOR);
        const cv::Mat gt = cv::imread((dir / "gt" / name).string(), cv::IMREAD_GRAYSCALE);
        const cv::Mat mask = coarseMask(gt);
        cv::Mat alpha(gt.size(), CV_8UC1);
        const QxwImage img = view(bgr);
        QxwJob job{};
        const auto t0 = std::chrono::steady_clock::now();
        if (qxwRefineMask(&img, mask.data, int(mask.step), alpha.data, int(alpha.step), nullptr,
                          &job) != QXW_OK)
            std::fprintf(stderr, "%s: %s\n", name.c_str(), job.message);
        const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        seconds += t;
        const double e[3] = {sadAll(mask, gt), sadAll(fixedBand(bgr, mask), gt), sadAll(alpha, gt)};
        for (int i = 0; i < 3; ++i) sum[i] += e[i];
        std::printf("%-5s %7.2f %7.2f %7.2f  (%.2f s)\n", name.substr(0, 4).c_str(), e[0], e[1],
                    e[2], t);
    }
    const double n = double(names.size());
    std::printf("mean  %7.2f %7.2f %7.2f  ratios to the coarse mask: fixed %.3f, refine %.3f; "
                "refine %.1f s in all\n",
                sum[0] / n, sum[1] / n, sum[2] / n, sum[1] / sum[0], sum[2] / sum[0], seconds);
    return 0;
}
