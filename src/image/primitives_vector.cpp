// Vectors of doubles, fills of short and float vectors, the sort with permutation and the
// small dense matrix operations of the Laplacian's 3x3 windows.
#include <algorithm>
#include <cmath>

#include "image/rowloops.h"

namespace qx::prim {

namespace {

int checkVector(const void* p, int length) {
    if (!p) return kNullPtr;
    return length < 1 ? kSizeErr : kOk;
}

template <typename T>
QX_CLONES void fillVector(T* d, int n, T v) {
    for (int i = 0; i < n; ++i) d[i] = v;
}

QX_CLONES void affineVector(double* d, int n, double mul, double add) {
    for (int i = 0; i < n; ++i) d[i] = d[i] * mul + add;
}

QX_CLONES double dot(const double* a, const double* b, int n) {
    double acc = 0;
    for (int i = 0; i < n; ++i) acc += a[i] * b[i];
    return acc;
}

QX_CLONES void narrow(const double* s, float* d, int n) {
    for (int i = 0; i < n; ++i) d[i] = static_cast<float>(s[i]);
}

const double& at(const double* m, int strideBytes, int r, int c) {
    return detail::rowAt(m, strideBytes, r)[c];
}

}  // namespace

// The in-place scalar operations run through one loop; a multiply is d * v + 0, an add d * 1 + v,
// both exact in that form.
int mulC_64f_I(double value, double* srcDst, int length) {
    if (const int st = checkVector(srcDst, length)) return st;
    affineVector(srcDst, length, value, 0.0);
    return kOk;
}
int addC_64f_I(double value, double* srcDst, int length) {
    if (const int st = checkVector(srcDst, length)) return st;
    affineVector(srcDst, length, 1.0, value);
    return kOk;
}
int subC_64f_I(double value, double* srcDst, int length) {
    if (const int st = checkVector(srcDst, length)) return st;
    affineVector(srcDst, length, 1.0, -value);
    return kOk;
}

int mean_64f(const double* src, int length, double* mean) {
    if (!mean) return kNullPtr;
    if (const int st = checkVector(src, length)) return st;
    double acc = 0;
    for (int i = 0; i < length; ++i) acc += src[i];
    *mean = acc / length;
    return kOk;
}

int dotProd_64f(const double* a, const double* b, int length, double* result) {
    if (!b || !result) return kNullPtr;
    if (const int st = checkVector(a, length)) return st;
    *result = dot(a, b, length);
    return kOk;
}

int convert_64f32f(const double* src, float* dst, int length) {
    if (!dst) return kNullPtr;
    if (const int st = checkVector(src, length)) return st;
    narrow(src, dst, length);
    return kOk;
}

int set_16s(int16_t value, int16_t* dst, int length) {
    if (const int st = checkVector(dst, length)) return st;
    fillVector(dst, length, value);
    return kOk;
}
int zero_16s(int16_t* dst, int length) { return set_16s(0, dst, length); }
int set_32f(float value, float* dst, int length) {
    if (const int st = checkVector(dst, length)) return st;
    fillVector(dst, length, value);
    return kOk;
}
int zero_32f(float* dst, int length) { return set_32f(0.0f, dst, length); }

// Each key is packed with its index into one 64-bit word, key (sign bit flipped, so unsigned
// order is signed order) above index; sorting the words sorts the keys and carries the
// permutation along, equal keys staying in their original order.
int sortAscendIndex_32s_I(int32_t* srcDst, int32_t* perm, int length) {
    if (!perm) return kNullPtr;
    if (const int st = checkVector(srcDst, length)) return st;
    auto* words = static_cast<uint64_t*>(allocBlock(static_cast<int64_t>(length) * 8));
    if (!words) return kNoMem;
    for (int i = 0; i < length; ++i)
        words[i] = (static_cast<uint64_t>(static_cast<uint32_t>(srcDst[i]) ^ 0x80000000u) << 32) |
                   static_cast<uint32_t>(i);
    std::sort(words, words + length);
    for (int i = 0; i < length; ++i) {
        srcDst[i] = static_cast<int32_t>(static_cast<uint32_t>(words[i] >> 32) ^ 0x80000000u);
        perm[i] = static_cast<int32_t>(words[i] & 0xffffffffu);
    }
    freeAligned(words);
    return kOk;
}

// Adjugate over determinant; the source is read completely before the destination is written,
// so the two may be the same matrix.
int invert3x3_64f(const double* src, int srcStride, double* dst, int dstStride) {
    if (!src || !dst) return kNullPtr;
    double a[3][3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) a[r][c] = at(src, srcStride, r, c);
    const double c00 = a[1][1] * a[2][2] - a[1][2] * a[2][1];
    const double c01 = a[1][2] * a[2][0] - a[1][0] * a[2][2];
    const double c02 = a[1][0] * a[2][1] - a[1][1] * a[2][0];
    const double det = a[0][0] * c00 + a[0][1] * c01 + a[0][2] * c02;
    if (!(std::fabs(det) >= 1e-300)) return kBadArg;
    const double k = 1.0 / det;
    const double inv[3][3] = {
        {c00 * k, (a[0][2] * a[2][1] - a[0][1] * a[2][2]) * k,
         (a[0][1] * a[1][2] - a[0][2] * a[1][1]) * k},
        {c01 * k, (a[0][0] * a[2][2] - a[0][2] * a[2][0]) * k,
         (a[0][2] * a[1][0] - a[0][0] * a[1][2]) * k},
        {c02 * k, (a[0][1] * a[2][0] - a[0][0] * a[2][1]) * k,
         (a[0][0] * a[1][1] - a[0][1] * a[1][0]) * k}};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) detail::rowAt(dst, dstStride, r)[c] = inv[r][c];
    return kOk;
}

namespace {

// dst = op(a) * b with op(a)(r, i) read through `aAt`; each element is summed over i in order.
template <bool TransA>
int matMul(const double* a, int aStride, int m, int k, const double* b, int bStride, int n,
           double* dst, int dstStride) {
    if (!a || !b || !dst) return kNullPtr;
    if (m < 1 || k < 1 || n < 1) return kSizeErr;
    const int aCols = TransA ? m : k;
    if ((TransA ? k : m) > 1 && aStride < aCols * 8) return kBadArg;
    if (k > 1 && bStride < n * 8) return kBadArg;
    if (m > 1 && dstStride < n * 8) return kBadArg;
    for (int r = 0; r < m; ++r)
        for (int c = 0; c < n; ++c) {
            double acc = 0;
            for (int i = 0; i < k; ++i)
                acc += (TransA ? at(a, aStride, i, r) : at(a, aStride, r, i)) * at(b, bStride, i, c);
            detail::rowAt(dst, dstStride, r)[c] = acc;
        }
    return kOk;
}

}  // namespace

int matMul_64f(const double* a, int aStride, int m, int k, const double* b, int bStride, int n,
               double* dst, int dstStride) {
    return matMul<false>(a, aStride, m, k, b, bStride, n, dst, dstStride);
}
int matMulTransA_64f(const double* a, int aStride, int m, int k, const double* b, int bStride,
                     int n, double* dst, int dstStride) {
    return matMul<true>(a, aStride, m, k, b, bStride, n, dst, dstStride);
}

}  // namespace qx::prim
