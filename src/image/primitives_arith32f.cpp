// Float arithmetic, reductions and conversions between element types.
#include <cmath>

#include "image/rowloops.h"

namespace qx::prim {

using detail::checkPlanes;
using detail::plane;
using detail::rowAt;
using detail::roundSat;

namespace {

struct FAdd {
    static float f(float a, float b) { return a + b; }
};
struct FSub {
    static float f(float a, float b) { return a - b; }
};
struct FMul {
    static float f(float a, float b) { return a * b; }
};
struct FDiv {
    static float f(float a, float b) { return a / b; }
};
struct FMin {
    static float f(float a, float b) { return b < a ? b : a; }
};
struct FMax {
    static float f(float a, float b) { return b > a ? b : a; }
};
struct FAbs {
    static float f(float a, float) { return std::fabs(a); }
};
struct FSqrt {
    static float f(float a, float) { return std::sqrt(a); }
};

// d = Op(a, b) element by element.
template <class Op>
QX_CLONES void binaryRowF(const float* a, const float* b, float* d, int n) {
    for (int x = 0; x < n; ++x) d[x] = Op::f(a[x], b[x]);
}

// d = Op(a, value of the channel), C channels a pixel.
template <class Op, int C>
QX_CLONES void constRowF(const float* a, const float* value, float* d, int width) {
    if constexpr (C == 1) {
        const float v = value[0];
        for (int x = 0; x < width; ++x) d[x] = Op::f(a[x], v);
    } else {
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < C; ++c) d[x * C + c] = Op::f(a[x * C + c], value[c]);
    }
}

template <class Op>
int binaryF(const float* first, int firstStep, const float* second, int secondStep, float* dst,
            int dstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(first, firstStep), plane(second, secondStep),
                                          plane(dst, dstStep)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        binaryRowF<Op>(rowAt(first, firstStep, y), rowAt(second, secondStep, y),
                       rowAt(dst, dstStep, y), size.width);
    return kOk;
}

template <class Op, int C>
int withConstF(const float* src, int srcStep, const float* value, float* dst, int dstStep,
               Size size) {
    if (value == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src, srcStep, C), plane(dst, dstStep, C)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        constRowF<Op, C>(rowAt(src, srcStep, y), value, rowAt(dst, dstStep, y), size.width);
    return kOk;
}

QX_CLONES void addProductRow(const uint8_t* a, const uint8_t* b, float* d, int n) {
    for (int x = 0; x < n; ++x) d[x] += static_cast<float>(a[x] * b[x]);
}

QX_CLONES void greaterRow(const float* a, const float* b, uint8_t* d, int n) {
    for (int x = 0; x < n; ++x) d[x] = a[x] > b[x] ? 255 : 0;
}

// Sums of C-channel rows; channel sums come back in sums[0..C-1]. Bytes sum exactly in 64-bit
// integers, floats in double.
template <int C>
QX_CLONES void sumRow8u(const uint8_t* s, int width, uint64_t* sums) {
    if constexpr (C == 1) {
        uint64_t acc = 0;
        for (int x = 0; x < width; ++x) acc += s[x];
        sums[0] += acc;
    } else {
        uint64_t acc[C] = {};
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < C; ++c) acc[c] += s[x * C + c];
        for (int c = 0; c < C; ++c) sums[c] += acc[c];
    }
}

QX_CLONES double sumRow32f(const float* s, int n) {
    double acc = 0;
    for (int x = 0; x < n; ++x) acc += s[x];
    return acc;
}

template <int C>
int sum8u(const uint8_t* src, int step, Size size, uint64_t* sums) {
    if (const int st = checkPlanes(size, {plane(src, step, C)})) return st;
    for (int c = 0; c < C; ++c) sums[c] = 0;
    for (int y = 0; y < size.height; ++y) sumRow8u<C>(rowAt(src, step, y), size.width, sums);
    return kOk;
}

