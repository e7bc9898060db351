// Tri-map matting at true resolution: composites I = a F + (1 - a) B built at several megapixels
// from the alpha-matting photos (skipped when ../shared/data/alphamatting is absent), whose alpha
// carries detail of its own at that size: the photo's truth enlarged, with hair-like strands (one
// to three pixels wide, anti-aliased, curling outwards from the subject's edge) drawn over it.
// F is photo k + 1 and B photo k + 5, enlarged (as bench/composites.h builds them). The tri-map:
// undecided where the alpha is soft, grown by a disc of --radius pixels; decided by the alpha
// elsewhere.
//
// Runs the tri-map workflow (qxwMatteTrimap, "flows") and the closed-form job it ran before
// (qxMaskAlphaPlain over the whole image, "closed") on each composite, one after the other:
// SAD (thousands) and MSE (x1000) over the undecided pixels, seconds, peak resident memory above
// the start of the run.
//
//   bench_hair [--megapixels 7] [--images GT01,GT04] [--radius 15] [--strands 400] [--dump DIR]
//
// --dump writes each composite, its tri-map, its truth and the workflow's alpha into DIR as
// GTnn_image.png, GTnn_trimap.png, GTnn_truth.png and GTnn_flows.png, for a closer look.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "trimap_jobs.h"
#include "composites.h"
#include "measurement.h"
#include "qxiveilon31.h"
#include "qxworkflow.h"

namespace fs = std::filesystem;

namespace {

struct Result {
    bool ok = false;
    double sad = 0, mse = 0, seconds = 0, peakMB = 0;
};

// Strands drawn onto the alpha (8-bit): each starts on the subject's edge (alpha crossing half),
// heads outwards (down the alpha's gradient) and curls at random; drawn anti-aliased in white,
// the maximum with the alpha kept.
void addStrands(cv::Mat& alpha, int count, unsigned seed) {
    cv::Mat gx, gy;
    cv::Mat smooth;
    cv::GaussianBlur(alpha, smooth, cv::Size(0, 0), 4.0);
    cv::Sobel(smooth, gx, CV_32F, 1, 0);
    cv::Sobel(smooth, gy, CV_32F, 0, 1);
    std::vector<cv::Point> edge;
    for (int y = 1; y < alpha.rows - 1; ++y)
        for (int x = 1; x < alpha.cols - 1; ++x)
            if ((alpha.at<uchar>(y, x) >= 128) != (alpha.at<uchar>(y, x + 1) >= 128))
                edge.push_back({x, y});
    if (edge.empty()) return;
    std::mt19937 rng(seed);
    std::uniform_int_distribution<size_t> pick(0, edge.size() - 1);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double scale = std::sqrt(double(alpha.total()) / 4e5);  // strand length follows the size
    cv::Mat strands = cv::Mat::zeros(alpha.size(), CV_8UC1);
    for (int s = 0; s < count; ++s) {
        const cv::Point p0 = edge[pick(rng)];
        double dx = -gx.at<float>(p0), dy = -gy.at<float>(p0);
        const double norm = std::hypot(dx, dy);
        if (norm < 1e-3) continue;
        dx /= norm;
        dy /= norm;
        std::vector<cv::Point> line{p0};
        double x = p0.x, y = p0.y, turn = (unit(rng) - 0.5) * 0.08;
        const int steps = static_cast<int>((20 + 40 * unit(rng)) * scale);
        for (int i = 0; i < steps; ++i) {
            const double c = std::cos(turn), sn = std::sin(turn);
            const double ndx = c * dx - sn * dy, ndy = sn * dx + c * dy;
            dx = ndx;
            dy = ndy;
            x += 2 * dx;
            y += 2 * dy;
            line.push_back({static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y))});
        }
        const int width = 1 + static_cast<int>(unit(rng) * 2.0);
        const int shade = 160 + static_cast<int>(unit(rng) * 95.0);
        cv::polylines(strands, line, false, cv::Scalar(shade), width, cv::LINE_AA);
    }
    cv::max(alpha, strands, alpha);
}

// The composite with the strands in its alpha (composites.h builds it from a given alpha size;
// here the alpha is replaced and the image made again from the same F and B).
bench::Composite hairComposite(const fs::path& dir, const std::vector<std::string>& names,
                               size_t k, cv::Size size, int strands) {
    bench::Composite c = bench::makeComposite(dir, names, k, size);
    addStrands(c.alpha, strands, 1234u + unsigned(k));
    cv::Mat b = cv::imread((dir / "input" / names[(k + 5) % names.size()]).string());
    cv::resize(b, b, size, 0, 0, cv::INTER_LINEAR);
    for (int y = 0; y < c.alpha.rows; ++y)
        for (int x = 0; x < c.alpha.cols; ++x) {
            const double a = c.alpha.at<uchar>(y, x) / 255.0;
            const cv::Vec3b fv = c.fg.at<cv::Vec3b>(y, x), bv = b.at<cv::Vec3b>(y, x);
            cv::Vec3b& o = c.composite.at<cv::Vec3b>(y, x);
            for (int ch = 0; ch < 3; ++ch)
                o[ch] = cv::saturate_cast<uchar>(std::lround(a * fv[ch] + (1 - a) * bv[ch]));
        }
    return c;
}

