// The clipped rasteriser: spans, discs and thick strokes on a padded plane, against shapes
// worked out by hand.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "image/base_tools.h"
#include "plane_fixture.h"

namespace {

using qx::test::Plane;

// The plane as text, '#' where value 9 was drawn.
std::string picture(const Plane<uint8_t>& p) {
    std::string s;
    for (int y = 0; y < p.height(); ++y) {
        for (int x = 0; x < p.width(); ++x) s += p(x, y) == 9 ? '#' : '.';
        s += '\n';
    }
    return s;
}

Plane<uint8_t> blank(int w, int h) {
    Plane<uint8_t> p(w, h);
    p.fill([](int, int, int) { return 0; });
    return p;
}

TEST(Rasterise, HorizontalSpansClip) {
    auto p = blank(6, 3);
    EXPECT_EQ(qx::drawHLine(p.data(), p.step(), 6, 3, 4, 1, 1, 9), 1);  // x0 > x1: same span
    EXPECT_EQ(picture(p), "......\n.####.\n......\n");
    EXPECT_EQ(qx::drawHLine(p.data(), p.step(), 6, 3, -5, 100, 2, 9), 1);
    EXPECT_EQ(picture(p), "......\n.####.\n######\n");
    EXPECT_EQ(qx::drawHLine(p.data(), p.step(), 6, 3, 0, 5, 3, 9), 0);   // row outside
    EXPECT_EQ(qx::drawHLine(p.data(), p.step(), 6, 3, 6, 9, 0, 9), 0);   // span right of it
    EXPECT_EQ(qx::drawHLine(nullptr, p.step(), 6, 3, 0, 5, 0, 9), 0);
    EXPECT_TRUE(p.outsideUnchanged());
}

TEST(Rasterise, DiscShapesAndClipping) {
    auto p = blank(7, 7);
    // radius 1: half = (int)(sqrt(1) + 0.49) = 1 on the middle row, (int)(0 + 0.49) = 0 above.
    EXPECT_EQ(qx::drawCircle(p.data(), p.step(), 7, 7, 1, 1, 1, 9), 1);
    // radius 2: rows +-2 half 0, rows +-1 (int)(1.73 + 0.49) = 2, middle 2.
    EXPECT_EQ(qx::drawCircle(p.data(), p.step(), 7, 7, 4, 4, 2, 9), 1);
    EXPECT_EQ(picture(p),
              ".#.....\n"
              "###....\n"
              ".#..#..\n"
              "..#####\n"
              "..#####\n"
              "..#####\n"
              "....#..\n");
    // A centre outside that still overlaps: the visible part, and 1.
    auto q = blank(5, 4);
    EXPECT_EQ(qx::drawCircle(q.data(), q.step(), 5, 4, -1, 1, 2, 9), 1);
    EXPECT_EQ(picture(q), "##...\n##...\n##...\n.....\n");
    EXPECT_TRUE(q.outsideUnchanged());
    // Radius 0 is one pixel, inside or nothing; a negative radius nothing.
    EXPECT_EQ(qx::drawCircle(q.data(), q.step(), 5, 4, 4, 3, 0, 9), 1);
    EXPECT_EQ(q(4, 3), 9);
    q.snapshot();
    EXPECT_EQ(qx::drawCircle(q.data(), q.step(), 5, 4, 5, 3, 0, 9), 0);
    EXPECT_EQ(qx::drawCircle(q.data(), q.step(), 5, 4, 2, 2, -1, 9), 0);
    EXPECT_EQ(qx::drawCircle(q.data(), q.step(), 5, 4, 100, 2, 3, 9), 1);  // nothing inside
    EXPECT_TRUE(q.unchanged());
}

TEST(Rasterise, StrokesWalkTheMajorAxis) {
    // Shallow, radius 0: slope 0.5, intercept 0.5, y = (int)(x * 0.5 + 0.5 + 0.49999).
    auto p = blank(7, 5);
    EXPECT_EQ(qx::drawLineW(p.data(), p.step(), 7, 5, 1, 1, 5, 3, 0, 9), 1);
    EXPECT_EQ(picture(p), ".......\n.##....\n...##..\n.....#.\n.......\n");
    // Steep and walking upwards: x = (int)(y * -0.25 + 5 + 0.49999) from (5,0)... here from the
    // bottom (4,4) to the top (5,0): slope -0.25, intercept 5.
    auto s = blank(7, 5);
    EXPECT_EQ(qx::drawLineW(s.data(), s.step(), 7, 5, 4, 4, 5, 0, 0, 9), 1);
    EXPECT_EQ(picture(s), ".....#.\n.....#.\n....#..\n....#..\n....#..\n");

    // Both ends equal: one disc.
    auto a = blank(7, 7), b = blank(7, 7);
    qx::drawLineW(a.data(), a.step(), 7, 7, 3, 3, 3, 3, 2, 9);
    qx::drawCircle(b.data(), b.step(), 7, 7, 3, 3, 2, 9);
    EXPECT_EQ(picture(a), picture(b));

    // A radius of -1 writes nothing and returns 1.
    auto n = blank(7, 5);
    EXPECT_EQ(qx::drawLineW(n.data(), n.step(), 7, 5, 0, 0, 6, 4, -1, 9), 1);
    EXPECT_TRUE(n.unchanged());

    // Clipped, and ends far outside the int range of a walk: a band of rows 1..3.
    for (auto [x0, x1] : {std::pair{-10, 20}, std::pair{INT_MIN + 5, INT_MAX - 5}}) {
        auto c = blank(8, 5);
        EXPECT_EQ(qx::drawLineW(c.data(), c.step(), 8, 5, x0, 2, x1, 2, 1, 9), 1);
        EXPECT_EQ(picture(c), "........\n########\n########\n########\n........\n");
        EXPECT_TRUE(c.outsideUnchanged());
    }
    EXPECT_EQ(qx::drawLineW(nullptr, 8, 8, 5, 0, 0, 1, 1, 1, 9), 0);
}

}  // namespace
