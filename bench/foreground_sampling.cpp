// Foreground colour by shared-sample separation on composites with a known foreground (skipped
// when the data folder is absent). For benchmark image k, with a its ground-truth alpha: F is
// image (k + 1) mod 10 and B image (k + 5) mod 10, both resized bilinearly to a's size; the
// composite a F + (1 - a) B is rounded to 8 bits; F is recovered from it and a. Error: over
// the pixels with 0 < a < 1, the sum of a (|dR| + |dG| + |dB|) on the 0..1 scale, in
// thousands. The naive answer F' = I is reported beside it as a check of the composites.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "foreground/shared_sample.h"

namespace fs = std::filesystem;

namespace {

struct Case {
    cv::Mat image, alpha, truth;  // composite, ground-truth alpha, true foreground
};

struct Row {
    std::string name;
    int unknown = 0;
    double seconds = 0, error = 0, naive = 0;
};
std::vector<Row> rows;

Case makeCase(const fs::path& dir, const std::vector<std::string>& names, size_t k) {
    Case c;
    c.alpha = cv::imread((dir / "gt" / names[k]).string(), cv::IMREAD_GRAYSCALE);
    const cv::Mat f = cv::imread((dir / "input" / names[(k + 1) % names.size()]).string());
    const cv::Mat b = cv::imread((dir / "input" / names[(k + 5) % names.size()]).string());
    if (c.alpha.empty() || f.empty() || b.empty()) return c;
    cv::Mat fr, br;
    cv::resize(f, fr, c.alpha.size(), 0, 0, cv::INTER_LINEAR);
    cv::resize(b, br, c.alpha.size(), 0, 0, cv::INTER_LINEAR);
    fr.convertTo(c.truth, CV_32FC3, 1.0 / 255);
    c.image.create(c.alpha.size(), CV_8UC3);
    for (int y = 0; y < c.alpha.rows; ++y)
        for (int x = 0; x < c.alpha.cols; ++x) {
            const float a = c.alpha.at<uint8_t>(y, x) / 255.0f;
            const cv::Vec3f fv = c.truth.at<cv::Vec3f>(y, x);
            const cv::Vec3b bv = br.at<cv::Vec3b>(y, x);
            for (int ch = 0; ch < 3; ++ch)
                c.image.at<cv::Vec3b>(y, x)[ch] =
                    cv::saturate_cast<uint8_t>((a * fv[ch] + (1 - a) * bv[ch] / 255.0f) * 255);
        }
    return c;
}

// The alpha-weighted colour error over the partly transparent pixels, in thousands.
double foregroundError(const cv::Mat& estimate, const Case& c, int* unknown) {
    double sum = 0;
    int n = 0;
    for (int y = 0; y < c.alpha.rows; ++y)
        for (int x = 0; x < c.alpha.cols; ++x) {
            const uint8_t a8 = c.alpha.at<uint8_t>(y, x);
            if (a8 == 0 || a8 == 255) continue;
            const cv::Vec3b e = estimate.at<cv::Vec3b>(y, x);
            const cv::Vec3f t = c.truth.at<cv::Vec3f>(y, x);
            double d = 0;
            for (int ch = 0; ch < 3; ++ch) d += std::abs(e[ch] / 255.0 - t[ch]);
            sum += a8 / 255.0 * d;
            ++n;
        }
    if (unknown) *unknown = n;
    return sum / 1000;
}

void BM_Sampling(benchmark::State& state, fs::path dir, std::vector<std::string> names, size_t k) {
    const Case c = makeCase(dir, names, k);
    if (c.image.empty()) {
        state.SkipWithError("image files missing");
        return;
    }
    cv::Mat out(c.image.size(), CV_8UC3);
    for (auto _ : state) {
        qx::recoverForegroundBySampling(c.image.data, static_cast<int>(c.image.step), 3,
                                        c.image.cols, c.image.rows, c.alpha.data,
                                        static_cast<int>(c.alpha.step), out.data,
                                        static_cast<int>(out.step));
    }
    Row r;
    r.name = names[k].substr(0, names[k].size() - 4);
    r.error = foregroundError(out, c, &r.unknown);
    r.naive = foregroundError(c.image, c, nullptr);
    state.counters["error"] = r.error;
    state.counters["naive"] = r.naive;
    rows.push_back(r);
}

// Takes each case's measured time for the table printed after the run.
class TableReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            for (Row& r : rows)
                if (run.benchmark_name().find(r.name) != std::string::npos)
                    r.seconds = run.GetAdjustedRealTime() / 1000.0;  // reported in ms
        ConsoleReporter::ReportRuns(runs);
    }
};

void printTable() {
    if (rows.empty()) return;
    std::printf("\n%-6s %9s %9s %10s %10s\n", "image", "unknown", "time s", "error", "naive F'=I");
    double t = 0, e = 0, nv = 0;
    for (const Row& r : rows) {
        std::printf("%-6s %9d %9.2f %10.2f %10.2f\n", r.name.c_str(), r.unknown, r.seconds,
                    r.error, r.naive);
        t += r.seconds;
        e += r.error;
        nv += r.naive;
    }
    const double n = static_cast<double>(rows.size());
    std::printf("%-6s %9s %9.2f %10.2f %10.2f   (total time, mean errors)\n", "all", "", t, e / n,
                nv / n);
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (!fs::exists(dir / "input") || !fs::exists(dir / "gt")) {
        std::printf("foreground benchmark: %s is absent, nothing to measure\n", dir.c_str());
        return 0;
    }
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir / "input"))
        if (e.path().extension() == ".png") names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    for (size_t k = 0; k < names.size(); ++k)
        benchmark::RegisterBenchmark(("sampling/" + names[k]).c_str(), BM_Sampling, dir, names, k)
            ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::Initialize(&argc, argv);
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    printTable();
    return 0;
}
