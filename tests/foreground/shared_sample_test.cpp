// Shared-sample separation: the ray table, the samples a ray finds on a small two-colour image,
// the path energy on hand values, and the separation of a synthetic composite with a known
// foreground, background and alpha.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "foreground/shared_sample.h"

namespace {

using qx::IMG;

TEST(LineSet, SlopeTable) {
    const qx::LineSet lines(10, 10);
    EXPECT_NEAR(lines.tangent45, 1.0f, 1e-6);
    EXPECT_NEAR(lines.slopes[0][0][0], 0.0f, 1e-7);
    EXPECT_NEAR(lines.slopes[0][1][0], 0.577350f, 1e-5);   // 30 degrees
    EXPECT_NEAR(lines.slopes[0][0][1], 0.176327f, 1e-5);   // 10 degrees
    EXPECT_NEAR(lines.slopes[0][2][8], -0.839100f, 1e-5);  // 60 + 80 = 140 degrees
    EXPECT_NEAR(lines.slopes[3][1][3], -0.577350f, 1e-5);  // 270 + 30 + 30 = 330 degrees
    EXPECT_NEAR(lines.slopes[2][0][0], 0.0f, 1e-6);        // 180 degrees, single precision
    EXPECT_GT(std::fabs(lines.slopes[1][0][0]), 1e6f);     // 90 degrees
    EXPECT_EQ(lines.width, 10);
    EXPECT_EQ(lines.height, 10);
}

// A 9 x 7 image: columns 0..2 foreground (alpha 255), 6..8 background (alpha 1), 3..5
// undecided (known 0).
struct TwoColour {
    static constexpr int w = 9, h = 7;
    IMG<float, 3> image{w, h};
    std::vector<uint8_t> known, alpha;
    TwoColour() : known(w * h), alpha(w * h) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const bool fg = x <= 2, bg = x >= 6;
                known[y * w + x] = (fg || bg) ? 255 : 0;
                alpha[y * w + x] = fg ? 255 : bg ? 1 : 128;
                float* c = image.ptr(x, y);
                c[0] = fg ? 0.8f : bg ? 0.1f : 0.5f;
                c[1] = 0.01f * x;  // tells the pixels apart
                c[2] = 0.01f * y;
            }
    }
};

TEST(LineSet, RaysFindTheRightSamples) {
    TwoColour t;
    const qx::LineSet lines(t.w, t.h);
    std::vector<std::pair<int, int>> unknown;
    for (int y = 0; y < t.h; ++y)
        for (int x = 3; x <= 5; ++x) unknown.push_back({x, y});
    qx::SampleSet s(static_cast<int64_t>(unknown.size()));

    // The first pixel (3,0), rays of 30, 120, 210 and 300 degrees. The first two walk rows
    // upwards from row 0 and meet only the pixel itself. The third walks rows downwards
    // (the records are still zero): column (row + 1.732) / 0.577 + 0.5 is 5 at row 1 and 6 at
    // row 2, a background. Now background record 0 is (6,2) and foreground record 0 still
    // (0,0), so the fourth ray walks columns: row 3 * -1.732 + 5.196 + 0.5 is 0 at column 3,
    // negative at column 4, and it ends. Result: no foreground, one background at (6,2).
    lines.searchLine(3, 0, 0, t.known.data(), t.w, t.alpha.data(), t.w, t.image, s);
    EXPECT_EQ(s.fgCount[0], 0);
    ASSERT_EQ(s.bgCount[0], 1);
    EXPECT_EQ(s.bg[0].x, 6);
    EXPECT_EQ(s.bg[0].y, 2);
    EXPECT_FLOAT_EQ(s.bg[0].colour[1], 0.06f);
    EXPECT_FLOAT_EQ(s.bg[0].colour[2], 0.02f);

    // The rest: every sample sits on a decided pixel of its kind and carries its colour.
    for (size_t i = 1; i < unknown.size(); ++i)
        lines.searchLine(unknown[i].first, unknown[i].second, int(i), t.known.data(), t.w,
                         t.alpha.data(), t.w, t.image, s);
    for (size_t i = 0; i < unknown.size(); ++i) {
        ASSERT_LE(s.fgCount[i], 4);
        ASSERT_LE(s.bgCount[i], 4);
        for (int k = 0; k < s.fgCount[i]; ++k) {
            const qx::SharedSample& f = s.fg[4 * i + k];
            EXPECT_EQ(t.alpha[f.y * t.w + f.x], 255);
            EXPECT_EQ(f.colour[1], t.image.ptr(f.x, f.y)[1]);
        }
        for (int k = 0; k < s.bgCount[i]; ++k) {
            const qx::SharedSample& b = s.bg[4 * i + k];
            EXPECT_EQ(t.alpha[b.y * t.w + b.x], 1);
            EXPECT_EQ(b.colour[2], t.image.ptr(b.x, b.y)[2]);
        }
    }
    // (4,3), index 10: rays of 40 and 130 degrees along columns reach the background at (6,5)
    // and the foreground at (2,5).
    EXPECT_GE(s.fgCount[10], 1);
    EXPECT_GE(s.bgCount[10], 1);
    EXPECT_EQ(s.bg[40].x, 6);
    EXPECT_EQ(s.bg[40].y, 5);
}

