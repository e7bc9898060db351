// Median filters. The cross-shaped medians (5 or 9 samples) run a fixed compare-exchange
// network per pixel, all min/max, so the row loops vectorise; the square median of the 16-bit
// planes selects from the gathered window.
#include <algorithm>
#include <vector>

#include "image/rowloops.h"

namespace qx::prim {

using detail::checkPlanes;
using detail::plane;
using detail::rowAt;

namespace {

// Compare-exchange: a becomes the smaller, b the larger.
template <typename T>
inline void cx(T& a, T& b) {
    const T lo = a < b ? a : b;
    b = a < b ? b : a;
    a = lo;
}

// Median of the 3-cross (up, left, centre, right, down) by a 7-exchange network.
template <typename T>
inline T median5(T p0, T p1, T p2, T p3, T p4) {
    cx(p0, p1);
    cx(p3, p4);
    cx(p0, p3);
    cx(p1, p4);
    cx(p1, p2);
    cx(p2, p3);
    cx(p1, p2);
    return p2;
}

// Median of nine by the 19-exchange network: sort the three triples, then combine.
template <typename T>
inline T median9(T p0, T p1, T p2, T p3, T p4, T p5, T p6, T p7, T p8) {
    cx(p1, p2); cx(p4, p5); cx(p7, p8);
    cx(p0, p1); cx(p3, p4); cx(p6, p7);
    cx(p1, p2); cx(p4, p5); cx(p7, p8);
    cx(p0, p3); cx(p5, p8); cx(p4, p7);
    cx(p3, p6); cx(p1, p4); cx(p2, p5);
    cx(p4, p7); cx(p4, p2); cx(p6, p4);
    cx(p4, p2);
    return p4;
}

// One output row; the rows above and below are passed by pointer at the same column.
template <typename T>
QX_CLONES void cross3Row(const T* up, const T* mid, const T* down, T* d, int width) {
    for (int x = 0; x < width; ++x) d[x] = median5(up[x], mid[x - 1], mid[x], mid[x + 1], down[x]);
}

template <typename T>
QX_CLONES void cross5Row(const T* u2, const T* u1, const T* mid, const T* d1, const T* d2, T* d,
                         int width) {
    for (int x = 0; x < width; ++x)
        d[x] = median9(u2[x], u1[x], mid[x - 2], mid[x - 1], mid[x], mid[x + 1], mid[x + 2],
                       d1[x], d2[x]);
}

template <typename T>
int medianCross(const T* src, int srcStep, T* dst, int dstStep, Size size, int maskCode) {
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dst, dstStep)})) return st;
    if (maskCode != 33 && maskCode != 55) return kBadArg;
    for (int y = 0; y < size.height; ++y) {
        T* d = rowAt(dst, dstStep, y);
        auto r = [&](int dy) { return rowAt(src, srcStep, y + dy); };
        if (maskCode == 33)
            cross3Row(r(-1), r(0), r(1), d, size.width);
        else
            cross5Row(r(-2), r(-1), r(0), r(1), r(2), d, size.width);
    }
    return kOk;
}

}  // namespace

int medianCross_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                      int maskCode) {
    return medianCross(src, srcStep, dst, dstStep, size, maskCode);
}
int medianCross_16s_C1(const int16_t* src, int srcStep, int16_t* dst, int dstStep, Size size,
                       int maskCode) {
    return medianCross(src, srcStep, dst, dstStep, size, maskCode);
}

// Window of maskSize samples with the anchor at the output pixel: columns x - anchor.x ..
// x - anchor.x + width - 1, rows likewise. For an even count the upper of the two middle
// samples is taken.
int medianSquare_16s_C1(const int16_t* src, int srcStep, int16_t* dst, int dstStep, Size size,
                        Size maskSize, Point anchor) {
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dst, dstStep)})) return st;
    if (maskSize.width < 1 || maskSize.height < 1) return kSizeErr;
    if (anchor.x < 0 || anchor.y < 0 || anchor.x >= maskSize.width ||
        anchor.y >= maskSize.height)
        return kBadArg;
    const int64_t count = static_cast<int64_t>(maskSize.width) * maskSize.height;
    if (!detail::fitsBlock(count * 2)) return kBadArg;
    auto* window = static_cast<int16_t*>(allocBlock(count * 2));
    if (!window) return kNoMem;
    const int mw = maskSize.width;
    for (int y = 0; y < size.height; ++y) {
        int16_t* d = rowAt(dst, dstStep, y);
        for (int x = 0; x < size.width; ++x) {
            int16_t* w = window;
            for (int j = 0; j < maskSize.height; ++j, w += mw)
                std::copy_n(rowAt(src, srcStep, y - anchor.y + j) + x - anchor.x, mw, w);
            std::nth_element(window, window + count / 2, window + count);
            d[x] = window[count / 2];
        }
    }
    freeAligned(window);
    return kOk;
}

}  // namespace qx::prim
