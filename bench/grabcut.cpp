// GrabCut selection and the rectangle-to-cut-out workflow, one run per case (skipped when the
// data folder is absent).
//
// Accuracy: the ten alpha-matting benchmark images, with the rectangle the ground truth's
// foreground box grown by 5% of the image's size on each side. The library's selection
// (qxGrabCut through the workflow qxwSelectSubject) next to plain cv::grabCut on the full image with the
// same rectangle and iteration count, in the same run: time and intersection-over-union against
// ground-truth alpha above 127. Then the cutout workflow (GrabCut, edge band, closed-form alpha,
// foreground recovery): SAD and MSE over the whole image against the ground truth.
//
// Scale: the same images scaled up to 6 and 24 megapixels: time and peak resident memory of
// the selection and of the cut-out, and at 6 MP plain cv::grabCut's time and IoU beside them.
//
//   bench_grabcut [--accuracy-only | --scale-only] [--max-mp N] [--images N]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "measurement.h"
#include "qxworkflow.h"

namespace fs = std::filesystem;

namespace {

struct Sample {
    std::string name;
    cv::Mat image, truth;  // BGR, 8-bit alpha
};

std::vector<Sample> loadSamples(const fs::path& dir, int maxImages) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir / "input"))
        if (e.path().extension() == ".png") names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    std::vector<Sample> out;
    for (const auto& n : names) {
        if (static_cast<int>(out.size()) >= maxImages) break;
        Sample s;
        s.name = n.substr(0, n.size() - 4);
        s.image = cv::imread((dir / "input" / n).string(), cv::IMREAD_COLOR);
        s.truth = cv::imread((dir / "gt" / n).string(), cv::IMREAD_GRAYSCALE);
        if (!s.image.empty() && !s.truth.empty()) out.push_back(std::move(s));
    }
    return out;
}

// The ground truth's foreground box, grown by 5% of the image's width and height on each side.
cv::Rect userRectangle(const cv::Mat& truth) {
    const cv::Rect box = cv::boundingRect(truth > 0);
    const int gx = truth.cols / 20, gy = truth.rows / 20;
    const cv::Rect grown(box.x - gx, box.y - gy, box.width + 2 * gx, box.height + 2 * gy);
    return grown & cv::Rect(0, 0, truth.cols, truth.rows);
}

double iou(const cv::Mat& selection, const cv::Mat& truth) {
    const cv::Mat a = selection > 127, b = truth > 127;
    const double both = cv::countNonZero(a & b), either = cv::countNonZero(a | b);
    return either > 0 ? both / either : 1.0;
}

struct Cut {
    double seconds = 0, cpu = 0, iou = 0, peakMB = 0;
};

QxwImage imageOf(const cv::Mat& bgr) {
    return {bgr.data, static_cast<int32_t>(bgr.step), 3, bgr.cols, bgr.rows, QXW_BGR};
}

Cut runLibrary(const Sample& s, const cv::Rect& rect) {
    Cut c;
    const QxwImage img = imageOf(s.image);
    cv::Mat selection(s.image.size(), CV_8UC1);
    QxwJob job{};
    // Processor time as well as wall time: the machine may be shared, and wall time then
    // measures the other jobs too.
    const qxmatte::Measurement run;
    const QxwStatus st = qxwSelectSubject(&img, nullptr, 0, rect.x, rect.y, rect.width,
                                          rect.height, 0, selection.data,
                                          static_cast<int>(selection.step), nullptr, 0, &job);
    c.seconds = run.seconds();
    c.cpu = run.cpuSeconds();
    c.peakMB = run.peakAboveStartMB();
    c.iou = st == QXW_OK ? iou(selection, s.truth) : -1.0;
    return c;
}

// Plain cv::grabCut on the full image: the rectangle, 3 iterations.
Cut runPlain(const Sample& s, const cv::Rect& rect) {
    Cut c;
    const qxmatte::Measurement run;
    cv::Mat labels, bgd, fgd;
    try {
        cv::grabCut(s.image, labels, rect, bgd, fgd, 3, cv::GC_INIT_WITH_RECT);
    } catch (const cv::Exception&) {
        // A rectangle that covers the whole image leaves no background to learn from.
        c.seconds = run.seconds();
        c.cpu = run.cpuSeconds();
        c.iou = -1.0;
        return c;
    }
    c.seconds = run.seconds();
    c.cpu = run.cpuSeconds();
    c.peakMB = run.peakAboveStartMB();
    c.iou = iou((labels & 1) * 255, s.truth);
    return c;
}

