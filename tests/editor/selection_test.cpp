// qxColorRangeSelect, qxDesaturation and qxfilterIm8u.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;

// ---- qxColorRangeSelect ----------------------------------------------------------------------

struct Selection {
    PaddedPlane image{12, 10, 4, 0, 3};
    PaddedPlane mask{12, 10, 1, 126};
    GrabCutRequest request{};
    Selection() {
        image.setPixels({10, 20, 30, 0});
        request.image = image.data();
        request.imageStep = image.step;
        request.mask = mask.data();
        request.maskStep = mask.step;
        request.width = 12;
        request.height = 10;
    }
    // A horizontal stroke over row 5, columns 2..8, one pixel wide.
    int stroke(const uint8_t colour[3], unsigned tolerance, unsigned char fg = 1) {
        return qxColorRangeSelect(&request, 2, 5, 8, 5, 0, colour, tolerance, fg);
    }
    int selected(uint8_t code) const {
        int n = 0;
        for (int y = 0; y < 10; ++y)
            for (int x = 0; x < 12; ++x) n += mask.at(x, y) == code;
        return n;
    }
};

TEST(ColorRangeSelect, SelectsUnfixedPixelsUnderTheStroke) {
    Selection s;
    s.mask.at(4, 5) = 1;  // fixed by the user: never repainted
    const auto image = s.image.buf;
    const uint8_t colour[3] = {30, 20, 10};  // reverse pixel order: exactly the pixels' colour
    EXPECT_EQ(s.stroke(colour, 1), 1);
    for (int x = 0; x < 12; ++x) EXPECT_EQ(s.mask.at(x, 5), x == 4 ? 1 : x >= 2 && x <= 8 ? 255 : 126);
    EXPECT_EQ(s.selected(255), 6);
    EXPECT_EQ(s.image.buf, image);
    EXPECT_TRUE(s.mask.padsIntact());

    Selection bg;
    bg.stroke(colour, 1, 0);
    EXPECT_EQ(bg.selected(1), 7);
}

TEST(ColorRangeSelect, DistanceIsStrictlyBelowTheSquaredTolerance) {
    const uint8_t same[3] = {30, 20, 10};
    const uint8_t nearBy[3] = {30, 20, 13};    // distance 3*3 = 9
    const uint8_t reversed[3] = {10, 20, 30};  // pixel order: distance 20*20 * 2 = 800
    const struct {
        const uint8_t* colour;
        unsigned tolerance;
        int expected;
    } cases[] = {{same, 0, 0},       {nearBy, 3, 0},     {nearBy, 4, 7},
                 {reversed, 28, 0},  {reversed, 29, 7},  {same, 65536, 0}};  // 65536^2 wraps to 0
    for (const auto& c : cases) {
        Selection s;
        s.stroke(c.colour, c.tolerance);
        EXPECT_EQ(s.selected(255), c.expected) << c.tolerance;
    }
}

TEST(ColorRangeSelect, StrokesOutsideThePlaneSelectNothing) {
    const uint8_t colour[3] = {30, 20, 10};
    Selection s;
    const auto before = s.mask.buf;
    EXPECT_EQ(qxColorRangeSelect(&s.request, 40, 5, 60, 5, 2, colour, 10, 1), 1);
    EXPECT_EQ(qxColorRangeSelect(&s.request, -30, 5, -20, 5, 2, colour, 10, 1), 1);
    EXPECT_EQ(qxColorRangeSelect(&s.request, 5, 2000000000, 5, 2000000000, 16383, colour, 10, 1),
              1);
    EXPECT_EQ(s.mask.buf, before);
}

