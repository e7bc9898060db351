// Neighbourhood filters: the fixed-point Gaussian masks, 3x3 and masked morphology, and float
// convolutions by row, by column and in two dimensions.
//
// Every filter here reads a frame around the region (the caller narrows the region so that the
// frame lies inside its image) and writes the region only.
#include <cstring>
#include <memory>

#include "image/rowloops.h"

namespace qx::prim {

using detail::checkPlanes;
using detail::plane;
using detail::rowAt;

namespace {

// Scratch from the aligned allocator, released at scope end.
struct Scratch {
    void* p = nullptr;
    explicit Scratch(int64_t bytes) : p(detail::fitsBlock(bytes) ? allocBlock(bytes) : nullptr) {}
    ~Scratch() { freeAligned(p); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    template <typename T>
    T* as() const {
        return static_cast<T*>(p);
    }
};

// ---- Gaussian 3x3 (1 2 1 outer product) -----------------------------------------------------

// Vertical pass of the 3x3 mask: col[x] = a[x] + 2 b[x] + c[x] over the row and its frame.
QX_CLONES void gauss3Vertical(const uint8_t* a, const uint8_t* b, const uint8_t* c,
                              uint16_t* __restrict col, int n) {
    for (int x = 0; x < n; ++x)
        col[x] = static_cast<uint16_t>(a[x] + 2 * b[x] + c[x]);
}

// Horizontal pass and the division by 16 with ties to even (v at most 16 * 255 fits 16 bits).
QX_CLONES void gauss3Horizontal(const uint16_t* col, uint8_t* d, int width) {
    for (int x = 0; x < width; ++x) {
        const unsigned v = col[x] + 2u * col[x + 1] + col[x + 2];
        d[x] = static_cast<uint8_t>((v + ((v >> 4) & 1u) + 7u) >> 4);
    }
}

// ---- Gaussian 5x5 ---------------------------------------------------------------------------
// The mask is symmetric but not separable. Its columns come in three patterns, A = 2 7 12 7 2
// (columns 0 and 4), B = 7 31 52 31 7 (columns 1 and 3) and C = 12 52 127 52 12 (column 2).
// The vertical pass weighs each source column by the three patterns (sums at most 30, 128 and
// 255 times 255: 16 bits each), and the horizontal pass adds A(x) + B(x+1) + C(x+2) + B(x+3) +
// A(x+4).

QX_CLONES void gauss5Vertical(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2,
                              const uint8_t* r3, const uint8_t* r4, uint16_t* __restrict a,
                              uint16_t* __restrict b, uint16_t* __restrict c, int n) {
    for (int x = 0; x < n; ++x) {
        const uint16_t outer = static_cast<uint16_t>(r0[x] + r4[x]);
        const uint16_t inner = static_cast<uint16_t>(r1[x] + r3[x]);
        const uint16_t mid = r2[x];
        a[x] = static_cast<uint16_t>(2 * outer + 7 * inner + 12 * mid);
        b[x] = static_cast<uint16_t>(7 * outer + 31 * inner + 52 * mid);
        c[x] = static_cast<uint16_t>(12 * outer + 52 * inner + 127 * mid);
    }
}

// Sum v at most 571 * 255; (v + 286) * 29382 needs the full unsigned 32 bits.
QX_CLONES void gauss5Horizontal(const uint16_t* a, const uint16_t* b, const uint16_t* c,
                                uint8_t* d, int width) {
    for (int x = 0; x < width; ++x) {
        const uint32_t v = uint32_t(a[x]) + a[x + 4] + b[x + 1] + b[x + 3] + c[x + 2];
        d[x] = static_cast<uint8_t>(((v + 286u) * 29382u) >> 24);
    }
}

// ---- Morphology and 3x3 extremes ------------------------------------------------------------

template <typename T, bool Max>
inline T pick(T a, T b) {
    if constexpr (Max)
        return b > a ? b : a;
    else
        return b < a ? b : a;
}

template <typename T, bool Max>
QX_CLONES void extremeOf3Rows(const T* a, const T* b, const T* c, T* out, int n) {
    for (int x = 0; x < n; ++x) out[x] = pick<T, Max>(pick<T, Max>(a[x], b[x]), c[x]);
}

template <typename T, bool Max>
QX_CLONES void extremeOf3Cols(const T* col, T* d, int width) {
    for (int x = 0; x < width; ++x)
        d[x] = pick<T, Max>(pick<T, Max>(col[x], col[x + 1]), col[x + 2]);
}

// out = extreme(out, s) element by element.
template <typename T, bool Max>
QX_CLONES void extremeInto(const T* s, T* out, int n) {
    for (int x = 0; x < n; ++x) out[x] = pick<T, Max>(out[x], s[x]);
}

template <typename T, bool Max>
int extreme3x3(const T* src, int srcStep, T* dst, int dstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dst, dstStep)})) return st;
    const int n = size.width + 2;
    Scratch col(static_cast<int64_t>(n) * sizeof(T));
    if (!col.p) return kNoMem;
    for (int y = 0; y < size.height; ++y) {
        extremeOf3Rows<T, Max>(rowAt(src, srcStep, y - 1) - 1, rowAt(src, srcStep, y) - 1,
                               rowAt(src, srcStep, y + 1) - 1, col.as<T>(), n);
        extremeOf3Cols<T, Max>(col.as<T>(), rowAt(dst, dstStep, y), size.width);
    }
    return kOk;
}

