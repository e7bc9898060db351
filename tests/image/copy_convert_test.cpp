// Allocation, copies and channel shuffles, float arithmetic, reductions and conversions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "image/primitives.h"
#include "plane_fixture.h"

namespace {

using namespace qx::prim;
using qx::test::Plane;

TEST(Alloc, PlanesAreAlignedWithStepRoundedTo32) {
    for (int w : {1, 31, 32, 33, 1000}) {
        int step = -1;
        void* p = allocPlane(w, 3, &step);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(step % 32, 0);
        EXPECT_GE(step, w);
        EXPECT_LT(step, w + 32);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
        freeAligned(p);
    }
    int step = 5;
    EXPECT_EQ(allocPlane(0, 3, &step), nullptr);
    EXPECT_EQ(step, 0);
    EXPECT_EQ(allocPlane(INT32_MAX, 3, &step), nullptr);  // pitch would pass 2^31
    EXPECT_EQ(allocBlock(0), nullptr);
    EXPECT_EQ(allocBlock(int64_t(1) << 62), nullptr);
    freeAligned(nullptr);
}

TEST(Alloc, InjectedFailuresAreCountedDown) {
    failNextAllocations(2);
    EXPECT_EQ(allocBlock(16), nullptr);
    int step = 0;
    EXPECT_EQ(allocPlane(16, 2, &step), nullptr);
    void* p = allocBlock(16);
    EXPECT_NE(p, nullptr);
    freeAligned(p);
    EXPECT_FALSE(takeInjectedFailure());
}

TEST(Copy, EveryElementTypeAndChannelCount) {
    Plane<uint8_t> s1(9, 4), d1(9, 4), s3(9, 4, 3), d3(9, 4, 3), s4(9, 4, 4), d4(9, 4, 4);
    Plane<int16_t> s16(9, 4), d16(9, 4);
    Plane<float> sf(9, 4), df(9, 4), sf3(9, 4, 3), df3(9, 4, 3);
    s1.fillRandom(1, 0, 255);
    s3.fillRandom(2, 0, 255);
    s4.fillRandom(3, 0, 255);
    s16.fillRandom(4, -32768, 32767);
    sf.fillRandom(5, -1000, 1000);
    sf3.fillRandom(6, -1000, 1000);
    const Size n{9, 4};
    ASSERT_EQ(copy_8u_C1(s1.data(), s1.step(), d1.data(), d1.step(), n), kOk);
    ASSERT_EQ(copy_8u_C3(s3.data(), s3.step(), d3.data(), d3.step(), n), kOk);
    ASSERT_EQ(copy_8u_C4(s4.data(), s4.step(), d4.data(), d4.step(), n), kOk);
    ASSERT_EQ(copy_16s_C1(s16.data(), s16.step(), d16.data(), d16.step(), n), kOk);
    ASSERT_EQ(copy_32f_C1(sf.data(), sf.step(), df.data(), df.step(), n), kOk);
    ASSERT_EQ(copy_32f_C3(sf3.data(), sf3.step(), df3.data(), df3.step(), n), kOk);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 9; ++x) {
            EXPECT_EQ(d1(x, y), s1(x, y));
            EXPECT_EQ(d16(x, y), s16(x, y));
            EXPECT_EQ(df(x, y), sf(x, y));
            for (int c = 0; c < 3; ++c) EXPECT_EQ(d3(x, y, c), s3(x, y, c));
            for (int c = 0; c < 3; ++c) EXPECT_EQ(df3(x, y, c), sf3(x, y, c));
            for (int c = 0; c < 4; ++c) EXPECT_EQ(d4(x, y, c), s4(x, y, c));
        }
    for (auto* p : {&d1, &d3, &d4}) EXPECT_TRUE(p->outsideUnchanged());
    EXPECT_TRUE(d16.outsideUnchanged());
    EXPECT_TRUE(df.outsideUnchanged() && df3.outsideUnchanged());
}

