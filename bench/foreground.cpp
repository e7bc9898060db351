// Foreground colour recovery on composites with a known foreground (skipped when the data folder
// is absent). For image k of the alpha-matting set, with a its ground-truth alpha, F is image
// (k + 1) mod 10 and B image (k + 5) mod 10, both resized (bilinear) to a's size, and the
// composite I = a*F + (1 - a)*B is rounded to 8 bits. Each entry recovers F from I and a; the
// error is the sum over 0 < a < 1 of a * (|dR| + |dG| + |dB|) on the 0..1 scale, / 1000.
//
// Runs: qxRecoverForeground (no edge blend), qxRecoverForegroundCell with regionMode 0 and with
// regionMode 1, and the naive F' = I. dstImage starts as the composite, as a host showing the
// image would have it. The direct solves inside qxRecoverForeground are counted and timed by
// phase (the solver's totals). Then a breakdown of where the error of qxRecoverForeground comes
// from:
//   - frame: the error inside the region less its 3-pixel frame (the frame keeps I);
//   - scale: the true F taken down by 0.25 and back (cubic), the kept-source rule applied: the
//     best any quarter-scale result can do, without and with the detail term;
//   - window: what the cell-wise entry's window leaves with a perfect recovery;
//   - solve: the least-squares solve on the whole image as one cell at 1/4 (what the entry
//     solves, without the detail term and the frame), and with QX_FG_BREAKDOWN set also at 1/2
//     and at full resolution: the error of the solve itself.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "composites.h"
#include "foreground/fb_solve.h"
#include "foreground/recovery.h"
#include "runtime/fault.h"
#include "image/img.h"
#include "solver/direct_solver.h"
#include "qxiveilon31.h"

namespace fs = std::filesystem;

namespace {

struct Row {
    std::string name;
    double naive = 0;
    double t[3] = {0, 0, 0}, e[3] = {0, 0, 0};
    double inner = 0, scaleOnly = 0, scaleDetail = 0, solveFull = 0, solveHalf = 0, solveQuarter = 0;
    double windowFloor = 0;
    qx::detail::DirectSolveTotals solver;  // the direct solves inside qxRecoverForeground
};

// The composites of composites.h, the composite with a fourth byte as the recovery takes it.
struct Scene : bench::Composite {};
std::vector<Row> rows;
std::vector<std::string> names;
fs::path dir;

Scene makeScene(size_t k) {
    Scene s{bench::makeComposite(dir, names, k)};
    cv::cvtColor(s.composite, s.composite, cv::COLOR_BGR2BGRA);
    return s;
}

double fgError(const Scene& s, const cv::Mat& est, int inset = 0) {
    return bench::foregroundError(s.alpha, s.fg, est, inset);
}

KeepCutRequest requestFor(const Scene& s, cv::Mat& dst, cv::Mat& alpha) {
    KeepCutRequest r{};
    r.srcImage = const_cast<uchar*>(s.composite.data);
    r.srcStep = int(s.composite.step);
    r.alphaPlane = alpha.data;
    r.alphaStep = int(alpha.step);
    r.dstImage = dst.data;
    r.dstStep = int(dst.step);
    r.auxPlane = alpha.data;
    r.auxStep = int(alpha.step);
    r.fullWidth = r.roiWidth = s.alpha.cols;
    r.fullHeight = r.roiHeight = s.alpha.rows;
    return r;
}

// The detail term and kept-source rule on a full-size estimate, as the recovery applies them.
void detailAndKeep(const Scene& s, cv::Mat& est, bool detail) {
    const cv::Size full = s.alpha.size(), quarter(full.width / 4, full.height / 4);
    cv::Mat g, small, back;
    cv::extractChannel(s.composite, g, 1);
    cv::resize(g, small, quarter, 0, 0, cv::INTER_CUBIC);
    cv::resize(small, back, full, 0, 0, cv::INTER_CUBIC);
    for (int y = 0; y < full.height; ++y)
        for (int x = 0; x < full.width; ++x) {
            const int a = s.alpha.at<uchar>(y, x);
            uchar* p = est.ptr<uchar>(y) + 4 * x;
            if (detail && a >= 11 && a <= 249) {
                const int d = int(g.at<uchar>(y, x)) - int(back.at<uchar>(y, x));
                for (int c = 0; c < 3; ++c)
                    p[c] = cv::saturate_cast<uchar>(int(double(p[c]) + 0.618 * d));
            }
            if (a >= 251 || a <= 4) std::memcpy(p, s.composite.ptr<uchar>(y) + 4 * x, 4);
        }
}

// The least-squares solve alone over the whole image taken down by `factor` (one cell), brought
// back with cubic interpolation, kept-source rule applied.
double solveOnly(const Scene& s, double factor) {
    cv::Mat img = s.composite, a = s.alpha;
    if (factor != 1.0) {
        // Sizes as the entry takes them (truncated); both images resized by size, so that
        // colours and alpha stay registered.
        const cv::Size reduced(int(s.alpha.cols * factor), int(s.alpha.rows * factor));
        cv::resize(s.composite, img, reduced, 0, 0, cv::INTER_CUBIC);
        cv::resize(s.alpha, a, img.size(), 0, 0, cv::INTER_CUBIC);
    }
    std::vector<cv::Mat> ch;
    cv::split(img, ch);
    qx::IMG<unsigned char, 1> p0(img.cols, img.rows, ch[0].data, int(ch[0].step));
    qx::IMG<unsigned char, 1> p1(img.cols, img.rows, ch[1].data, int(ch[1].step));
    qx::IMG<unsigned char, 1> p2(img.cols, img.rows, ch[2].data, int(ch[2].step));
    qx::IMG<unsigned char, 1> av(a.cols, a.rows, a.data, int(a.step));
    qx::IMG<unsigned char, 1>* const planes[3] = {&p0, &p1, &p2};
    void* unused[9] = {};
    try {
        qx::solveForegroundBackground(unused, planes, 0, av);
    } catch (const qx::Failure& f) {
        return -f.value();
    }
    cv::Mat est;
    cv::merge(ch, est);
    if (factor != 1.0) cv::resize(est, est, s.alpha.size(), 0, 0, cv::INTER_CUBIC);
    detailAndKeep(s, est, false);
    return fgError(s, est);
}

// What the cell-wise entry's window leaves even with a perfect recovery: the true foreground laid
// over the composite through the window, trunc(F * r + (1 - r) * I).
double windowFloor(const Scene& s) {
    const int w = s.alpha.cols, h = s.alpha.rows;
    const std::vector<float> r = qx::featherWindow(w, h);
    cv::Mat est = s.composite.clone();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float rv = r[size_t(y) * w + x];
            const cv::Vec3b f = s.fg.at<cv::Vec3b>(y, x);
            uchar* p = est.ptr<uchar>(y) + 4 * x;
            for (int c = 0; c < 3; ++c) {
                const float v = float(f[c]) * rv + (1.0f - rv) * float(p[c]);
                p[c] = v <= 0.0f ? 0 : (v >= 255.0f ? 255 : uchar(int(v)));
            }
        }
    return fgError(s, est);
}