struct Matte {
    double seconds = 0, sad = 0, mse = 0, peakMB = 0;
    bool ok = false;
};

Matte runCutout(const Sample& s, const cv::Rect& rect) {
    Matte m;
    const QxwImage img = imageOf(s.image);
    cv::Mat alpha(s.image.size(), CV_8UC1), fg(s.image.size(), CV_8UC3);
    const QxwColourOut colours{fg.data, static_cast<int32_t>(fg.step)};
    QxwJob job{};
    const qxmatte::Measurement run;
    m.ok = qxwCutoutFromRect(&img, nullptr, 0, rect.x, rect.y, rect.width, rect.height, 0,
                             alpha.data, static_cast<int>(alpha.step), &colours, &job) == QXW_OK;
    m.seconds = run.seconds();
    m.peakMB = run.peakAboveStartMB();
    if (!m.ok) return m;
    cv::Mat a, g;
    alpha.convertTo(a, CV_64F, 1.0 / 255);
    s.truth.convertTo(g, CV_64F, 1.0 / 255);
    const cv::Mat d = a - g;
    m.sad = cv::norm(d, cv::NORM_L1) / 1000.0;
    m.mse = d.dot(d) / static_cast<double>(d.total()) * 1000.0;
    return m;
}

// Sums over a report's images: the library's cuts over all of them, and both methods over the
// images that cv::grabCut runs on.
struct Totals {
    Cut lib, bothLib, plain;
    int all = 0, both = 0;
    static void add(Cut& sum, const Cut& c) {
        sum.seconds += c.seconds;
        sum.cpu += c.cpu;
        sum.iou += c.iou;
    }
    void add(const Cut& l, const Cut* p) {
        add(lib, l);
        ++all;
        if (p == nullptr || p->iou < 0) return;
        add(bothLib, l);
        add(plain, *p);
        ++both;
    }
};

void accuracyReport(const std::vector<Sample>& samples) {
    std::printf("\nGrabCut accuracy: rectangle = truth's box + 5%% (wall s, processor s, IoU vs "
                "alpha > 127; IoU -1: cv::grabCut refuses a rectangle without background)\n");
    std::printf("%-6s %-9s %26s %26s %26s\n", "image", "size", "qxGrabCut (wall cpu IoU)",
                "cv::grabCut (wall cpu IoU)", "cutout (wall SAD MSE)");
    Totals t;
    Matte sumCut;
    for (const Sample& s : samples) {
        const cv::Rect rect = userRectangle(s.truth);
        if (std::getenv("QX_BENCH_RECTS"))
            std::printf("%s rect %d,%d,%d,%d\n", s.name.c_str(), rect.x, rect.y, rect.width,
                        rect.height);
        const Cut lib = runLibrary(s, rect);
        const Cut plain = runPlain(s, rect);
        const Matte cut = runCutout(s, rect);
        char size[32];
        std::snprintf(size, sizeof size, "%dx%d", s.image.cols, s.image.rows);
        std::printf("%-6s %-9s %7.3f %7.3f %9.4f  %7.3f %7.3f %9.4f %8.2f %8.2f %8.2f\n",
                    s.name.c_str(), size, lib.seconds, lib.cpu, lib.iou, plain.seconds, plain.cpu,
                    plain.iou, cut.seconds, cut.sad, cut.mse);
        std::fflush(stdout);
        t.add(lib, &plain);
        sumCut.seconds += cut.seconds;
        sumCut.sad += cut.sad;
        sumCut.mse += cut.mse;
    }
    const double n = static_cast<double>(samples.size());
    std::printf("%-16s %7.3f %7.3f %9.4f  %26s %8.2f %8.2f %8.2f  (all: total times, means)\n",
                "all", t.lib.seconds, t.lib.cpu, t.lib.iou / n, "", sumCut.seconds,
                sumCut.sad / n, sumCut.mse / n);
    if (t.both > 0)
        std::printf("%-16s %7.3f %7.3f %9.4f  %7.3f %7.3f %9.4f  (the %d images cv::grabCut "
                    "runs on)\n",
                    "both", t.bothLib.seconds, t.bothLib.cpu, t.bothLib.iou / t.both,
                    t.plain.seconds, t.plain.cpu, t.plain.iou / t.both, t.both);
}