// Element-type conversion, dst = src * k + b. The integer destinations round to nearest with
// ties to even and saturate.
template <typename S, typename D, int C, bool Affine>
QX_CLONES void convertRow(const S* s, D* d, int width, float k, float b) {
    for (int x = 0; x < width * C; ++x) {
        float v = static_cast<float>(s[x]);
        if constexpr (Affine) v = v * k + b;
        if constexpr (std::is_same_v<D, float>)
            d[x] = v;
        else if constexpr (std::is_same_v<D, uint8_t>)
            d[x] = roundSat<uint8_t>(v, 0.0f, 255.0f);
        else
            d[x] = roundSat<int16_t>(v, -32768.0f, 32767.0f);
    }
}

template <typename S, typename D, int C, bool Affine>
int convert(const S* src, int srcStep, D* dst, int dstStep, Size size, float k = 1.0f,
            float b = 0.0f) {
    if (const int st = checkPlanes(size, {plane(src, srcStep, C), plane(dst, dstStep, C)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        convertRow<S, D, C, Affine>(rowAt(src, srcStep, y), rowAt(dst, dstStep, y), size.width, k,
                                    b);
    return kOk;
}

// [vMin, vMax] onto 0..255: (v - vMin) * 255 / (vMax - vMin), as v * k + b.
template <int C>
int scaleTo8u(const float* src, int srcStep, uint8_t* dst, int dstStep, Size size, float vMin,
              float vMax) {
    if (!(vMax > vMin)) return kBadArg;
    const float k = 255.0f / (vMax - vMin);
    return convert<float, uint8_t, C, true>(src, srcStep, dst, dstStep, size, k, -vMin * k);
}

}  // namespace

int add_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) {
    return binaryF<FAdd>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size);
}
int sub_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) {
    return binaryF<FSub>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size);
}
int mul_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) {
    return binaryF<FMul>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size);
}
int div_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) {
    return binaryF<FDiv>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size);
}
int addC_32f_C1I(float value, float* srcDst, int step, Size size) {
    return withConstF<FAdd, 1>(srcDst, step, &value, srcDst, step, size);
}
int mulC_32f_C1I(float value, float* srcDst, int step, Size size) {
    return withConstF<FMul, 1>(srcDst, step, &value, srcDst, step, size);
}
int addC_32f_C1(const float* src, int srcStep, float value, float* dst, int dstStep, Size size) {
    return withConstF<FAdd, 1>(src, srcStep, &value, dst, dstStep, size);
}
int mulC_32f_C1(const float* src, int srcStep, float value, float* dst, int dstStep, Size size) {
    return withConstF<FMul, 1>(src, srcStep, &value, dst, dstStep, size);
}
int abs_32f_C1I(float* srcDst, int step, Size size) {
    const float unused = 0.0f;
    return withConstF<FAbs, 1>(srcDst, step, &unused, srcDst, step, size);
}
int sqrt_32f_C1I(float* srcDst, int step, Size size) {
    const float unused = 0.0f;
    return withConstF<FSqrt, 1>(srcDst, step, &unused, srcDst, step, size);
}
int clampAbove_32f_C1I(float* srcDst, int step, Size size, float limit) {
    return withConstF<FMin, 1>(srcDst, step, &limit, srcDst, step, size);
}
int clampBelow_32f_C1I(float* srcDst, int step, Size size, float limit) {
    return withConstF<FMax, 1>(srcDst, step, &limit, srcDst, step, size);
}
int clampAbove_32f_C3I(float* srcDst, int step, Size size, const float limit[3]) {
    return withConstF<FMin, 3>(srcDst, step, limit, srcDst, step, size);
}
int clampBelow_32f_C3I(float* srcDst, int step, Size size, const float limit[3]) {
    return withConstF<FMax, 3>(srcDst, step, limit, srcDst, step, size);
}

