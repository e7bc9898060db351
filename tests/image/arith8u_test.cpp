// 8-bit arithmetic: the scale-factor rounding, saturation, logic, comparison and look-up.
// References compute the exact quotient in double and round it with the current rounding mode
// (nearest, ties to even), a route independent of the integer shifts of the implementation.
#include <gtest/gtest.h>

#include <cmath>

#include "image/primitives.h"
#include "plane_fixture.h"

namespace {

using namespace qx::prim;
using qx::test::Plane;

int refScale(long v, int s) {
    const double q = std::nearbyint(std::ldexp(static_cast<double>(v), -s));
    return q < 0 ? 0 : (q > 255 ? 255 : static_cast<int>(q));
}

// A 256 x 256 pair of planes holding every (a, b): a = x, b = y.
struct AllPairs {
    Plane<uint8_t> a{256, 256}, b{256, 256}, d{256, 256};
    AllPairs() {
        a.fill([](int x, int, int) { return x; });
        b.fill([](int, int y, int) { return y; });
    }
};

TEST(Arith8u, DocumentedScaleFactorCases) {
    Plane<uint8_t> p(3, 2), m(3, 2);
    p.fill([](int x, int y, int) { return y == 0 ? 100 : 64; });
    m.fill([](int, int y, int) { return y == 0 ? 85 : 255; });
    ASSERT_EQ(mul_8u_C1IS(m.data(), m.step(), p.data(), p.step(), p.size(), 6), kOk);
    EXPECT_EQ(p(0, 0), 133);  // 8500 / 64 = 132.8125
    EXPECT_EQ(p(2, 1), 255);  // 16320 / 64 = 255 exactly
    EXPECT_TRUE(p.outsideUnchanged());

    Plane<uint8_t> q(2, 1);
    q.fill([](int x, int, int) { return x == 0 ? 3 : 5; });
    ASSERT_EQ(mulC_8u_C1IS(1, q.data(), q.step(), q.size(), 1), kOk);
    EXPECT_EQ(q(0, 0), 2);  // 1.5 -> 2
    EXPECT_EQ(q(1, 0), 2);  // 2.5 -> 2

    Plane<uint8_t> r(1, 1), s(1, 1);
    r(0, 0) = 10;
    s(0, 0) = 30;
    ASSERT_EQ(sub_8u_C1IS(s.data(), s.step(), r.data(), r.step(), r.size(), 0), kOk);
    EXPECT_EQ(r(0, 0), 0);
}

class Arith8uScales : public ::testing::TestWithParam<int> {};

TEST_P(Arith8uScales, TwoPlaneOperationsOverEveryPair) {
    const int s = GetParam();
    for (int op = 0; op < 4; ++op) {
        AllPairs t;
        int st = kBadArg;
        long (*exact)(int, int) = nullptr;
        switch (op) {
            case 0:  // d = a + b, in place on a copy of a held in d
                copy_8u_C1(t.a.data(), t.a.step(), t.d.data(), t.d.step(), t.d.size());
                t.d.snapshot();
                st = add_8u_C1IS(t.b.data(), t.b.step(), t.d.data(), t.d.step(), t.d.size(), s);
                exact = [](int a, int b) { return long(a + b); };
                break;
            case 1:
                copy_8u_C1(t.a.data(), t.a.step(), t.d.data(), t.d.step(), t.d.size());
                t.d.snapshot();
                st = sub_8u_C1IS(t.b.data(), t.b.step(), t.d.data(), t.d.step(), t.d.size(), s);
                exact = [](int a, int b) { return long(a - b); };
                break;
            case 2:  // dst = src2 - src1
                st = sub_8u_C1S(t.b.data(), t.b.step(), t.a.data(), t.a.step(), t.d.data(),
                                t.d.step(), t.d.size(), s);
                exact = [](int a, int b) { return long(a - b); };
                break;
            default:
                copy_8u_C1(t.a.data(), t.a.step(), t.d.data(), t.d.step(), t.d.size());
                t.d.snapshot();
                st = mul_8u_C1IS(t.b.data(), t.b.step(), t.d.data(), t.d.step(), t.d.size(), s);
                exact = [](int a, int b) { return long(a) * b; };
                break;
        }
        ASSERT_EQ(st, kOk);
        int wrong = 0;
        for (int b = 0; b < 256; ++b)
            for (int a = 0; a < 256; ++a)
                wrong += t.d(a, b) != refScale(exact(a, b), s);
        EXPECT_EQ(wrong, 0) << "operation " << op << " scale " << s;
        EXPECT_TRUE(t.d.outsideUnchanged());
        EXPECT_TRUE(t.a.unchanged() && t.b.unchanged());
    }
}

TEST_P(Arith8uScales, ConstantOperationsOverEveryByte) {
    const int s = GetParam();
    for (int c : {0, 1, 2, 85, 128, 255}) {
        Plane<uint8_t> add(256, 1), sub(256, 1), mul(256, 1), subS(256, 1);
        Plane<uint8_t> src(256, 1);
        for (auto* p : {&add, &sub, &mul, &src}) p->fill([](int x, int, int) { return x; });
        const Size n{256, 1};
        ASSERT_EQ(addC_8u_C1IS(c, add.data(), add.step(), n, s), kOk);
        ASSERT_EQ(subC_8u_C1IS(c, sub.data(), sub.step(), n, s), kOk);
        ASSERT_EQ(mulC_8u_C1IS(c, mul.data(), mul.step(), n, s), kOk);
        ASSERT_EQ(subC_8u_C1S(src.data(), src.step(), c, subS.data(), subS.step(), n, s), kOk);
        for (int v = 0; v < 256; ++v) {
            ASSERT_EQ(add(v, 0), refScale(v + c, s)) << v << "+" << c;
            ASSERT_EQ(sub(v, 0), refScale(v - c, s)) << v << "-" << c;
            ASSERT_EQ(mul(v, 0), refScale(long(v) * c, s)) << v << "*" << c;
            ASSERT_EQ(subS(v, 0), refScale(v - c, s)) << v << "-" << c;
        }
        for (auto* p : {&add, &sub, &mul, &subS}) EXPECT_TRUE(p->outsideUnchanged());
    }
}

INSTANTIATE_TEST_SUITE_P(Scales, Arith8uScales, ::testing::Values(-2, -1, 0, 1, 3, 6, 8, 12));

TEST(Arith8u, MultiChannelConstantsApplyPerChannel) {
    const uint8_t k3[3] = {255, 2, 0}, k4[4] = {1, 85, 255, 3};
    Plane<uint8_t> p3(5, 3, 3), p4(5, 3, 4);
    auto gen = [](int x, int y, int c) { return (x * 37 + y * 11 + c * 71) % 256; };
    p3.fill(gen);
    p4.fill(gen);
    ASSERT_EQ(mulC_8u_C3IS(k3, p3.data(), p3.step(), p3.size(), 6), kOk);
    ASSERT_EQ(mulC_8u_C4IS(k4, p4.data(), p4.step(), p4.size(), 1), kOk);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) {
            for (int c = 0; c < 3; ++c) EXPECT_EQ(p3(x, y, c), refScale(long(gen(x, y, c)) * k3[c], 6));
            for (int c = 0; c < 4; ++c) EXPECT_EQ(p4(x, y, c), refScale(long(gen(x, y, c)) * k4[c], 1));
        }
    EXPECT_TRUE(p3.outsideUnchanged());
    EXPECT_TRUE(p4.outsideUnchanged());
}

