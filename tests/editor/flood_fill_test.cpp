// qxFloodFillAlpha: the bucket tool on the code plane. Labels: code 1, code 255, all others.
#include <gtest/gtest.h>

#include <array>

#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;
using Rect = std::array<int, 4>;

int fill(PaddedPlane& p, int x, int y, unsigned char mode, Rect& r) {
    r = {9, 9, 9, 9};
    return qxFloodFillAlpha(p.data(), p.step, p.width, p.height, x, y, 0, 0, mode, 0, r.data());
}

TEST(FloodFill, SeedAlreadyPaintedChangesNothing) {
    const struct {
        uint8_t code;
        unsigned char mode;
    } cases[] = {{255, 1}, {1, 0}, {126, 2}};
    for (const auto& c : cases) {
        PaddedPlane p(6, 5, 1, c.code);
        p.at(0, 0) = 40;
        const auto before = p.buf;
        Rect r;
        EXPECT_EQ(fill(p, 3, 2, c.mode, r), 1);
        EXPECT_EQ(r, (Rect{0, 0, 0, 0}));
        EXPECT_EQ(p.buf, before);
    }
}

TEST(FloodFill, DiagonalChainIsOneRegion) {
    PaddedPlane p(10, 8, 1, 126);
    for (int i = 1; i <= 4; ++i) p.at(i, i) = 1;
    p.at(6, 1) = 1;  // a separate fixed-background pixel
    Rect r;
    EXPECT_EQ(fill(p, 1, 1, 1, r), 1);
    EXPECT_EQ(r, (Rect{1, 1, 4, 4}));
    for (int i = 1; i <= 4; ++i) EXPECT_EQ(p.at(i, i), 255);
    EXPECT_EQ(p.at(6, 1), 1);
    EXPECT_EQ(p.at(2, 1), 126);
    EXPECT_TRUE(p.padsIntact());
}

TEST(FloodFill, ModeZeroPaintsTheSeedRegionBackground) {
    PaddedPlane p(10, 8, 1, 126);
    for (int y = 3; y <= 4; ++y)
        for (int x = 4; x <= 6; ++x) p.at(x, y) = 255;
    p.at(7, 5) = 255;  // touches the block at a corner
    p.at(9, 7) = 255;  // does not
    Rect r;
    EXPECT_EQ(fill(p, 5, 3, 0, r), 1);
    EXPECT_EQ(r, (Rect{4, 3, 4, 3}));
    EXPECT_EQ(p.at(4, 3), 1);
    EXPECT_EQ(p.at(6, 4), 1);
    EXPECT_EQ(p.at(7, 5), 1);
    EXPECT_EQ(p.at(9, 7), 255);
    EXPECT_EQ(p.at(7, 4), 126);
    EXPECT_TRUE(p.padsIntact());
}

TEST(FloodFill, ModeTwoResetsTheUndecidedRegionAndReportsTheWholePlane) {
    PaddedPlane p(10, 8, 1, 255);
    p.at(2, 2) = 200;  // one region of mixed non-fixed codes, the odd 7 included
    p.at(3, 2) = 50;
    p.at(2, 3) = 7;
    p.at(4, 4) = 200;  // diagonal neighbour of (3, 3)
    p.at(3, 3) = 126;
    p.at(8, 6) = 90;  // another region, not reached
    Rect r;
    EXPECT_EQ(fill(p, 2, 2, 2, r), 1);
    EXPECT_EQ(r, (Rect{0, 0, 10, 8}));
    for (auto [x, y] : {std::pair{2, 2}, {3, 2}, {2, 3}, {3, 3}, {4, 4}}) EXPECT_EQ(p.at(x, y), 126);
    EXPECT_EQ(p.at(8, 6), 90);
    EXPECT_EQ(p.at(0, 0), 255);
    EXPECT_TRUE(p.padsIntact());

    PaddedPlane q(6, 5, 1, 200);
    q.at(1, 1) = q.at(2, 2) = 1;
    EXPECT_EQ(fill(q, 1, 1, 2, r), 1);  // a fixed-background region goes undecided too
    EXPECT_EQ(q.at(1, 1), 126);
    EXPECT_EQ(q.at(2, 2), 126);
    EXPECT_EQ(q.at(0, 0), 200);
}

}  // namespace
