// Resize, flood fill, colour conversions and the vector and matrix helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "image/primitives.h"
#include "plane_fixture.h"

namespace {

using namespace qx::prim;
using qx::test::Plane;

TEST(Resize, SourceRectIsIsolatedAndSizesDecide) {
    // The rectangle holds 90, everything around it 0: cubic weights sum to one and the border
    // is taken inside the rectangle, so the result is 90 throughout.
    Plane<uint8_t> src(20, 16), up(23, 13), same(6, 5);
    const Rect r{4, 3, 6, 5};
    src.fill([&](int x, int y, int) {
        return x >= r.x && x < r.x + r.width && y >= r.y && y < r.y + r.height ? 90 : 0;
    });
    ASSERT_EQ(resizeCubic_8u_C1(src.data(), src.size(), src.step(), r, up.data(), up.step(), up.size(), 23.0 / 6, 13.0 / 5), kOk);
    for (int y = 0; y < 13; ++y)
        for (int x = 0; x < 23; ++x) ASSERT_EQ(up(x, y), 90) << x << "," << y;
    EXPECT_TRUE(up.outsideUnchanged());
    // Factor 1 samples exactly on the pixels: a copy.
    src.fillRandom(70, 0, 255);
    ASSERT_EQ(resizeCubic_8u_C1(src.data(), src.size(), src.step(), r, same.data(), same.step(), same.size(), 1.0, 1.0), kOk);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(same(x, y), src(x + r.x, y + r.y));
    same.snapshot();
    EXPECT_EQ(resizeCubic_8u_C1(src.data(), src.size(), src.step(), r, same.data(), same.step(), same.size(), 0.0, 1.0), kBadArg);
    EXPECT_EQ(resizeCubic_8u_C1(src.data(), src.size(), src.step(), {30, 0, 4, 4}, same.data(), same.step(), same.size(), 1.0, 1.0), kSizeErr);
    EXPECT_TRUE(same.unchanged());
}

TEST(Resize, FourChannelsKeepChannelsApart) {
    Plane<uint8_t> src(8, 8, 4), dst(5, 3, 4);
    src.fill([](int, int, int c) { return 40 * c + 7; });
    ASSERT_EQ(resizeCubic_8u_C4(src.data(), src.size(), src.step(), {0, 0, 8, 8}, dst.data(), dst.step(), dst.size(), 5.0 / 8, 3.0 / 8), kOk);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x)
            for (int c = 0; c < 4; ++c) EXPECT_EQ(dst(x, y, c), 40 * c + 7);
    EXPECT_TRUE(dst.outsideUnchanged());
}

std::vector<std::string> applyFill(std::vector<std::string> rows, Point seed, uint8_t nv, uint8_t lo,
                                   uint8_t hi, ConnectedComp* cc, int* status) {
    const int h = int(rows.size()), w = int(rows[0].size());
    Plane<uint8_t> p(w, h);
    p.fill([&](int x, int y, int) { return rows[y][x]; });
    int bytes = 0;
    EXPECT_EQ(floodFillBufferSize(p.size(), &bytes), kOk);
    std::vector<uint8_t> buf(bytes);
    *status = floodFill8_8u_C1I(seed, nv, lo, hi, p.data(), p.step(), p.size(), cc, buf.data());
    EXPECT_TRUE(p.outsideUnchanged());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) rows[y][x] = char(p(x, y));
    return rows;
}

TEST(FloodFill, EightConnectedRangeFromTheSeedValue) {
    // Digits are byte values '0'..'9'; range [seed - 1, seed + 1] around '5'.
    const std::vector<std::string> in = {"5550900",
                                         "0004000",
                                         "0000600",
                                         "5500070",
                                         "0560000"};
    ConnectedComp cc;
    int st;
    const auto out = applyFill(in, {0, 0}, 'x', 1, 1, &cc, &st);
    ASSERT_EQ(st, kOk);
    const std::vector<std::string> expect = {"xxx0900",
                                             "000x000",
                                             "0000x00",
                                             "5500070",
                                             "0560000"};
    EXPECT_EQ(out, expect);
    EXPECT_EQ(cc.area, 5.0);
    EXPECT_EQ(cc.rect.x, 0);
    EXPECT_EQ(cc.rect.y, 0);
    EXPECT_EQ(cc.rect.width, 5);
    EXPECT_EQ(cc.rect.height, 3);

    // A new value inside the range does not refill what was filled.
    const auto same = applyFill(in, {1, 4}, '6', 1, 1, &cc, &st);
    EXPECT_EQ(st, kOk);
    EXPECT_EQ(same[3], "6600070");
    EXPECT_EQ(same[4], "0660000");
    EXPECT_EQ(cc.area, 4.0);

    // Seed already at the new value: nothing happens and the record is cleared.
    const auto none = applyFill(in, {4, 0}, '9', 9, 9, &cc, &st);
    EXPECT_EQ(st, kOk);
    EXPECT_EQ(none, in);
    EXPECT_EQ(cc.area, 0.0);
    EXPECT_EQ(cc.rect.width, 0);
    applyFill(in, {7, 0}, '1', 0, 0, &cc, &st);
    EXPECT_EQ(st, kBadArg);
}

