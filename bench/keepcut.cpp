// Keep-cut matting, accuracy and scale, one run per case.
//
// Accuracy: the alpha-matting benchmark images (skipped when the data folder is absent) with
// strokes made from their tri-maps (keep where definite foreground, cut where definite
// background, the rest unpainted), through both KD-tree engines, and the same images through
// tri-map matting in the same run: time, SAD and MSE over the tri-map's undecided pixels.
//
// Scale: the synthetic scene of the demo at 6, 12 and 24 megapixels, painted as a host's
// edge-band tool leaves it, through both engines: time, peak resident memory, the library's
// budget, SAD against the known alpha. Then sparse scribbles at 1 and 6 megapixels, which may
// leave an area too large for one solve (status -1).
//
//   bench_keepcut [--accuracy-only | --scale-only] [--max-mp N]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "demo_scene.h"
#include "frame/memory.h"
#include "keepcut.h"
#include "peak_memory.h"
#include "workflow.h"

namespace fs = std::filesystem;

namespace {

struct Run {
    double seconds = 0, sad = 0, mse = 0, peakMB = 0;
    int status = 0;
};

double since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Strokes from a tri-map: the definite codes become keep and cut, the rest unpainted.
cv::Mat strokesFromTrimap(const cv::Mat& trimap) {
    cv::Mat s(trimap.size(), CV_8UC1, cv::Scalar(128));
    s.setTo(cv::Scalar(qxmatte::kKeepStroke), trimap == 255);
    s.setTo(cv::Scalar(qxmatte::kCutStroke), trimap == 0);
    return s;
}

Run runKeepCut(const cv::Mat& image, const cv::Mat& strokes, bool hiRes, const cv::Mat& truth,
               const cv::Mat& region) {
    Run r;
    qxmatte::KeepCutOptions opt;
    opt.hiRes = hiRes;
    qxmatte::resetPeakResident();
    const double base = qxmatte::residentMB();
    const auto t0 = std::chrono::steady_clock::now();
    const qxmatte::KeepCutResult k = qxmatte::matteWithStrokes(image, strokes, opt);
    r.seconds = since(t0);
    r.peakMB = qxmatte::peakResidentMB() - base;
    r.status = k.status;
    if (k.ok) {
        const qxmatte::Accuracy a = qxmatte::measureAccuracy(k.alpha, truth, region);
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
    std::printf("%-6s %24s %24s %24s\n", "image", "tri-map (qxMaskAlpha)", "keep-cut hi-res",
                "keep-cut pyramid");
    Run sum[3];
    int n = 0;
    for (const auto& name : names) {
        const cv::Mat image = cv::imread((dir / "input" / name).string(), cv::IMREAD_COLOR);
        const cv::Mat trimap = cv::imread((dir / "trimap" / name).string(), cv::IMREAD_GRAYSCALE);
        const cv::Mat truth = cv::imread((dir / "gt" / name).string(), cv::IMREAD_GRAYSCALE);
        if (image.empty() || trimap.empty() || truth.empty()) continue;
        Run runs[3];
        {
            const auto t0 = std::chrono::steady_clock::now();
            const qxmatte::MatteResult m = qxmatte::matteWithTrimap(image, trimap, {});
            runs[0].seconds = since(t0);
            if (m.ok) {
                const qxmatte::Accuracy a = qxmatte::measureAccuracy(m.alpha, truth, trimap);
                runs[0].sad = a.sad;
                runs[0].mse = a.mse;
            }
        }
        const cv::Mat strokes = strokesFromTrimap(trimap);
        runs[1] = runKeepCut(image, strokes, true, truth, trimap);
        runs[2] = runKeepCut(image, strokes, false, truth, trimap);
        std::printf("%-6s", name.substr(0, name.size() - 4).c_str());
        for (int k = 0; k < 3; ++k) {
            if (k > 0 && runs[k].status != 1)
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
    for (int k = 0; k < 3; ++k)
        std::printf(" %8.2f %7.2f %7.2f", sum[k].seconds, sum[k].sad / n, sum[k].mse / n);
    std::printf("   (total time, mean SAD, mean MSE)\n");
}

void scaleReport(double maxMegapixels) {
    std::printf("\nKeep-cut at scale: the synthetic scene (budget %.0f MB)\n",
                qx::usableMemInMB() / 1000.0);
    std::printf("%-10s %-9s %-8s %8s %10s %8s %8s %7s\n", "strokes", "size", "engine", "time s",
                "peak MB", "SAD", "MSE", "status");
    struct Case {
        const char* strokes;
        double mp;
    };
    const Case cases[] = {{"edge band", 6}, {"edge band", 12}, {"edge band", 24},
                          {"scribbles", 1}, {"scribbles", 6}};
    for (const Case& c : cases) {
        if (c.mp > maxMegapixels) continue;
        const int width = static_cast<int>(std::lround(std::sqrt(c.mp * 1e6 * 4 / 3)));
        const int height = width * 3 / 4;
        cv::Mat strokes;
        cv::Mat image, truth;
        {
            qxmatte::DemoScene scene = qxmatte::makeDemoScene(width, height);
            image = scene.image;
            truth = scene.truth;
            strokes = std::strcmp(c.strokes, "edge band") == 0
                          ? qxmatte::edgeBandStrokes(truth)
                          : qxmatte::scribbleStrokes(truth);
        }
        for (bool hiRes : {true, false}) {
            const Run r = runKeepCut(image, strokes, hiRes, truth, strokes);
            char size[32];
            std::snprintf(size, sizeof size, "%dx%d", width, height);
            std::printf("%-10s %-9s %-8s %8.2f %10.0f %8.2f %8.2f %7d\n", c.strokes, size,
                        hiRes ? "hi-res" : "pyramid", r.seconds, r.peakMB, r.sad, r.mse,
                        r.status);
            std::fflush(stdout);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    bool accuracy = true, scale = true;
    double maxMegapixels = 24;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--accuracy-only")) scale = false;
        else if (!std::strcmp(argv[i], "--scale-only")) accuracy = false;
        else if (!std::strcmp(argv[i], "--max-mp") && i + 1 < argc) maxMegapixels = std::atof(argv[++i]);
    }
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (accuracy) {
        if (fs::exists(dir / "input"))
            accuracyReport(dir);
        else
            std::printf("keep-cut accuracy: %s is absent, skipped\n", dir.c_str());
    }
    if (scale) scaleReport(maxMegapixels);
    return 0;
}
