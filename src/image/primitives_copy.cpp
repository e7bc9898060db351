// Copy, fill, masked copy and channel shuffles. Row copies go through memcpy, which is already
// specialised for the processor; the per-element loops are cloned per code path.
#include <cstring>

#include "image/rowloops.h"

namespace qx::prim {

using detail::checkPlanes;
using detail::plane;
using detail::rowAt;

namespace {

// Plain copy of `rowBytes` bytes a row: every element type and channel count comes here.
int copyRows(const void* src, int srcStep, void* dst, int dstStep, Size size, int pixelBytes) {
    if (const int st = checkPlanes(size, {{src, srcStep, pixelBytes}, {dst, dstStep, pixelBytes}}))
        return st;
    const size_t rowBytes = static_cast<size_t>(size.width) * pixelBytes;
    const auto* s = static_cast<const uint8_t*>(src);
    auto* d = static_cast<uint8_t*>(dst);
    for (int y = 0; y < size.height; ++y)
        std::memmove(rowAt(d, dstStep, y), rowAt(s, srcStep, y), rowBytes);
    return kOk;
}

template <typename T, int C>
QX_CLONES void fillRow(T* d, int width, const T* value) {
    if constexpr (C == 1) {
        const T v = value[0];
        for (int x = 0; x < width; ++x) d[x] = v;
    } else {
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < C; ++c) d[x * C + c] = value[c];
    }
}

template <typename T, int C>
int fill(const T* value, T* dst, int dstStep, Size size) {
    if (value == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(dst, dstStep, C)})) return st;
    for (int y = 0; y < size.height; ++y) fillRow<T, C>(rowAt(dst, dstStep, y), size.width, value);
    return kOk;
}

// Masked copy of C elements a pixel; the select is written branch-free so it vectorises.
template <typename T, int C>
QX_CLONES void copyMaskedRow(const T* s, T* d, const uint8_t* m, int width) {
    for (int x = 0; x < width; ++x)
        for (int c = 0; c < C; ++c) d[x * C + c] = m[x] ? s[x * C + c] : d[x * C + c];
}

template <typename T, int C>
int copyMasked(const T* src, int srcStep, T* dst, int dstStep, Size size, const uint8_t* mask,
               int maskStep) {
    if (const int st = checkPlanes(
            size, {plane(src, srcStep, C), plane(dst, dstStep, C), plane(mask, maskStep)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        copyMaskedRow<T, C>(rowAt(src, srcStep, y), rowAt(dst, dstStep, y),
                            rowAt(mask, maskStep, y), size.width);
    return kOk;
}

QX_CLONES void setMaskedRow(uint8_t v, uint8_t* d, const uint8_t* m, int width) {
    for (int x = 0; x < width; ++x) d[x] = m[x] ? v : d[x];
}

// Moves one element of an S-element pixel into a plane, or back (Gather false). The pointer at
// the interleaved side already points at the chosen element of pixel 0.
template <typename T, int S, bool Gather>
QX_CLONES void channelRow(T* interleaved, T* planar, int width) {
    for (int x = 0; x < width; ++x) {
        if constexpr (Gather)
            planar[x] = interleaved[x * S];
        else
            interleaved[x * S] = planar[x];
    }
}

// The interleaved plane's row has width * S elements from pixel 0; the pointer given is at
// element `offset` of pixel 0, which the callers cannot tell us, so the step check assumes the
// whole pixel lies in the row.
template <typename T, int S>
int extract(const T* srcAt, int srcStep, T* dst, int dstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(srcAt, srcStep, S), plane(dst, dstStep)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        channelRow<T, S, true>(const_cast<T*>(rowAt(srcAt, srcStep, y)), rowAt(dst, dstStep, y),
                               size.width);
    return kOk;
}

template <typename T, int S>
int insert(const T* src, int srcStep, T* dstAt, int dstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dstAt, dstStep, S)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        channelRow<T, S, false>(rowAt(dstAt, dstStep, y), const_cast<T*>(rowAt(src, srcStep, y)),
                                size.width);
    return kOk;
}

QX_CLONES void copyAC4Row(const uint8_t* s, uint8_t* d, int width) {
    for (int x = 0; x < width; ++x) {
        d[4 * x] = s[4 * x];
        d[4 * x + 1] = s[4 * x + 1];
        d[4 * x + 2] = s[4 * x + 2];
    }
}

QX_CLONES void interleaveRow(const uint8_t* a, const uint8_t* b, const uint8_t* c, uint8_t* d,
                             int width) {
    for (int x = 0; x < width; ++x) {
        d[3 * x] = a[x];
        d[3 * x + 1] = b[x];
        d[3 * x + 2] = c[x];
    }
}

QX_CLONES void deinterleave4Row(const uint8_t* s, uint8_t* a, uint8_t* b, uint8_t* c, uint8_t* e,
                                int width) {
    for (int x = 0; x < width; ++x) {
        a[x] = s[4 * x];
        b[x] = s[4 * x + 1];
        c[x] = s[4 * x + 2];
        e[x] = s[4 * x + 3];
    }
}

}  // namespace

int copy_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return copyRows(src, srcStep, dst, dstStep, size, 1);
}
int copy_8u_C3(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return copyRows(src, srcStep, dst, dstStep, size, 3);
}
int copy_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return copyRows(src, srcStep, dst, dstStep, size, 4);
}
int copy_16s_C1(const int16_t* src, int srcStep, int16_t* dst, int dstStep, Size size) {
    return copyRows(src, srcStep, dst, dstStep, size, 2);
}
int copy_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size) {
    return copyRows(src, srcStep, dst, dstStep, size, 4);
}
int copy_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size) {
    return copyRows(src, srcStep, dst, dstStep, size, 12);
}

