// 8-bit arithmetic with the scale-factor rule, logic, comparison and table look-up.
//
// Every arithmetic operation is an exact integer result v of its two operands, scaled and
// saturated by detail::scaleSat8u. The row kernels are instantiated per operation and per
// "scaled or not": the unscaled form is plain saturating arithmetic, which vectorises to the
// processor's saturating byte instructions.
#include "image/rowloops.h"

namespace qx::prim {

using detail::checkPlanes;
using detail::plane;
using detail::rowAt;
using detail::saturate8u;
using detail::scaleSat8u;

namespace {

// Exact results of the operations. Wide is a 16-bit type that holds the result plus the
// rounding bias of a scale factor up to 8 (the product at most 65025 + 128), so the scaled
// kernels can run in 16-bit lanes; Exact marks results that are bytes already.
struct OpAdd {
    using Wide = int16_t;
    static constexpr bool kExact = false;
    static int f(int a, int b) { return a + b; }
};
struct OpSub {  // a - b
    using Wide = int16_t;
    static constexpr bool kExact = false;
    static int f(int a, int b) { return a - b; }
};
struct OpMul {
    using Wide = uint16_t;
    static constexpr bool kExact = false;
    static int f(int a, int b) { return a * b; }
};
struct OpAnd {
    using Wide = int16_t;
    static constexpr bool kExact = true;
    static int f(int a, int b) { return a & b; }
};
struct OpOr {
    using Wide = int16_t;
    static constexpr bool kExact = true;
    static int f(int a, int b) { return a | b; }
};
struct OpAbsDiff {
    using Wide = int16_t;
    static constexpr bool kExact = true;
    // In bytes: the larger less the smaller, which maps onto byte max, min and subtract.
    static uint8_t f(uint8_t a, uint8_t b) {
        const uint8_t hi = a > b ? a : b, lo = a > b ? b : a;
        return static_cast<uint8_t>(hi - lo);
    }
};

template <class Op, bool Scaled>
inline uint8_t apply(int a, int b, int s) {
    if constexpr (Op::kExact) {
        return static_cast<uint8_t>(Op::f(static_cast<uint8_t>(a), static_cast<uint8_t>(b)));
    } else {
        const int v = Op::f(a, b);
        return static_cast<uint8_t>(Scaled ? scaleSat8u(v, s) : saturate8u(v));
    }
}

// The scale-factor rule for 1 <= S <= 8 in the operation's 16-bit type: the same rounding as
// detail::roundShift, written so that every intermediate provably fits 16 bits and the shift is
// a constant, which lets the loops run in 16-bit lanes.
template <class Op, int S>
inline uint8_t applyScaled16(uint8_t a, uint8_t b) {
    using W = typename Op::Wide;
    constexpr W bias = static_cast<W>((1 << (S - 1)) - 1);
    const W v = static_cast<W>(Op::f(a, b));
    const W q = static_cast<W>(static_cast<W>(v + bias + ((v >> S) & 1)) >> S);
    return static_cast<uint8_t>(q < 0 ? 0 : (q > 255 ? 255 : q));
}

template <class Op, int S>
QX_CLONES void binaryRowScaled16(const uint8_t* a, const uint8_t* b, uint8_t* d, int n) {
    for (int x = 0; x < n; ++x) d[x] = applyScaled16<Op, S>(a[x], b[x]);
}

template <class Op, int S>
QX_CLONES void constRowScaled16(const uint8_t* a, uint8_t value, uint8_t* d, int n) {
    for (int x = 0; x < n; ++x) d[x] = applyScaled16<Op, S>(a[x], value);
}

// Picks the kernel of scale factor s (1..8); b is null for the constant form.
template <class Op, int S = 1>
void scaled16(int s, const uint8_t* a, const uint8_t* b, uint8_t value, uint8_t* d, int n) {
    if (s == S) {
        if (b)
            binaryRowScaled16<Op, S>(a, b, d, n);
        else
            constRowScaled16<Op, S>(a, value, d, n);
    } else if constexpr (S < 8) {
        scaled16<Op, S + 1>(s, a, b, value, d, n);
    }
}

// d = Op(a, b) element by element.
template <class Op, bool Scaled>
QX_CLONES void binaryRow(const uint8_t* a, const uint8_t* b, uint8_t* d, int n, int s) {
    for (int x = 0; x < n; ++x) d[x] = apply<Op, Scaled>(a[x], b[x], s);
}

// d = Op(a, constant of the channel), C channels a pixel.
template <class Op, bool Scaled, int C>
QX_CLONES void constRow(const uint8_t* a, const uint8_t* value, uint8_t* d, int width, int s) {
    if constexpr (C == 1) {
        const int v = value[0];
        for (int x = 0; x < width; ++x) d[x] = apply<Op, Scaled>(a[x], v, s);
    } else {
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < C; ++c) d[x * C + c] = apply<Op, Scaled>(a[x * C + c], value[c], s);
    }
}

// dst = Op(first, second) over the region; the in-place forms pass the destination as first.
template <class Op>
int binary(const uint8_t* first, int firstStep, const uint8_t* second, int secondStep,
           uint8_t* dst, int dstStep, Size size, int scale) {
    if (const int st = checkPlanes(size, {plane(first, firstStep), plane(second, secondStep),
                                          plane(dst, dstStep)}))
        return st;
    for (int y = 0; y < size.height; ++y) {
        const uint8_t* a = rowAt(first, firstStep, y);
        const uint8_t* b = rowAt(second, secondStep, y);
        uint8_t* d = rowAt(dst, dstStep, y);
        if (scale == 0)
            binaryRow<Op, false>(a, b, d, size.width, 0);
        else if (scale >= 1 && scale <= 8)
            scaled16<Op>(scale, a, b, 0, d, size.width);
        else
            binaryRow<Op, true>(a, b, d, size.width, scale);
    }
    return kOk;
}

template <class Op, int C>
int withConst(const uint8_t* src, int srcStep, const uint8_t* value, uint8_t* dst, int dstStep,
              Size size, int scale) {
    if (value == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src, srcStep, C), plane(dst, dstStep, C)}))
        return st;
    for (int y = 0; y < size.height; ++y) {
        const uint8_t* a = rowAt(src, srcStep, y);
        uint8_t* d = rowAt(dst, dstStep, y);
        if (scale == 0)
            constRow<Op, false, C>(a, value, d, size.width, 0);
        else if (C == 1 && scale >= 1 && scale <= 8)
            scaled16<Op>(scale, a, nullptr, value[0], d, size.width);
        else
            constRow<Op, true, C>(a, value, d, size.width, scale);
    }
    return kOk;
}