TEST(SharedSample, PathEnergyOnHandValues) {
    qx::FBSeperationSharedSample sep;
    IMG<float, 3> gx(8, 8), gy(8, 8);
    const float zero[3] = {0, 0, 0}, unitX[3] = {1, 0, 0}, twoY[3] = {0, 2, 0};
    qx::Set(zero, gx);
    qx::Set(zero, gy);
    // Only row 1 of Gx is set. From (0,0) to (4,2): d = (0.894, 0.447), steps at x = 0 and 2,
    // y = 0 then 0.5, rows 0 then 1: the sum is 0.894 once, squared 0.8.
    for (int x = 0; x < 8; ++x) std::copy(unitX, unitX + 3, gx.ptr(x, 1));
    EXPECT_NEAR(sep.Eps(gx, gy, 0, 0, 4, 2), 0.8f, 1e-5);
    // Gx everywhere, walking left: x = 4, 2, each adding 1 * dx = -1: (-2)^2.
    qx::Set(unitX, gx);
    EXPECT_NEAR(sep.Eps(gx, gy, 4, 0, 0, 0), 4.0f, 1e-5);
    EXPECT_NEAR(sep.Eps(gx, gy, 0, 0, 5, 0), 9.0f, 1e-5);  // x = 0, 2, 4
    // Steep: Gy (0, 2, 0), y = 0 and 2, each |c|^2 = 4: (8)^2.
    qx::Set(zero, gx);
    qx::Set(twoY, gy);
    EXPECT_NEAR(sep.Eps(gx, gy, 0, 0, 0, 4), 64.0f, 1e-4);
}

// A synthetic composite 40 x 20: foreground F at columns 0..11, background B at 28..39, a ramp
// of alpha (28 - x) / 17 in between, rounded to 8 bits as a host would hold it.
struct Composite {
    static constexpr int w = 40, h = 20;
    const float F[3] = {204 / 255.0f, 77 / 255.0f, 51 / 255.0f};
    const float B[3] = {26 / 255.0f, 51 / 255.0f, 230 / 255.0f};
    std::vector<uint8_t> rgb, known, alpha;
    Composite() : rgb(w * h * 3), known(w * h), alpha(w * h) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const float a = trueAlpha(x);
                for (int c = 0; c < 3; ++c)
                    rgb[(y * w + x) * 3 + c] =
                        uint8_t(std::lround((a * F[c] + (1 - a) * B[c]) * 255));
                known[y * w + x] = (a == 0.0f || a == 1.0f) ? 255 : 0;
                alpha[y * w + x] = a == 0.0f ? 1 : uint8_t(std::lround(a * 255));
            }
    }
    static float trueAlpha(int x) { return x <= 11 ? 1.0f : x >= 28 ? 0.0f : (28 - x) / 17.0f; }
};