int addProduct_8u32f_C1I(const uint8_t* src1, int src1Step, const uint8_t* src2, int src2Step,
                         float* srcDst, int srcDstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(src1, src1Step), plane(src2, src2Step),
                                          plane(srcDst, srcDstStep)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        addProductRow(rowAt(src1, src1Step, y), rowAt(src2, src2Step, y),
                      rowAt(srcDst, srcDstStep, y), size.width);
    return kOk;
}

int compareGreater_32f_C1(const float* src1, int src1Step, const float* src2, int src2Step,
                          uint8_t* dst, int dstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(src1, src1Step), plane(src2, src2Step),
                                          plane(dst, dstStep)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        greaterRow(rowAt(src1, src1Step, y), rowAt(src2, src2Step, y), rowAt(dst, dstStep, y),
                   size.width);
    return kOk;
}

int sum_32f_C1(const float* src, int step, Size size, double* sum) {
    if (sum == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src, step)})) return st;
    double acc = 0;
    for (int y = 0; y < size.height; ++y) acc += sumRow32f(rowAt(src, step, y), size.width);
    *sum = acc;
    return kOk;
}

int sum_8u_C1(const uint8_t* src, int step, Size size, double* sum) {
    if (sum == nullptr) return kNullPtr;
    uint64_t s = 0;
    if (const int st = sum8u<1>(src, step, size, &s)) return st;
    *sum = static_cast<double>(s);
    return kOk;
}

int mean_8u_C1(const uint8_t* src, int step, Size size, double* mean) {
    if (mean == nullptr) return kNullPtr;
    uint64_t s = 0;
    if (const int st = sum8u<1>(src, step, size, &s)) return st;
    *mean = static_cast<double>(s) / (static_cast<double>(size.width) * size.height);
    return kOk;
}

int mean_8u_C3(const uint8_t* src, int step, Size size, double mean[3]) {
    if (mean == nullptr) return kNullPtr;
    uint64_t s[3] = {};
    if (const int st = sum8u<3>(src, step, size, s)) return st;
    const double n = static_cast<double>(size.width) * size.height;
    for (int c = 0; c < 3; ++c) mean[c] = static_cast<double>(s[c]) / n;
    return kOk;
}

int convert_8u32f_C1(const uint8_t* src, int srcStep, float* dst, int dstStep, Size size) {
    return convert<uint8_t, float, 1, false>(src, srcStep, dst, dstStep, size);
}
int convert_16s32f_C1(const int16_t* src, int srcStep, float* dst, int dstStep, Size size) {
    return convert<int16_t, float, 1, false>(src, srcStep, dst, dstStep, size);
}
int convert_32f8u_C1(const float* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return convert<float, uint8_t, 1, false>(src, srcStep, dst, dstStep, size);
}
int convert_32f16s_C1(const float* src, int srcStep, int16_t* dst, int dstStep, Size size) {
    return convert<float, int16_t, 1, false>(src, srcStep, dst, dstStep, size);
}
int scale_8u32f_C1(const uint8_t* src, int srcStep, float* dst, int dstStep, Size size,
                   float vMin, float vMax) {
    return convert<uint8_t, float, 1, true>(src, srcStep, dst, dstStep, size,
                                            (vMax - vMin) / 255.0f, vMin);
}
int scale_8u32f_C3(const uint8_t* src, int srcStep, float* dst, int dstStep, Size size,
                   float vMin, float vMax) {
    return convert<uint8_t, float, 3, true>(src, srcStep, dst, dstStep, size,
                                            (vMax - vMin) / 255.0f, vMin);
}
int scale_32f8u_C1(const float* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                   float vMin, float vMax) {
    return scaleTo8u<1>(src, srcStep, dst, dstStep, size, vMin, vMax);
}
int scale_32f8u_C3(const float* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                   float vMin, float vMax) {
    return scaleTo8u<3>(src, srcStep, dst, dstStep, size, vMin, vMax);
}

}  // namespace qx::prim
