// GrabCut selection and the rectangle-to-cut-out workflow, one run per case (skipped when the
// data folder is absent).
//
// Accuracy: the ten alpha-matting benchmark images, with the rectangle the box of the ground
// truth's visible subject (alpha above 127) grown by 5% of the image's size on each side, so
// that every image keeps some background outside it. Three selections from that rectangle, in
// the same run, each with its time and intersection-over-union against ground-truth alpha above
// 127:
//   (a) qxGrabCut through the C interface as a plug-in calls it: the rectangle as the request's
//       region, all codes 126 (no stroke), one cut;
//   (b) the workflow's selection, qxwSelectSubject (the cut, then the full-resolution
//       refinement along its edge);
//   (c) plain cv::grabCut on the full image, the same rectangle, GC_INIT_WITH_RECT, 3
//       iterations.
// Then the cutout workflow (GrabCut, edge band, closed-form alpha, foreground recovery): SAD
// and MSE over the whole image against the ground truth.
//
// Scale: the same images scaled up to 4.5 and 24 megapixels: time and peak resident memory of
// the workflow's selection and of the cut-out, and at 4.5 MP plain cv::grabCut's time and IoU
// beside them.
//
//   bench_grabcut [--accuracy-only | --scale-only] [--max-mp N] [--images N] [--plain-images N]
//                 [--no-cutout]
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
#include "qxiveilon31.h"
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

