// Gaussian kernels and blur, the list smoother, the float median, the toggle-contrast sharpener
// and the separable filter's border modes, against values worked out by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "image/base_tools.h"

namespace {

using qx::IMG;

// An owned float plane filled from f(x, y).
template <class F>
void fill(IMG<float, 1>& im, F f) {
    for (int y = 0; y < im.height; ++y)
        for (int x = 0; x < im.width; ++x) *im.ptr(x, y) = static_cast<float>(f(x, y));
}

TEST(GaussKernels, TapsAgainstHandValues) {
    float t[5];
    // sigma 1: bell 0.135335, 0.606531, 1, ... summing to 2.483732.
    EXPECT_NEAR(qx::computeGaussFilter(t, 5, 1.0f), 2.483732f, 1e-5);
    EXPECT_NEAR(t[0], 0.054489f, 1e-6);
    EXPECT_NEAR(t[1], 0.244201f, 1e-6);
    EXPECT_NEAR(t[2], 0.402620f, 1e-6);
    EXPECT_FLOAT_EQ(t[3], t[1]);
    EXPECT_FLOAT_EQ(t[4], t[0]);
    // An even count is centred on index n/2: half a tap off centre.
    float e[4];
    EXPECT_NEAR(qx::computeGaussFilter(e, 4, 1.0f), 2.348397f, 1e-5);
    EXPECT_FLOAT_EQ(e[1], e[3]);
    EXPECT_GT(e[2], e[1]);
    EXPECT_LT(e[0], e[1]);
    EXPECT_EQ(qx::computeGaussFilter(e, 0, 1.0f), 0.0f);

    short s[3];
    EXPECT_EQ(qx::computeGaussFilter(s, 3, 1.0f, 100), 220);  // 60 + 100 + 60, truncated
    EXPECT_EQ(s[0], 60);
    EXPECT_EQ(s[1], 100);
    EXPECT_EQ(qx::computeGaussFilter(s, -1, 1.0f, 100), 0);
}

TEST(GaussKernels, SquareKernelsTakeAVarianceAndTruncate) {
    uint8_t* g = qx::creatGaussian2D_8u(1.0f, 3);
    EXPECT_EQ(g[4], 255);
    EXPECT_EQ(g[1], 154);  // 255 exp(-0.5) = 154.67
    EXPECT_EQ(g[0], 93);   // 255 exp(-1) = 93.8
    qx::prim::freeAligned(g);
    g = qx::creatGaussian2D_8u(4.0f, 3);  // a variance: exp(-0.5/4), not exp(-0.5/16)
    EXPECT_EQ(g[1], 225);
    qx::prim::freeAligned(g);
    g = qx::creatGaussian2D_8u(1.0f, 2);  // centre 0.5: every element at r^2 = 0.5
    for (int i = 0; i < 4; ++i) EXPECT_EQ(g[i], 198);
    qx::prim::freeAligned(g);

    int32_t* m = qx::creatGaussianMorph_32s(1.0f, 3, 100);
    EXPECT_EQ(m[4], 0);
    EXPECT_EQ(m[1], -39);  // (0.6065 - 1) * 100 truncated towards zero
    EXPECT_EQ(m[8], -63);
    qx::prim::freeAligned(m);

    qx::prim::failNextAllocations(1);
    EXPECT_THROW(
        {
            try {
                qx::creatGaussian2D_8u(1.0f, 5);
            } catch (int e) {
                EXPECT_EQ(e, 108);
                throw;
            }
        },
        int);
    EXPECT_THROW(qx::creatGaussianMorph_32s(1.0f, 0, 1), int);
}

TEST(GuassFilter, TapCountsBordersAndSwitchedOffDirections) {
    // sigma 0.5 vertically: 5 taps exp(-2 k^2) / 1.271341; an impulse spreads over rows +-2.
    IMG<float, 1> im(11, 11);
    fill(im, [](int x, int y) { return x == 5 && y == 5 ? 1.0 : 0.0; });
    EXPECT_EQ(qx::guassFilter(im, 0.3f, 0.5f), 1);
    EXPECT_NEAR(*im.ptr(5, 5), 0.786571f, 1e-5);
    EXPECT_NEAR(*im.ptr(5, 4), 0.106450f, 1e-5);
    EXPECT_NEAR(*im.ptr(5, 7), 0.000264f, 1e-6);
    EXPECT_EQ(*im.ptr(5, 8), 0.0f);
    EXPECT_EQ(*im.ptr(4, 5), 0.0f);  // sigma 0.3 switched the rows' pass off

    // Within `half` of the top the rows are copied, not smoothed; the row below reads them.
    fill(im, [](int x, int y) { return x == 5 && y == 1 ? 1.0 : 0.0; });
    qx::guassFilter(im, 0.0f, 0.5f);
    EXPECT_EQ(*im.ptr(5, 1), 1.0f);
    EXPECT_EQ(*im.ptr(5, 0), 0.0f);
    EXPECT_NEAR(*im.ptr(5, 2), 0.106450f, 1e-5);

    // Reach of the horizontal pass: 4 sigma made even, plus 3, at most 17 taps.
    for (auto [sigma, reach] : {std::pair{4.0f, 8}, std::pair{9.0f, 8}, std::pair{3.9f, 8},
                                std::pair{3.4f, 7}, std::pair{0.5f, 2}}) {
        IMG<float, 1> row(41, 1);
        fill(row, [](int x, int) { return x == 20 ? 1.0 : 0.0; });
        qx::guassFilter(row, sigma, 0.0f);
        EXPECT_GT(*row.ptr(20 + reach, 0), 0.0f) << sigma;
        EXPECT_GT(*row.ptr(20 - reach, 0), 0.0f) << sigma;
        EXPECT_EQ(*row.ptr(20 + reach + 1, 0), 0.0f) << sigma;
    }

    fill(im, [](int x, int y) { return x * 3 + y; });
    EXPECT_EQ(qx::guassFilter(im, 0.4f, 0.4f), 0);
    EXPECT_EQ(*im.ptr(7, 3), 24.0f);
}

TEST(FilterGauss5f, SmoothsAcrossTheListFromTheOldValues) {
    const float taps[5] = {1, 2, 3, 4, 5};
    std::vector<std::unique_ptr<IMG<float, 1>>> own;
    std::vector<IMG<float, 1>*> list;
    for (int i = 0; i < 6; ++i) {
        own.push_back(std::make_unique<IMG<float, 1>>(2, 1));
        fill(*own.back(), [i](int x, int) { return i * i + x; });
        list.push_back(own.back().get());
    }
    EXPECT_EQ(qx::FilterGauss5f_inPlace(list.data(), 6, taps), 1);
    // 1*0 + 2*1 + 3*4 + 4*9 + 5*16; image 3 from the unfiltered image 2: 1 + 8 + 27 + 64 + 125.
    EXPECT_EQ(*list[2]->ptr(0, 0), 130.0f);
    EXPECT_EQ(*list[3]->ptr(0, 0), 225.0f);
    EXPECT_EQ(*list[3]->ptr(1, 0), 240.0f);  // + 15 for x = 1
    for (int i : {0, 1, 4, 5}) EXPECT_EQ(*list[i]->ptr(0, 0), float(i * i));

    // Four images or fewer: nothing changes.
    EXPECT_EQ(qx::FilterGauss5f_inPlace(list.data(), 4, taps), 1);
    EXPECT_EQ(*list[2]->ptr(0, 0), 130.0f);

    // Three channels, each on its own.
    std::vector<std::unique_ptr<IMG<float, 3>>> own3;
    std::vector<IMG<float, 3>*> list3;
    for (int i = 0; i < 5; ++i) {
        own3.push_back(std::make_unique<IMG<float, 3>>(1, 1));
        float* p = own3.back()->data;
        p[0] = float(i);
        p[1] = 10.0f * i;
        p[2] = 1.0f;
        list3.push_back(own3.back().get());
    }
    const float mean[5] = {0.2f, 0.2f, 0.2f, 0.2f, 0.2f};
    qx::FilterGauss5f_inPlace(list3.data(), 5, mean);
    EXPECT_NEAR(list3[2]->data[0], 2.0f, 1e-6);
    EXPECT_NEAR(list3[2]->data[1], 20.0f, 1e-5);
    EXPECT_NEAR(list3[2]->data[2], 1.0f, 1e-6);
}

TEST(MedianFilter, RadiiChooseTheMaskAndMarginsStay) {
    // A diagonal cross of 1 around (8,8) plus a spike at (1,1), or a 3x3 block of 1 at 7..9,
    // in a field of 0.25.
    auto makeX = [](IMG<float, 1>& im) {
        fill(im, [](int x, int y) {
            if (std::abs(x - 8) == std::abs(y - 8) && std::abs(x - 8) <= 1) return 1.0;
            if (x == 1 && y == 1) return 0.75;
            return 0.25;
        });
    };
    auto makeBlock = [](IMG<float, 1>& im) {
        fill(im, [](int x, int y) {
            if (x >= 7 && x <= 9 && y >= 7 && y <= 9) return 1.0;
            if (x == 1 && y == 1) return 0.75;
            return 0.25;
        });
    };
    IMG<float, 1> a(17, 17), b(17, 17), c(17, 17), d(5, 5);
    makeX(a);
    makeBlock(b);
    makeBlock(c);
    fill(d, [](int x, int y) { return 0.1 * x + 0.01 * y; });
    IMG<float, 1>* list[4] = {&a, &b, &c, &d};
    const int radii[4] = {1, 3, 0, 2};  // d is smaller than image 0: skipped
    EXPECT_EQ(qx::medianFilter(list, 4, 1.0f, 0.0f, radii), 1);
    // Radius 1 is the 3x3 cross: (8,8) has 1 only at its centre there (a 3x3 square would
    // hold five 1s and keep it); the spike at (1,1) is inside the 1-pixel margin and goes.
    EXPECT_NEAR(*a.ptr(8, 8), 0.25f, 1e-4);
    EXPECT_NEAR(*a.ptr(1, 1), 0.25f, 1e-4);
    EXPECT_NEAR(*a.ptr(12, 3), 0.25f, 1e-4);
    // Radius 3 is the 7x7 square: nine of 49 are 1, so the block goes (a 5x5 cross would keep
    // its middle); the spike at (1,1) lies in the 3-pixel margin and stays.
    EXPECT_NEAR(*b.ptr(8, 8), 0.25f, 1e-4);
    EXPECT_NEAR(*b.ptr(1, 1), 0.75f, 1e-4);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(*d.ptr(x, y), float(0.1 * x + 0.01 * y));
    EXPECT_EQ(*c.ptr(8, 8), 1.0f);  // radius 0

    // All radii 0: bit for bit unchanged.
    makeBlock(a);
    *a.ptr(3, 4) = 0.123456789f;
    IMG<float, 1> before(17, 17);
    qx::Copy(a, before);
    const int none[1] = {0};
    IMG<float, 1>* one[1] = {&a};
    qx::medianFilter(one, 1, 1.0f, 0.0f, none);
    EXPECT_EQ(std::memcmp(a.row(3), before.row(3), 17 * sizeof(float)), 0);
    EXPECT_EQ(*a.ptr(3, 4), 0.123456789f);
}

TEST(ExtremeSharpen, NearerExtremeWithTieToDilationAndIterationCap) {
    // A 5x5 field of 0.5 with 0.6 in the middle, 1 to its right and 0 to its left.
    IMG<float, 1> im(5, 5);
    fill(im, [](int x, int y) {
        if (y == 2 && x == 2) return 0.6;
        if (y == 2 && x == 3) return 1.0;
        if (y == 2 && x == 1) return 0.0;
        return 0.5;
    });
    qx::ExtremeSharpen(im, 1);
    EXPECT_FLOAT_EQ(*im.ptr(2, 2), 1.0f);  // 0.6 lies nearer 1 than 0
    EXPECT_FLOAT_EQ(*im.ptr(2, 1), 1.0f);  // 0.5 between 0 and 1: the tie goes to the dilation
    EXPECT_FLOAT_EQ(*im.ptr(1, 1), 0.6f);  // max 0.6, min 0: 0.5 is nearer the max

    // Spreading: a column of 1 at x = 0 and of 0 at x = 1 in a field of 0.45. After k steps the
    // dilation reaches columns 0..k and the erosion 0..k+1; a 0.45 with both in reach falls to
    // 0, so columns 2..k end at 0.
    auto spread = [](int iterations) {
        IMG<float, 1> f(50, 5);
        fill(f, [](int x, int) { return x == 0 ? 1.0 : x == 1 ? 0.0 : 0.45; });
        qx::ExtremeSharpen(f, iterations);
        int zeros = 0;
        while (zeros + 2 < 50 && *f.ptr(zeros + 2, 2) == 0.0f) ++zeros;
        return zeros;
    };
    EXPECT_EQ(spread(5), 4);
    EXPECT_EQ(spread(32), 31);
    EXPECT_EQ(spread(40), 31);  // cut to 32
    EXPECT_EQ(spread(0), 0);
}

TEST(IppSepFilter, BorderModesAndRefusals) {
    // One column of 10, 20, 30, 40. Column kernel {0, 0, 1} gives dst(y) = src(y - 1) and
    // {1, 0, 0} dst(y) = src(y + 1), so the first and last rows read a pad.
    const float col[4] = {10, 20, 30, 40};
    const float one[1] = {1}, two[1] = {2};
    const float up[3] = {0, 0, 1}, down[3] = {1, 0, 0};
    struct Case {
        int mode;
        float top, bottom;
    };
    for (Case c : {Case{1, 10, 40}, Case{2, 20, 30}, Case{3, 40, 10}, Case{0, 14, 14}}) {
        float dst[4] = {-1, -1, -1, -1};
        // The constant pads are rows of their own and pass the row stage: 2 * 7.
        ASSERT_EQ(qx::ippSepFilter(col, 4, dst, 4, {1, 4}, c.mode == 0 ? two : one, 1, up, 3,
                                   c.mode, 7.0f),
                  0);
        EXPECT_EQ(dst[0], c.top) << c.mode;
        EXPECT_EQ(dst[1], c.mode == 0 ? 20 : 10) << c.mode;
        ASSERT_EQ(qx::ippSepFilter(col, 4, dst, 4, {1, 4}, c.mode == 0 ? two : one, 1, down, 3,
                                   c.mode, 7.0f),
                  0);
        EXPECT_EQ(dst[3], c.bottom) << c.mode;
    }
    // An even column kernel reaches one row less upwards: {1, 0} reads y + 1 (one bottom pad),
    // {0, 1} reads y itself.
    float dst[4];
    const float evenDown[2] = {1, 0}, evenSame[2] = {0, 1};
    ASSERT_EQ(qx::ippSepFilter(col, 4, dst, 4, {1, 4}, one, 1, evenDown, 2, 1, 0.0f), 0);
    EXPECT_EQ(dst[0], 20);
    EXPECT_EQ(dst[3], 40);
    ASSERT_EQ(qx::ippSepFilter(col, 4, dst, 4, {1, 4}, one, 1, evenSame, 2, 1, 0.0f), 0);
    EXPECT_EQ(dst[0], 10);

    // The same modes along a row (row stage codes), with a short row kernel and a divisor.
    const short row[4] = {10, 20, 30, 40};
    const short left[3] = {0, 0, 2}, sone[1] = {2};  // each stage divides by 2
    for (auto [mode, want] : {std::pair{0, short(7)}, std::pair{1, short(10)},
                              std::pair{2, short(20)}, std::pair{3, short(40)}}) {
        short out[4] = {-1, -1, -1, -1};
        ASSERT_EQ(qx::ippSepFilter(row, 8, out, 8, {4, 1}, left, 3, sone, 1, mode, short(7),
                                   short(2)),
                  0);
        EXPECT_EQ(out[0], want) << mode;
        EXPECT_EQ(out[3], 30) << mode;
    }

    // Mode 7: -121 and dst untouched; a mirror pad beyond the image is refused too.
    float keep[4] = {-1, -1, -1, -1};
    EXPECT_EQ(qx::ippSepFilter(col, 4, keep, 4, {1, 4}, one, 1, up, 3, 7, 0.0f), -121);
    const float nine[9] = {0, 0, 0, 0, 1, 0, 0, 0, 0};
    EXPECT_EQ(qx::ippSepFilter(col, 4, keep, 4, {1, 4}, one, 1, nine, 9, 2, 0.0f),
              qx::prim::kSizeErr);
    for (float v : keep) EXPECT_EQ(v, -1.0f);
    EXPECT_EQ(qx::ippSepFilter(col, 4, keep, 4, {1, 4}, one, 1, nine, 9, 1, 0.0f), 0);
    EXPECT_EQ(keep[0], 10.0f);  // replicate has no such limit

    qx::prim::failNextAllocations(1);
    EXPECT_EQ(qx::ippSepFilter(col, 4, dst, 4, {1, 4}, one, 1, up, 3, 1, 0.0f), qx::prim::kNoMem);
    EXPECT_EQ(qx::ippSepFilter(nullptr, 4, dst, 4, {1, 4}, one, 1, up, 3, 1, 0.0f),
              qx::prim::kNullPtr);
}

}  // namespace
