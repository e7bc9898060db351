// qxDrawLine8u: the brush segment of the mask editor.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <opencv2/imgproc.hpp>
#include <random>

#include "editor/brush.h"
#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;

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

// ---- Stroke ends far outside the plane -----------------------------------------------------

// A padded plane of `width` x `height` with the segment drawn by the brush in code 255.
PaddedPlane drawn(int width, int height, int64_t x0, int64_t y0, int64_t x1, int64_t y1,
                  int radius) {
    PaddedPlane p(width, height, 1, 0, 2);
    cv::Mat plane(height, width, CV_8UC1, p.data(), size_t(p.step));
    qx::drawBrushSegment(plane, cv::Point(int(x0), int(y0)), cv::Point(int(x1), int(y1)), radius,
                         255);
    EXPECT_TRUE(p.padsIntact());
    return p;
}

// Pixels where b differs from a by more than a one-pixel shift of a's stroke edge: b's value
// at such a pixel occurs nowhere among a's pixels around it (on the plane's border the unseen
// neighbours could hold it). Rasterising the same line from other end points moves its edge
// by at most one pixel, never more.
int offEdgeDifferences(const PaddedPlane& a, const PaddedPlane& b) {
    int n = 0;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width; ++x) {
            if (a.at(x, y) == b.at(x, y)) continue;
            bool found = x == 0 || y == 0 || x == a.width - 1 || y == a.height - 1;
            for (int v = std::max(y - 1, 0); v <= std::min(y + 1, a.height - 1); ++v)
                for (int u = std::max(x - 1, 0); u <= std::min(x + 1, a.width - 1); ++u)
                    found = found || a.at(u, v) == b.at(x, y);
            n += !found;
        }
    return n;
}

TEST(DrawLineFarEnds, TheReportedCrashDrawsTheNearPartOfTheStroke) {
    // 64 x 63, step 66, from (0, INT_MIN) to (0, 0), radius 4: this killed the process with
    // SIGFPE. Every pixel the brush reaches lies near (0, 0), so the stroke must look exactly
    // like the same vertical stroke started just above the plane.
    PaddedPlane p(64, 63, 1, 0, 2);
    ASSERT_EQ(p.step, 66);
    EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 64, 63, 0, INT_MIN, 0, 0, 4, 1, 0), 1);
    EXPECT_TRUE(p.padsIntact());
    const PaddedPlane near = drawn(64, 63, 0, -40, 0, 0, 4);
    EXPECT_EQ(p.buf, near.buf);
    // By hand: the brush is 9 wide about x = 0 and ends in a round cap of radius 5 at (0, 0).
    EXPECT_EQ(p.at(4, 0), 255);
    EXPECT_EQ(p.at(0, 5), 255);
    EXPECT_EQ(p.at(0, 6), 0);
    EXPECT_EQ(p.at(6, 0), 0);
}

TEST(DrawLineFarEnds, IntLimitsInEveryCombinationNeverFault) {
    // The brush itself for the many combinations (the export adds only the argument checks and
    // the call guard), and a few of them through the export with a padded host plane.
    const int values[] = {INT_MIN, INT_MIN + 1, -(1 << 30), -1048577, -5, 0, 20,
                          1048600, 1 << 30, INT_MAX - 1, INT_MAX};
    for (int radius : {0, 1, 4, 16383})
        for (int x0 : values)
            for (int y0 : values)
                for (int x1 : {INT_MIN, 0, 20, INT_MAX})
                    for (int y1 : {INT_MIN, 7, INT_MAX}) {
                        cv::Mat big(19, 23, CV_8UC1, cv::Scalar(50));
                        cv::Mat plane = big(cv::Rect(1, 1, 21, 17));
                        qx::drawBrushSegment(plane, {x0, y0}, {x1, y1}, radius, 1);
                        plane.setTo(50, plane == 1);
                        ASSERT_EQ(cv::countNonZero(big != 50), 0)
                            << radius << ": " << x0 << "," << y0 << " " << x1 << "," << y1;
                    }
    for (int radius : {1, 16383})
        for (int v : {INT_MIN, INT_MAX}) {
            PaddedPlane p(21, 17, 1, 50, 3);
            EXPECT_EQ(qxDrawLine8u(p.data(), p.step, 21, 17, v, v, -v - 1, 3, radius, 0, 0), 1);
            EXPECT_TRUE(p.padsIntact());
        }
}

TEST(DrawLineFarEnds, FarEndsDrawTheSameLineAsNearOnes) {
    // A segment through the plane, extended along its own direction to ends beyond the
    // near limit and up to the int limits, paints what the same line with ends just outside
    // the brush's reach paints, up to the raster edge.
    std::mt19937 rng(11);
    int compared = 0, identical = 0;
    for (int it = 0; it < 400; ++it) {
        const int w = 24 + int(rng() % 60), h = 24 + int(rng() % 60);
        const int radius = int(rng() % 9);
        const int64_t px = rng() % w, py = rng() % h;
        const int64_t dx = int64_t(rng() % 41) - 20, dy = int64_t(rng() % 41) - 20;
        if (dx == 0 && dy == 0) continue;
        const int64_t step = std::max(std::llabs(dx), std::llabs(dy));
        const int64_t jNear = (w + h + 2 * radius + 20) / step + 1;
        const int64_t jFar = (INT_MAX - 100) / step;            // ends near the int limits
        const int64_t jMid = (int64_t(1) << 21) / step + 1;     // just beyond the near limit
        const PaddedPlane nearBoth = drawn(w, h, px - jNear * dx, py - jNear * dy,
                                           px + jNear * dx, py + jNear * dy, radius);
        const PaddedPlane farBoth = drawn(w, h, px - jFar * dx, py - jFar * dy,
                                          px + jFar * dx, py + jFar * dy, radius);
        const PaddedPlane farOne = drawn(w, h, px - jNear * dx, py - jNear * dy,
                                         px + jMid * dx, py + jMid * dy, radius);
        EXPECT_EQ(offEdgeDifferences(nearBoth, farBoth), 0) << it;
        EXPECT_EQ(offEdgeDifferences(nearBoth, farOne), 0) << it;
        ++compared;
        identical += nearBoth.buf == farBoth.buf;
    }
    // Edge differences are the exception, not the rule.
    EXPECT_GT(identical, compared * 3 / 4);
}

}  // namespace
