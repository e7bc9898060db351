// A clipped rasteriser for thick strokes: a stroke is a chain of filled discs, one a step along
// the major axis, and a disc is a stack of row spans. No anti-aliasing: one value is written.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "image/base_tools.h"

namespace qx {

namespace {

bool drawable(const uint8_t* data, int width, int height) {
    return data != nullptr && width >= 1 && height >= 1;
}

// Row span [x0, x1] (any order, 64-bit so that centre +- half cannot wrap) clipped to the row.
bool fillSpan(uint8_t* data, int step, int width, int height, int64_t x0, int64_t x1, int64_t y,
              uint8_t value) {
    if (y < 0 || y >= height) return false;
    const int64_t left = std::max<int64_t>(std::min(x0, x1), 0);
    const int64_t right = std::min<int64_t>(std::max(x0, x1), width - 1);
    if (left > right) return false;
    std::memset(data + static_cast<int64_t>(step) * y + left, value,
                static_cast<size_t>(right - left + 1));
    return true;
}

// The disc of drawCircle with centres and radius checked by the callers. Rows outside the plane
// are not visited at all: they could only be skipped.
void fillDisc(uint8_t* data, int step, int width, int height, int64_t cx, int64_t cy, int radius,
              uint8_t value) {
    if (radius == 0) {
        if (cx >= 0 && cx < width && cy >= 0 && cy < height)
            data[static_cast<int64_t>(step) * cy + cx] = value;
        return;
    }
    const int64_t first = std::max<int64_t>(-radius, -cy);
    const int64_t last = std::min<int64_t>(radius, height - 1 - cy);
    const double r2 = static_cast<double>(radius) * radius;
    for (int64_t dy = first; dy <= last; ++dy) {
        const int half = static_cast<int>(std::sqrt(r2 - static_cast<double>(dy * dy)) + 0.49);
        fillSpan(data, step, width, height, cx - half, cx + half, cy + dy, value);
    }
}

// Position on the minor axis for step t of the walk: (int)(t * slope + intercept + 0.49999),
// the last addition in double. Positions beyond the int range cannot meet the plane; they
// come back as a value far outside it instead of an undefined conversion.
int64_t minorPosition(int64_t t, float slope, float intercept) {
    const double v = static_cast<double>(static_cast<float>(t) * slope + intercept) + 0.49999;
    if (!(v > -4.0e9 && v < 4.0e9)) return v > 0 ? int64_t(1) << 40 : -(int64_t(1) << 40);
    return static_cast<int64_t>(v);
}

}  // namespace

int drawHLine(uint8_t* data, int step, int width, int height, int x0, int x1, int y,
              uint8_t value) {
    if (!drawable(data, width, height)) return 0;
    return fillSpan(data, step, width, height, x0, x1, y, value) ? 1 : 0;
}

int drawCircle(uint8_t* data, int step, int width, int height, int cx, int cy, int radius,
               uint8_t value) {
    if (!drawable(data, width, height) || radius < 0) return 0;
    if (radius == 0 && !(cx >= 0 && cx < width && cy >= 0 && cy < height)) return 0;
    fillDisc(data, step, width, height, cx, cy, radius, value);
    return 1;
}

int drawLineW(uint8_t* data, int step, int width, int height, int x0, int y0, int x1, int y1,
              int radius, uint8_t value) {
    if (!drawable(data, width, height)) return 0;
    if (radius < 0) return 1;  // no disc anywhere: the walk below would draw nothing
    fillDisc(data, step, width, height, x0, y0, radius, value);
    const int64_t dx = int64_t(x1) - x0, dy = int64_t(y1) - y0;
    if (dx == 0 && dy == 0) return 1;
    const bool steep = std::llabs(dx) <= std::llabs(dy);
    // Walk the major axis from the start (excluded) to the end (included); steps whose disc
    // lies wholly beyond the plane along the major axis are not visited.
    const int64_t from = steep ? y0 : x0, to = steep ? y1 : x1;
    const int64_t dir = (steep ? dy : dx) < 0 ? -1 : 1;
    const int64_t extent = steep ? height : width;
    const float slope = steep ? static_cast<float>(dx) / static_cast<float>(dy)
                              : static_cast<float>(dy) / static_cast<float>(dx);
    const float intercept = steep ? static_cast<float>(x0) - static_cast<float>(y0) * slope
                                  : static_cast<float>(y0) - static_cast<float>(x0) * slope;
    int64_t lo = std::min(from + dir, to), hi = std::max(from + dir, to);
    lo = std::max<int64_t>(lo, -int64_t(radius));
    hi = std::min<int64_t>(hi, extent - 1 + radius);
    for (int64_t i = 0, n = hi - lo + 1; i < n; ++i) {
        const int64_t t = dir > 0 ? lo + i : hi - i;  // the walk's own order
        const int64_t m = minorPosition(t, slope, intercept);
        if (steep)
            fillDisc(data, step, width, height, m, t, radius, value);
        else
            fillDisc(data, step, width, height, t, m, radius, value);
    }
    return 1;
}

}  // namespace qx
