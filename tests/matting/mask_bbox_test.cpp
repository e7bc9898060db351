// qxMaskBBox: box of the undecided pixels with a 12-pixel margin, at least 24 rows, and the
// counts of decided pixels inside it.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;

// left, width, top, height, fg count, bg count; every field starts at a marker.
struct Box {
    std::array<int, 6> v{77, 77, 77, 77, 77, 77};
};

// fgOut / bgOut: whether the count pointers are given.
int callBox(int is16, PaddedPlane& p, Box& b, int fg, int bg, bool fgOut = true,
            bool bgOut = true) {
    auto& v = b.v;
    return qxMaskBBox(is16, p.data(), p.step, p.width, p.height, &v[0], &v[1], &v[2], &v[3],
                      fgOut ? &v[4] : nullptr, bgOut ? &v[5] : nullptr, 0, fg, bg);
}

// Left part foreground (255), right part background (0), from column `split` on.
PaddedPlane twoSided(int w, int h, int split) {
    PaddedPlane p(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < split; ++x) p.at(x, y) = 255;
    return p;
}

TEST(MaskBBox, NoUndecidedPixelGivesEmptyBoxAndMinusOne) {
    PaddedPlane p = twoSided(40, 40, 20);
    Box b;
    EXPECT_EQ(callBox(0, p, b, 255, 0), 1);
    EXPECT_EQ(b.v, (std::array<int, 6>{0, 0, 0, 0, -1, -1}));
}

TEST(MaskBBox, OneRowBandGivesTwentyFiveRows) {
    PaddedPlane p = twoSided(50, 60, 25);
    for (int x = 20; x <= 30; ++x) p.at(x, 30) = 128;  // undecided, straddling the split
    Box b;
    EXPECT_EQ(callBox(0, p, b, 255, 0), 1);
    // Rows 18..42, columns 8..42. Per row 17 foreground and 18 background columns; the band
    // takes 5 of the foreground and 6 of the background pixels of row 30.
    EXPECT_EQ(b.v, (std::array<int, 6>{8, 35, 18, 25, 17 * 25 - 5, 18 * 25 - 6}));
    EXPECT_TRUE(p.padsIntact());
}

TEST(MaskBBox, ShortBandsGiveEmptyBox) {
    Box b;
    PaddedPlane nearTop = twoSided(30, 60, 15);
    nearTop.at(5, 2) = 9;  // rows 0..14: 15 rows
    EXPECT_EQ(callBox(0, nearTop, b, 255, 0), 1);
    EXPECT_EQ(b.v, (std::array<int, 6>{0, 0, 0, 0, -1, -1}));

    // A lone undecided row 0: the bottom scan stops above row 0, so the box is one row.
    PaddedPlane rowZero = twoSided(30, 60, 15);
    rowZero.at(5, 0) = 9;
    b = Box{};
    callBox(0, rowZero, b, 255, 0);
    EXPECT_EQ(b.v, (std::array<int, 6>{0, 0, 0, 0, -1, -1}));

    // Rows 2 and 11: rows 0..23, exactly the least height.
    nearTop.at(5, 11) = 9;
    b = Box{};
    callBox(0, nearTop, b, 255, 0);
    EXPECT_EQ(b.v[2], 0);
    EXPECT_EQ(b.v[3], 24);
}

TEST(MaskBBox, RightScanThatFindsNothingGivesWidthOne) {
    PaddedPlane p = twoSided(30, 60, 15);
    for (int y = 20; y < 30; ++y) p.at(0, y) = 50;  // undecided only in column 0
    Box b;
    callBox(0, p, b, 255, 0, true, false);  // one count pointer missing: no counts at all
    EXPECT_EQ(b.v, (std::array<int, 6>{0, 1, 8, 34, 77, 77}));
}

TEST(MaskBBox, EightBitFormDecidesOnlyTheExactCodes) {
    PaddedPlane p(30, 40, 1, 200);  // foreground code 200 everywhere...
    p.at(29, 39) = 0;               // ...but 0 is not the background code 10
    Box b;
    callBox(0, p, b, 200, 10);
    // Row 39 only: rows 27..39 are 13 rows, under the least height.
    EXPECT_EQ(b.v, (std::array<int, 6>{0, 0, 0, 0, -1, -1}));
    p.at(29, 10) = 0;
    b = Box{};
    callBox(0, p, b, 200, 10);
    // Rows 0..39, columns 17..29; 2 undecided pixels in the box.
    EXPECT_EQ(b.v, (std::array<int, 6>{17, 13, 0, 40, 13 * 40 - 2, 0}));
}

TEST(MaskBBox, SixteenBitFormUsesRangesAtTheScaledCodes) {
    // fgCode 200 -> 25600 and above is foreground; bgCode 10 -> 1280 and below background.
    const int w = 40, h = 50;
    PaddedPlane p(w, h, 2);
    auto put = [&](int x, int y, uint16_t v) { std::memcpy(&p.at(x, y), &v, 2); };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) put(x, y, x < 20 ? 30000 : 1280);
    put(18, 25, 25599);
    put(30, 25, 1281);
    Box b;
    EXPECT_EQ(callBox(1, p, b, 200, 10), 1);
    // Rows 13..37, columns 6..39 (42 cut to 39): 14 and 20 columns of 25 rows, less one each.
    EXPECT_EQ(b.v, (std::array<int, 6>{6, 34, 13, 25, 14 * 25 - 1, 20 * 25 - 1}));
    EXPECT_TRUE(p.padsIntact());
}

TEST(MaskBBox, RefusesBadArgumentsWithoutWriting) {
    PaddedPlane p = twoSided(30, 40, 10);
    p.at(15, 20) = 128;
    int o[6] = {5, 5, 5, 5, 5, 5};
    auto call = [&](int is16, const unsigned char* d, int step, int w, int h, int* left) {
        return qxMaskBBox(is16, d, step, w, h, left, &o[1], &o[2], &o[3], &o[4], &o[5], 0, 255,
                          0);
    };
    EXPECT_EQ(call(0, nullptr, p.step, 30, 40, &o[0]), 0);
    EXPECT_EQ(call(0, p.data(), p.step, 30, 40, nullptr), 0);
    EXPECT_EQ(call(0, p.data(), p.step, 0, 40, &o[0]), 0);
    EXPECT_EQ(call(0, p.data(), p.step, 30, 0, &o[0]), 0);
    EXPECT_EQ(call(0, p.data(), 29, 30, 40, &o[0]), 0);
    EXPECT_EQ(call(1, p.data(), p.step, 30, 40, &o[0]), 0);  // 16-bit rows need 60 bytes
    for (int v : o) EXPECT_EQ(v, 5);
}

}  // namespace
