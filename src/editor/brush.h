// The brush of the mask editor: one segment of a stroke, drawn with OpenCV into a byte plane.
// Line type 8 and no anti-aliasing, so that a stroke writes exactly one code and never creates
// intermediate values; the width is always odd, 2*radius + 1, so radius 0 is one pixel wide.
#pragma once

#include <opencv2/core.hpp>

namespace qx {

// OpenCV refuses thicknesses above 32767; a radius beyond this cannot be drawn.
constexpr int kMaxBrushRadius = 16383;

// Segments whose ends lie within this many pixels of the plane on both axes go to cv::line
// exactly as given. Farther ends are first moved along the segment (see drawBrushSegment).
constexpr int kBrushNearLimit = 1 << 20;

inline bool validBrushRadius(int radius) { return radius >= 0 && radius <= kMaxBrushRadius; }

// Draws the segment p0-p1 with `level` into `plane` (8-bit, one channel). The header's width
// bounds every write, so a host plane's row padding is never touched.
// cv::line shifts wide strokes' coordinates into fixed point and dies (SIGFPE) or stalls on
// ends near the int limits. An end farther than kBrushNearLimit from the plane is therefore
// replaced by the point where the segment leaves a box around the plane, radius + 4 pixels
// wider on every side, given to cv::line in sub-pixel fixed point: no pixel of the plane lies
// within the brush of the part cut away, and the part kept has the same direction. Returns
// false when the segment misses that box (nothing to draw).
bool drawBrushSegment(cv::Mat& plane, cv::Point p0, cv::Point p1, int radius, int level);

}  // namespace qx
