// qxDrawLine8u: the brush segment of the mask editor.
#include <gtest/gtest.h>

#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;

// The pixels of `p` that differ from `background`, as a count.
int changed(const PaddedPlane& p, uint8_t background) {
    int n = 0;
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x) n += p.at(x, y) != background;
    return n;
}

TEST(DrawLine, ModesWriteTheirCodes) {
    struct Case {
        unsigned char mode, value, expected;
    };
    // Mode 3 makes the caller's level odd (fixed); unknown modes write a plain 0.
    const Case cases[] = {{0, 0, 1},     {1, 0, 255},   {2, 0, 126},   {3, 100, 101},
                          {3, 101, 101}, {3, 0, 1},     {3, 255, 255}, {4, 77, 0},
                          {255, 9, 0}};
    for (const Case& c : cases) {
        PaddedPlane p(12, 8, 1, 50);
        EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 12, 8, 2, 3, 8, 3, 0, c.mode, c.value), 1);
        EXPECT_EQ(p.at(5, 3), c.expected) << "mode " << int(c.mode);
        EXPECT_TRUE(p.padsIntact());
    }
}

TEST(DrawLine, RadiusZeroIsOnePixelWide) {
    PaddedPlane p(12, 8, 1, 50);
    qxDrawLine8u(p.data(), p.step, 12, 8, 2, 3, 8, 3, 0, 1, 0);
    for (int x = 2; x <= 8; ++x) EXPECT_EQ(p.at(x, 3), 255);
    EXPECT_EQ(changed(p, 50), 7);

    PaddedPlane d(8, 8);  // a diagonal is 8-connected: no stair steps
    qxDrawLine8u(d.data(), d.step, 8, 8, 1, 1, 6, 6, 0, 1, 0);
    for (int i = 1; i <= 6; ++i) EXPECT_EQ(d.at(i, i), 255);
    EXPECT_EQ(changed(d, 0), 6);
}

TEST(DrawLine, WideBrushClipsAtThePlaneAndWritesOnlyTheCode) {
    PaddedPlane p(10, 9, 1, 50, 3);
    EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 10, 9, -20, 4, 40, 4, 2, 3, 100), 1);
    EXPECT_TRUE(p.padsIntact());
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 10; ++x) {
            EXPECT_TRUE(p.at(x, y) == 50 || p.at(x, y) == 101);  // no anti-aliased levels
            if (y >= 2 && y <= 6) {
                EXPECT_EQ(p.at(x, y), 101);  // at least 2*radius + 1 rows
            }
        }
}

TEST(DrawLine, StepZeroMeansPackedRows) {
    std::vector<uint8_t> packed(7 * 5, 0);
    EXPECT_EQ(qxDrawLine8u(packed.data(), 0, 7, 5, 3, 0, 3, 4, 0, 1, 0), 1);
    for (int i = 0; i < 7 * 5; ++i) EXPECT_EQ(packed[i], i % 7 == 3 ? 255 : 0) << i;
}

TEST(DrawLine, RefusesBadArgumentsWithoutWriting) {
    PaddedPlane p(10, 6, 1, 9);
    const auto before = p.buf;
    EXPECT_EQ(qxDrawLine8u(nullptr, 10, 10, 6, 0, 0, 9, 5, 0, 1, 0), 0);
    EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 0, 6, 0, 0, 9, 5, 0, 1, 0), 0);
    EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 10, 0, 0, 0, 9, 5, 0, 1, 0), 0);
    EXPECT_EQ(qxDrawLine8u(p.data(), 9, 10, 6, 0, 0, 9, 5, 0, 1, 0), 0);
    EXPECT_EQ(qxDrawLine8u(p.data(), -15, 10, 6, 0, 0, 9, 5, 0, 1, 0), 0);
    EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 10, 6, 0, 0, 9, 5, -1, 1, 0), 0);
    EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 10, 6, 0, 0, 9, 5, 16384, 1, 0), 0);
    EXPECT_EQ(p.buf, before);
}

}  // namespace
