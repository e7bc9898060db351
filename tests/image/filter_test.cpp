// Neighbourhood filters against brute-force references that walk the full masks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "image/primitives.h"
#include "plane_fixture.h"

namespace {

using namespace qx::prim;
using qx::test::Plane;

const int kMask33[3][3] = {{1, 2, 1}, {2, 4, 2}, {1, 2, 1}};
const int kMask55[5][5] = {{2, 7, 12, 7, 2},
                           {7, 31, 52, 31, 7},
                           {12, 52, 127, 52, 12},
                           {7, 31, 52, 31, 7},
                           {2, 7, 12, 7, 2}};

// The masked sum divided by the mask's total, to nearest; the 16-total takes ties to even
// (571 is odd and has none).
int refGauss(const Plane<uint8_t>& p, int x, int y, int code) {
    const int r = code == 33 ? 1 : 2;
    long v = 0;
    for (int j = -r; j <= r; ++j)
        for (int i = -r; i <= r; ++i)
            v += long(code == 33 ? kMask33[j + r][i + r] : kMask55[j + r][i + r]) * p(x + i, y + j);
    if (code == 33) {
        const long q = v / 16, rem = v % 16;
        return int(rem > 8 || (rem == 8 && (q & 1)) ? q + 1 : q);
    }
    return int((2 * v + 571) / 1142);
}

TEST(GaussFilter, MatchesFullMaskWithExactRounding) {
    for (int code : {33, 55}) {
        for (auto [w, h] : {std::pair{1, 1}, std::pair{37, 11}, std::pair{130, 5}}) {
            Plane<uint8_t> src(w, h, 1, 2), dst(w, h);
            src.fillRandom(w * 100 + code, 0, 255);
            ASSERT_EQ(filterGauss_8u_C1(src.data(), src.step(), dst.data(), dst.step(), dst.size(), code), kOk);
            int wrong = 0;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) wrong += dst(x, y) != refGauss(src, x, y, code);
            EXPECT_EQ(wrong, 0) << code << " " << w << "x" << h;
            EXPECT_TRUE(dst.outsideUnchanged());
            EXPECT_TRUE(src.unchanged());
        }
    }
}

TEST(GaussFilter, ExtremesAndTies) {
    // All 255 stays 255 (the 55 arithmetic needs the full unsigned 32 bits there). A lone 8
    // in zeros gives 32 / 16 = 2 at the centre, 16 / 16 = 1 beside it and the tie 8 / 16 -> 0
    // at the corner; a lone 24 gives the tie 24 / 16 -> 2 at the corner.
    Plane<uint8_t> full(4, 3, 1, 2), d(4, 3);
    full.fill([](int, int, int) { return 255; });
    ASSERT_EQ(filterGauss_8u_C1(full.data(), full.step(), d.data(), d.step(), d.size(), 55), kOk);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(d(x, y), 255);
    Plane<uint8_t> dot(3, 3, 1, 1), g(3, 3);
    dot.fill([](int x, int y, int) { return x == 1 && y == 1 ? 8 : 0; });
    ASSERT_EQ(filterGauss_8u_C1(dot.data(), dot.step(), g.data(), g.step(), g.size(), 33), kOk);
    EXPECT_EQ(g(1, 1), 2);
    EXPECT_EQ(g(0, 1), 1);
    EXPECT_EQ(g(0, 0), 0);  // 8 / 16 = 0.5 -> 0
    dot.fill([](int x, int y, int) { return x == 1 && y == 1 ? 24 : 0; });
    ASSERT_EQ(filterGauss_8u_C1(dot.data(), dot.step(), g.data(), g.step(), g.size(), 33), kOk);
    EXPECT_EQ(g(0, 0), 2);  // 24 / 16 = 1.5 -> 2
    EXPECT_EQ(g(0, 1), 3);  // 48 / 16
    g.snapshot();
    EXPECT_EQ(filterGauss_8u_C1(dot.data(), dot.step(), g.data(), g.step(), g.size(), 44), kBadArg);
    EXPECT_TRUE(g.unchanged());
}

template <typename T>
T refExtreme(const Plane<T>& p, int x, int y, bool max) {
    T v = p(x, y);
    for (int j = -1; j <= 1; ++j)
        for (int i = -1; i <= 1; ++i) v = max ? std::max(v, p(x + i, y + j)) : std::min(v, p(x + i, y + j));
    return v;
}

TEST(Morphology, ThreeByThreeExtremes) {
    Plane<uint8_t> s(45, 7, 1, 1), er(45, 7), di(45, 7);
    Plane<float> sf(45, 7, 1, 1), mn(45, 7), mx(45, 7);
    s.fillRandom(40, 0, 255);
    sf.fillRandom(41, -1000, 1000);
    ASSERT_EQ(erode3x3_8u_C1(s.data(), s.step(), er.data(), er.step(), er.size()), kOk);
    ASSERT_EQ(dilate3x3_8u_C1(s.data(), s.step(), di.data(), di.step(), di.size()), kOk);
    ASSERT_EQ(min3x3_32f_C1(sf.data(), sf.step(), mn.data(), mn.step(), mn.size()), kOk);
    ASSERT_EQ(max3x3_32f_C1(sf.data(), sf.step(), mx.data(), mx.step(), mx.size()), kOk);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 45; ++x) {
            EXPECT_EQ(er(x, y), refExtreme(s, x, y, false));
            EXPECT_EQ(di(x, y), refExtreme(s, x, y, true));
            EXPECT_EQ(mn(x, y), refExtreme(sf, x, y, false));
            EXPECT_EQ(mx(x, y), refExtreme(sf, x, y, true));
        }
    EXPECT_TRUE(er.outsideUnchanged() && di.outsideUnchanged());
    EXPECT_TRUE(mn.outsideUnchanged() && mx.outsideUnchanged());
}