Sample scaled(const Sample& s, double megapixels) {
    const double f = std::sqrt(megapixels * 1e6 / static_cast<double>(s.image.total()));
    Sample out;
    out.name = s.name;
    cv::resize(s.image, out.image, cv::Size(), f, f, cv::INTER_CUBIC);
    cv::resize(s.truth, out.truth, out.image.size(), 0, 0, cv::INTER_LINEAR);
    return out;
}

void scaleReport(const std::vector<Sample>& samples, double maxMegapixels, int plainImages) {
    std::printf("\nGrabCut at scale: the images scaled up (time s, peak MB above the start, IoU)\n");
    std::printf("%-6s %-11s %32s %25s %28s\n", "image", "size", "qxGrabCut (wall cpu peak IoU)",
                "cv::grabCut (wall cpu IoU)", "cutout (wall peak SAD)");
    for (double mp : {6.0, 24.0}) {
        if (mp > maxMegapixels) continue;
        Totals t;
        for (size_t i = 0; i < samples.size(); ++i) {
            const Sample s = scaled(samples[i], mp);
            const cv::Rect rect = userRectangle(s.truth);
            const Cut lib = runLibrary(s, rect);
            const bool plainToo = mp <= 6.0 && static_cast<int>(i) < plainImages;
            const Cut plain = plainToo ? runPlain(s, rect) : Cut{};
            const Matte cut = runCutout(s, rect);
            char size[32];
            std::snprintf(size, sizeof size, "%dx%d", s.image.cols, s.image.rows);
            std::printf("%-6s %-11s %7.2f %7.2f %7.0f %8.4f", s.name.c_str(), size, lib.seconds,
                        lib.cpu, lib.peakMB, lib.iou);
            if (plainToo)
                std::printf(" %8.2f %7.2f %8.4f", plain.seconds, plain.cpu, plain.iou);
            else
                std::printf(" %8s %7s %8s", "-", "-", "-");
            std::printf(" %8.2f %9.0f %9.2f\n", cut.seconds, cut.peakMB, cut.sad);
            std::fflush(stdout);
            t.add(lib, plainToo ? &plain : nullptr);
        }
        const double n = t.all;
        std::printf("%.0f MP, all %d images: qxGrabCut mean %.2f s wall, %.2f s cpu, IoU %.4f\n",
                    mp, t.all, t.lib.seconds / n, t.lib.cpu / n, t.lib.iou / n);
        if (t.both > 0)
            std::printf("%.0f MP, the %d images cv::grabCut runs on: qxGrabCut %.2f s wall, %.2f s "
                        "cpu, IoU %.4f; cv::grabCut %.2f s wall, %.2f s cpu, IoU %.4f; speed-up "
                        "%.1fx wall, %.1fx cpu\n",
                        mp, t.both, t.bothLib.seconds / t.both, t.bothLib.cpu / t.both,
                        t.bothLib.iou / t.both, t.plain.seconds / t.both, t.plain.cpu / t.both,
                        t.plain.iou / t.both, t.plain.seconds / t.bothLib.seconds,
                        t.plain.cpu / t.bothLib.cpu);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bool accuracy = true, scale = true;
    double maxMegapixels = 24;
    int maxImages = 10, plainImages = 10;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--accuracy-only")) scale = false;
        else if (!std::strcmp(argv[i], "--scale-only")) accuracy = false;
        else if (!std::strcmp(argv[i], "--max-mp") && i + 1 < argc) maxMegapixels = std::atof(argv[++i]);
        else if (!std::strcmp(argv[i], "--images") && i + 1 < argc) maxImages = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--plain-images") && i + 1 < argc) plainImages = std::atoi(argv[++i]);
    }
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (!fs::exists(dir / "input")) {
        std::printf("grabcut: %s is absent, skipped\n", dir.c_str());
        return 0;
    }
    const std::vector<Sample> samples = loadSamples(dir, maxImages);
    if (accuracy) accuracyReport(samples);
    if (scale) scaleReport(samples, maxMegapixels, plainImages);
    return 0;
}
