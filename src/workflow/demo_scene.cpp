#include "workflow/demo_scene.h"

#include <cstring>

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

namespace qx::workflow {
namespace {

// Sub-pixel coverage: shapes are drawn at kSuper times the size and averaged down.
constexpr int kSuper = 4;

cv::Mat subjectCoverage(int width, int height, std::mt19937& rng) {
    cv::Mat big(height * kSuper, width * kSuper, CV_8UC1, cv::Scalar(0));
    const cv::Point centre(width * kSuper / 2, height * kSuper * 11 / 20);
    const cv::Size axes(width * kSuper / 5, height * kSuper / 4);
    cv::ellipse(big, centre, axes, 0, 0, 360, cv::Scalar(255), cv::FILLED, cv::LINE_8);
    // Strands: random walks leaving the upper half of the subject's outline.
    std::uniform_real_distribution<double> uni(0.0, 1.0);
    for (int s = 0; s < 70; ++s) {
        const double t = M_PI * (1.05 + 0.9 * uni(rng));
        cv::Point2d p(centre.x + axes.width * std::cos(t) * 0.97,
                      centre.y + axes.height * std::sin(t) * 0.97);
        double heading = t + (uni(rng) - 0.5) * 0.6;
        const int steps = 25 + static_cast<int>(uni(rng) * 35);
        std::vector<cv::Point> pts{cv::Point(cvRound(p.x), cvRound(p.y))};
        for (int k = 0; k < steps; ++k) {
            heading += (uni(rng) - 0.5) * 0.25;
            p += cv::Point2d(std::cos(heading), std::sin(heading)) * (3.0 * kSuper);
            pts.emplace_back(cvRound(p.x), cvRound(p.y));
        }
        const int thickness = 2 + static_cast<int>(uni(rng) * 3);  // 0.5 to 1.25 pixels
        cv::polylines(big, pts, false, cv::Scalar(255), thickness, cv::LINE_8);
    }
    cv::Mat small;
    cv::resize(big, small, cv::Size(width, height), 0, 0, cv::INTER_AREA);
    // The outline gets a soft edge of a few pixels, as from a slight defocus.
    cv::Mat soft;
    cv::GaussianBlur(small, soft, cv::Size(0, 0), 1.2);
    cv::max(small, soft, small);
    return small;
}

cv::Mat texturedBackground(int width, int height) {
    cv::Mat bg(height, width, CV_8UC3);
    for (int y = 0; y < height; ++y) {
        auto* row = bg.ptr<cv::Vec3b>(y);
        for (int x = 0; x < width; ++x) {
            const double a = std::sin(x * 0.045) * std::cos(y * 0.06);
            const double b = std::sin((x + y) * 0.013);
            const double c = ((x / 40 + y / 40) % 2) ? 12.0 : -12.0;
            row[x] = cv::Vec3b(cv::saturate_cast<uchar>(120 + 50 * a + c),
                               cv::saturate_cast<uchar>(140 + 40 * b - c),
                               cv::saturate_cast<uchar>(90 + 30 * a * b + 20 * b));
        }
    }
    return bg;
}

cv::Mat subjectColour(int width, int height) {
    cv::Mat fg(height, width, CV_8UC3);
    for (int y = 0; y < height; ++y) {
        auto* row = fg.ptr<cv::Vec3b>(y);
        for (int x = 0; x < width; ++x) {
            const double s = 0.5 + 0.5 * std::sin(x * 0.01 + y * 0.007);
            row[x] = cv::Vec3b(cv::saturate_cast<uchar>(30 + 20 * s),
                               cv::saturate_cast<uchar>(70 + 40 * s),
                               cv::saturate_cast<uchar>(150 + 60 * s));
        }
    }
    return fg;
}

}  // namespace

cv::Mat compositeOver(const cv::Mat& foreground, const cv::Mat& alpha, const cv::Mat& background) {
    cv::Mat out(foreground.size(), CV_8UC3);
    for (int y = 0; y < out.rows; ++y) {
        const auto* f = foreground.ptr<cv::Vec3b>(y);
        const auto* b = background.ptr<cv::Vec3b>(y);
        const auto* a = alpha.ptr<uchar>(y);
        auto* o = out.ptr<cv::Vec3b>(y);
        for (int x = 0; x < out.cols; ++x) {
            const double w = a[x] / 255.0;
            for (int c = 0; c < 3; ++c)
                o[x][c] = cv::saturate_cast<uchar>(w * f[x][c] + (1.0 - w) * b[x][c]);
        }
    }
    return out;
}

cv::Mat edgeBandStrokes(const cv::Mat& truth, int bandWidth) {
    const cv::Mat partial = (truth > 0) & (truth < 255);
    cv::Mat band;
    const int k = bandWidth | 1;
    cv::dilate(partial, band, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(k, k)));
    cv::Mat strokes(truth.size(), CV_8UC1);
    for (int y = 0; y < truth.rows; ++y) {
        const uchar* t = truth.ptr<uchar>(y);
        const uchar* u = band.ptr<uchar>(y);
        uchar* o = strokes.ptr<uchar>(y);
        for (int x = 0; x < truth.cols; ++x) o[x] = u[x] ? 128 : (t[x] == 255 ? 255 : 0);
    }
    return strokes;
}

