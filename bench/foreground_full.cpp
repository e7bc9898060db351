// Full-resolution colour recovery (qxRecoverForegroundFull) next to the quarter-scale recovery
// (qxRecoverForeground) and the multilevel estimate of the free peer (peer_multilevel.h), on
// composites with a known foreground (composites.h); skipped when the data folder is absent.
//
//   bench_foreground_full                  error and time on the ten composites, in one run
//   bench_foreground_full --scale MP [--budget MB]
//                                          composite 0 scaled to MP megapixels: time, peak
//                                          resident memory and error of each method, each in a
//                                          process of its own
//   bench_foreground_full --scale MP --method old|full|peer [--budget MB]
//                                          one method (what --scale runs for each)
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "composites.h"
#include "peer_multilevel.h"
#include "qxiveilon31.h"

namespace fs = std::filesystem;

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double peakMB() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss / 1024.0;
}

cv::Mat recoverOld(const bench::Composite& s) {
    cv::Mat src, alpha = s.alpha.clone();
    cv::cvtColor(s.composite, src, cv::COLOR_BGR2BGRA);
    cv::Mat dst = src.clone();
    KeepCutRequest r{};
    r.srcImage = src.data;
    r.srcStep = int(src.step);
    r.alphaPlane = r.auxPlane = alpha.data;
    r.alphaStep = r.auxStep = int(alpha.step);
    r.dstImage = dst.data;
    r.dstStep = int(dst.step);
    r.fullWidth = r.roiWidth = src.cols;
    r.fullHeight = r.roiHeight = src.rows;
    if (qxRecoverForeground(&r, 0) != 0) std::fprintf(stderr, "qxRecoverForeground failed\n");
    return dst;
}

cv::Mat recoverFull(const bench::Composite& s, int budgetMB) {
    cv::Mat out(s.composite.size(), CV_8UC3);
    ForegroundRequest r{};
    r.image = s.composite.data;
    r.imageStep = int(s.composite.step);
    r.imageChannels = 3;
    r.alpha = s.alpha.data;
    r.alphaStep = int(s.alpha.step);
    r.colours = out.data;
    r.coloursStep = int(out.step);
    r.coloursChannels = 3;
    r.width = out.cols;
    r.height = out.rows;
    r.memoryBudgetMB = budgetMB;
    const int st = qxRecoverForegroundFull(&r);
    if (st != 1) std::fprintf(stderr, "qxRecoverForegroundFull: status %d\n", st);
    return out;
}

cv::Mat run(const std::string& method, const bench::Composite& s, int budgetMB) {
    if (method == "old") return recoverOld(s);
    if (method == "peer") return bench::peerMultilevelForeground(s.composite, s.alpha);
    return recoverFull(s, budgetMB);
}

void accuracy(const fs::path& dir, const std::vector<std::string>& names) {
    std::printf("Colour error (sum of a*|F'-F| over 0<a<1, /1000) and seconds, one run\n");
    std::printf("%-6s %7s %16s %16s %16s %9s %9s\n", "image", "naive", "old t/err",
                "peer t/err", "full t/err", "full/peer", "full/old");
    const char* methods[3] = {"old", "peer", "full"};
    double t[3] = {0, 0, 0}, e[3] = {0, 0, 0}, naive = 0;
    for (size_t k = 0; k < names.size(); ++k) {
        const bench::Composite s = bench::makeComposite(dir, names, k);
        double ti[3], ei[3];
        for (int m = 0; m < 3; ++m) {
            const auto t0 = std::chrono::steady_clock::now();
            const cv::Mat est = run(methods[m], s, 0);
            ti[m] = seconds(t0);
            ei[m] = bench::foregroundError(s.alpha, s.fg, est);
            t[m] += ti[m];
            e[m] += ei[m];
        }
        const double nv = bench::foregroundError(s.alpha, s.fg, s.composite);
        naive += nv;
        std::printf("%-6s %7.2f %7.3f / %6.2f %7.3f / %6.2f %7.3f / %6.2f %9.2f %9.2f\n",
                    s.name.c_str(), nv, ti[0], ei[0], ti[1], ei[1], ti[2], ei[2], ei[2] / ei[1],
                    ei[2] / ei[0]);
    }
    const double n = double(names.size());
    std::printf("%-6s %7.2f %7.3f / %6.3f %7.3f / %6.3f %7.3f / %6.3f %9.3f %9.3f\n", "mean",
                naive / n, t[0], e[0] / n, t[1], e[1] / n, t[2], e[2] / n, e[2] / e[1],
                e[2] / e[0]);
    std::printf("(times are totals; time full/peer %.2f, full/old %.2f)\n", t[2] / t[1],
                t[2] / t[0]);
}

cv::Size sizeFor(const fs::path& dir, const std::vector<std::string>& names, double mp) {
    const cv::Mat a = cv::imread((dir / "gt" / names[0]).string(), cv::IMREAD_GRAYSCALE);
    const double f = std::sqrt(mp * 1e6 / (double(a.cols) * a.rows));
    return cv::Size(int(a.cols * f), int(a.rows * f));
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    const std::vector<std::string> names = bench::photoNames(dir);
    if (names.empty()) {
        std::printf("foreground benchmark: %s is absent, nothing to measure\n", dir.c_str());
        return 0;
    }
    double mp = 0;
    int budget = 0;
    std::string method;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--scale")) mp = std::atof(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--budget")) budget = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--method")) method = argv[i + 1];
    }
    if (mp <= 0) {
        accuracy(dir, names);
        return 0;
    }
    if (method.empty()) {
        std::printf("Composite %s at %.1f MP: seconds, peak resident MB (and above the inputs), "
                    "error\n", names[0].c_str(), mp);
        for (const char* m : {"old", "peer", "full"}) {
            const std::string cmd = std::string(argv[0]) + " --scale " + std::to_string(mp) +
                                    " --budget " + std::to_string(budget) + " --method " + m;
            std::fflush(stdout);
            if (std::system(cmd.c_str()) != 0) std::printf("%s failed\n", m);
        }
        return 0;
    }
    const bench::Composite s = bench::makeComposite(dir, names, 0, sizeFor(dir, names, mp));
    const double base = peakMB();
    const auto t0 = std::chrono::steady_clock::now();
    const cv::Mat est = run(method, s, budget);
    const double t = seconds(t0), peak = peakMB();
    std::printf("%-5s %dx%d %8.3f s %8.0f MB (+%.0f) error %.2f\n", method.c_str(),
                s.alpha.cols, s.alpha.rows, t, peak, peak - base,
                bench::foregroundError(s.alpha, s.fg, est));
    return 0;
}
