// Keep-cut matting, accuracy and scale, one run per case.
//
// Accuracy: the alpha-matting benchmark images (skipped when the data folder is absent) with
// strokes made from their tri-maps (keep where definite foreground, cut where definite
// background, the rest unpainted), through the three stroke engines of qxwMatteStrokes, and the
// same images through tri-map matting (qxwMatteTrimap) in the same run: time, SAD and MSE over
// the tri-map's undecided pixels.
//
// The scale table (the synthetic scene at 6 to 24 megapixels, leaf counts) is bench_kdtree's.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "measurement.h"
#include "qxworkflow.h"

namespace fs = std::filesystem;

namespace {

struct Run {
    double seconds = 0, sad = 0, mse = 0, peakMB = 0;
    int status = 0;
};

// Strokes from a tri-map: the definite codes become keep and cut, the rest unpainted.
cv::Mat strokesFromTrimap(const cv::Mat& trimap) {
    cv::Mat s(trimap.size(), CV_8UC1, cv::Scalar(128));
    s.setTo(cv::Scalar(QXW_KEEP), trimap == 255);
    s.setTo(cv::Scalar(QXW_CUT), trimap == 0);
    return s;
}

QxwImage imageOf(const cv::Mat& bgr) {
    return {bgr.data, static_cast<int32_t>(bgr.step), 3, bgr.cols, bgr.rows, QXW_BGR};
}

// engine < 0: tri-map matting of `input` (then a tri-map); otherwise strokes with that engine.
Run runCase(const cv::Mat& image, const cv::Mat& input, int engine, const cv::Mat& truth,
            const cv::Mat& region) {
    Run r;
    const QxwImage img = imageOf(image);
    cv::Mat alpha(image.size(), CV_8UC1);
    QxwJob job{};
    const qxmatte::Measurement run;
    const QxwStatus s =
        engine < 0 ? qxwMatteTrimap(&img, input.data, static_cast<int>(input.step), 255, 0, 255,
                                    0, alpha.data, static_cast<int>(alpha.step), &job)
                   : qxwMatteStrokes(&img, input.data, static_cast<int>(input.step),
                                     static_cast<QxwStrokeEngine>(engine), alpha.data,
                                     static_cast<int>(alpha.step), &job);
    r.seconds = run.seconds();
    r.peakMB = run.peakAboveStartMB();
    r.status = s == QXW_OK ? 1 : job.libraryStatus ? job.libraryStatus : -int(s);
    if (s == QXW_OK) {
        const qxmatte::Accuracy a = qxmatte::measureAccuracy(alpha, truth, region);
        r.sad = a.sad;
        r.mse = a.mse;
    }
    return r;
}

void accuracyReport(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir / "input"))
        if (e.path().extension() == ".png") names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    std::printf("\nKeep-cut accuracy: strokes from the tri-maps (time s / SAD / MSE)\n");
    std::printf("%-6s %24s %24s %24s %24s\n", "image", "tri-map", "strokes engine",
                "kdtree engine", "pyramid engine");
    constexpr int kCols = 4;
    Run sum[kCols];
    int n = 0;
    for (const auto& name : names) {
        const cv::Mat image = cv::imread((dir / "input" / name).string(), cv::IMREAD_COLOR);
        const cv::Mat trimap = cv::imread((dir / "trimap" / name).string(), cv::IMREAD_GRAYSCALE);
        const cv::Mat truth = cv::imread((dir / "gt" / name).string(), cv::IMREAD_GRAYSCALE);
        if (image.empty() || trimap.empty() || truth.empty()) continue;
        Run runs[kCols];
        runs[0] = runCase(image, trimap, -1, truth, trimap);
        const cv::Mat strokes = strokesFromTrimap(trimap);
        runs[1] = runCase(image, strokes, QXW_ENGINE_STROKES, truth, trimap);
        runs[2] = runCase(image, strokes, QXW_ENGINE_KDTREE, truth, trimap);
        runs[3] = runCase(image, strokes, QXW_ENGINE_PYRAMID, truth, trimap);
        std::printf("%-6s", name.substr(0, name.size() - 4).c_str());
        for (int k = 0; k < kCols; ++k) {
            if (runs[k].status != 1)
                std::printf(" %17s %6d", "status", runs[k].status);
            else
                std::printf(" %8.2f %7.2f %7.2f", runs[k].seconds, runs[k].sad, runs[k].mse);
            sum[k].seconds += runs[k].seconds;
            sum[k].sad += runs[k].sad;
            sum[k].mse += runs[k].mse;
        }
        std::printf("\n");
        std::fflush(stdout);
        ++n;
    }
    if (!n) return;
    std::printf("%-6s", "total");
    for (int k = 0; k < kCols; ++k)
        std::printf(" %8.2f %7.2f %7.2f", sum[k].seconds, sum[k].sad / n, sum[k].mse / n);
    std::printf("   (total time, mean SAD, mean MSE)\n");
}

}  // namespace

int main() {
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (fs::exists(dir / "input"))
        accuracyReport(dir);
    else
        std::printf("keep-cut accuracy: %s is absent, nothing to measure\n", dir.c_str());
    return 0;
}