// Morphology under a byte mask, in place. Output row y needs input rows y - anchor.y ..
// y - anchor.y + maskHeight - 1; those rows (with the frame columns) are copied into a ring of
// maskHeight rows before the output row y overwrites any of them, so every output reads the
// original pixels.
template <bool Max>
int morphMasked(uint8_t* srcDst, int step, Size size, const uint8_t* mask, Size maskSize,
                Point anchor) {
    if (mask == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(srcDst, step)})) return st;
    if (maskSize.width < 1 || maskSize.height < 1) return kSizeErr;
    if (anchor.x < 0 || anchor.y < 0 || anchor.x >= maskSize.width ||
        anchor.y >= maskSize.height)
        return kBadArg;
    bool any = false;
    for (int i = 0; i < maskSize.width * maskSize.height; ++i) any = any || mask[i] != 0;
    if (!any) return kBadArg;

    const int mw = maskSize.width, mh = maskSize.height;
    const int span = size.width + mw - 1;  // row with its frame
    Scratch ring(static_cast<int64_t>(span) * mh);
    if (!ring.p) return kNoMem;
    uint8_t* rows = ring.as<uint8_t>();
    auto ringRow = [&](int r) { return rows + static_cast<int64_t>(((r % mh) + mh) % mh) * span; };
    auto load = [&](int r) { std::memcpy(ringRow(r), rowAt(srcDst, step, r) - anchor.x, span); };

    const int top = -anchor.y;  // first input row of output row 0
    for (int r = top; r < top + mh - 1; ++r) load(r);
    for (int y = 0; y < size.height; ++y) {
        load(y + top + mh - 1);
        uint8_t* d = rowAt(srcDst, step, y);
        std::memset(d, Max ? 0 : 255, static_cast<size_t>(size.width));
        for (int j = 0; j < mh; ++j) {
            const uint8_t* s = ringRow(y + top + j);
            for (int i = 0; i < mw; ++i)
                if (mask[j * mw + i]) extremeInto<uint8_t, Max>(s + i, d, size.width);
        }
    }
    return kOk;
}

// ---- Float convolution ----------------------------------------------------------------------

QX_CLONES void scaledRow(const float* s, float k, float* d, int n) {
    for (int x = 0; x < n; ++x) d[x] = k * s[x];
}

QX_CLONES void addScaledRow(const float* s, float k, float* d, int n) {
    for (int x = 0; x < n; ++x) d[x] += k * s[x];
}

