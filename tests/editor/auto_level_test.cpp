// qxRGB2YCbCrAutoLevel, qxPreviewAutoLevel and the chroma stretches.
#include <gtest/gtest.h>

#include <array>

#include "editor/auto_level.h"
#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;
using Rgb = std::array<uint8_t, 3>;

Rgb pixel(const PaddedPlane& p, int x, int y = 0) {
    return {p.at(x, y, 0), p.at(x, y, 1), p.at(x, y, 2)};
}

// ---- qxPreviewAutoLevel ----------------------------------------------------------------------

TEST(PreviewAutoLevel, GainInEighthsFromTheBrightestChannelMean) {
    // Channel means 64, 32, 10: gain 128/64.0001 just under 2, factor 15, multiplier 1.875.
    PaddedPlane p(4, 2, 3);
    for (int x = 0; x < 4; ++x)
        for (int y = 0; y < 2; ++y) {
            p.at(x, y, 0) = x % 2 ? 128 : 0;
            p.at(x, y, 1) = 32;
            p.at(x, y, 2) = 10;
        }
    EXPECT_EQ(qxPreviewAutoLevel(p.data(), p.step, 4, 2, 128.0f), 1);
    EXPECT_EQ(pixel(p, 0), (Rgb{0, 60, 19}));  // 10 * 15/8 = 18.75 -> 19
    EXPECT_EQ(pixel(p, 1), (Rgb{240, 60, 19}));
    EXPECT_TRUE(p.padsIntact());

    PaddedPlane q(3, 3, 3, 200);
    const auto before = q.buf;
    EXPECT_EQ(qxPreviewAutoLevel(q.data(), q.step, 3, 3, 100.0f), 1);  // never darkens
    EXPECT_EQ(q.buf, before);
}

TEST(PreviewAutoLevel, FactorIsCappedAt250) {
    PaddedPlane black(3, 2, 3, 0);
    const auto before = black.buf;
    qxPreviewAutoLevel(black.data(), black.step, 3, 2, 100.0f);
    EXPECT_EQ(black.buf, before);

    PaddedPlane dim(3, 2, 3, 1);  // gain 200: factor 1599 without the cap
    qxPreviewAutoLevel(dim.data(), dim.step, 3, 2, 200.0f);
    EXPECT_EQ(pixel(dim, 2, 1), (Rgb{31, 31, 31}));  // 250/8 = 31.25
}

// ---- qxRGB2YCbCrAutoLevel --------------------------------------------------------------------

PaddedPlane colours() {  // red, blue, grey 77, black, brown
    PaddedPlane p(5, 1, 3);
    const Rgb c[5] = {{255, 0, 0}, {0, 0, 255}, {77, 77, 77}, {0, 0, 0}, {150, 100, 80}};
    for (int x = 0; x < 5; ++x)
        for (int i = 0; i < 3; ++i) p.at(x, 0, i) = c[x][i];
    return p;
}

TEST(YCbCrAutoLevel, ViewsOutOfRangeOrWithoutWorkLeaveTheImage) {
    PaddedPlane p = colours();
    const auto before = p.buf;
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(p.data(), p.step, 4, 1, 5, 10), 0);
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(p.data(), p.step, 4, 1, -1, 10), 0);
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(p.data(), p.step, 4, 1, 0, 1), 1);
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(nullptr, p.step, 4, 1, 1, 0), 0);
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(p.data(), 11, 4, 1, 1, 0), 0);
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(p.data(), p.step, 4, 0, 1, 0), 0);
    EXPECT_EQ(qxPreviewAutoLevel(p.data(), 11, 4, 1, 100.0f), 0);
    EXPECT_EQ(p.buf, before);
}

TEST(YCbCrAutoLevel, LumaAndChromaChannelsInGrey) {
    // Y = 0.257R + 0.504G + 0.098B + 16: red 81.5 -> 82, blue 41, black 16.
    PaddedPlane y = colours();
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(y.data(), y.step, 4, 1, 1, 0), 1);
    EXPECT_EQ(pixel(y, 0), (Rgb{82, 82, 82}));
    EXPECT_EQ(pixel(y, 1), (Rgb{41, 41, 41}));
    EXPECT_EQ(pixel(y, 3), (Rgb{16, 16, 16}));
    EXPECT_TRUE(y.padsIntact());
    // Cb = 0.439B + ... + 128: blue 239.9 -> 240, grey 128. Cr alike for red.
    PaddedPlane cb = colours(), cr = colours();
    qxRGB2YCbCrAutoLevel(cb.data(), cb.step, 4, 1, 3, 0);
    qxRGB2YCbCrAutoLevel(cr.data(), cr.step, 4, 1, 4, 0);
    EXPECT_EQ(pixel(cb, 1), (Rgb{240, 240, 240}));
    EXPECT_EQ(pixel(cb, 2), (Rgb{128, 128, 128}));
    EXPECT_EQ(pixel(cr, 0), (Rgb{240, 240, 240}));
    EXPECT_TRUE(cr.padsIntact());
}

