#include "editor/brush.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>

namespace qx {
namespace {

bool nearPlane(int v, int extent) {
    return v >= -kBrushNearLimit && int64_t(v) <= int64_t(extent) - 1 + kBrushNearLimit;
}

// Liang-Barsky step: narrows [t0, t1] so that p + t*d stays within [lo, hi].
bool clipAxis(double p, double d, double lo, double hi, double& t0, double& t1) {
    if (d == 0) return p >= lo && p <= hi;
    double a = (lo - p) / d, b = (hi - p) / d;
    if (a > b) std::swap(a, b);
    t0 = std::max(t0, a);
    t1 = std::min(t1, b);
    return t0 <= t1;
}

}  // namespace

bool drawBrushSegment(cv::Mat& plane, cv::Point p0, cv::Point p1, int radius, int level) {
    const int thickness = 2 * radius + 1;
    // A one-pixel line is clipped by OpenCV itself in 64-bit arithmetic; wide strokes near the
    // plane are drawn as they always were.
    if (radius == 0 || (nearPlane(p0.x, plane.cols) && nearPlane(p0.y, plane.rows) &&
                        nearPlane(p1.x, plane.cols) && nearPlane(p1.y, plane.rows))) {
        cv::line(plane, p0, p1, cv::Scalar(level), thickness, cv::LINE_8, 0);
        return true;
    }
    // The box: every pixel within radius + 1 of the plane (the end disc's reach) and a margin.
    const double margin = double(radius) + 4.0;
    const double x0 = p0.x, y0 = p0.y, dx = double(p1.x) - x0, dy = double(p1.y) - y0;
    double t0 = 0.0, t1 = 1.0;
    // The box's far side stays inside an int even for planes near the int limit.
    const auto far = [margin](int extent) {
        return std::min(extent - 1 + margin, double(INT_MAX));
    };
    if (!clipAxis(x0, dx, -margin, far(plane.cols), t0, t1) ||
        !clipAxis(y0, dy, -margin, far(plane.rows), t0, t1))
        return false;
    // Sub-pixel bits that keep every shifted coordinate of the box inside an int.
    const double reach = std::max(far(plane.cols), far(plane.rows)) + 1.0;
    int shift = 16;
    while (shift > 0 && std::ldexp(reach, shift) > double(INT_MAX)) --shift;
    const auto fixed = [shift](double v) {
        return static_cast<int>(std::clamp(std::llround(std::ldexp(v, shift)),
                                           static_cast<long long>(INT_MIN) + 1,
                                           static_cast<long long>(INT_MAX)));
    };
    const cv::Point q0(fixed(x0 + t0 * dx), fixed(y0 + t0 * dy));
    const cv::Point q1(fixed(x0 + t1 * dx), fixed(y0 + t1 * dy));
    cv::line(plane, q0, q1, cv::Scalar(level), thickness, cv::LINE_8, shift);
    return true;
}

}  // namespace qx