TEST(FloodFill, CombOutgrowsTheScratchStack) {
    // A row of teeth hanging from a spine: every tooth is its own span on the rows below, more
    // than the scratch stack holds.
    const int w = 20001, h = 4;
    Plane<uint8_t> p(w, h);
    p.fill([](int x, int y, int) { return y == 0 || x % 2 == 0 ? 10 : 200; });
    int bytes = 0;
    ASSERT_EQ(floodFillBufferSize(p.size(), &bytes), kOk);
    std::vector<uint8_t> buf(bytes);
    ConnectedComp cc;
    ASSERT_EQ(floodFill8_8u_C1I({0, 0}, 11, 0, 0, p.data(), p.step(), p.size(), &cc, buf.data()), kOk);
    EXPECT_EQ(cc.area, double(w + 3 * 10001));
    EXPECT_EQ(p(w - 1, h - 1), 11);
    EXPECT_EQ(p(1, 1), 200);
    EXPECT_TRUE(p.outsideUnchanged());

    // The same fill when the stack cannot grow is refused by status, with nothing leaked.
    p.fill([](int x, int y, int) { return y == 0 || x % 2 == 0 ? 10 : 200; });
    failNextAllocations(1);
    EXPECT_EQ(floodFill8_8u_C1I({0, 0}, 11, 0, 0, p.data(), p.step(), p.size(), &cc, buf.data()), kNoMem);
    failNextAllocations(0);
    EXPECT_TRUE(p.outsideUnchanged());
}

TEST(Colour, HlsKnownColoursAndAlphaPassThrough) {
    const int rgb[][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {100, 100, 100}, {255, 255, 255}, {255, 255, 0}};
    const int hls[][3] = {{0, 128, 255}, {85, 128, 255}, {170, 128, 255}, {0, 100, 0}, {0, 255, 0}, {42, 128, 255}};  // yellow: 255 / 6 = 42.5 -> 42
    Plane<uint8_t> src(6, 1, 4), dst(6, 1, 4), back(6, 1, 4);
    src.fill([&](int x, int, int c) { return c < 3 ? rgb[x][c] : 17 * x; });
    ASSERT_EQ(rgbToHls_8u_C4(src.data(), src.step(), dst.data(), dst.step(), src.size()), kOk);
    for (int x = 0; x < 6; ++x) {
        for (int c = 0; c < 3; ++c) EXPECT_EQ(dst(x, 0, c), hls[x][c]) << x << "," << c;
        EXPECT_EQ(dst(x, 0, 3), 17 * x);
    }
    ASSERT_EQ(hlsToRgb_8u_C4(dst.data(), dst.step(), back.data(), back.step(), src.size()), kOk);
    for (int x = 0; x < 6; ++x)
        for (int c = 0; c < 4; ++c) EXPECT_NEAR(back(x, 0, c), src(x, 0, c), 3) << x;
    EXPECT_TRUE(dst.outsideUnchanged() && back.outsideUnchanged());
}