Result runFlows(const cv::Mat& image, const cv::Mat& trimap, cv::Mat& alpha) {
    Result r;
    const qxmatte::Measurement m;
    std::string message;
    r.ok = bench::workflowTrimapJob(image, trimap, alpha, &message);
    r.seconds = m.seconds();
    r.peakMB = m.peakAboveStartMB();
    if (!r.ok) std::fprintf(stderr, "workflow: %s\n", message.c_str());
    return r;
}

Result runClosed(const cv::Mat& image, const cv::Mat& trimap, cv::Mat& alpha) {
    Result r;
    const qxmatte::Measurement m;
    r.ok = bench::closedFormJob(image, trimap, alpha);
    r.seconds = m.seconds();
    r.peakMB = m.peakAboveStartMB();
    return r;
}

std::vector<std::string> split(const std::string& s) {
    std::vector<std::string> out;
    std::stringstream in(s);
    std::string item;
    while (std::getline(in, item, ','))
        if (!item.empty()) out.push_back(item);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    const std::vector<std::string> names = bench::photoNames(dir);
    if (names.empty()) {
        std::printf("hair composites: %s is absent, nothing to measure\n", dir.c_str());
        return 0;
    }
    double megapixels = 7.0;
    int radius = 15, strands = 400;
    std::vector<std::string> only;
    std::string dump;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : "";
        if (a == "--megapixels") megapixels = std::atof(v), ++i;
        else if (a == "--radius") radius = std::atoi(v), ++i;
        else if (a == "--strands") strands = std::atoi(v), ++i;
        else if (a == "--images") only = split(v), ++i;
        else if (a == "--dump") dump = v, ++i;
        else {
            std::fprintf(stderr, "unknown argument %s\n", a.c_str());
            return 2;
        }
    }
    std::printf("| photo | size | undecided | closed SAD | flows SAD | closed MSE | flows MSE | "
                "closed s | flows s | closed MB | flows MB |\n|---|---|---|---|---|---|---|---|---|---|---|\n");
    double sum[2] = {0, 0}, seconds[2] = {0, 0}, peak[2] = {0, 0};
    for (size_t k = 0; k < names.size(); ++k) {
        const std::string stem = names[k].substr(0, names[k].size() - 4);
        if (!only.empty() && std::find(only.begin(), only.end(), stem) == only.end()) continue;
        const cv::Mat probe = cv::imread((dir / "gt" / names[k]).string(), cv::IMREAD_GRAYSCALE);
        const double f = std::sqrt(megapixels * 1e6 / double(probe.total()));
        const cv::Size size(static_cast<int>(probe.cols * f), static_cast<int>(probe.rows * f));
        const bench::Composite c = hairComposite(dir, names, k, size, strands);
        const cv::Mat tri = bench::truthTrimap(c.alpha, radius);
        cv::Mat a[2];
        const Result r[2] = {runClosed(c.composite, tri, a[0]), runFlows(c.composite, tri, a[1])};
        if (!dump.empty() && r[1].ok) {
            const fs::path out = fs::path(dump) / stem;
            cv::imwrite(out.string() + "_image.png", c.composite);
            cv::imwrite(out.string() + "_trimap.png", tri);
            cv::imwrite(out.string() + "_truth.png", c.alpha);
            cv::imwrite(out.string() + "_flows.png", a[1]);
        }
        qxmatte::Accuracy acc[2];
        for (int m = 0; m < 2; ++m) {
            if (r[m].ok) acc[m] = qxmatte::measureAccuracy(a[m], c.alpha, tri);
            sum[m] += acc[m].sad;
            seconds[m] += r[m].seconds;
            peak[m] = std::max(peak[m], r[m].peakMB);
        }
        std::printf("| %s | %dx%d | %ld | %.1f | %.1f | %.2f | %.2f | %.2f | %.2f | %.0f | %.0f |\n",
                    stem.c_str(), size.width, size.height, acc[1].pixels, acc[0].sad, acc[1].sad,
                    acc[0].mse, acc[1].mse, r[0].seconds, r[1].seconds, r[0].peakMB, r[1].peakMB);
        std::fflush(stdout);
    }
    std::printf("| **sum** | | | %.1f | %.1f (%.3fx) | | | %.1f | %.1f | %.0f | %.0f |\n", sum[0],
                sum[1], sum[0] > 0 ? sum[1] / sum[0] : 0.0, seconds[0], seconds[1], peak[0],
                peak[1]);
    return 0;
}
