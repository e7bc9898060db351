// Strokes of any size: qxwPaintStroke against the geometry of a round-ended stroke (the points
// within its radius of the segment), and within a pixel of the disc walk for the largest strokes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "editor/padded_plane.h"
#include "image/base_tools.h"
#include "qxworkflow.h"

namespace {

constexpr uint8_t kPaint = 200;

// A plane of w x h bytes, 0, with 7 marked pad bytes after every row.
struct Plane : qxtest::PaddedPlane {
    Plane(int w, int h) : PaddedPlane(w, h, 1, 0, 7) {}
    bool painted(int x, int y) const { return at(x, y) == kPaint; }
    long count() const {
        long n = 0;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) n += painted(x, y);
        return n;
    }
    bool operator==(const Plane& o) const { return buf == o.buf; }
};

Plane paint(int w, int h, int x0, int y0, int x1, int y1, int radius) {
    Plane p(w, h);
    EXPECT_EQ(qxwPaintStroke(p.data(), p.step, w, h, x0, y0, x1, y1, radius, kPaint), 1);
    EXPECT_TRUE(p.padsIntact());
    return p;
}

// Distance from the pixel centre (x, y) to the segment, in long double from exact differences.
long double distance(int x, int y, int x0, int y0, int x1, int y1) {
    const long double dx = (long double)x1 - x0, dy = (long double)y1 - y0;
    const long double px = (long double)x - x0, py = (long double)y - y0;
    const long double len2 = dx * dx + dy * dy;
    long double t = len2 > 0 ? (px * dx + py * dy) / len2 : 0;
    t = std::clamp<long double>(t, 0, 1);
    return std::hypot(px - t * dx, py - t * dy);
}

// Every row and every column of the painted pixels is one run: a convex region cut by the grid.
void expectRunsAreSingle(const Plane& p) {
    for (int y = 0; y < p.height; ++y) {
        int runs = 0;
        for (int x = 0; x < p.width; ++x) runs += p.painted(x, y) && (x == 0 || !p.painted(x - 1, y));
        ASSERT_LE(runs, 1) << "row " << y;
    }
    for (int x = 0; x < p.width; ++x) {
        int runs = 0;
        for (int y = 0; y < p.height; ++y) runs += p.painted(x, y) && (y == 0 || !p.painted(x, y - 1));
        ASSERT_LE(runs, 1) << "column " << x;
    }
}

// Where two renderings of one stroke differ, the pixel lies within about a pixel of the
// stroke's edge: both paint the points within the radius of the segment.
void expectSameWithinAPixel(const Plane& a, const Plane& b, int x0, int y0, int x1, int y1,
                            int radius) {
    long differ = 0;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width; ++x)
            if (a.painted(x, y) != b.painted(x, y)) {
                ++differ;
                const long double d = distance(x, y, x0, y0, x1, y1);
                ASSERT_GT(d, radius - 1.0L) << x << "," << y;
                ASSERT_LT(d, radius + 1.5L) << x << "," << y;
            }
    EXPECT_LT(differ, std::max(a.count(), b.count()) / 10 + 1);
}

TEST(StrokeOfAnySize, HugeStrokeCuttingThePlanePaintsItsSideOfTheEdge) {
    // A row segment a billion less 100 rows above the plane, radius a billion: its edge runs
    // along row 100 (pixel centres within half a pixel beyond the radius count).
    const Plane band = paint(640, 480, -2000000000, -999999900, 2000000000, -999999900,
                             1000000000);
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x) ASSERT_EQ(band.painted(x, y), y <= 100) << x << "," << y;

    // A diagonal segment along x + y = c: its edge is the line x + y = c + sqrt(2) (r + 1/2),
    // here x + y = 501.08.
    const int a = 1500000000, c = -1414213062, r = 1000000000;
    const Plane diagonal = paint(640, 480, -a, c + a, c + a, -a, r);
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x) {
            if (x + y <= 500) {
                ASSERT_TRUE(diagonal.painted(x, y)) << x << "," << y;
            } else if (x + y >= 503) {
                ASSERT_FALSE(diagonal.painted(x, y)) << x << "," << y;
            }
        }
    expectRunsAreSingle(diagonal);

    // A round end: (x - ax)^2 + (y - ay)^2 <= (r + 1/2)^2 exactly, in integers; the same from
    // the capsule fill itself.
    const int ax = -1000000000 + 300, ay = 240;
    const Plane cap = paint(640, 480, ax, ay, -2100000000, ay, r);
    Plane capsule(640, 480);
    qx::fillCapsule(capsule.data(), capsule.step, 640, 480, ax, ay, -2100000000, ay, r + 0.5,
                    kPaint);
    long inside = 0;
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x) {
            const __int128 dx = 2 * (__int128(x) - ax), dy = 2 * (__int128(y) - ay);
            const __int128 reach = 2 * __int128(r) + 1;
            const bool in = dx * dx + dy * dy <= reach * reach;
            inside += in;
            ASSERT_EQ(cap.painted(x, y), in) << x << "," << y;
            ASSERT_EQ(capsule.painted(x, y), in) << x << "," << y;
        }
    EXPECT_EQ(inside, 301L * 480);  // columns 0 to 300: the arc bends by 1/35000 of a pixel
    expectRunsAreSingle(cap);
}

// Strokes whose walk costs more than the plane allows (qxwPaintStroke fills their capsule) yet is
// still quick enough to run here: the plane is small, the radius 30000.
TEST(StrokeOfAnySize, CapsuleAndDiscWalkAgreeWithinAPixel) {
    const int r = 30000, cases[][4] = {{-40000, -29980, 40000, -29980},
                                       {-30000, -30000, 30000, 30000},
                                       {20000, -62366, -22366, -20000}};
    for (const auto& c : cases) {
        Plane walk(64, 48);
        qx::drawLineW(walk.data(), walk.step, 64, 48, c[0], c[1], c[2], c[3], r, kPaint);
        SCOPED_TRACE(std::to_string(c[0]) + "," + std::to_string(c[1]));
        expectSameWithinAPixel(walk, paint(64, 48, c[0], c[1], c[2], c[3], r), c[0], c[1], c[2],
                               c[3], r);
    }
}

TEST(StrokeOfAnySize, RefusalsAndEdgeCases) {
    Plane p(10, 10);
    EXPECT_EQ(qxwPaintStroke(nullptr, 10, 10, 10, 0, 0, 5, 5, 2, kPaint), 0);
    EXPECT_EQ(qxwPaintStroke(p.data(), 9, 10, 10, 0, 0, 5, 5, 2, kPaint), 0);
    EXPECT_EQ(qxwPaintStroke(p.data(), p.step, 10, 10, 0, 0, 5, 5, -1, kPaint), 0);
    EXPECT_EQ(p.count(), 0);
    // Radius 0 paints the segment's own pixels; a point stroke its disc.
    EXPECT_EQ(paint(10, 10, 0, 0, 9, 9, 0).count(), 10);
    EXPECT_EQ(paint(10, 10, 5, 5, 5, 5, 1).count(), 5);
    Plane none(10, 10);
    EXPECT_EQ(qx::fillCapsule(none.data(), none.step, 10, 10, 0, 0, 9, 9, -1.0, kPaint), 1);
    EXPECT_EQ(qx::fillCapsule(none.data(), none.step, 10, 10, 0, 0, 9, 9, std::nan(""), kPaint),
              1);
    EXPECT_EQ(none.count(), 0);
}

}  // namespace