TEST(SharedSample, SeparatesASyntheticComposite) {
    Composite c;
    IMG<float, 3> image(c.w, c.h), F(c.w, c.h), B(c.w, c.h);
    IMG<float, 1> alphaF(c.w, c.h), alphaOut(c.w, c.h);
    qx::prim::scale_8u32f_C3(c.rgb.data(), c.w * 3, image.data, image.step, {c.w, c.h}, 0, 1);
    qx::prim::scale_8u32f_C1(c.alpha.data(), c.w, alphaF.data, alphaF.step, {c.w, c.h}, 0, 1);
    qx::FBSeperationSharedSample sep;
    sep.separate(image, alphaF, c.known.data(), c.w, c.alpha.data(), c.w, F, B, &alphaOut);
    double fError = 0, naive = 0;
    int n = 0;
    for (int y = 0; y < c.h; ++y)
        for (int x = 12; x <= 27; ++x, ++n) {
            const float a = Composite::trueAlpha(x);
            EXPECT_NEAR(*alphaOut.ptr(x, y), a, 0.01) << x << "," << y;
            for (int k = 0; k < 3; ++k) {
                fError += std::fabs(F.ptr(x, y)[k] - c.F[k]);
                naive += std::fabs(image.ptr(x, y)[k] - c.F[k]);
                // The background falls back to the pixel only within the spread of its
                // samples' window, a few hundredths at most.
                if (a < 0.5f) {
                    EXPECT_NEAR(B.ptr(x, y)[k], c.B[k], 0.07) << x;
                }
            }
        }
    EXPECT_LT(fError / n, 0.01);
    EXPECT_GT(naive / n, 0.3);
    // Decided pixels keep their colour.
    EXPECT_EQ(F.ptr(3, 4)[0], image.ptr(3, 4)[0]);
    EXPECT_EQ(F.ptr(33, 4)[2], image.ptr(33, 4)[2]);
}

TEST(SharedSample, EntryPointsAndTheirEdgeCases) {
    Composite c;
    // Through the byte entry with four bytes a pixel: decided pixels and byte 3 come back as
    // they were, undecided ones near the true foreground.
    std::vector<uint8_t> rgba(c.w * c.h * 4), out(c.w * c.h * 4, 0), alpha(c.w * c.h);
    for (int i = 0; i < c.w * c.h; ++i) {
        for (int k = 0; k < 3; ++k) rgba[4 * i + k] = c.rgb[3 * i + k];
        rgba[4 * i + 3] = uint8_t(i);
        alpha[i] = c.alpha[i] == 1 ? 0 : c.alpha[i];  // the caller's 0 background
    }
    ASSERT_EQ(qx::recoverForegroundBySampling(rgba.data(), c.w * 4, 4, c.w, c.h, alpha.data(),
                                              c.w, out.data(), c.w * 4),
              1);
    for (int i = 0; i < c.w * c.h; ++i) {
        const int x = i % c.w;
        EXPECT_EQ(out[4 * i + 3], uint8_t(i));
        if (c.known[i]) {
            EXPECT_EQ(out[4 * i], rgba[4 * i]);
        } else {
            for (int k = 0; k < 3; ++k)
                EXPECT_NEAR(out[4 * i + k], c.F[k] * 255, 3) << x;
        }
    }
    EXPECT_EQ(qx::recoverForegroundBySampling(rgba.data(), c.w * 4, 2, c.w, c.h, alpha.data(),
                                              c.w, out.data(), c.w * 4),
              0);
    EXPECT_EQ(qx::recoverForegroundBySampling(rgba.data(), c.w * 4, 4, c.w, c.h, nullptr, c.w,
                                              out.data(), c.w * 4),
              0);

    // A background coded 0 instead of 1 gives no background samples: no pixel has a pair, the
    // window of refining finds nothing, and the undecided pixels come out black.
    std::vector<uint8_t> rgb = c.rgb, zeroCoded = c.alpha;
    for (uint8_t& a : zeroCoded)
        if (a == 1) a = 0;
    qx::FBSeperationSharedSample sep;
    EXPECT_EQ(sep.extractF_SharedSample(rgb.data(), c.w * 3, c.w, c.h, c.known.data(), c.w,
                                        zeroCoded.data(), c.w),
              0);
    for (int i = 0; i < c.w * c.h; ++i)
        for (int k = 0; k < 3; ++k)
            ASSERT_EQ(rgb[3 * i + k], c.known[i] ? c.rgb[3 * i + k] : 0) << i;

    // Refusals write nothing.
    rgb = c.rgb;
    EXPECT_EQ(sep.extractF_SharedSample(rgb.data(), c.w * 3 - 1, c.w, c.h, c.known.data(), c.w,
                                        c.alpha.data(), c.w),
              0);
    EXPECT_EQ(sep.extractF_SharedSample(rgb.data(), c.w * 3, c.w, c.h, nullptr, c.w,
                                        c.alpha.data(), c.w),
              0);
    EXPECT_EQ(rgb, c.rgb);
}

}  // namespace