void BM_Scene(benchmark::State& state, size_t k) {
    for (auto _ : state) {
        const Scene s = makeScene(k);
        Row r;
        r.name = s.name;
        r.naive = fgError(s, s.composite);
        for (int m = 0; m < 3; ++m) {
            cv::Mat dst = s.composite.clone(), alpha = s.alpha.clone();
            KeepCutRequest req = requestFor(s, dst, alpha);
            req.regionMode = m == 2 ? 1 : 0;
            qx::detail::resetDirectSolveTotals();
            const auto t0 = std::chrono::steady_clock::now();
            const int64_t st = m == 0 ? qxRecoverForeground(&req, 0)
                                      : qxRecoverForegroundCell(&req, req.regionMode != 0);
            r.t[m] = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            if (st != (m == 0 ? 0 : 1))
                std::fprintf(stderr, "%s: status %lld\n", r.name.c_str(), (long long)st);
            r.e[m] = fgError(s, dst);
            if (m == 0) {
                r.solver = qx::detail::directSolveTotals();
                r.inner = fgError(s, dst, 3);
            }
        }
        // The quarter-scale ceiling: the true foreground down by 4 and back.
        cv::Mat f4, small, est;
        cv::cvtColor(s.fg, f4, cv::COLOR_BGR2BGRA);
        cv::resize(f4, small, cv::Size(f4.cols / 4, f4.rows / 4), 0, 0, cv::INTER_CUBIC);
        cv::resize(small, est, f4.size(), 0, 0, cv::INTER_CUBIC);
        cv::Mat est2 = est.clone();
        detailAndKeep(s, est, false);
        r.scaleOnly = fgError(s, est);
        detailAndKeep(s, est2, true);
        r.scaleDetail = fgError(s, est2);
        r.solveQuarter = solveOnly(s, 0.25);
        r.windowFloor = windowFloor(s);
        if (state.range(0)) {
            r.solveHalf = solveOnly(s, 0.5);
            r.solveFull = solveOnly(s, 1.0);
        }
        rows.push_back(r);
    }
}

