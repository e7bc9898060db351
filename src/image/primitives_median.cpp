// Median filters. The cross-shaped medians (5 or 9 samples) run a sorting network over a block
// of pixels at a time, one compare-exchange being a min/max loop across the block, which is
// what vectorises; the square median of the 16-bit planes selects from the gathered window.
#include <algorithm>
#include <array>
#include <vector>

#include "image/rowloops.h"

namespace qx::prim {

using detail::checkPlanes;
using detail::plane;
using detail::rowAt;

namespace {

constexpr int kBlock = 256;

// Odd-even transposition sort: N rounds over alternating neighbour pairs sort any N inputs.
template <int N>
constexpr auto transpositionNetwork() {
    std::array<std::array<int, 2>, N * (N / 2)> pairs{};
    int k = 0;
    for (int round = 0; round < N; ++round)
        for (int i = round & 1; i + 1 < N; i += 2) pairs[k++] = {i, i + 1};
    struct Net {
        std::array<std::array<int, 2>, N * (N / 2)> pairs;
        int count;
    };
    return Net{pairs, k};
}

template <typename T>
QX_CLONES void compareExchange(T* lo, T* hi, int n) {
    for (int x = 0; x < n; ++x) {
        const T a = lo[x], b = hi[x];
        lo[x] = a < b ? a : b;
        hi[x] = a < b ? b : a;
    }
}

// Cross of N samples (5: the 3-cross, 9: the 5-cross) around each pixel of a row.
template <typename T, int N>
void crossMedianRow(const T* src, int srcStep, int y, T* dst, int width, T* lanes) {
    constexpr int r = N == 5 ? 1 : 2;
    constexpr auto net = transpositionNetwork<N>();
    for (int x0 = 0; x0 < width; x0 += kBlock) {
        const int n = std::min(kBlock, width - x0);
        int k = 0;
        // Vertical arm, then horizontal arm without the centre.
        for (int dy = -r; dy <= r; ++dy, ++k)
            std::copy_n(rowAt(src, srcStep, y + dy) + x0, n, lanes + k * kBlock);
        const T* row = rowAt(src, srcStep, y) + x0;
        for (int dx = -r; dx <= r; ++dx)
            if (dx != 0) std::copy_n(row + dx, n, lanes + (k++) * kBlock);
        for (int i = 0; i < net.count; ++i)
            compareExchange(lanes + net.pairs[i][0] * kBlock, lanes + net.pairs[i][1] * kBlock, n);
        std::copy_n(lanes + (N / 2) * kBlock, n, dst + x0);
    }
}

template <typename T>
int medianCross(const T* src, int srcStep, T* dst, int dstStep, Size size, int maskCode) {
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dst, dstStep)})) return st;
    if (maskCode != 33 && maskCode != 55) return kBadArg;
    std::array<T, 9 * kBlock> lanes;
    for (int y = 0; y < size.height; ++y) {
        T* d = rowAt(dst, dstStep, y);
        if (maskCode == 33)
            crossMedianRow<T, 5>(src, srcStep, y, d, size.width, lanes.data());
        else
            crossMedianRow<T, 9>(src, srcStep, y, d, size.width, lanes.data());
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