cv::Mat scribbleStrokes(const cv::Mat& truth) {
    const int w = truth.cols, h = truth.rows;
    const int r = std::max(2, std::min(w, h) / 100);
    cv::Mat strokes(truth.size(), CV_8UC1, cv::Scalar(128));
    // The subject is an ellipse around (w/2, 11h/20) with half-axes w/5 and h/4.
    cv::line(strokes, {w / 2 - w / 8, h * 11 / 20}, {w / 2 + w / 8, h * 11 / 20}, cv::Scalar(255),
             2 * r + 1);
    cv::line(strokes, {w / 2, h * 11 / 20 - h / 8}, {w / 2, h * 11 / 20 + h / 6}, cv::Scalar(255),
             2 * r + 1);
    cv::rectangle(strokes, {r, r}, {w - 1 - r, h - 1 - r}, cv::Scalar(0), 2 * r + 1);
    cv::line(strokes, {w / 10, h / 3}, {w / 10, h * 5 / 6}, cv::Scalar(0), 2 * r + 1);
    cv::line(strokes, {w * 9 / 10, h / 3}, {w * 9 / 10, h * 5 / 6}, cv::Scalar(0), 2 * r + 1);
    // Strokes only where the truth agrees, as a careful user paints.
    strokes.setTo(cv::Scalar(128), (strokes == 255) & (truth != 255));
    strokes.setTo(cv::Scalar(128), (strokes == 0) & (truth != 0));
    return strokes;
}

DemoScene makeDemoScene(int width, int height, unsigned seed) {
    std::mt19937 rng(seed);
    DemoScene scene;
    scene.truth = subjectCoverage(width, height, rng);
    scene.foreground = subjectColour(width, height);
    scene.image = compositeOver(scene.foreground, scene.truth, texturedBackground(width, height));

    // Tri-map: definite where the subject is solid or absent, with a band of undecided pixels
    // around every partial value; a stroke image of the same codes.
    scene.trimap = edgeBandStrokes(scene.truth, 11);
    return scene;
}

}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwDemoScene(int width, int height, unsigned seed,
                                         const QxwColourOut* image, unsigned char* trimap,
                                         int trimapStride, unsigned char* truth, int truthStride,
                                         const QxwColourOut* foreground, unsigned char* strokes,
                                         int strokesStride) {
    if (width < 24 || height < 24 || width > 30000 || height > 30000) return QXW_BAD_INPUT;
    const qx::workflow::DemoScene scene = qx::workflow::makeDemoScene(width, height, seed);
    const cv::Mat edge = strokes ? qx::workflow::edgeBandStrokes(scene.truth) : cv::Mat();
    auto plane = [](const cv::Mat& m, unsigned char* out, int stride) {
        if (out) qx::workflow::copyPlaneOut(m, out, stride);
    };
    auto colour = [](const cv::Mat& m, const QxwColourOut* out) {
        if (out && out->pixels)
            for (int y = 0; y < m.rows; ++y)
                std::memcpy(out->pixels + static_cast<size_t>(y) * out->stride, m.ptr(y),
                            static_cast<size_t>(m.cols) * 3);
    };
    colour(scene.image, image);
    colour(scene.foreground, foreground);
    plane(scene.trimap, trimap, trimapStride);
    plane(scene.truth, truth, truthStride);
    plane(edge, strokes, strokesStride);
    return QXW_OK;
}