int set_8u_C1(uint8_t value, uint8_t* dst, int dstStep, Size size) {
    return fill<uint8_t, 1>(&value, dst, dstStep, size);
}
int set_16s_C1(int16_t value, int16_t* dst, int dstStep, Size size) {
    return fill<int16_t, 1>(&value, dst, dstStep, size);
}
int set_32f_C1(float value, float* dst, int dstStep, Size size) {
    return fill<float, 1>(&value, dst, dstStep, size);
}
int set_32f_C3(const float value[3], float* dst, int dstStep, Size size) {
    return fill<float, 3>(value, dst, dstStep, size);
}

int copyMasked_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                     const uint8_t* mask, int maskStep) {
    return copyMasked<uint8_t, 1>(src, srcStep, dst, dstStep, size, mask, maskStep);
}
int copyMasked_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                      const uint8_t* mask, int maskStep) {
    return copyMasked<float, 1>(src, srcStep, dst, dstStep, size, mask, maskStep);
}
int copyMasked_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                     const uint8_t* mask, int maskStep) {
    return copyMasked<uint8_t, 4>(src, srcStep, dst, dstStep, size, mask, maskStep);
}

int setMasked_8u_C1(uint8_t value, uint8_t* dst, int dstStep, Size size, const uint8_t* mask,
                    int maskStep) {
    if (const int st = checkPlanes(size, {plane(dst, dstStep), plane(mask, maskStep)})) return st;
    for (int y = 0; y < size.height; ++y)
        setMaskedRow(value, rowAt(dst, dstStep, y), rowAt(mask, maskStep, y), size.width);
    return kOk;
}

int copy_8u_AC4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(src, srcStep, 4), plane(dst, dstStep, 4)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        copyAC4Row(rowAt(src, srcStep, y), rowAt(dst, dstStep, y), size.width);
    return kOk;
}

int extractChannel_8u_C4C1(const uint8_t* srcAtByte, int srcStep, uint8_t* dst, int dstStep,
                           Size size) {
    return extract<uint8_t, 4>(srcAtByte, srcStep, dst, dstStep, size);
}
int extractChannel_32f_C3C1(const float* srcAtChannel, int srcStep, float* dst, int dstStep,
                            Size size) {
    return extract<float, 3>(srcAtChannel, srcStep, dst, dstStep, size);
}
int insertChannel_8u_C1C4(const uint8_t* src, int srcStep, uint8_t* dstAtByte, int dstStep,
                          Size size) {
    return insert<uint8_t, 4>(src, srcStep, dstAtByte, dstStep, size);
}
int insertChannel_8u_C1C3(const uint8_t* src, int srcStep, uint8_t* dstAtByte, int dstStep,
                          Size size) {
    return insert<uint8_t, 3>(src, srcStep, dstAtByte, dstStep, size);
}
int insertChannel_32f_C1C3(const float* src, int srcStep, float* dstAtChannel, int dstStep,
                           Size size) {
    return insert<float, 3>(src, srcStep, dstAtChannel, dstStep, size);
}

int interleave_8u_P3C3(const uint8_t* const src[3], int srcStep, uint8_t* dst, int dstStep,
                       Size size) {
    if (src == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src[0], srcStep), plane(src[1], srcStep),
                                          plane(src[2], srcStep), plane(dst, dstStep, 3)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        interleaveRow(rowAt(src[0], srcStep, y), rowAt(src[1], srcStep, y),
                      rowAt(src[2], srcStep, y), rowAt(dst, dstStep, y), size.width);
    return kOk;
}

int deinterleave_8u_C4P4(const uint8_t* src, int srcStep, uint8_t* const dst[4], int dstStep,
                         Size size) {
    if (dst == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src, srcStep, 4), plane(dst[0], dstStep),
                                          plane(dst[1], dstStep), plane(dst[2], dstStep),
                                          plane(dst[3], dstStep)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        deinterleave4Row(rowAt(src, srcStep, y), rowAt(dst[0], dstStep, y),
                         rowAt(dst[1], dstStep, y), rowAt(dst[2], dstStep, y),
                         rowAt(dst[3], dstStep, y), size.width);
    return kOk;
}

}  // namespace qx::prim