template <CmpOp K>
QX_CLONES void compareRow(const uint8_t* s, uint8_t v, uint8_t* d, int n) {
    for (int x = 0; x < n; ++x) {
        bool r;
        if constexpr (K == kCmpLessEq)
            r = s[x] <= v;
        else if constexpr (K == kCmpEq)
            r = s[x] == v;
        else
            r = s[x] >= v;
        d[x] = r ? 255 : 0;
    }
}

QX_CLONES void lutRow(const uint8_t* s, uint8_t* d, int n, const uint8_t* table) {
    for (int x = 0; x < n; ++x) d[x] = table[s[x]];
}

}  // namespace

int add_8u_C1IS(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size,
                int scale) {
    return binary<OpAdd>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size, scale);
}
int sub_8u_C1IS(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size,
                int scale) {
    return binary<OpSub>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size, scale);
}
int sub_8u_C1S(const uint8_t* src1, int src1Step, const uint8_t* src2, int src2Step,
               uint8_t* dst, int dstStep, Size size, int scale) {
    return binary<OpSub>(src2, src2Step, src1, src1Step, dst, dstStep, size, scale);
}
int mul_8u_C1IS(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size,
                int scale) {
    return binary<OpMul>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size, scale);
}

int addC_8u_C1IS(uint8_t value, uint8_t* srcDst, int step, Size size, int scale) {
    return withConst<OpAdd, 1>(srcDst, step, &value, srcDst, step, size, scale);
}
int subC_8u_C1IS(uint8_t value, uint8_t* srcDst, int step, Size size, int scale) {
    return withConst<OpSub, 1>(srcDst, step, &value, srcDst, step, size, scale);
}
int mulC_8u_C1IS(uint8_t value, uint8_t* srcDst, int step, Size size, int scale) {
    return withConst<OpMul, 1>(srcDst, step, &value, srcDst, step, size, scale);
}
int subC_8u_C1S(const uint8_t* src, int srcStep, uint8_t value, uint8_t* dst, int dstStep,
                Size size, int scale) {
    return withConst<OpSub, 1>(src, srcStep, &value, dst, dstStep, size, scale);
}
int mulC_8u_C3IS(const uint8_t value[3], uint8_t* srcDst, int step, Size size, int scale) {
    return withConst<OpMul, 3>(srcDst, step, value, srcDst, step, size, scale);
}
int mulC_8u_C4IS(const uint8_t value[4], uint8_t* srcDst, int step, Size size, int scale) {
    return withConst<OpMul, 4>(srcDst, step, value, srcDst, step, size, scale);
}

int andC_8u_C1I(uint8_t value, uint8_t* srcDst, int step, Size size) {
    return withConst<OpAnd, 1>(srcDst, step, &value, srcDst, step, size, 0);
}
int and_8u_C1I(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size) {
    return binary<OpAnd>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size, 0);
}
int or_8u_C1I(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size) {
    return binary<OpOr>(srcDst, srcDstStep, src, srcStep, srcDst, srcDstStep, size, 0);
}
int absDiff_8u_C1(const uint8_t* src1, int src1Step, const uint8_t* src2, int src2Step,
                  uint8_t* dst, int dstStep, Size size) {
    return binary<OpAbsDiff>(src1, src1Step, src2, src2Step, dst, dstStep, size, 0);
}

int compareC_8u_C1(const uint8_t* src, int srcStep, uint8_t value, uint8_t* dst, int dstStep,
                   Size size, CmpOp op) {
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dst, dstStep)})) return st;
    if (op != kCmpLessEq && op != kCmpEq && op != kCmpGreaterEq) return kBadArg;
    for (int y = 0; y < size.height; ++y) {
        const uint8_t* s = rowAt(src, srcStep, y);
        uint8_t* d = rowAt(dst, dstStep, y);
        switch (op) {
            case kCmpLessEq: compareRow<kCmpLessEq>(s, value, d, size.width); break;
            case kCmpEq: compareRow<kCmpEq>(s, value, d, size.width); break;
            default: compareRow<kCmpGreaterEq>(s, value, d, size.width); break;
        }
    }
    return kOk;
}

int lut_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
              const uint8_t table[256]) {
    if (table == nullptr) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src, srcStep), plane(dst, dstStep)})) return st;
    for (int y = 0; y < size.height; ++y)
        lutRow(rowAt(src, srcStep, y), rowAt(dst, dstStep, y), size.width, table);
    return kOk;
}

}  // namespace qx::prim