TEST(ColorRangeSelect, FarStrokeEndsSelectWhatTheNearPartCovers) {
    // An end at the int limits killed the process (the brush is drawn with cv::line). The
    // stroke from (3, INT_MIN) to (3, 4) covers what the same stroke from just above the plane
    // covers: columns 1..5 of rows 0..4, and the round cap reaching row 6 at column 3.
    const uint8_t colour[3] = {30, 20, 10};
    Selection far, near;
    EXPECT_EQ(qxColorRangeSelect(&far.request, 3, INT_MIN, 3, 4, 2, colour, 10, 1), 1);
    EXPECT_EQ(qxColorRangeSelect(&near.request, 3, -30, 3, 4, 2, colour, 10, 1), 1);
    EXPECT_EQ(far.mask.buf, near.mask.buf);
    EXPECT_TRUE(far.mask.padsIntact());
    EXPECT_EQ(far.mask.at(1, 0), 255);
    EXPECT_EQ(far.mask.at(5, 4), 255);
    EXPECT_EQ(far.mask.at(3, 6), 255);
    EXPECT_EQ(far.mask.at(3, 7), 126);
    EXPECT_EQ(far.mask.at(6, 2), 126);

    // Both ends at opposite limits, through the plane along row 5.
    Selection across, ref;
    EXPECT_EQ(qxColorRangeSelect(&across.request, INT_MIN, 5, INT_MAX, 5, 1, colour, 10, 1), 1);
    EXPECT_EQ(qxColorRangeSelect(&ref.request, -20, 5, 40, 5, 1, colour, 10, 1), 1);
    EXPECT_EQ(across.mask.buf, ref.mask.buf);
    EXPECT_EQ(across.selected(255), 3 * 12);

    for (int radius : {0, 1, 7, 16383}) {
        Selection s;
        EXPECT_EQ(qxColorRangeSelect(&s.request, INT_MAX, INT_MIN, INT_MIN, INT_MAX, radius,
                                     colour, 10, 0),
                  1);
        EXPECT_TRUE(s.mask.padsIntact());
        EXPECT_EQ(s.selected(1) + s.selected(126), 12 * 10);
    }
}

TEST(ColorRangeSelect, RefusesBadArgumentsWithoutWriting) {
    const uint8_t colour[3] = {30, 20, 10};
    Selection s;
    const auto before = s.mask.buf;
    EXPECT_EQ(qxColorRangeSelect(nullptr, 2, 5, 8, 5, 0, colour, 10, 1), 0);
    EXPECT_EQ(qxColorRangeSelect(&s.request, 2, 5, 8, 5, 0, nullptr, 10, 1), 0);
    EXPECT_EQ(qxColorRangeSelect(&s.request, 2, 5, 8, 5, -1, colour, 10, 1), 0);
    GrabCutRequest r = s.request;
    r.imageStep = 47;
    EXPECT_EQ(qxColorRangeSelect(&r, 2, 5, 8, 5, 0, colour, 10, 1), 0);
    r = s.request;
    r.maskStep = 11;
    EXPECT_EQ(qxColorRangeSelect(&r, 2, 5, 8, 5, 0, colour, 10, 1), 0);
    r = s.request;
    r.mask = nullptr;
    EXPECT_EQ(qxColorRangeSelect(&r, 2, 5, 8, 5, 0, colour, 10, 1), 0);
    r = s.request;
    r.height = 0;
    EXPECT_EQ(qxColorRangeSelect(&r, 2, 5, 8, 5, 0, colour, 10, 1), 0);
    EXPECT_EQ(s.mask.buf, before);
}

// ---- qxDesaturation --------------------------------------------------------------------------

int spread(const PaddedPlane& p, int x) {
    const int a = p.at(x, 0, 0), b = p.at(x, 0, 1), c = p.at(x, 0, 2);
    return std::max({a, b, c}) - std::min({a, b, c});
}

TEST(Desaturation, SoftEdgeLosesColourFixedAndOpaquePixelsKeepIt) {
    // Alpha per column: 0, 128, 254 (unfixed), 1 and 129 (fixed).
    const uint8_t codes[] = {0, 128, 254, 1, 129};
    PaddedPlane image(5, 1, 4, 0, 3), alpha(5, 1), original(5, 1, 4, 0, 3);
    image.setPixels({200, 100, 50, 33});
    for (int x = 0; x < 5; ++x) alpha.at(x, 0) = codes[x];
    EXPECT_EQ(qxDesaturation(image.data(), image.step, 5, 1, alpha.data(), alpha.step, 0.0f), 1);
    original.buf = image.buf;  // strength 0: the round trip through HLS alone

    EXPECT_EQ(qxDesaturation(image.data(), image.step, 5, 1, alpha.data(), alpha.step, 1.0f), 1);
    // Alpha 0 at full strength: no saturation left, a grey of the lightness (200 + 50) / 2.
    EXPECT_EQ(spread(image, 0), 0);
    EXPECT_NEAR(image.at(0, 0, 0), 125, 1);
    // Alpha 128: t^4 = 0.063 of the saturation is left.
    EXPECT_LT(spread(image, 1), spread(original, 1) / 8);
    EXPECT_GT(spread(image, 1), 0);
    for (int x = 2; x < 5; ++x)  // near-opaque and fixed pixels: as after the round trip
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(image.at(x, 0, c), original.at(x, 0, c), x == 2 ? 3 : 0);
    for (int x = 0; x < 5; ++x) EXPECT_EQ(image.at(x, 0, 3), 33);
    EXPECT_TRUE(image.padsIntact());
}

