// The brush of the mask editor: one segment of a stroke, drawn with OpenCV into a byte plane.
// Line type 8 and no anti-aliasing, so that a stroke writes exactly one code and never creates
// intermediate values; the width is always odd, 2*radius + 1, so radius 0 is one pixel wide.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace qx {

// OpenCV refuses thicknesses above 32767; a radius beyond this cannot be drawn.
constexpr int kMaxBrushRadius = 16383;

inline bool validBrushRadius(int radius) { return radius >= 0 && radius <= kMaxBrushRadius; }

// Draws the segment p0-p1 with `level` into `plane` (8-bit, one channel). The header's width
// bounds every write, so a host plane's row padding is never touched.
inline void drawBrushSegment(cv::Mat& plane, cv::Point p0, cv::Point p1, int radius, int level) {
    cv::line(plane, p0, p1, cv::Scalar(level), 2 * radius + 1, cv::LINE_8, 0);
}

}  // namespace qx