TEST(Copy, FillsAndMaskedOperations) {
    Plane<uint8_t> p8(7, 3), mask(7, 3), src(7, 3), dst(7, 3), set(7, 3);
    Plane<int16_t> p16(7, 3);
    Plane<float> pf(7, 3), pf3(7, 3, 3), srcf(7, 3), dstf(7, 3);
    Plane<uint8_t> src4(7, 3, 4), dst4(7, 3, 4);
    const Size n{7, 3};
    auto on = [](int x, int y) { return (x + 2 * y) % 3 == 0; };
    mask.fill([&](int x, int y, int) { return on(x, y) ? 1 + x : 0; });
    src.fillRandom(7, 0, 255);
    dst.fillRandom(8, 0, 255);
    set.fillRandom(9, 0, 255);
    srcf.fillRandom(10, -50, 50);
    dstf.fillRandom(11, -50, 50);
    src4.fillRandom(12, 0, 255);
    dst4.fillRandom(13, 0, 255);
    const Plane<uint8_t> dstBefore = dst, setBefore = set, dst4Before = dst4;
    const Plane<float> dstfBefore = dstf;
    const float v3[3] = {1.5f, -2.0f, 7.25f};
    ASSERT_EQ(set_8u_C1(77, p8.data(), p8.step(), n), kOk);
    ASSERT_EQ(set_16s_C1(-1234, p16.data(), p16.step(), n), kOk);
    ASSERT_EQ(set_32f_C1(0.375f, pf.data(), pf.step(), n), kOk);
    ASSERT_EQ(set_32f_C3(v3, pf3.data(), pf3.step(), n), kOk);
    ASSERT_EQ(copyMasked_8u_C1(src.data(), src.step(), dst.data(), dst.step(), n, mask.data(), mask.step()), kOk);
    ASSERT_EQ(copyMasked_32f_C1(srcf.data(), srcf.step(), dstf.data(), dstf.step(), n, mask.data(), mask.step()), kOk);
    ASSERT_EQ(copyMasked_8u_C4(src4.data(), src4.step(), dst4.data(), dst4.step(), n, mask.data(), mask.step()), kOk);
    ASSERT_EQ(setMasked_8u_C1(9, set.data(), set.step(), n, mask.data(), mask.step()), kOk);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 7; ++x) {
            EXPECT_EQ(p8(x, y), 77);
            EXPECT_EQ(p16(x, y), -1234);
            EXPECT_EQ(pf(x, y), 0.375f);
            for (int c = 0; c < 3; ++c) EXPECT_EQ(pf3(x, y, c), v3[c]);
            EXPECT_EQ(dst(x, y), on(x, y) ? src(x, y) : dstBefore(x, y));
            EXPECT_EQ(dstf(x, y), on(x, y) ? srcf(x, y) : dstfBefore(x, y));
            EXPECT_EQ(set(x, y), on(x, y) ? 9 : setBefore(x, y));
            for (int c = 0; c < 4; ++c)
                EXPECT_EQ(dst4(x, y, c), on(x, y) ? src4(x, y, c) : dst4Before(x, y, c));
        }
    for (auto* p : {&p8, &dst, &set, &dst4}) EXPECT_TRUE(p->outsideUnchanged());
    EXPECT_TRUE(p16.outsideUnchanged());
    for (auto* p : {&pf, &pf3, &dstf}) EXPECT_TRUE(p->outsideUnchanged());
}

TEST(Copy, ChannelShufflesKeepTheOtherBytes) {
    const Size n{6, 3};
    Plane<uint8_t> c4(6, 3, 4), c4b(6, 3, 4), c3(6, 3, 3), plane(6, 3), ac4(6, 3, 4);
    c4.fillRandom(20, 0, 255);
    c4b.fillRandom(21, 0, 255);
    c3.fillRandom(22, 0, 255);
    plane.fillRandom(23, 0, 255);
    ac4.fillRandom(24, 0, 255);
    const Plane<uint8_t> c4bBefore = c4b, c3Before = c3, ac4Before = ac4;
    Plane<uint8_t> ex(6, 3);
    ASSERT_EQ(extractChannel_8u_C4C1(c4.at(0, 0, 2), c4.step(), ex.data(), ex.step(), n), kOk);
    ASSERT_EQ(insertChannel_8u_C1C4(plane.data(), plane.step(), c4b.at(0, 0, 1), c4b.step(), n), kOk);
    ASSERT_EQ(insertChannel_8u_C1C3(plane.data(), plane.step(), c3.at(0, 0, 2), c3.step(), n), kOk);
    ASSERT_EQ(copy_8u_AC4(c4.data(), c4.step(), ac4.data(), ac4.step(), n), kOk);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 6; ++x) {
            EXPECT_EQ(ex(x, y), c4(x, y, 2));
            for (int c = 0; c < 4; ++c) {
                EXPECT_EQ(c4b(x, y, c), c == 1 ? plane(x, y) : c4bBefore(x, y, c));
                EXPECT_EQ(ac4(x, y, c), c == 3 ? ac4Before(x, y, 3) : c4(x, y, c));
            }
            for (int c = 0; c < 3; ++c) EXPECT_EQ(c3(x, y, c), c == 2 ? plane(x, y) : c3Before(x, y, c));
        }
    for (auto* p : {&ex, &c4b, &c3, &ac4}) EXPECT_TRUE(p->outsideUnchanged());

    Plane<float> f3(6, 3, 3), f1(6, 3), g1(6, 3);
    f3.fillRandom(25, -9, 9);
    g1.fillRandom(26, -9, 9);
    const Plane<float> f3Before = f3;
    ASSERT_EQ(extractChannel_32f_C3C1(f3.at(0, 0, 1), f3.step(), f1.data(), f1.step(), n), kOk);
    ASSERT_EQ(insertChannel_32f_C1C3(g1.data(), g1.step(), f3.at(0, 0, 0), f3.step(), n), kOk);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 6; ++x) {
            EXPECT_EQ(f1(x, y), f3Before(x, y, 1));
            EXPECT_EQ(f3(x, y, 0), g1(x, y));
            EXPECT_EQ(f3(x, y, 2), f3Before(x, y, 2));
        }
    EXPECT_TRUE(f1.outsideUnchanged() && f3.outsideUnchanged());
}

