// Accuracy and speed of tri-map matting over the alpha-matting benchmark images (skipped when
// the data folder is absent), then on one image scaled up to about 6 and 12 megapixels, which
// take the reduced runs. Each case runs once: time, SAD and MSE over the undecided pixels (for the
// scaled image against the truth scaled with it, the SAD per pixel of the original), peak memory
// of the run, and the job's own budget estimate (1920 bytes an undecided pixel, 12 a pixel) for
// comparison.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "runtime/memory.h"
#include "runtime/stage_clock.h"
#include "solver/direct_solver.h"
#include "measurement.h"
#include "qxworkflow.h"

namespace fs = std::filesystem;

namespace {

struct Row {
    std::string name;
    int width = 0, height = 0, unknown = 0;
    double seconds = 0, cpuSeconds = 0, sad = 0, mse = 0, peakMB = 0, estimateMB = 0;
    qx::detail::DirectSolveTotals solver;  // the direct solves of the job
    qx::StageTotals stages;                // the job's stages
    bool accuracy = false;
    bool photo = false;  // one of the benchmark images at its own size: counted in the totals
};
std::vector<Row> rows;

Row runCase(const std::string& name, const cv::Mat& image, const cv::Mat& trimap,
            const cv::Mat* truth) {
    Row r;
    r.name = name;
    r.width = image.cols;
    r.height = image.rows;
    qx::detail::resetDirectSolveTotals();
    qx::resetStageTotals();
    // The box the workflow solves in, for the job's own budget estimate.
    int left = 0, boxWidth = 0, top = 0, boxHeight = 0, fgCount = 0, bgCount = 0;
    qxMaskBBox(0, trimap.data, static_cast<int>(trimap.step), image.cols, image.rows, &left,
               &boxWidth, &top, &boxHeight, &fgCount, &bgCount, 0, 255, 0);
    const QxwImage img{image.data, static_cast<int32_t>(image.step), 3, image.cols, image.rows,
                       QXW_BGR};
    cv::Mat alpha(image.size(), CV_8UC1);
    QxwJob job{};
    const qxmatte::Measurement run;
    const QxwStatus s = qxwMatteTrimap(&img, trimap.data, static_cast<int>(trimap.step), 255, 0,
                                       255, 0, alpha.data, static_cast<int>(alpha.step), &job);
    r.seconds = run.seconds();
    r.cpuSeconds = run.cpuSeconds();
    r.peakMB = run.peakAboveStartMB();
    r.solver = qx::detail::directSolveTotals();
    r.stages = qx::stageTotals();
    r.unknown = boxWidth * boxHeight - fgCount - bgCount;
    r.estimateMB = (1920.0 * r.unknown + 12.0 * boxWidth * boxHeight) / (1024.0 * 1024.0);
    if (s != QXW_OK) {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), job.message);
        return r;
    }
    if (const char* dir = std::getenv("QX_BENCH_SAVE_DIR"))  // results kept for comparisons
        cv::imwrite((fs::path(dir) / (name + ".png")).string(), alpha);
    if (truth) {
        const qxmatte::Accuracy a = qxmatte::measureAccuracy(alpha, *truth, trimap);
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
    r.photo = true;
    state.counters["SAD"] = r.sad;
    state.counters["MSE"] = r.mse;
    state.counters["peakMB"] = r.peakMB;
    rows.push_back(r);
}

void BM_Large(benchmark::State& state, std::string name, fs::path dir, double megapixels,
              double simulatedGB) {
    const cv::Mat image = cv::imread((dir / "input" / name).string(), cv::IMREAD_COLOR);
    const cv::Mat trimap = cv::imread((dir / "trimap" / name).string(), cv::IMREAD_GRAYSCALE);
    const cv::Mat truth = cv::imread((dir / "gt" / name).string(), cv::IMREAD_GRAYSCALE);
    if (image.empty() || trimap.empty() || truth.empty()) {
        state.SkipWithError("image files missing");
        return;
    }
    const double f = std::sqrt(megapixels * 1e6 / (image.cols * image.rows));
    const cv::Size size(cvRound(image.cols * f), cvRound(image.rows * f));
    cv::Mat bigImage, bigTrimap, bigTruth;
    cv::resize(image, bigImage, size, 0, 0, cv::INTER_CUBIC);
    cv::resize(trimap, bigTrimap, size, 0, 0, cv::INTER_NEAREST);
    // The truth scaled like the image; the SAD is then divided by the area's growth, so that it
    // reads per pixel of the original photo.
    cv::resize(truth, bigTruth, size, 0, 0, cv::INTER_LINEAR);
    if (simulatedGB > 0) {
        const uint64_t bytes = static_cast<uint64_t>(simulatedGB * 1e9);
        const qx::MemStatus s{bytes, bytes, bytes};
        qx::overrideMemStatus(&s);
    }
    char label[96];
    std::snprintf(label, sizeof label, "%s@%.0fMP%s", name.substr(0, name.size() - 4).c_str(),
                  megapixels, simulatedGB > 0 ? " (1.5 GB)" : "");
    Row r;
    for (auto _ : state) r = runCase(label, bigImage, bigTrimap, &bigTruth);
    qx::overrideMemStatus(nullptr);
    r.sad /= f * f;
    state.counters["peakMB"] = r.peakMB;
    rows.push_back(r);
}