TEST(Arith8u, LogicAbsDiffCompareAndLookUp) {
    AllPairs t;
    Plane<uint8_t> andP(256, 256), orP(256, 256), andC(256, 256), le(256, 256), eq(256, 256),
        ge(256, 256), lut(256, 256);
    for (auto* p : {&andP, &orP, &andC})
        copy_8u_C1(t.a.data(), t.a.step(), p->data(), p->step(), p->size());
    for (auto* p : {&andP, &orP, &andC}) p->snapshot();
    const Size n{256, 256};
    uint8_t table[256];
    for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>((i * 7 + 3) & 255);
    ASSERT_EQ(and_8u_C1I(t.b.data(), t.b.step(), andP.data(), andP.step(), n), kOk);
    ASSERT_EQ(or_8u_C1I(t.b.data(), t.b.step(), orP.data(), orP.step(), n), kOk);
    ASSERT_EQ(andC_8u_C1I(0x5c, andC.data(), andC.step(), n), kOk);
    ASSERT_EQ(absDiff_8u_C1(t.a.data(), t.a.step(), t.b.data(), t.b.step(), t.d.data(), t.d.step(), n), kOk);
    ASSERT_EQ(compareC_8u_C1(t.a.data(), t.a.step(), 100, le.data(), le.step(), n, kCmpLessEq), kOk);
    ASSERT_EQ(compareC_8u_C1(t.a.data(), t.a.step(), 100, eq.data(), eq.step(), n, kCmpEq), kOk);
    ASSERT_EQ(compareC_8u_C1(t.a.data(), t.a.step(), 100, ge.data(), ge.step(), n, kCmpGreaterEq), kOk);
    ASSERT_EQ(lut_8u_C1(t.a.data(), t.a.step(), lut.data(), lut.step(), n, table), kOk);
    int wrong = 0;
    for (int b = 0; b < 256; ++b)
        for (int a = 0; a < 256; ++a) {
            wrong += andP(a, b) != (a & b);
            wrong += orP(a, b) != (a | b);
            wrong += andC(a, b) != (a & 0x5c);
            wrong += t.d(a, b) != std::abs(a - b);
            wrong += le(a, b) != (a <= 100 ? 255 : 0);
            wrong += eq(a, b) != (a == 100 ? 255 : 0);
            wrong += ge(a, b) != (a >= 100 ? 255 : 0);
            wrong += lut(a, b) != table[a];
        }
    EXPECT_EQ(wrong, 0);
    for (auto* p : {&andP, &orP, &andC, &t.d, &le, &eq, &ge, &lut}) EXPECT_TRUE(p->outsideUnchanged());
    EXPECT_EQ(compareC_8u_C1(t.a.data(), t.a.step(), 1, le.data(), le.step(), n, CmpOp(0)), kBadArg);
}

TEST(Arith8u, RefusedArgumentsWriteNothing) {
    Plane<uint8_t> a(8, 4), d(8, 4);
    EXPECT_EQ(add_8u_C1IS(nullptr, a.step(), d.data(), d.step(), d.size(), 0), kNullPtr);
    EXPECT_EQ(add_8u_C1IS(a.data(), a.step(), d.data(), d.step(), {0, 4}, 0), kSizeErr);
    EXPECT_EQ(add_8u_C1IS(a.data(), a.step(), d.data(), d.step(), {8, -1}, 0), kSizeErr);
    EXPECT_EQ(add_8u_C1IS(a.data(), 4, d.data(), d.step(), d.size(), 0), kBadArg);  // step < row
    EXPECT_EQ(lut_8u_C1(a.data(), a.step(), d.data(), d.step(), d.size(), nullptr), kNullPtr);
    EXPECT_TRUE(d.unchanged());
}

}  // namespace