TEST(Copy, InterleaveAndDeinterleave) {
    // Planes sharing one step, as the callers have them: rows of a single buffer.
    const Size n{5, 4};
    Plane<uint8_t> planes(5, 12), c3(5, 4, 3), c4(5, 4, 4), out(5, 16);
    planes.fillRandom(30, 0, 255);
    c4.fillRandom(31, 0, 255);
    const uint8_t* src[3] = {planes.at(0, 0), planes.at(0, 4), planes.at(0, 8)};
    uint8_t* dst[4] = {out.at(0, 0), out.at(0, 4), out.at(0, 8), out.at(0, 12)};
    ASSERT_EQ(interleave_8u_P3C3(src, planes.step(), c3.data(), c3.step(), n), kOk);
    ASSERT_EQ(deinterleave_8u_C4P4(c4.data(), c4.step(), dst, out.step(), n), kOk);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x)
            for (int c = 0; c < 4; ++c) {
                if (c < 3) {
                    EXPECT_EQ(c3(x, y, c), planes(x, y + 4 * c));
                }
                EXPECT_EQ(out(x, y + 4 * c), c4(x, y, c));
            }
    EXPECT_TRUE(c3.outsideUnchanged() && out.outsideUnchanged());
    EXPECT_EQ(interleave_8u_P3C3(nullptr, 5, c3.data(), c3.step(), n), kNullPtr);
}