// dst(x, y) = sum_{i,j} kernel[j * kw + i] * src(x + ax - i, y + ay - j) over C channels a
// pixel; the one-dimensional filters are the kernels of height or width 1.
template <int C>
int convolve(const float* src, int srcStep, float* dst, int dstStep, Size size,
             const float* kernel, Size ks, Point anchor) {
    if (kernel == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src, srcStep, C), plane(dst, dstStep, C)}))
        return st;
    if (ks.width < 1 || ks.height < 1) return kSizeErr;
    if (anchor.x < 0 || anchor.y < 0 || anchor.x >= ks.width || anchor.y >= ks.height)
        return kBadArg;
    const int n = size.width * C;
    for (int y = 0; y < size.height; ++y) {
        float* d = rowAt(dst, dstStep, y);
        bool first = true;
        for (int j = 0; j < ks.height; ++j) {
            const float* s = rowAt(src, srcStep, y + anchor.y - j) + anchor.x * C;
            for (int i = 0; i < ks.width; ++i) {
                const float k = kernel[j * ks.width + i];
                if (first)
                    scaledRow(s - i * C, k, d, n);
                else
                    addScaledRow(s - i * C, k, d, n);
                first = false;
            }
        }
    }
    return kOk;
}

}  // namespace

int filterGauss_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                      int maskCode) {
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dst, dstStep)})) return st;
    if (maskCode == 33) {
        const int n = size.width + 2;
        Scratch col(static_cast<int64_t>(n) * 2);
        if (!col.p) return kNoMem;
        for (int y = 0; y < size.height; ++y) {
            gauss3Vertical(rowAt(src, srcStep, y - 1) - 1, rowAt(src, srcStep, y) - 1,
                           rowAt(src, srcStep, y + 1) - 1, col.as<uint16_t>(), n);
            gauss3Horizontal(col.as<uint16_t>(), rowAt(dst, dstStep, y), size.width);
        }
        return kOk;
    }
    if (maskCode == 55) {
        const int n = size.width + 4;
        Scratch cols(static_cast<int64_t>(n) * 2 * 3);
        if (!cols.p) return kNoMem;
        uint16_t* a = cols.as<uint16_t>();
        uint16_t* b = a + n;
        uint16_t* c = b + n;
        for (int y = 0; y < size.height; ++y) {
            gauss5Vertical(rowAt(src, srcStep, y - 2) - 2, rowAt(src, srcStep, y - 1) - 2,
                           rowAt(src, srcStep, y) - 2, rowAt(src, srcStep, y + 1) - 2,
                           rowAt(src, srcStep, y + 2) - 2, a, b, c, n);
            gauss5Horizontal(a, b, c, rowAt(dst, dstStep, y), size.width);
        }
        return kOk;
    }
    return kBadArg;
}

int erode3x3_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return extreme3x3<uint8_t, false>(src, srcStep, dst, dstStep, size);
}
int dilate3x3_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return extreme3x3<uint8_t, true>(src, srcStep, dst, dstStep, size);
}
int min3x3_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size) {
    return extreme3x3<float, false>(src, srcStep, dst, dstStep, size);
}
int max3x3_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size) {
    return extreme3x3<float, true>(src, srcStep, dst, dstStep, size);
}
int erode_8u_C1I(uint8_t* srcDst, int step, Size size, const uint8_t* mask, Size maskSize,
                 Point anchor) {
    return morphMasked<false>(srcDst, step, size, mask, maskSize, anchor);
}
int dilate_8u_C1I(uint8_t* srcDst, int step, Size size, const uint8_t* mask, Size maskSize,
                  Point anchor) {
    return morphMasked<true>(srcDst, step, size, mask, maskSize, anchor);
}

int filterRow_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                     const float* kernel, int kernelSize, int anchor) {
    return convolve<1>(src, srcStep, dst, dstStep, size, kernel, {kernelSize, 1}, {anchor, 0});
}
int filterColumn_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                        const float* kernel, int kernelSize, int anchor) {
    return convolve<1>(src, srcStep, dst, dstStep, size, kernel, {1, kernelSize}, {0, anchor});
}
int filterRow_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size,
                     const float* kernel, int kernelSize, int anchor) {
    return convolve<3>(src, srcStep, dst, dstStep, size, kernel, {kernelSize, 1}, {anchor, 0});
}
int filterColumn_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size,
                        const float* kernel, int kernelSize, int anchor) {
    return convolve<3>(src, srcStep, dst, dstStep, size, kernel, {1, kernelSize}, {0, anchor});
}
int filter_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                  const float* kernel, Size kernelSize, Point anchor) {
    return convolve<1>(src, srcStep, dst, dstStep, size, kernel, kernelSize, anchor);
}

}  // namespace qx::prim
