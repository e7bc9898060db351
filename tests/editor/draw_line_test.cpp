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
}

TEST(DrawLine, DiagonalIsEightConnected) {
    PaddedPlane p(8, 8);
    qxDrawLine8u(p.data(), p.step, 8, 8, 1, 1, 6, 6, 0, 1, 0);
    for (int i = 1; i <= 6; ++i) EXPECT_EQ(p.at(i, i), 255);
    EXPECT_EQ(changed(p, 0), 6);  // no 4-connected stair steps
}

TEST(DrawLine, WideBrushIsSymmetricAndOnlyWritesTheCode) {
    PaddedPlane p(21, 21, 1, 50);
    qxDrawLine8u(p.data(), p.step, 21, 21, 5, 10, 15, 10, 2, 3, 100);
    for (int y = 0; y < 21; ++y)
        for (int x = 0; x < 21; ++x) {
            const uint8_t v = p.at(x, y);
            EXPECT_TRUE(v == 50 || v == 101);  // no anti-aliased intermediate levels
            EXPECT_EQ(v, p.at(x, 20 - y));
            EXPECT_EQ(v, p.at(20 - x, y));
        }
    for (int y = 8; y <= 12; ++y) EXPECT_EQ(p.at(10, y), 101);
    EXPECT_GT(changed(p, 50), 5 * 11);
}

TEST(DrawLine, ClipsAtThePlaneAndNeverWritesPads) {
    PaddedPlane p(10, 6, 1, 0, 3);
    EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 10, 6, -20, 2, 40, 2, 3, 1, 0), 1);
    EXPECT_TRUE(p.padsIntact());
    for (int x = 0; x < 10; ++x) EXPECT_EQ(p.at(x, 2), 255);
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