TEST(Float, ArithmeticClampsAndProducts) {
    const Size n{6, 3};
    Plane<float> a(6, 3), b(6, 3), add(6, 3), sub(6, 3), mul(6, 3), div(6, 3), cA(6, 3), cM(6, 3),
        abs(6, 3), sq(6, 3), hi(6, 3), lo(6, 3), f3(6, 3, 3), acc(6, 3);
    a.fill([](int x, int y, int) { return x * 4 - 10 + y; });
    b.fill([](int x, int y, int) { return (x + y) % 2 ? 2 : -4; });
    for (auto* p : {&add, &sub, &mul, &div, &abs, &hi, &lo})
        p->fill([&](int x, int y, int) { return a(x, y); });
    sq.fill([](int x, int y, int) { return (x + y) * (x + y); });
    f3.fill([](int x, int y, int c) { return x - 3 + c + y; });
    acc.fill([](int x, int, int) { return x; });
    Plane<uint8_t> u(6, 3), v(6, 3), gt(6, 3);
    u.fill([](int x, int y, int) { return 250 - x - y; });
    v.fill([](int x, int, int) { return 200 + x; });
    ASSERT_EQ(add_32f_C1I(b.data(), b.step(), add.data(), add.step(), n), kOk);
    ASSERT_EQ(sub_32f_C1I(b.data(), b.step(), sub.data(), sub.step(), n), kOk);
    ASSERT_EQ(mul_32f_C1I(b.data(), b.step(), mul.data(), mul.step(), n), kOk);
    ASSERT_EQ(div_32f_C1I(b.data(), b.step(), div.data(), div.step(), n), kOk);
    ASSERT_EQ(addC_32f_C1(a.data(), a.step(), 0.5f, cA.data(), cA.step(), n), kOk);
    ASSERT_EQ(mulC_32f_C1(a.data(), a.step(), -0.25f, cM.data(), cM.step(), n), kOk);
    ASSERT_EQ(abs_32f_C1I(abs.data(), abs.step(), n), kOk);
    ASSERT_EQ(sqrt_32f_C1I(sq.data(), sq.step(), n), kOk);
    ASSERT_EQ(clampAbove_32f_C1I(hi.data(), hi.step(), n, 3.0f), kOk);
    ASSERT_EQ(clampBelow_32f_C1I(lo.data(), lo.step(), n, -2.0f), kOk);
    const float top[3] = {0.0f, 1.0f, 2.0f}, bottom[3] = {-1.0f, -0.5f, 0.0f};
    ASSERT_EQ(clampAbove_32f_C3I(f3.data(), f3.step(), n, top), kOk);
    ASSERT_EQ(clampBelow_32f_C3I(f3.data(), f3.step(), n, bottom), kOk);
    ASSERT_EQ(addProduct_8u32f_C1I(u.data(), u.step(), v.data(), v.step(), acc.data(), acc.step(), n), kOk);
    ASSERT_EQ(compareGreater_32f_C1(a.data(), a.step(), b.data(), b.step(), gt.data(), gt.step(), n), kOk);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 6; ++x) {
            const float av = x * 4 - 10 + y, bv = (x + y) % 2 ? 2 : -4;
            EXPECT_EQ(add(x, y), av + bv);
            EXPECT_EQ(sub(x, y), av - bv);
            EXPECT_EQ(mul(x, y), av * bv);
            EXPECT_EQ(div(x, y), av / bv);
            EXPECT_EQ(cA(x, y), av + 0.5f);
            EXPECT_EQ(cM(x, y), av * -0.25f);
            EXPECT_EQ(abs(x, y), std::fabs(av));
            EXPECT_EQ(sq(x, y), float(x + y));
            EXPECT_EQ(hi(x, y), std::min(av, 3.0f));
            EXPECT_EQ(lo(x, y), std::max(av, -2.0f));
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(f3(x, y, c), std::clamp(float(x - 3 + c + y), bottom[c], top[c]));
            EXPECT_EQ(acc(x, y), float(x + (250 - x - y) * (200 + x)));
            EXPECT_EQ(gt(x, y), av > bv ? 255 : 0);
        }
    for (auto* p : {&add, &sub, &mul, &div, &cA, &cM, &abs, &sq, &hi, &lo, &f3, &acc})
        EXPECT_TRUE(p->outsideUnchanged());
    EXPECT_TRUE(gt.outsideUnchanged());
}

TEST(Reductions, SumsAndMeansOfKnownPlanes) {
    // x + y over a 300 x 7 plane: sum = 7 * 299 * 300 / 2 + 300 * 6 * 7 / 2.
    Plane<uint8_t> p(300, 7);
    p.fill([](int x, int y, int) { return (x + y) % 256; });
    double expect = 0;
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 300; ++x) expect += (x + y) % 256;
    double sum = 0, mean = 0;
    ASSERT_EQ(sum_8u_C1(p.data(), p.step(), p.size(), &sum), kOk);
    ASSERT_EQ(mean_8u_C1(p.data(), p.step(), p.size(), &mean), kOk);
    EXPECT_EQ(sum, expect);
    EXPECT_DOUBLE_EQ(mean, expect / 2100.0);
    Plane<uint8_t> c3(4, 2, 3);
    c3.fill([](int x, int y, int c) { return c == 0 ? 10 : (c == 1 ? x * 10 : 255 * y); });
    double m3[3];
    ASSERT_EQ(mean_8u_C3(c3.data(), c3.step(), c3.size(), m3), kOk);
    EXPECT_DOUBLE_EQ(m3[0], 10.0);
    EXPECT_DOUBLE_EQ(m3[1], 15.0);
    EXPECT_DOUBLE_EQ(m3[2], 127.5);
    Plane<float> f(5, 3);
    f.fill([](int x, int y, int) { return x - y; });
    ASSERT_EQ(sum_32f_C1(f.data(), f.step(), f.size(), &sum), kOk);
    EXPECT_EQ(sum, 3 * 10 - 5 * 3);
    EXPECT_EQ(sum_32f_C1(f.data(), f.step(), f.size(), nullptr), kNullPtr);
}

