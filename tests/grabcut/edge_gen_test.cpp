// qxGrabCutEdgeGen on small hand-built selections whose tri-map can be worked out pixel by
// pixel, and end to end after a cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "grabcut_fixtures.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

using test::HostPlane;
using test::Rect;

struct Planes {
    HostPlane mask, result;
    int w, h;
    Planes(int width, int height, unsigned char resultFill)
        : mask(width, height, 1, 99), result(width, height, 1, resultFill), w(width), h(height) {}
    GrabCutRequest request() { return test::requestOver(nullptr, mask, &result); }
    void fill(const Rect& rc, unsigned char v) {
        for (int y = rc.y; y < rc.y + rc.h; ++y)
            for (int x = rc.x; x < rc.x + rc.w; ++x) result.at(x, y) = v;
    }
    // The mask as rows of characters: '#' 254, '.' 0, '~' 126, '?' anything else.
    std::string picture() {
        std::string s;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const unsigned char v = mask.at(x, y);
                s += v == 254 ? '#' : v == 0 ? '.' : v == 126 ? '~' : '?';
            }
            s += '\n';
        }
        return s;
    }
};

TEST(GrabCutEdgeGen, BandOfRadiusOneAroundASquare) {
    // bandWidth 3: r = 1, the brush is a plus. The square's own outer ring erodes away (every
    // ring pixel has a 4-neighbour outside); the dilation adds the 4-neighbours outside, which
    // are the ring around the square without its four corners.
    Planes p(11, 11, 0);
    p.fill({2, 2, 7, 7}, 254);
    GrabCutRequest r = p.request();
    qxGrabCutEdgeGen(&r, 3);
    EXPECT_EQ(p.picture(),
              "...........\n"
              "..~~~~~~~..\n"
              ".~~~~~~~~~.\n"
              ".~~#####~~.\n"
              ".~~#####~~.\n"
              ".~~#####~~.\n"
              ".~~#####~~.\n"
              ".~~#####~~.\n"
              ".~~~~~~~~~.\n"
              "..~~~~~~~..\n"
              "...........\n");
}

TEST(GrabCutEdgeGen, FixedPixelsInsideTheBandKeepTheirCodes) {
    Planes p(11, 11, 0);
    p.fill({2, 2, 7, 7}, 254);
    p.result.at(2, 5) = 1;    // fixed background on the square's edge
    p.result.at(1, 5) = 255;  // fixed foreground just outside
    p.result.at(5, 5) = 101;  // a fixed level inside
    GrabCutRequest r = p.request();
    qxGrabCutEdgeGen(&r, 3);
    EXPECT_EQ(p.mask.at(2, 5), 1);
    EXPECT_EQ(p.mask.at(1, 5), 255);
    EXPECT_EQ(p.mask.at(5, 5), 101);
    // Fixed codes are read as they are for the band: 255 counts as selected, 1 and 101 not,
    // so (5, 5) opens a band around itself and (1, 5) grows the band outward.
    EXPECT_EQ(p.mask.at(0, 5), 126);
    EXPECT_EQ(p.mask.at(5, 4), 126);
    EXPECT_EQ(p.mask.at(4, 4), 254);
}

// A band so wide that the disc around any pixel of the region holds the whole region: every
// pixel's erosion is the region's minimum and its dilation the region's maximum. A region with
// both selected and unselected pixels is then undecided everywhere (126); one that is wholly
// selected or wholly unselected keeps its side. The region here is 9 x 5: the farthest two of
// its pixels are sqrt(8^2 + 4^2) < 9 apart, so any radius from 10 up reaches everything, and
// the widths below run from there to the largest band accepted.
TEST(GrabCutEdgeGen, BandWiderThanTheRegionLeavesAMixedRegionUndecided) {
    auto everyPixel = [](Planes& p, unsigned char want, int band, const char* what) {
        for (int y = 0; y < p.h; ++y)
            for (int x = 0; x < p.w; ++x)
                ASSERT_EQ(p.mask.at(x, y), want)
                    << what << ", band " << band << ", at " << x << "," << y << "\n"
                    << p.picture();
        ASSERT_TRUE(p.mask.padsIntact());
    };
    // Two halves, one selected corner, one unselected corner: mixed; all or none: each keeps its
    // side.
    struct Case {
        const char* what;
        unsigned char fill;
        Rect other;
        unsigned char otherValue, want;
    };
    const Case cases[] = {{"two halves", 0, {0, 0, 4, 5}, 254, 126},
                          {"one selected corner", 0, {8, 4, 1, 1}, 254, 126},
                          {"one unselected corner", 254, {0, 0, 1, 1}, 0, 126},
                          {"all selected", 254, {0, 0, 0, 0}, 0, 254},
                          {"none selected", 0, {0, 0, 0, 0}, 0, 0}};
    for (const int band : {20, 21, 64, 32767})
        for (const Case& c : cases) {
            Planes p(9, 5, c.fill);
            p.fill(c.other, c.otherValue);
            GrabCutRequest r = p.request();
            qxGrabCutEdgeGen(&r, band);
            everyPixel(p, c.want, band, c.what);
        }
}

TEST(GrabCutEdgeGen, AfterACutTheBandStraddlesTheSubjectsEdge) {
    test::TwoColourScene s(160, 120, {50, 40, 60, 45});
    GrabCutRequest r = s.request();
    ASSERT_EQ(qxGrabCut(&r, 0), 1);
    qxGrabCutEdgeGen(&r, 8);  // r = 4
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x) {
            // Inside: the distance to the subject's edge along the axes; outside: the
            // distance to the subject. The disc of radius 4 reaches 4 along the axes and is
            // round at the corners.
            const int dIn = std::min({x - 50, 109 - x, y - 40, 84 - y});
            const int ex = std::max({50 - x, 0, x - 109}), ey = std::max({40 - y, 0, y - 84});
            const int out2 = ex * ex + ey * ey;
            const unsigned char v = s.mask.at(x, y);
            if (dIn >= 4) {
                ASSERT_EQ(v, 254) << x << "," << y;
            } else if (dIn >= 0 || (out2 > 0 && out2 <= 9)) {
                ASSERT_EQ(v, 126) << x << "," << y;
            } else if (out2 > 25) {
                ASSERT_EQ(v, 0) << x << "," << y;
            }
        }
    qxGrabCutDeleteBuf(&r);
}

}  // namespace
}  // namespace qx