TEST(Morphology, MaskedInPlaceReadsOriginalPixels) {
    // An asymmetric 4 x 3 mask anchored off centre: the frame it reaches is 1 left, 2 right,
    // 2 above, 0 below.
    const uint8_t mask[12] = {1, 0, 0, 1,
                              0, 1, 1, 0,
                              1, 0, 0, 0};
    const Size ms{4, 3};
    const Point anchor{1, 2};
    for (bool dilate : {false, true}) {
        Plane<uint8_t> p(23, 9, 1, 2);
        p.fillRandom(dilate ? 50 : 51, 0, 255);
        const Plane<uint8_t> orig = p;
        const int st = dilate ? dilate_8u_C1I(p.data(), p.step(), p.size(), mask, ms, anchor)
                              : erode_8u_C1I(p.data(), p.step(), p.size(), mask, ms, anchor);
        ASSERT_EQ(st, kOk);
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 23; ++x) {
                int v = dilate ? 0 : 255;
                for (int j = 0; j < 3; ++j)
                    for (int i = 0; i < 4; ++i)
                        if (mask[j * 4 + i]) {
                            const int s = orig(x + i - anchor.x, y + j - anchor.y);
                            v = dilate ? std::max(v, s) : std::min(v, s);
                        }
                ASSERT_EQ(p(x, y), v) << x << "," << y << " dilate " << dilate;
            }
        EXPECT_TRUE(p.outsideUnchanged());
    }
    Plane<uint8_t> p(5, 5, 1, 2);
    const uint8_t none[4] = {};
    EXPECT_EQ(erode_8u_C1I(p.data(), p.step(), p.size(), none, {2, 2}, {0, 0}), kBadArg);
    EXPECT_EQ(erode_8u_C1I(p.data(), p.step(), p.size(), mask, ms, {4, 0}), kBadArg);
    EXPECT_TRUE(p.unchanged());
}

TEST(Convolution, DeltaKernelsShowTheReversedDirection) {
    // kernel[i] = 1 at i = 2 with anchor 1: dst(x) = src(x + 1 - 2) = src(x - 1).
    const float delta[4] = {0, 0, 1, 0};
    Plane<float> s(10, 6, 3, 3), r1(10, 6), c1(10, 6), r3(10, 6, 3), c3(10, 6, 3);
    s.fill([](int x, int y, int c) { return 1000 * c + 31 * y + x; });
    Plane<float> s1(10, 6, 1, 3);
    s1.fill([](int x, int y, int) { return 31 * y + x; });
    ASSERT_EQ(filterRow_32f_C1(s1.data(), s1.step(), r1.data(), r1.step(), r1.size(), delta, 4, 1), kOk);
    ASSERT_EQ(filterColumn_32f_C1(s1.data(), s1.step(), c1.data(), c1.step(), c1.size(), delta, 4, 1), kOk);
    ASSERT_EQ(filterRow_32f_C3(s.data(), s.step(), r3.data(), r3.step(), r3.size(), delta, 4, 1), kOk);
    ASSERT_EQ(filterColumn_32f_C3(s.data(), s.step(), c3.data(), c3.step(), c3.size(), delta, 4, 1), kOk);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 10; ++x) {
            EXPECT_EQ(r1(x, y), s1(x - 1, y));
            EXPECT_EQ(c1(x, y), s1(x, y - 1));
            for (int c = 0; c < 3; ++c) {
                EXPECT_EQ(r3(x, y, c), s(x - 1, y, c));
                EXPECT_EQ(c3(x, y, c), s(x, y - 1, c));
            }
        }
    for (auto* p : {&r1, &c1, &r3, &c3}) EXPECT_TRUE(p->outsideUnchanged());
}

TEST(Convolution, GeneralKernelMatchesDoubleSum) {
    const Size ks{3, 2};
    const Point anchor{2, 0};
    const float k[6] = {0.5f, -1.0f, 0.25f, 2.0f, 0.125f, -0.75f};
    Plane<float> s(17, 5, 1, 3), d(17, 5);
    s.fillRandom(60, -100, 100);
    ASSERT_EQ(filter_32f_C1(s.data(), s.step(), d.data(), d.step(), d.size(), k, ks, anchor), kOk);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 17; ++x) {
            double v = 0;
            for (int j = 0; j < 2; ++j)
                for (int i = 0; i < 3; ++i) v += double(k[j * 3 + i]) * s(x + anchor.x - i, y + anchor.y - j);
            EXPECT_NEAR(d(x, y), v, 1e-3);
        }
    EXPECT_TRUE(d.outsideUnchanged());
    d.snapshot();
    EXPECT_EQ(filter_32f_C1(s.data(), s.step(), d.data(), d.step(), d.size(), k, {0, 2}, {0, 0}), kSizeErr);
    EXPECT_EQ(filter_32f_C1(s.data(), s.step(), d.data(), d.step(), d.size(), k, ks, {3, 0}), kBadArg);
    EXPECT_EQ(filterRow_32f_C1(s.data(), s.step(), d.data(), d.step(), d.size(), nullptr, 3, 1), kNullPtr);
    EXPECT_TRUE(d.unchanged());
}

}  // namespace