TEST(Conversion, RoundsTiesToEvenAndSaturates) {
    const float in[] = {0.5f, 1.5f, 2.5f, -0.4f, -3.0f, 254.5f, 255.49f, 300.0f, 127.5f,
                        std::numeric_limits<float>::quiet_NaN(), 1e30f, -2.5f, 32767.6f, -40000.0f};
    const int n = sizeof(in) / sizeof(in[0]);
    const int to8u[] = {0, 2, 2, 0, 0, 254, 255, 255, 128, 0, 255, 0, 255, 0};
    const int to16s[] = {0, 2, 2, 0, -3, 254, 255, 300, 128, -32768, 32767, -2, 32767, -32768};
    Plane<float> src(n, 2);
    src.fill([&](int x, int, int) { return in[x]; });
    Plane<uint8_t> d8(n, 2);
    Plane<int16_t> d16(n, 2);
    ASSERT_EQ(convert_32f8u_C1(src.data(), src.step(), d8.data(), d8.step(), src.size()), kOk);
    ASSERT_EQ(convert_32f16s_C1(src.data(), src.step(), d16.data(), d16.step(), src.size()), kOk);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < n; ++x) {
            EXPECT_EQ(d8(x, y), to8u[x]) << in[x];
            EXPECT_EQ(d16(x, y), to16s[x]) << in[x];
        }
    EXPECT_TRUE(d8.outsideUnchanged() && d16.outsideUnchanged());

    Plane<uint8_t> bytes(256, 1);
    Plane<int16_t> shorts(256, 1);
    bytes.fill([](int x, int, int) { return x; });
    shorts.fill([](int x, int, int) { return (x - 128) * 256; });
    Plane<float> fb(256, 1), fs(256, 1);
    ASSERT_EQ(convert_8u32f_C1(bytes.data(), bytes.step(), fb.data(), fb.step(), fb.size()), kOk);
    ASSERT_EQ(convert_16s32f_C1(shorts.data(), shorts.step(), fs.data(), fs.step(), fs.size()), kOk);
    for (int x = 0; x < 256; ++x) {
        EXPECT_EQ(fb(x, 0), float(x));
        EXPECT_EQ(fs(x, 0), float((x - 128) * 256));
    }
}

TEST(Conversion, RangeScalingRoundTripsEveryByte) {
    Plane<uint8_t> bytes(256, 2), back(256, 2), c3(86, 1, 3), back3(86, 1, 3);
    bytes.fill([](int x, int, int) { return x; });
    c3.fill([](int x, int, int c) { return std::min(255, 3 * x + c); });
    Plane<float> unit(256, 2), wide(256, 2), unit3(86, 1, 3);
    ASSERT_EQ(scale_8u32f_C1(bytes.data(), bytes.step(), unit.data(), unit.step(), unit.size(), 0.0f, 1.0f), kOk);
    ASSERT_EQ(scale_8u32f_C1(bytes.data(), bytes.step(), wide.data(), wide.step(), wide.size(), -1.0f, 4.0f), kOk);
    ASSERT_EQ(scale_32f8u_C1(unit.data(), unit.step(), back.data(), back.step(), back.size(), 0.0f, 1.0f), kOk);
    ASSERT_EQ(scale_8u32f_C3(c3.data(), c3.step(), unit3.data(), unit3.step(), c3.size(), 0.0f, 1.0f), kOk);
    ASSERT_EQ(scale_32f8u_C3(unit3.data(), unit3.step(), back3.data(), back3.step(), c3.size(), 0.0f, 1.0f), kOk);
    EXPECT_FLOAT_EQ(unit(0, 0), 0.0f);
    EXPECT_FLOAT_EQ(unit(255, 1), 1.0f);
    EXPECT_FLOAT_EQ(unit(51, 0), 0.2f);
    EXPECT_FLOAT_EQ(wide(0, 0), -1.0f);
    EXPECT_FLOAT_EQ(wide(255, 0), 4.0f);
    EXPECT_FLOAT_EQ(wide(102, 0), 1.0f);
    for (int x = 0; x < 256; ++x) EXPECT_EQ(back(x, 1), x);
    for (int x = 0; x < 86; ++x)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(back3(x, 0, c), c3(x, 0, c));
    EXPECT_TRUE(back.outsideUnchanged() && back3.outsideUnchanged());
    EXPECT_TRUE(unit.outsideUnchanged() && unit3.outsideUnchanged());
    // Out of range saturates; an empty range is refused.
    Plane<float> outside(3, 1);
    outside.fill([](int x, int, int) { return x == 0 ? -0.5f : (x == 1 ? 1.5f : 0.5f); });
    Plane<uint8_t> o(3, 1);
    ASSERT_EQ(scale_32f8u_C1(outside.data(), outside.step(), o.data(), o.step(), o.size(), 0.0f, 1.0f), kOk);
    EXPECT_EQ(o(0, 0), 0);
    EXPECT_EQ(o(1, 0), 255);
    EXPECT_EQ(o(2, 0), 128);  // 127.5 to even
    EXPECT_EQ(scale_32f8u_C1(outside.data(), outside.step(), o.data(), o.step(), o.size(), 1.0f, 1.0f), kBadArg);
}

}  // namespace