// The box of the ground truth's visible subject (alpha above 127), grown by 5% of the image's
// width and height on each side. (The box of every non-zero alpha reaches all four borders on
// half of the images, and leaves cv::grabCut no background to learn from.)
cv::Rect userRectangle(const cv::Mat& truth) {
    const cv::Rect box = cv::boundingRect(truth > 127);
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

// (a) One qxGrabCut on the rectangle as a plug-in would call it: no stroke (all codes 126),
// the rectangle as the request's region; the selection is the result at 128 and above.
Cut runEntry(const Sample& s, const cv::Rect& rect) {
    Cut c;
    cv::Mat bgra;
    cv::cvtColor(s.image, bgra, cv::COLOR_BGR2BGRA);
    cv::Mat codes(s.image.size(), CV_8UC1, cv::Scalar(126));
    cv::Mat result(s.image.size(), CV_8UC1, cv::Scalar(0));
    GrabCutRequest req{};
    req.image = bgra.data;
    req.imageStep = static_cast<int32_t>(bgra.step);
    req.mask = codes.data;
    req.maskStep = static_cast<int32_t>(codes.step);
    req.result = result.data;
    req.resultStep = static_cast<int32_t>(result.step);
    req.width = s.image.cols;
    req.height = s.image.rows;
    req.roiLeft = rect.x;
    req.roiTop = rect.y;
    req.roiWidth = rect.width;
    req.roiHeight = rect.height;
    const qxmatte::Measurement run;
    const int st = qxGrabCut(&req, 0);
    c.seconds = run.seconds();
    c.cpu = run.cpuSeconds();
    c.peakMB = run.peakAboveStartMB();
    c.iou = st == 1 ? iou(result, s.truth) : -1.0;
    qxGrabCutDeleteBuf(&req);
    return c;
}

// (b) The workflow's selection.
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

// Sums over a report's images.
struct Sum {
    double seconds = 0, cpu = 0, iou = 0;
    int n = 0;
    void add(const Cut& c) {
        seconds += c.seconds;
        cpu += c.cpu;
        iou += c.iou;
        ++n;
    }
    double meanIou() const { return n ? iou / n : 0.0; }
};

void accuracyReport(const std::vector<Sample>& samples, bool cutout) {
    std::printf("\nGrabCut accuracy: rectangle = box of truth > 127, grown by 5%% (wall s, "
                "processor s, IoU vs alpha > 127)\n");
    std::printf("%-6s %-9s %22s %26s %26s %26s\n", "image", "size", "(a) qxGrabCut (wall IoU)",
                "(b) qxwSelectSubject (w c IoU)", "(c) cv::grabCut (w c IoU)",
                "cutout (wall SAD MSE)");
    Sum a, b, c;
    Matte sumCut;
    for (const Sample& s : samples) {
        const cv::Rect rect = userRectangle(s.truth);
        if (std::getenv("QX_BENCH_RECTS"))
            std::printf("%s rect %d,%d,%d,%d\n", s.name.c_str(), rect.x, rect.y, rect.width,
                        rect.height);
        const Cut entry = runEntry(s, rect);
        const Cut lib = runLibrary(s, rect);
        const Cut plain = runPlain(s, rect);
        const Matte cut = cutout ? runCutout(s, rect) : Matte{};
        char size[32];
        std::snprintf(size, sizeof size, "%dx%d", s.image.cols, s.image.rows);
        std::printf("%-6s %-9s %10.3f %9.4f  %7.3f %7.3f %9.4f  %7.3f %7.3f %9.4f %8.2f %8.2f "
                    "%8.2f\n",
                    s.name.c_str(), size, entry.seconds, entry.iou, lib.seconds, lib.cpu, lib.iou,
                    plain.seconds, plain.cpu, plain.iou, cut.seconds, cut.sad, cut.mse);
        std::fflush(stdout);
        a.add(entry);
        b.add(lib);
        c.add(plain);
        sumCut.seconds += cut.seconds;
        sumCut.sad += cut.sad;
        sumCut.mse += cut.mse;
    }
    const double n = static_cast<double>(samples.size());
    std::printf("%-16s %10.3f %9.4f  %7.3f %7.3f %9.4f  %7.3f %7.3f %9.4f %8.2f %8.2f %8.2f  "
                "(total times, means)\n",
                "all", a.seconds, a.meanIou(), b.seconds, b.cpu, b.meanIou(), c.seconds, c.cpu,
                c.meanIou(), sumCut.seconds, sumCut.sad / n, sumCut.mse / n);
    std::printf("mean IoU: (a) - (c) %+.4f, (b) - (c) %+.4f; (c) / (b) time %.1fx wall, %.1fx "
                "cpu\n",
                a.meanIou() - c.meanIou(), b.meanIou() - c.meanIou(), c.seconds / b.seconds,
                c.cpu / b.cpu);
}

Sample scaled(const Sample& s, double megapixels) {
    const double f = std::sqrt(megapixels * 1e6 / static_cast<double>(s.image.total()));
    Sample out;
    out.name = s.name;
    cv::resize(s.image, out.image, cv::Size(), f, f, cv::INTER_CUBIC);
    cv::resize(s.truth, out.truth, out.image.size(), 0, 0, cv::INTER_LINEAR);
    return out;
}

void scaleReport(const std::vector<Sample>& samples, double maxMegapixels, int plainImages,
                 bool cutout) {
    std::printf("\nGrabCut at scale: the images scaled up (time s, peak MB above the start, IoU)\n");
    std::printf("%-6s %-11s %33s %25s %20s\n", "image", "size",
                "(b) qxwSelectSubject (w c peak IoU)", "(c) cv::grabCut (w c IoU)",
                "cutout (wall peak SAD)");
    for (double mp : {4.5, 24.0}) {
        if (mp > maxMegapixels) continue;
        Sum lib, bothLib, plainSum;
        for (size_t i = 0; i < samples.size(); ++i) {
            const Sample s = scaled(samples[i], mp);
            const cv::Rect rect = userRectangle(s.truth);
            const Cut l = runLibrary(s, rect);
            const bool plainToo = mp <= 4.5 && static_cast<int>(i) < plainImages;
            const Cut plain = plainToo ? runPlain(s, rect) : Cut{};
            const Matte cut = cutout ? runCutout(s, rect) : Matte{};
            char size[32];
            std::snprintf(size, sizeof size, "%dx%d", s.image.cols, s.image.rows);
            std::printf("%-6s %-11s %7.2f %7.2f %7.0f %9.4f", s.name.c_str(), size, l.seconds,
                        l.cpu, l.peakMB, l.iou);
            if (plainToo)
                std::printf(" %8.2f %7.2f %8.4f", plain.seconds, plain.cpu, plain.iou);
            else
                std::printf(" %8s %7s %8s", "-", "-", "-");
            std::printf(" %8.2f %9.0f %9.2f\n", cut.seconds, cut.peakMB, cut.sad);
            std::fflush(stdout);
            lib.add(l);
            if (plainToo) {
                bothLib.add(l);
                plainSum.add(plain);
            }
        }
        const double n = lib.n;
        std::printf("%.1f MP, all %d images: qxwSelectSubject mean %.2f s wall, %.2f s cpu, IoU "
                    "%.4f\n",
                    mp, lib.n, lib.seconds / n, lib.cpu / n, lib.meanIou());
        if (plainSum.n > 0)
            std::printf("%.1f MP, %d images with cv::grabCut: qxwSelectSubject %.2f s wall, %.2f "
                        "s cpu, IoU %.4f; cv::grabCut %.2f s wall, %.2f s cpu, IoU %.4f; speed-up "
                        "%.1fx wall, %.1fx cpu\n",
                        mp, plainSum.n, bothLib.seconds / plainSum.n, bothLib.cpu / plainSum.n,
                        bothLib.meanIou(), plainSum.seconds / plainSum.n,
                        plainSum.cpu / plainSum.n, plainSum.meanIou(),
                        plainSum.seconds / bothLib.seconds, plainSum.cpu / bothLib.cpu);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bool accuracy = true, scale = true;
    double maxMegapixels = 24;
    int maxImages = 10, plainImages = 10;
    bool cutout = true;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--accuracy-only")) scale = false;
        else if (!std::strcmp(argv[i], "--scale-only")) accuracy = false;
        else if (!std::strcmp(argv[i], "--max-mp") && i + 1 < argc) maxMegapixels = std::atof(argv[++i]);
        else if (!std::strcmp(argv[i], "--images") && i + 1 < argc) maxImages = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--plain-images") && i + 1 < argc) plainImages = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--no-cutout")) cutout = false;
    }
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (!fs::exists(dir / "input")) {
        std::printf("grabcut: %s is absent, skipped\n", dir.c_str());
        return 0;
    }
    const std::vector<Sample> samples = loadSamples(dir, maxImages);
    if (accuracy) accuracyReport(samples, cutout);
    if (scale) scaleReport(samples, maxMegapixels, plainImages, cutout);
    return 0;
}