TEST(Colour, HlsRoundTripIsNearIdentity) {
    // A 16-step grid of the cube. A byte hue is off by at most half of 1/255 turn, which moves
    // a fully saturated channel by 6 * 0.5 levels; with the rounding of L, S and the result the
    // bound is 4. Floats come back within rounding.
    const int n = 16;
    Plane<uint8_t> src(n * n, n, 4), hls(n * n, n, 4), back(n * n, n, 4);
    src.fill([&](int x, int y, int c) {
        const int v[4] = {(x % n) * 17, (x / n) * 17, y * 17, 255};
        return v[c];
    });
    ASSERT_EQ(rgbToHls_8u_C4(src.data(), src.step(), hls.data(), hls.step(), src.size()), kOk);
    ASSERT_EQ(hlsToRgb_8u_C4(hls.data(), hls.step(), back.data(), back.step(), src.size()), kOk);
    int worst = 0;
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n * n; ++x)
            for (int c = 0; c < 3; ++c) worst = std::max(worst, std::abs(back(x, y, c) - src(x, y, c)));
    EXPECT_LE(worst, 4);

    Plane<float> f(n * n, n, 3), fh(n * n, n, 3), fb(n * n, n, 3);
    f.fill([&](int x, int y, int c) {
        const int v[3] = {x % n, x / n, y};
        return v[c] / float(n - 1);
    });
    ASSERT_EQ(rgbToHls_32f_C3(f.data(), f.step(), fh.data(), fh.step(), f.size()), kOk);
    ASSERT_EQ(hlsToRgb_32f_C3(fh.data(), fh.step(), fb.data(), fb.step(), f.size()), kOk);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n * n; ++x)
            for (int c = 0; c < 3; ++c) {
                ASSERT_NEAR(fb(x, y, c), f(x, y, c), 2e-6f);
                ASSERT_GE(fh(x, y, c), 0.0f);
                ASSERT_LT(fh(x, y, c), 1.0f + 1e-6f);
            }
    EXPECT_TRUE(fh.outsideUnchanged() && fb.outsideUnchanged());
}

TEST(Colour, StudioRangeYCbCr) {
    Plane<uint8_t> rgb(5, 1, 3), planes(5, 3), back(5, 1, 3);
    const int px[5][3] = {{0, 0, 0}, {255, 255, 255}, {255, 0, 0}, {0, 0, 255}, {12, 200, 99}};
    rgb.fill([&](int x, int, int c) { return px[x][c]; });
    uint8_t* dst[3] = {planes.at(0, 0), planes.at(0, 1), planes.at(0, 2)};
    ASSERT_EQ(rgbToYCbCr_8u_C3P3(rgb.data(), rgb.step(), dst, planes.step(), {5, 1}), kOk);
    // Black and white at the studio limits; pure red and blue from the matrix:
    // red Y = 0.257 * 255 + 16 = 81.5 -> 82, Cr = 0.439 * 255 + 128 = 239.9 -> 240;
    // blue Cb = 240, Y = 0.098 * 255 + 16 = 40.99 -> 41.
    const int expect[5][3] = {{16, 128, 128}, {235, 128, 128}, {82, 90, 240}, {41, 240, 110}, {0, 0, 0}};
    for (int x = 0; x < 4; ++x)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(planes(x, c), expect[x][c]) << x << "," << c;
    const uint8_t* src[3] = {planes.at(0, 0), planes.at(0, 1), planes.at(0, 2)};
    ASSERT_EQ(yCbCrToRgb_8u_P3C3(src, planes.step(), back.data(), back.step(), {5, 1}), kOk);
    for (int x = 0; x < 5; ++x)
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(back(x, 0, c), px[x][c], 2) << x << "," << c;
    EXPECT_TRUE(planes.outsideUnchanged() && back.outsideUnchanged());
}

TEST(Colour, TwistInPlace) {
    Plane<float> p(4, 6);
    p.fill([](int x, int y, int) { return x + 10 * y; });
    const Plane<float> before = p;
    float* planes[3] = {p.at(0, 0), p.at(0, 2), p.at(0, 4)};
    const float m[3][4] = {{1, 0, 0, 0.5f}, {0, 0, 1, 0}, {1, 1, 1, -1}};
    ASSERT_EQ(colorTwist_32f_P3I(planes, p.step(), {4, 2}, m), kOk);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 4; ++x) {
            const float a = before(x, y), b = before(x, y + 2), c = before(x, y + 4);
            EXPECT_EQ(p(x, y), a + 0.5f);
            EXPECT_EQ(p(x, y + 2), c);
            EXPECT_EQ(p(x, y + 4), a + b + c - 1);
        }
    EXPECT_TRUE(p.outsideUnchanged());
}