void printReport() {
    std::printf("\nForeground error (sum of a*|F'-F| over 0<a<1, /1000) and time\n");
    std::printf("%-6s %8s %16s %16s %16s\n", "image", "naive", "Recover t/err",
                "Cell rm0 t/err", "Cell rm1 t/err");
    Row sum;
    for (const Row& r : rows) {
        std::printf("%-6s %8.2f %7.3f / %6.2f %7.3f / %6.2f %7.3f / %6.2f\n", r.name.c_str(),
                    r.naive, r.t[0], r.e[0], r.t[1], r.e[1], r.t[2], r.e[2]);
        sum.naive += r.naive;
        for (int m = 0; m < 3; ++m) sum.t[m] += r.t[m], sum.e[m] += r.e[m];
        sum.inner += r.inner, sum.scaleOnly += r.scaleOnly, sum.scaleDetail += r.scaleDetail;
        sum.solveFull += r.solveFull, sum.solveHalf += r.solveHalf;
        sum.solveQuarter += r.solveQuarter;
        sum.windowFloor += r.windowFloor;
    }
    const double n = rows.empty() ? 1 : double(rows.size());
    std::printf("%-6s %8.2f %7.3f / %6.2f %7.3f / %6.2f %7.3f / %6.2f  (total time, mean error)\n",
                "total", sum.naive / n, sum.t[0], sum.e[0] / n, sum.t[1], sum.e[1] / n, sum.t[2],
                sum.e[2] / n);
    std::printf("\nDirect solves inside qxRecoverForeground: count (fallbacks), seconds by "
                "phase\n");
    std::printf("%-6s %8s %9s %9s %9s %9s %7s\n", "image", "solves", "analysis", "factor",
                "solve", "all", "share");
    qx::detail::DirectSolveTotals all;
    for (const Row& r : rows) {
        const auto& v = r.solver;
        const double t = v.analysisSeconds + v.factorSeconds + v.solveSeconds;
        std::printf("%-6s %4d (%d) %9.3f %9.3f %9.3f %9.3f %6.0f%%\n", r.name.c_str(), v.solves,
                    v.fallbacks, v.analysisSeconds, v.factorSeconds, v.solveSeconds, t,
                    r.t[0] > 0 ? 100.0 * t / r.t[0] : 0.0);
        all.solves += v.solves, all.fallbacks += v.fallbacks;
        all.analysisSeconds += v.analysisSeconds, all.factorSeconds += v.factorSeconds;
        all.solveSeconds += v.solveSeconds;
    }
    {
        const double t = all.analysisSeconds + all.factorSeconds + all.solveSeconds;
        std::printf("%-6s %4d (%d) %9.3f %9.3f %9.3f %9.3f %6.0f%%\n", "total", all.solves,
                    all.fallbacks, all.analysisSeconds, all.factorSeconds, all.solveSeconds, t,
                    sum.t[0] > 0 ? 100.0 * t / sum.t[0] : 0.0);
    }
    std::printf("\nThe cell-wise entry's window with a perfect recovery (dstImage = composite):\n");
    for (const Row& r : rows) std::printf("%-6s %8.2f\n", r.name.c_str(), r.windowFloor);
    std::printf("%-6s %8.2f  (mean)\n", "mean", sum.windowFloor / n);
    std::printf("\nWhere qxRecoverForeground's error comes from\n");
    std::printf("%-6s %8s %8s %10s %10s %10s %10s %10s\n", "image", "all", "inner", "F@1/4",
                "F@1/4+det", "solve@1/4", "solve@1/2", "solve@1");
    for (const Row& r : rows)
        std::printf("%-6s %8.2f %8.2f %10.2f %10.2f %10.2f %10.2f %10.2f\n", r.name.c_str(),
                    r.e[0], r.inner, r.scaleOnly, r.scaleDetail, r.solveQuarter, r.solveHalf,
                    r.solveFull);
    std::printf("%-6s %8.2f %8.2f %10.2f %10.2f %10.2f %10.2f %10.2f  (mean)\n", "mean",
                sum.e[0] / n, sum.inner / n, sum.scaleOnly / n, sum.scaleDetail / n,
                sum.solveQuarter / n, sum.solveHalf / n, sum.solveFull / n);
    std::printf("all: qxRecoverForeground; inner: the same less its 3-pixel frame; F@1/4: the true F\n"
                "down by 4 and back (cubic), kept-source rule: the ceiling of any quarter-scale\n"
                "result; +det: with the detail term; solve@s: the least-squares solve on the whole\n"
                "image at scale s (one cell), cubic back up, kept-source rule, no detail term\n"
                "(set QX_FG_BREAKDOWN for s = 1/2 and 1).\n");
}

}  // namespace

int main(int argc, char** argv) {
    dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (!fs::exists(dir / "input") || !fs::exists(dir / "gt")) {
        std::printf("foreground benchmark: %s is absent, nothing to measure\n", dir.c_str());
        return 0;
    }
    for (const auto& e : fs::directory_iterator(dir / "input"))
        if (e.path().extension() == ".png") names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    // QX_FG_BREAKDOWN: also the full- and half-resolution solves of the breakdown (slow).
    const bool breakdown = std::getenv("QX_FG_BREAKDOWN") != nullptr;
    for (size_t k = 0; k < names.size(); ++k)
        benchmark::RegisterBenchmark(("foreground/" + names[k]).c_str(), BM_Scene, k)
            ->Arg(breakdown ? 1 : 0)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printReport();
    return 0;
}
