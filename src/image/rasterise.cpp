// A clipped rasteriser for thick strokes: a stroke is a chain of filled discs, one a step along
// the major axis, and a disc is a stack of row spans. No anti-aliasing: one value is written.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

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

// The steps [first, last] along the major axis that drawLineW's walk visits after its start
// disc: from the start (excluded) to the end (included), less the steps whose disc lies wholly
// beyond the plane along the major axis. Empty (last < first) for a stroke of one point.
std::pair<int64_t, int64_t> walkSteps(int width, int height, int x0, int y0, int x1, int y1,
                                      int radius) {
    const int64_t dx = int64_t(x1) - x0, dy = int64_t(y1) - y0;
    if (dx == 0 && dy == 0) return {0, -1};
    const bool steep = std::llabs(dx) <= std::llabs(dy);
    const int64_t from = steep ? y0 : x0, to = steep ? y1 : x1;
    const int64_t dir = (steep ? dy : dx) < 0 ? -1 : 1;
    const int64_t extent = steep ? height : width;
    const int64_t lo = std::max<int64_t>(std::min(from + dir, to), -int64_t(radius));
    const int64_t hi = std::min<int64_t>(std::max(from + dir, to), extent - 1 + radius);
    return {lo, hi};
}

// The values v with low <= k v + c <= high, as an interval (empty: first above second).
std::pair<double, double> linearRange(double k, double c, double low, double high) {
    constexpr double kAll = std::numeric_limits<double>::infinity();
    if (k > 0) return {(low - c) / k, (high - c) / k};
    if (k < 0) return {(high - c) / k, (low - c) / k};
    return low <= c && c <= high ? std::pair{-kAll, kAll} : std::pair{kAll, -kAll};
}

// drawStroke walks while that costs at most this many fills of the plane (and always up to
// 2^24 bytes' worth: about a millisecond).
constexpr double kStrokeWalkPlanes = 1024.0;

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
    const int64_t dir = (steep ? dy : dx) < 0 ? -1 : 1;
    const float slope = steep ? static_cast<float>(dx) / static_cast<float>(dy)
                              : static_cast<float>(dy) / static_cast<float>(dx);
    const float intercept = steep ? static_cast<float>(x0) - static_cast<float>(y0) * slope
                                  : static_cast<float>(y0) - static_cast<float>(x0) * slope;
    const auto [lo, hi] = walkSteps(width, height, x0, y0, x1, y1, radius);
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

int fillCapsule(uint8_t* data, int step, int width, int height, int x0, int y0, int x1, int y1,
                double reach, uint8_t value) {
    if (!drawable(data, width, height)) return 0;
    if (!(reach >= 0.0)) return 1;
    // Differences of ints are exact in double, so every distance below is measured from the
    // segment's own ends without a large coordinate in between.
    const double ax = x0, ay = y0, bx = x1, by = y1;
    const double dx = bx - ax, dy = by - ay;
    const double length = std::hypot(dx, dy);
    const double ux = length > 0 ? dx / length : 0.0, uy = length > 0 ? dy / length : 0.0;
    // The covered part of a row is one interval, the union of its parts in the end discs and
    // in the band along the segment (those overlap or touch: the region is convex).
    for (int y = 0; y < height; ++y) {
        double lo = std::numeric_limits<double>::infinity(), hi = -lo;
        const auto add = [&](double a, double b) {
            if (a > b) return;
            lo = std::min(lo, a);
            hi = std::max(hi, b);
        };
        for (const auto& [cx, cy] : {std::pair{ax, ay}, std::pair{bx, by}}) {
            const double off = std::fabs(y - cy);
            if (off <= reach) {
                const double half = std::sqrt((reach - off) * (reach + off));
                add(cx - half, cx + half);
            }
        }
        if (length > 0) {
            // v = x - ax: along the segment (x - ax) ux + (y - ay) uy in [0, length], across it
            // (y - ay) ux - (x - ax) uy in [-reach, reach].
            const double ry = y - ay;
            const auto along = linearRange(ux, ry * uy, 0.0, length);
            const auto across = linearRange(-uy, ry * ux, -reach, reach);
            add(ax + std::max(along.first, across.first),
                ax + std::min(along.second, across.second));
        }
        if (!(lo <= hi)) continue;
        const double left = std::max(std::ceil(lo), 0.0);
        const double right = std::min(std::floor(hi), double(width - 1));
        if (left > right) continue;
        std::memset(data + static_cast<int64_t>(step) * y + static_cast<int64_t>(left), value,
                    static_cast<size_t>(right - left + 1));
    }
    return 1;
}

int drawStroke(uint8_t* data, int step, int width, int height, int x0, int y0, int x1, int y1,
               int radius, uint8_t value) {
    if (!drawable(data, width, height)) return 0;
    if (radius < 0) return 1;
    // The walk's work: a row's overhead (about 64 bytes' worth) and its bytes, for every row of
    // every disc that can meet the plane; a fill of the plane costs its rows likewise.
    const auto [lo, hi] = walkSteps(width, height, x0, y0, x1, y1, radius);
    const double discs = 1.0 + double(std::max<int64_t>(hi - lo + 1, 0));
    const double across = 2.0 * radius + 1.0;
    const double walkWork = discs * std::min(across, double(height)) *
                            (std::min(across, double(width)) + 64.0);
    const double planeWork = double(height) * (double(width) + 64.0);
    if (walkWork <= kStrokeWalkPlanes * planeWork + double(1 << 24))
        return drawLineW(data, step, width, height, x0, y0, x1, y1, radius, value);
    return fillCapsule(data, step, width, height, x0, y0, x1, y1, radius + 0.5, value);
}

}  // namespace qx