void printReport() {
    if (rows.empty()) return;
    std::printf("\n%-22s %11s %8s %8s %7s %8s %8s %9s %10s | %8s %8s %8s %9s %5s\n", "case",
                "size", "unknown", "time s", "cpu s", "SAD", "MSE", "peak MB", "budget MB",
                "analyse", "factor", "solve", "solver MB", "fback");
    double total = 0, cpu = 0, sad = 0, mse = 0, analyse = 0, factor = 0, solve = 0;
    int n = 0;
    for (const Row& r : rows) {
        char size[32], sadText[16] = "-", mseText[16] = "-";
        std::snprintf(size, sizeof size, "%dx%d", r.width, r.height);
        if (r.accuracy) {
            std::snprintf(sadText, sizeof sadText, "%.2f", r.sad);
            std::snprintf(mseText, sizeof mseText, "%.2f", r.mse);
        }
        std::printf("%-22s %11s %8d %8.2f %7.2f %8s %8s %9.0f %10.0f | %8.3f %8.3f %8.3f %9.0f %5d\n",
                    r.name.c_str(), size, r.unknown, r.seconds, r.cpuSeconds, sadText, mseText,
                    r.peakMB,
                    r.estimateMB, r.solver.analysisSeconds, r.solver.factorSeconds,
                    r.solver.solveSeconds, double(r.solver.peakBytes) / (1024.0 * 1024.0),
                    r.solver.fallbacks);
        if (r.photo) {
            total += r.seconds;
            cpu += r.cpuSeconds;
            sad += r.sad;
            mse += r.mse;
            analyse += r.solver.analysisSeconds;
            factor += r.solver.factorSeconds;
            solve += r.solver.solveSeconds;
            ++n;
        }
    }
    if (n)
        std::printf("%-22s %11s %8s %8.2f %7.2f %8.2f %8.2f %9s %10s | %8.3f %8.3f %8.3f   (totals, "
                    "means over %d images)\n",
                    "benchmark images", "", "", total, cpu, sad / n, mse / n, "", "", analyse,
                    factor, solve, n);
}

// Where each job's time went: the stages of the tri-map job, the direct solve split into its
// phases, and the rest of the workflow (the box, the cut to it, the copies) as what is left.
void printStages() {
    if (rows.empty()) return;
    using qx::Stage;
    const Stage order[] = {Stage::Reduce, Stage::Maps, Stage::Laplacian, Stage::Windows,
                           Stage::Assembly, Stage::Output, Stage::Enlarge};
    std::printf("\nseconds by stage\n%-22s %8s", "case", "box etc");
    for (Stage s : order) std::printf(" %9s", qx::stageName(s));
    std::printf(" %9s %9s %9s %8s %8s\n", "analyse", "factor", "solve", "total", "peak MB");
    auto line = [&](const char* name, const Row& r, double scale) {
        double known = r.stages.seconds[int(Stage::Solver)];
        for (Stage s : order) known += r.stages.seconds[int(s)];
        std::printf("%-22s %8.3f", name, (r.seconds - known) * scale);
        for (Stage s : order) std::printf(" %9.3f", r.stages.seconds[int(s)] * scale);
        const double solverOther = r.stages.seconds[int(Stage::Solver)] -
                                   r.solver.analysisSeconds - r.solver.factorSeconds -
                                   r.solver.solveSeconds;
        // The solver stage's own copies and thread hand-over count with the solve phase.
        std::printf(" %9.3f %9.3f %9.3f %8.2f %8.0f\n", r.solver.analysisSeconds * scale,
                    r.solver.factorSeconds * scale,
                    (r.solver.solveSeconds + solverOther) * scale, r.seconds * scale, r.peakMB);
    };
    Row sum;
    int n = 0;
    for (const Row& r : rows) {
        line(r.name.c_str(), r, 1.0);
        if (!r.photo) continue;
        ++n;
        sum.seconds += r.seconds;
        sum.peakMB = std::max(sum.peakMB, r.peakMB);
        sum.solver.analysisSeconds += r.solver.analysisSeconds;
        sum.solver.factorSeconds += r.solver.factorSeconds;
        sum.solver.solveSeconds += r.solver.solveSeconds;
        for (int i = 0; i < int(Stage::Count); ++i) sum.stages.seconds[i] += r.stages.seconds[i];
    }
    if (n) line("benchmark images (sum)", sum, 1.0);
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
    printStages();
    return 0;
}
