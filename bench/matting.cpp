// Accuracy and speed of tri-map matting over the alpha-matting benchmark images (skipped when
// the data folder is absent), then on one image scaled up to about 6 and 12 megapixels, which
// take the reduced runs. Each case runs once: time, SAD and MSE over the undecided pixels, peak
// memory of the run, and the job's own budget estimate (1920 bytes an undecided pixel, 12 a
// pixel) for comparison.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "frame/memory.h"
#include "workflow.h"

namespace fs = std::filesystem;

namespace {

struct Row {
    std::string name;
    int width = 0, height = 0, unknown = 0;
    double seconds = 0, sad = 0, mse = 0, peakMB = 0, estimateMB = 0;
    bool accuracy = false;
};
std::vector<Row> rows;

// Peak resident memory since the last reset, in MB; the reset makes each case its own.
void resetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}
double statusMB(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string k;
    long kb = 0;
    std::string unit;
    while (in >> k) {
        if (k == key) {
            in >> kb;
            return kb / 1024.0;
        }
        std::getline(in, unit);
    }
    return 0;
}

Row runCase(const std::string& name, const cv::Mat& image, const cv::Mat& trimap,
            const cv::Mat* truth) {
    Row r;
    r.name = name;
    r.width = image.cols;
    r.height = image.rows;
    // Heap that earlier cases freed but the allocator kept would hide this case's growth.
    malloc_trim(0);
    const double before = statusMB("VmRSS:");
    resetPeak();
    const auto t0 = std::chrono::steady_clock::now();
    const qxmatte::MatteResult m = qxmatte::matteWithTrimap(image, trimap, {});
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    r.peakMB = statusMB("VmHWM:") - before;
    r.unknown = m.unknownPixels;
    r.estimateMB = (1920.0 * m.unknownPixels + 12.0 * m.boxWidth * m.boxHeight) / (1024.0 * 1024.0);
    if (!m.ok) {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), m.error.c_str());
        return r;
    }
    if (truth) {
        const qxmatte::Accuracy a = qxmatte::measureAccuracy(m.alpha, *truth, trimap);
        r.sad = a.sad;
        r.mse = a.mse;
        r.accuracy = true;
    }
    return r;
}

void BM_Image(benchmark::State& state, std::string name, fs::path dir) {
    const cv::Mat image = cv::imread((dir / "input" / name).string(), cv::IMREAD_COLOR);
    const cv::Mat trimap = cv::imread((dir / "trimap" / name).string(), cv::IMREAD_GRAYSCALE);
    const cv::Mat truth = cv::imread((dir / "gt" / name).string(), cv::IMREAD_GRAYSCALE);
    if (image.empty() || trimap.empty() || truth.empty()) {
        state.SkipWithError("image files missing");
        return;
    }
    Row r;
    for (auto _ : state) r = runCase(name.substr(0, name.size() - 4), image, trimap, &truth);
    state.counters["SAD"] = r.sad;
    state.counters["MSE"] = r.mse;
    state.counters["peakMB"] = r.peakMB;
    rows.push_back(r);
}

void BM_Large(benchmark::State& state, std::string name, fs::path dir, double megapixels,
              double simulatedGB) {
    const cv::Mat image = cv::imread((dir / "input" / name).string(), cv::IMREAD_COLOR);
    const cv::Mat trimap = cv::imread((dir / "trimap" / name).string(), cv::IMREAD_GRAYSCALE);
    if (image.empty() || trimap.empty()) {
        state.SkipWithError("image files missing");
        return;
    }
    const double f = std::sqrt(megapixels * 1e6 / (image.cols * image.rows));
    const cv::Size size(cvRound(image.cols * f), cvRound(image.rows * f));
    cv::Mat bigImage, bigTrimap;
    cv::resize(image, bigImage, size, 0, 0, cv::INTER_CUBIC);
    cv::resize(trimap, bigTrimap, size, 0, 0, cv::INTER_NEAREST);
    if (simulatedGB > 0) {
        const uint64_t bytes = static_cast<uint64_t>(simulatedGB * 1e9);
        const qx::MemStatus s{bytes, bytes, bytes};
        qx::overrideMemStatus(&s);
    }
    char label[96];
    std::snprintf(label, sizeof label, "%s@%.0fMP%s", name.substr(0, name.size() - 4).c_str(),
                  megapixels, simulatedGB > 0 ? " (1.5 GB)" : "");
    Row r;
    for (auto _ : state) r = runCase(label, bigImage, bigTrimap, nullptr);
    qx::overrideMemStatus(nullptr);
    state.counters["peakMB"] = r.peakMB;
    rows.push_back(r);
}

void printReport() {
    if (rows.empty()) return;
    std::printf("\n%-22s %11s %8s %8s %8s %8s %9s %10s\n", "case", "size", "unknown", "time s",
                "SAD", "MSE", "peak MB", "budget MB");
    double total = 0, sad = 0, mse = 0;
    int n = 0;
    for (const Row& r : rows) {
        char size[32];
        std::snprintf(size, sizeof size, "%dx%d", r.width, r.height);
        if (r.accuracy)
            std::printf("%-22s %11s %8d %8.2f %8.2f %8.2f %9.0f %10.0f\n", r.name.c_str(), size,
                        r.unknown, r.seconds, r.sad, r.mse, r.peakMB, r.estimateMB);
        else
            std::printf("%-22s %11s %8d %8.2f %8s %8s %9.0f %10.0f\n", r.name.c_str(), size,
                        r.unknown, r.seconds, "-", "-", r.peakMB, r.estimateMB);
        if (r.accuracy) {
            total += r.seconds;
            sad += r.sad;
            mse += r.mse;
            ++n;
        }
    }
    if (n)
        std::printf("%-22s %11s %8s %8.2f %8.2f %8.2f   (total time, mean SAD, mean MSE over %d images)\n",
                    "benchmark images", "", "", total, sad / n, mse / n, n);
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (!fs::exists(dir / "input")) {
        std::printf("matting benchmark: %s is absent, nothing to measure\n", dir.c_str());
        return 0;
    }
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir / "input"))
        if (e.path().extension() == ".png") names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    for (const auto& name : names)
        benchmark::RegisterBenchmark(("matting/" + name).c_str(), BM_Image, name, dir)
            ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    if (!names.empty()) {
        const std::string large = names.size() > 3 ? names[3] : names[0];
        for (double mp : {6.0, 12.0})
            benchmark::RegisterBenchmark(("large/" + std::to_string(int(mp)) + "MP").c_str(),
                                         BM_Large, large, dir, mp, 0.0)
                ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
        benchmark::RegisterBenchmark("large/12MP-1.5GB", BM_Large, large, dir, 12.0, 1.5)
            ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printReport();
    return 0;
}