TEST(Vector, ScalarOperationsAndReductions) {
    std::vector<double> v = {1.5, -2.0, 4.0, 0.25};
    ASSERT_EQ(mulC_64f_I(2.0, v.data(), 4), kOk);
    ASSERT_EQ(addC_64f_I(1.0, v.data(), 4), kOk);
    ASSERT_EQ(subC_64f_I(0.5, v.data(), 3), kOk);  // the last element is left alone
    EXPECT_EQ(v, (std::vector<double>{3.5, -3.5, 8.5, 1.5}));
    double mean = 0, dot = 0;
    ASSERT_EQ(mean_64f(v.data(), 4, &mean), kOk);
    EXPECT_EQ(mean, 2.5);
    const std::vector<double> w = {2, 1, 0.5, -4};
    ASSERT_EQ(dotProd_64f(v.data(), w.data(), 4, &dot), kOk);
    EXPECT_EQ(dot, 7.0 - 3.5 + 4.25 - 6.0);
    std::vector<float> f(5, 9.0f);
    ASSERT_EQ(convert_64f32f(v.data(), f.data(), 4), kOk);
    EXPECT_EQ(f, (std::vector<float>{3.5f, -3.5f, 8.5f, 1.5f, 9.0f}));
    ASSERT_EQ(set_32f(0.75f, f.data(), 2), kOk);
    ASSERT_EQ(zero_32f(f.data() + 2, 2), kOk);
    EXPECT_EQ(f, (std::vector<float>{0.75f, 0.75f, 0, 0, 9.0f}));
    std::vector<int16_t> s(4, 5);
    ASSERT_EQ(set_16s(-3, s.data(), 3), kOk);
    ASSERT_EQ(zero_16s(s.data(), 1), kOk);
    EXPECT_EQ(s, (std::vector<int16_t>{0, -3, -3, 5}));
    EXPECT_EQ(mean_64f(v.data(), 0, &mean), kSizeErr);
    EXPECT_EQ(set_16s(1, nullptr, 3), kNullPtr);
}

TEST(Vector, SortCarriesThePermutation) {
    std::mt19937 rng(5);
    std::vector<int32_t> keys(5000);
    for (auto& k : keys) k = int32_t(rng() % 300) - 150;
    keys[10] = INT_MIN;
    keys[20] = INT_MAX;
    const std::vector<int32_t> orig = keys;
    std::vector<int32_t> perm(keys.size(), -1);
    ASSERT_EQ(sortAscendIndex_32s_I(keys.data(), perm.data(), int(keys.size())), kOk);
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    EXPECT_EQ(keys.front(), INT_MIN);
    EXPECT_EQ(keys.back(), INT_MAX);
    std::vector<int32_t> seen(keys.size(), 0);
    for (size_t i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(keys[i], orig[perm[i]]);
        ++seen[perm[i]];
    }
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](int c) { return c == 1; }));
    failNextAllocations(1);
    EXPECT_EQ(sortAscendIndex_32s_I(keys.data(), perm.data(), 10), kNoMem);
    failNextAllocations(0);
}

TEST(Matrix, InverseAndProductsWithStrides) {
    // Rows 5 doubles apart, the last two of each row being padding that must stay.
    const double pad = -99.0;
    double a[15] = {2, 1, 0, pad, pad, 1, 3, 1, pad, pad, 0, 1, 4, pad, pad};
    double inv[15], prod[15];
    std::fill(inv, inv + 15, pad);
    std::fill(prod, prod + 15, pad);
    ASSERT_EQ(invert3x3_64f(a, 40, inv, 40), kOk);
    ASSERT_EQ(matMul_64f(a, 40, 3, 3, inv, 40, 3, prod, 40), kOk);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(prod[r * 5 + c], r == c ? 1.0 : 0.0, 1e-14);
    // det = 2 * 11 - 1 * 4 = 18; inv[0][0] = (3 * 4 - 1 * 1) / 18.
    EXPECT_DOUBLE_EQ(inv[0], 11.0 / 18);
    for (int r = 0; r < 3; ++r) EXPECT_EQ(inv[r * 5 + 3], pad);
    const double singular[9] = {1, 2, 3, 2, 4, 6, 0, 1, 1};
    EXPECT_EQ(invert3x3_64f(singular, 24, inv, 40), kBadArg);

    // (2 x 3) * (3 x 2) and the same product with the first operand stored transposed.
    const double m[6] = {1, 2, 3, 4, 5, 6}, mt[6] = {1, 4, 2, 5, 3, 6}, n[6] = {7, 8, 9, 10, 11, 12};
    double out[4], outT[4];
    ASSERT_EQ(matMul_64f(m, 24, 2, 3, n, 16, 2, out, 16), kOk);
    ASSERT_EQ(matMulTransA_64f(mt, 16, 2, 3, n, 16, 2, outT, 16), kOk);
    const double expect[4] = {58, 64, 139, 154};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(out[i], expect[i]);
        EXPECT_EQ(outT[i], expect[i]);
    }
    EXPECT_EQ(matMul_64f(m, 8, 2, 3, n, 16, 2, out, 16), kBadArg);  // stride shorter than a row
}

}  // namespace