TEST(YCbCrAutoLevel, LumaViewIsBrightenedByTheLevel) {
    PaddedPlane p(3, 2, 3, 0);  // luma 16 everywhere; gain 64/16 just under 4 -> factor 31
    qxRGB2YCbCrAutoLevel(p.data(), p.step, 3, 2, 1, 64);
    EXPECT_EQ(pixel(p, 2, 1), (Rgb{62, 62, 62}));
}

TEST(YCbCrAutoLevel, ChromaViewSetsLumaToTheMiddle) {
    // Level 0 does not stretch, yet the image is replaced: grey becomes 1.164 * (128 - 16).
    PaddedPlane p = colours();
    EXPECT_EQ(qxRGB2YCbCrAutoLevel(p.data(), p.step, 5, 1, 2, 0), 1);
    EXPECT_EQ(pixel(p, 2), (Rgb{130, 130, 130}));
    EXPECT_EQ(pixel(p, 3), (Rgb{130, 130, 130}));
    // Brown (luma 112.8) keeps its hue at luma 128: about (167, 118, 98).
    const Rgb brown = pixel(p, 4);
    EXPECT_NEAR(0.257 * brown[0] + 0.504 * brown[1] + 0.098 * brown[2] + 16, 128, 1.5);
    EXPECT_NEAR(brown[0], 167, 2);
    EXPECT_NEAR(brown[2], 98, 2);
    EXPECT_TRUE(p.padsIntact());
}

// ---- autoStretchC1 / autoStretchC2 -----------------------------------------------------------

TEST(AutoStretch, OnePlaneStretchesAboutNeutral) {
    // Excursions 2.5 up and 2.5 down: ratio 14 / 3.5 = 4, k = 32, shift 96.
    PaddedPlane p(4, 1, 1);
    const uint8_t v[4] = {128, 138, 118, 128};
    for (int x = 0; x < 4; ++x) p.at(x, 0) = v[x];
    EXPECT_EQ(qx::autoStretchC1(p.data(), p.step, {4, 1}, 14), 1);
    EXPECT_EQ(p.at(0, 0), 128);
    EXPECT_EQ(p.at(1, 0), 168);
    EXPECT_EQ(p.at(2, 0), 88);
    EXPECT_TRUE(p.padsIntact());
}

TEST(AutoStretch, NeutralPlaneAndTheLimits) {
    PaddedPlane p(3, 2, 1, 128);
    const auto before = p.buf;
    EXPECT_EQ(qx::autoStretchC1(p.data(), p.step, {3, 2}, 0), 0);
    EXPECT_EQ(qx::autoStretchC1(p.data(), p.step, {3, 2}, 1), 1);  // ratio 1: not worth it
    EXPECT_EQ(qx::autoStretchC1(p.data(), p.step, {3, 2}, 4), 1);  // k 32: 32 * 32/8
    EXPECT_EQ(p.buf, before);
    // k capped at 120: shift 128 - 1024/120 = 120, and neutral comes out as 8 * 15 = 120.
    qx::autoStretchC1(p.data(), p.step, {3, 2}, 100);
    EXPECT_EQ(p.at(2, 1), 120);
}

TEST(AutoStretch, TwoPlanesShareAGainFromTheUpperExcursions) {
    PaddedPlane a(2, 1, 1, 128), b(2, 1, 1, 128);
    b.at(1, 0) = 108;  // only below neutral: C2 does not see it
    EXPECT_EQ(qx::autoStretchC2(a.data(), b.data(), a.step, {2, 1}, 2), 1);
    EXPECT_EQ(b.at(1, 0), 88);  // ratio 2, k 16, shift 64: 44 * 2
    EXPECT_EQ(a.at(1, 0), 128);
    EXPECT_EQ(qx::autoStretchC2(a.data(), b.data(), a.step, {2, 1}, 0), 0);

    PaddedPlane c(2, 1, 1, 108);
    c.at(0, 0) = 128;
    qx::autoStretchC1(c.data(), c.step, {2, 1}, 2);  // C1 sees it: ratio 2/11, no stretch
    EXPECT_EQ(c.at(1, 0), 108);

    PaddedPlane d(2, 1, 1, 128), e(2, 1, 1, 128);
    d.at(1, 0) = 148;  // up 10 on the first plane: ratio 22/11 = 2 for both planes
    e.at(1, 0) = 138;
    qx::autoStretchC2(d.data(), e.data(), d.step, {2, 1}, 22);
    EXPECT_EQ(d.at(1, 0), 168);
    EXPECT_EQ(e.at(1, 0), 148);
}

}  // namespace
