// The two stages of the pipelined separable filter. The row stage extends each row by its
// border (constant, replicate, wrap or mirror) into scratch and convolves it; the column stage
// combines consecutive rows given by pointer, so a caller can express any vertical border by
// the row pointers it hands over.
#include <algorithm>
#include <cstring>

#include "image/rowloops.h"

namespace qx::prim {

namespace {

constexpr int kAlignPad = 64;

// Integer accumulators are 64-bit: a 16-bit pixel times a 16-bit tap over a long kernel does
// not fit 32 bits.
template <typename T>
using Acc = std::conditional_t<std::is_same_v<T, float>, float, int64_t>;

uint8_t* alignUp(uint8_t* p) {
    const auto a = reinterpret_cast<uintptr_t>(p);
    return p + ((kAlignPad - a % kAlignPad) % kAlignPad);
}

// Source column of position i outside 0..width-1 by the border rule; -1 for the constant.
int borderIndex(int i, int width, int mode) {
    if (i >= 0 && i < width) return i;
    switch (mode) {
        case 1: return i < 0 ? 0 : width - 1;
        case 2: return ((i % width) + width) % width;
        case 4: {
            if (width == 1) return 0;
            const int period = 2 * (width - 1);  // mirror without repeating the edge
            int m = ((i % period) + period) % period;
            return m < width ? m : period - m;
        }
        default: return -1;
    }
}

// Division by the divisor, rounded to nearest with ties to even, saturated to 16 bits.
int16_t divideRound(int64_t acc, int divisor) {
    int64_t q = acc / divisor;
    const int64_t r = acc % divisor;
    const int64_t twice = 2 * (r < 0 ? -r : r);
    if (twice > divisor || (twice == divisor && (q & 1))) q += acc < 0 ? -1 : 1;
    return static_cast<int16_t>(std::clamp<int64_t>(q, -32768, 32767));
}

template <typename T>
QX_CLONES void accumulateRow(const T* s, T k, Acc<T>* acc, int n, bool first) {
    if (first)
        for (int x = 0; x < n; ++x) acc[x] = static_cast<Acc<T>>(k) * s[x];
    else
        for (int x = 0; x < n; ++x) acc[x] += static_cast<Acc<T>>(k) * s[x];
}

template <typename T>
void storeRow(const Acc<T>* acc, T* d, int n, int divisor) {
    if constexpr (std::is_same_v<T, float>)
        std::memcpy(d, acc, static_cast<size_t>(n) * sizeof(float));
    else
        for (int x = 0; x < n; ++x) d[x] = divideRound(acc[x], divisor);
}

int rowBufferBytes(int width, int kernelSize, int elementBytes, int64_t* bytes) {
    if (width < 1) return kSizeErr;
    if (kernelSize < 1) return kSizeErr;
    if (elementBytes != 2 && elementBytes != 4) return kBadArg;
    const int64_t ext = static_cast<int64_t>(width) + kernelSize - 1;
    const int64_t accBytes = static_cast<int64_t>(width) * (elementBytes == 2 ? 8 : 4);
    *bytes = ext * elementBytes + accBytes + 2 * kAlignPad;
    return *bytes > INT32_MAX ? kSizeErr : kOk;
}

int columnBufferBytes(int width, int elementBytes, int64_t* bytes) {
    if (width < 1) return kSizeErr;
    if (elementBytes != 2 && elementBytes != 4) return kBadArg;
    *bytes = static_cast<int64_t>(width) * (elementBytes == 2 ? 8 : 4) + kAlignPad;
    return *bytes > INT32_MAX ? kSizeErr : kOk;
}

template <typename T>
int rowStage(const T* const* srcRows, T* const* dstRows, int width, int rows, const T* kernel,
             int kernelSize, int anchor, int borderMode, T borderValue, int divisor,
             uint8_t* buffer) {
    if (!srcRows || !dstRows || !kernel || !buffer) return kNullPtr;
    if (width < 1 || rows < 1 || kernelSize < 1) return kSizeErr;
    if (anchor < 0 || anchor >= kernelSize) return kBadArg;
    if (borderMode != 0 && borderMode != 1 && borderMode != 2 && borderMode != 4) return kBadArg;
    if (!std::is_same_v<T, float> && divisor < 1) return kBadArg;
    for (int r = 0; r < rows; ++r)
        if (!srcRows[r] || !dstRows[r]) return kNullPtr;
    int64_t bytes = 0;
    if (const int st = rowBufferBytes(width, kernelSize, sizeof(T), &bytes)) return st;

    // ext[j] holds source column j + lo, lo = anchor - kernelSize + 1, so that
    // dst(x) = sum_i kernel[i] * ext[x + kernelSize - 1 - i].
    const int lo = anchor - kernelSize + 1;
    const int extLen = width + kernelSize - 1;
    T* ext = reinterpret_cast<T*>(alignUp(buffer));
    Acc<T>* acc = reinterpret_cast<Acc<T>*>(
        alignUp(reinterpret_cast<uint8_t*>(ext + extLen)));
    for (int r = 0; r < rows; ++r) {
        const T* s = srcRows[r];
        const int left = std::min(extLen, -lo);  // frame columns before column 0
        for (int j = 0; j < left; ++j) {
            const int i = borderIndex(j + lo, width, borderMode);
            ext[j] = i < 0 ? borderValue : s[i];
        }
        std::memcpy(ext + left, s, static_cast<size_t>(width) * sizeof(T));
        for (int j = left + width; j < extLen; ++j) {
            const int i = borderIndex(j + lo, width, borderMode);
            ext[j] = i < 0 ? borderValue : s[i];
        }
        for (int i = 0; i < kernelSize; ++i)
            accumulateRow<T>(ext + kernelSize - 1 - i, kernel[i], acc, width, i == 0);
        storeRow<T>(acc, dstRows[r], width, divisor);
    }
    return kOk;
}

template <typename T>
int columnStage(const T* const* srcRows, T* dst, int dstStep, Size size, const T* kernel,
                int kernelSize, int divisor, uint8_t* buffer) {
    if (!srcRows || !dst || !kernel || !buffer) return kNullPtr;
    if (size.width < 1 || size.height < 1 || kernelSize < 1) return kSizeErr;
    if (size.height > 1 && dstStep < static_cast<int64_t>(size.width) * int64_t(sizeof(T)))
        return kBadArg;
    if (!std::is_same_v<T, float> && divisor < 1) return kBadArg;
    for (int r = 0; r < size.height + kernelSize - 1; ++r)
        if (!srcRows[r]) return kNullPtr;
    int64_t bytes = 0;
    if (const int st = columnBufferBytes(size.width, sizeof(T), &bytes)) return st;
    Acc<T>* acc = reinterpret_cast<Acc<T>*>(alignUp(buffer));
    for (int y = 0; y < size.height; ++y) {
        for (int i = 0; i < kernelSize; ++i)
            accumulateRow<T>(srcRows[y + i], kernel[kernelSize - 1 - i], acc, size.width, i == 0);
        storeRow<T>(acc, detail::rowAt(dst, dstStep, y), size.width, divisor);
    }
    return kOk;
}

}  // namespace

int sepFilterRowBufferSize(Size size, int kernelSize, int elementBytes, int* bytes) {
    if (!bytes) return kNullPtr;
    *bytes = 0;
    if (size.height < 1) return kSizeErr;
    int64_t b = 0;
    if (const int st = rowBufferBytes(size.width, kernelSize, elementBytes, &b)) return st;
    *bytes = static_cast<int>(b);
    return kOk;
}

int sepFilterColumnBufferSize(Size size, int kernelSize, int elementBytes, int* bytes) {
    if (!bytes) return kNullPtr;
    *bytes = 0;
    if (size.height < 1 || kernelSize < 1) return kSizeErr;
    int64_t b = 0;
    if (const int st = columnBufferBytes(size.width, elementBytes, &b)) return st;
    *bytes = static_cast<int>(b);
    return kOk;
}

int sepFilterRow_16s_C1(const int16_t* const* srcRows, int16_t* const* dstRows, int width,
                        int rows, const int16_t* kernel, int kernelSize, int anchor,
                        int borderMode, int16_t borderValue, int divisor, uint8_t* buffer) {
    return rowStage<int16_t>(srcRows, dstRows, width, rows, kernel, kernelSize, anchor,
                             borderMode, borderValue, divisor, buffer);
}
int sepFilterColumn_16s_C1(const int16_t* const* srcRows, int16_t* dst, int dstStep, Size size,
                           const int16_t* kernel, int kernelSize, int divisor, uint8_t* buffer) {
    return columnStage<int16_t>(srcRows, dst, dstStep, size, kernel, kernelSize, divisor, buffer);
}
int sepFilterRow_32f_C1(const float* const* srcRows, float* const* dstRows, int width, int rows,
                        const float* kernel, int kernelSize, int anchor, int borderMode,
                        float borderValue, uint8_t* buffer) {
    return rowStage<float>(srcRows, dstRows, width, rows, kernel, kernelSize, anchor, borderMode,
                           borderValue, 1, buffer);
}
int sepFilterColumn_32f_C1(const float* const* srcRows, float* dst, int dstStep, Size size,
                           const float* kernel, int kernelSize, uint8_t* buffer) {
    return columnStage<float>(srcRows, dst, dstStep, size, kernel, kernelSize, 1, buffer);
}

}  // namespace qx::prim