TEST(Desaturation, RefusesBadArgumentsWithoutWriting) {
    PaddedPlane image(3, 2, 4, 90), alpha(3, 2);
    const auto before = image.buf;
    EXPECT_EQ(qxDesaturation(image.data(), image.step, 3, 2, nullptr, 3, 1.0f), 0);
    EXPECT_EQ(qxDesaturation(nullptr, 12, 3, 2, alpha.data(), alpha.step, 1.0f), 0);
    EXPECT_EQ(qxDesaturation(image.data(), 11, 3, 2, alpha.data(), alpha.step, 1.0f), 0);
    EXPECT_EQ(qxDesaturation(image.data(), image.step, 3, 2, alpha.data(), 2, 1.0f), 0);
    EXPECT_EQ(qxDesaturation(image.data(), image.step, 0, 2, alpha.data(), alpha.step, 1.0f), 0);
    EXPECT_EQ(image.buf, before);
}

// ---- qxfilterIm8u ----------------------------------------------------------------------------

PaddedPlane noise(int w, int h) {
    PaddedPlane p(w, h);
    std::srand(7);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) p.at(x, y) = static_cast<uint8_t>(std::rand());
    return p;
}

TEST(FilterIm, EdgeBandsKeepTheirInput) {
    for (int mode : {0, 1}) {
        const int band = mode == 0 ? 3 : 4;
        PaddedPlane p = noise(17, 13);
        const PaddedPlane input = p;
        EXPECT_EQ(qxfilterIm8u(p.data(), p.step, 17, 13, mode), 1);
        int inner = 0, innerChanged = 0;
        for (int y = 0; y < 13; ++y)
            for (int x = 0; x < 17; ++x) {
                const bool inBand = x < band || y < band || x >= 17 - band || y >= 13 - band;
                if (inBand) {
                    EXPECT_EQ(p.at(x, y), input.at(x, y)) << x << "," << y;
                } else {
                    ++inner;
                    innerChanged += p.at(x, y) != input.at(x, y);
                }
            }
        EXPECT_GT(innerChanged, inner / 2);
        EXPECT_TRUE(p.padsIntact());
    }
}

TEST(FilterIm, MedianRemovesSpecksAndGaussianSmoothsBlocks) {
    for (int mode : {0, 1}) {
        PaddedPlane p(15, 15);
        p.at(10, 10) = 255;  // lone specks: the cross median drops them
        p.at(3, 11) = 255;   // (this one lies in the strong mode's edge band)
        // A 3x3 block survives both medians; the 5x5 Gaussian at its centre sums the inner
        // weights 4*31 + 4*52 + 127 = 459: 255 * 459 / 571 = 204.98 -> 205.
        for (int y = 5; y <= 7; ++y)
            for (int x = 5; x <= 7; ++x) p.at(x, y) = 255;
        qxfilterIm8u(p.data(), p.step, 15, 15, mode);
        EXPECT_EQ(p.at(6, 6), 205);
        EXPECT_EQ(p.at(10, 10), 0);
        EXPECT_EQ(p.at(9, 10), 0);
        EXPECT_EQ(p.at(3, 11), mode == 0 ? 0 : 255);
    }
}

TEST(FilterIm, NothingToDo) {
    PaddedPlane p = noise(6, 10);
    const auto before = p.buf;
    EXPECT_EQ(qxfilterIm8u(p.data(), p.step, 6, 10, 0), 1);  // no room for the Gaussian
    EXPECT_EQ(qxfilterIm8u(p.data(), p.step, 6, 10, 2), 1);
    EXPECT_EQ(qxfilterIm8u(p.data(), p.step, 6, 10, -1), 1);
    EXPECT_EQ(qxfilterIm8u(nullptr, p.step, 6, 10, 0), 0);
    EXPECT_EQ(qxfilterIm8u(p.data(), 5, 6, 10, 0), 0);
    EXPECT_EQ(qxfilterIm8u(p.data(), p.step, 6, 0, 0), 0);
    EXPECT_EQ(p.buf, before);
}

}  // namespace
