#include "demo_scene.h"

#include <cmath>
#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

namespace qxmatte {
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

cv::Mat makeNewBackground(int width, int height) {
    cv::Mat bg(height, width, CV_8UC3);
    for (int y = 0; y < height; ++y) {
        auto* row = bg.ptr<cv::Vec3b>(y);
        for (int x = 0; x < width; ++x)
            row[x] = cv::Vec3b(cv::saturate_cast<uchar>(200 - y * 120 / height),
                               cv::saturate_cast<uchar>(60 + x * 60 / width),
                               cv::saturate_cast<uchar>(90 + y * 100 / height));
    }
    return bg;
}

DemoScene makeDemoScene(int width, int height, unsigned seed) {
    std::mt19937 rng(seed);
    DemoScene scene;
    scene.truth = subjectCoverage(width, height, rng);
    scene.foreground = subjectColour(width, height);
    scene.image = compositeOver(scene.foreground, scene.truth, texturedBackground(width, height));

    // Tri-map: definite where the subject is solid or absent, with a band of undecided pixels
    // around every partial value.
    cv::Mat partial = (scene.truth > 0) & (scene.truth < 255);
    cv::Mat band;
    cv::dilate(partial, band, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(11, 11)));
    scene.trimap = cv::Mat(height, width, CV_8UC1);
    for (int y = 0; y < height; ++y) {
        const uchar* t = scene.truth.ptr<uchar>(y);
        const uchar* u = band.ptr<uchar>(y);
        uchar* o = scene.trimap.ptr<uchar>(y);
        for (int x = 0; x < width; ++x) o[x] = u[x] ? 128 : (t[x] == 255 ? 255 : 0);
    }
    return scene;
}

}  // namespace qxmatte
