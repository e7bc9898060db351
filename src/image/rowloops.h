// Private helpers of the primitives: argument checks, row addressing and the fixed-point
// rounding rule that the 8-bit arithmetic and the Gaussian filter share. Only the
// primitives_*.cpp files include this.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <type_traits>

#include "image/dispatch.h"
#include "image/primitives.h"

namespace qx::prim::detail {

// Address of row y of a plane whose rows are `step` bytes apart; 64-bit offsets so that large
// planes never wrap.
template <typename T>
inline T* rowAt(T* base, int step, int y) {
    using Byte = std::conditional_t<std::is_const_v<T>, const unsigned char, unsigned char>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) + static_cast<int64_t>(step) * y);
}

// One plane argument as the checks see it: its pointer, its step and the bytes one pixel takes.
struct PlaneArg {
    const void* ptr;
    int step;
    int pixelBytes;
};

// The shared argument rule: a null plane is kNullPtr, a width or height below 1 is kSizeErr, and
// a step shorter than a row (when there is more than one row) is kBadArg, since walking such a
// plane would overlap rows or run backwards over memory the caller did not mean.
inline int checkPlanes(Size size, std::initializer_list<PlaneArg> planes) {
    for (const PlaneArg& p : planes)
        if (p.ptr == nullptr) return kNullPtr;
    if (size.width < 1 || size.height < 1) return kSizeErr;
    for (const PlaneArg& p : planes) {
        const int64_t rowBytes = static_cast<int64_t>(size.width) * p.pixelBytes;
        if (rowBytes > INT32_MAX) return kSizeErr;
        if (size.height > 1 && p.step < rowBytes) return kBadArg;
    }
    return kOk;
}

template <typename T>
inline PlaneArg plane(const T* p, int step, int channels = 1) {
    return {static_cast<const void*>(p), step, static_cast<int>(sizeof(T)) * channels};
}

// v / 2^s rounded to nearest with ties to even, for s > 0. The tie test looks at the lowest bit
// of the truncated quotient: an odd quotient takes the half up, an even one keeps it down.
inline int roundShift(int v, int s) { return (v + (1 << (s - 1)) - 1 + ((v >> s) & 1)) >> s; }

inline int saturate8u(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// The scale-factor rule of the 8-bit arithmetic: the exact result v scaled by 2^-s (rounded as
// roundShift for s > 0, multiplied for s < 0) and saturated to a byte. Operands never exceed
// 17 bits, so shifts past 24 either way only saturate.
inline int scaleSat8u(int v, int s) {
    if (s == 0) return saturate8u(v);
    if (s > 0) return s >= 24 ? 0 : saturate8u(roundShift(v, s));
    if (s <= -16) return v > 0 ? 255 : 0;
    return saturate8u(v * (1 << -s));
}

// Round to nearest, ties to even, into [lo, hi] (integers of magnitude below 2^22),
// saturating. The clamp comes first, so NaN (which fails both comparisons) gives lo. Adding
// 1.5 * 2^23 rounds the float in the default rounding mode and leaves the integer in the low
// mantissa bits, read back by subtracting the sum's bit pattern at zero; this stays inline in
// the baseline code path (unlike rintf), so the conversion loops vectorise everywhere.
template <typename I>
inline I roundSat(float v, float lo, float hi) {
    float c = v > lo ? v : lo;
    c = c < hi ? c : hi;
    const float biased = c + 12582912.0f;
    int32_t bits;
    __builtin_memcpy(&bits, &biased, sizeof bits);
    return static_cast<I>(bits - 0x4B400000);
}

// Size of a scratch allocation, refused when it does not fit the allocator's count.
inline bool fitsBlock(int64_t bytes) { return bytes > 0 && bytes < (int64_t(1) << 46); }

}  // namespace qx::prim::detail
