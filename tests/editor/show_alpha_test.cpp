// qxScaleAlpha, qxShowImageAlpha and qxShowKeepBlend: the display side of the mask editor.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;

// A one-row plane holding `values`, with padding.
PaddedPlane row(const std::vector<uint8_t>& values) {
    PaddedPlane p(static_cast<int>(values.size()), 1);
    for (size_t i = 0; i < values.size(); ++i) p.at(int(i), 0) = values[i];
    return p;
}
std::vector<uint8_t> values(const PaddedPlane& p) {
    std::vector<uint8_t> v;
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x) v.push_back(p.at(x, y));
    return v;
}

// ---- qxScaleAlpha ----------------------------------------------------------------------------

TEST(ScaleAlpha, FullRangeLeavesThePlaneAlone) {
    for (int keep : {0, 1}) {
        PaddedPlane p = row({0, 1, 100, 127, 254, 255});
        const auto before = p.buf;
        EXPECT_EQ(qxScaleAlpha(p.data(), p.step, p.width, 1, 255, 0, keep), 1);
        EXPECT_EQ(p.buf, before);
    }
}

TEST(ScaleAlpha, GainIsTheTruncatedFixedPointRatio) {
    // 200/100: gain 8160/100 = 81, so (a - 100) * 81 / 32, ties to even.
    // 116: 1296/32 = 40.5 -> 40; 150: 4050/32 = 126.56 -> 127; 200: 8100/32 = 253.1 -> 253.
    PaddedPlane p = row({50, 100, 101, 116, 150, 200, 255});
    EXPECT_EQ(qxScaleAlpha(p.data(), p.step, p.width, 1, 200, 100, 0), 1);
    EXPECT_EQ(values(p), (std::vector<uint8_t>{0, 0, 3, 40, 127, 253, 255}));
    EXPECT_TRUE(p.padsIntact());
}

TEST(ScaleAlpha, KeepFixedKeepsOddCodesAndMakesTheRestEven) {
    PaddedPlane p = row({50, 100, 101, 116, 150, 200, 255});
    qxScaleAlpha(p.data(), p.step, p.width, 1, 200, 100, 1);
    EXPECT_EQ(values(p), (std::vector<uint8_t>{0, 0, 101, 40, 126, 252, 255}));
    EXPECT_TRUE(p.padsIntact());
}

// ---- qxShowImageAlpha ------------------------------------------------------------------------

struct Display {
    PaddedPlane image;
    PaddedPlane alpha;
    Display(std::initializer_list<uint8_t> pixel, const std::vector<uint8_t>& codes)
        : image(static_cast<int>(codes.size()), 2, 4, 0, 3), alpha(static_cast<int>(codes.size()), 2) {
        image.setPixels(pixel);
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < alpha.width; ++x) alpha.at(x, y) = codes[x];
    }
    int show(int style, uint8_t high = 255, uint8_t low = 0, const uint8_t* colour = nullptr) {
        return qxShowImageAlpha(image.data(), image.step, image.width, 2, alpha.data(),
                                alpha.step, high, low, style, colour);
    }
    std::array<uint8_t, 4> pixel(int x) const {
        return {image.at(x, 1, 0), image.at(x, 1, 1), image.at(x, 1, 2), image.at(x, 1, 3)};
    }
};
using Px = std::array<uint8_t, 4>;

TEST(ShowImageAlpha, StyleOneDimsAndTintsByCode) {
    // 170 * 7/8 = 148.75 -> 149, raised by 85 to 234.
    Display d({170, 170, 170, 170}, {0, 1, 255, 101});
    EXPECT_EQ(d.show(1), 1);
    EXPECT_EQ(d.pixel(0), (Px{234, 149, 149, 149}));  // even: byte 0
    EXPECT_EQ(d.pixel(1), (Px{149, 149, 234, 149}));  // fixed background: byte 2
    EXPECT_EQ(d.pixel(2), (Px{149, 234, 149, 149}));  // fixed foreground: byte 1
    EXPECT_EQ(d.pixel(3), (Px{149, 234, 234, 149}));  // other fixed: bytes 1 and 2
    EXPECT_TRUE(d.image.padsIntact());
}

TEST(ShowImageAlpha, StyleTwoMapsTheCodes) {
    Display d({9, 9, 9, 9}, {0, 1, 128, 254, 255});
    EXPECT_EQ(d.show(2), 1);
    EXPECT_EQ(d.pixel(0), (Px{0, 0, 255, 255}));
    EXPECT_EQ(d.pixel(1), (Px{255, 0, 0, 255}));
    EXPECT_EQ(d.pixel(2), (Px{255, 0, 0, 255}));
    EXPECT_EQ(d.pixel(3), (Px{255, 0, 0, 255}));
    EXPECT_EQ(d.pixel(4), (Px{0, 255, 0, 255}));
    EXPECT_TRUE(d.image.padsIntact());
}

TEST(ShowImageAlpha, StyleFiveShowsTheStretchedAlphaInGrey) {
    Display d({9, 9, 9, 9}, {150, 200, 50});
    const auto alphaBefore = d.alpha.buf;
    EXPECT_EQ(d.show(5, 200, 100), 1);
    EXPECT_EQ(d.pixel(0), (Px{127, 127, 127, 255}));
    EXPECT_EQ(d.pixel(1), (Px{253, 253, 253, 255}));
    EXPECT_EQ(d.pixel(2), (Px{0, 0, 0, 255}));
    EXPECT_EQ(d.alpha.buf, alphaBefore);  // the stretch works on a copy
    EXPECT_TRUE(d.image.padsIntact());
}

TEST(ShowImageAlpha, ColourStylesBlendByAlphaInEighths) {
    const uint8_t colour[3] = {10, 20, 200};  // reverse order: 200 goes to byte 0
    for (int style : {3, 6}) {
        Display d({255, 128, 100, 0}, {255, 0, 128});
        EXPECT_EQ(d.show(style, 255, 0, colour), 1);
        // a 255: p * 255/256 (255 -> 254, 128 -> 127.5 -> 128), no colour.
        EXPECT_EQ(d.pixel(0), (Px{254, 128, 100, 255}));
        // a 0: colour * 255/256 (200 -> 199.2, 20 -> 19.9, 10 -> 9.96).
        EXPECT_EQ(d.pixel(1), (Px{199, 20, 10, 255}));
        // a 128: 200*127/256 = 99.2 -> 99 plus 255*128/256 = 127.5 -> 128, ...
        EXPECT_EQ(d.pixel(2), (Px{99 + 128, 10 + 64, 5 + 50, 255}));
        EXPECT_TRUE(d.image.padsIntact());
    }
    Display d({255, 128, 100, 0}, {255, 0});
    d.show(4, 255, 0, colour);  // the weights exchanged
    EXPECT_EQ(d.pixel(0), (Px{199, 20, 10, 255}));
    EXPECT_EQ(d.pixel(1), (Px{254, 128, 100, 255}));
}

}  // namespace
