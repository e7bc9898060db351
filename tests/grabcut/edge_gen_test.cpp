// qxGrabCutEdgeGen on small hand-built selections whose tri-map can be worked out pixel by
// pixel, and end to end after a cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

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

// OpenCV's own morphology on a padded copy, as the band is defined: the brush is the filled
// circle of radius bandWidth / 2, erosion framed by 255, dilation by 0.
cv::Mat referenceBand(const cv::Mat& result, int bandWidth) {
    const int r = bandWidth / 2, d = 2 * r + 1;
    cv::Mat brush(d, d, CV_8UC1, cv::Scalar(0));
    cv::circle(brush, cv::Point(r, r), r, cv::Scalar(255), -1, cv::LINE_8, 0);
    const cv::Mat hard = result >= 254;
    cv::Mat e, g;
    cv::copyMakeBorder(hard, e, r, r, r, r, cv::BORDER_CONSTANT, cv::Scalar(255));
    cv::copyMakeBorder(hard, g, r, r, r, r, cv::BORDER_CONSTANT, cv::Scalar(0));
    cv::erode(e, e, brush, cv::Point(r, r), 1, cv::BORDER_CONSTANT, cv::Scalar(255));
    cv::dilate(g, g, brush, cv::Point(r, r), 1, cv::BORDER_CONSTANT, cv::Scalar(0));
    const cv::Rect inner(r, r, result.cols, result.rows);
    cv::Mat out(result.size(), CV_8UC1);
    for (int y = 0; y < result.rows; ++y)
        for (int x = 0; x < result.cols; ++x) {
            const int ev = e(inner).at<unsigned char>(y, x), gv = g(inner).at<unsigned char>(y, x);
            const unsigned char p = result.at<unsigned char>(y, x);
            const int v = gv - ev == 255 ? 126 : gv & 254;
            out.at<unsigned char>(y, x) = (p & 1) ? p : static_cast<unsigned char>(v);
        }
    return out;
}

TEST(GrabCutEdgeGen, AgreesWithPlainMorphologyOnRandomSelections) {
    cv::RNG rng(11);
    for (int trial = 0; trial < 12; ++trial) {
        const int w = 20 + rng.uniform(0, 60), h = 15 + rng.uniform(0, 50);
        cv::Mat result(h, w, CV_8UC1, cv::Scalar(0));
        for (int k = 0; k < 4; ++k)
            cv::ellipse(result, cv::Point(rng.uniform(0, w), rng.uniform(0, h)),
                        cv::Size(rng.uniform(2, w / 2 + 3), rng.uniform(2, h / 2 + 3)),
                        rng.uniform(0, 180), 0, 360, cv::Scalar(254), -1);
        for (int k = 0; k < 8; ++k)  // fixed codes and near-selected values
            result.at<unsigned char>(rng.uniform(0, h), rng.uniform(0, w)) =
                static_cast<unsigned char>(std::vector<int>{1, 255, 101, 253, 128}[k % 5]);
        const int band = std::vector<int>{1, 2, 3, 5, 8, 13, 21, 40}[trial % 8];
        Planes p(w, h, 0);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) p.result.at(x, y) = result.at<unsigned char>(y, x);
        GrabCutRequest r = p.request();
        qxGrabCutEdgeGen(&r, band);
        const cv::Mat want = referenceBand(result, band);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                ASSERT_EQ(p.mask.at(x, y), want.at<unsigned char>(y, x))
                    << "trial " << trial << " band " << band << " at " << x << "," << y;
    }
}

// A band so wide that the disc around any pixel of the region holds the whole region: every
// pixel's erosion is the region's minimum and its dilation the region's maximum. A region with
// both selected and unselected pixels is then undecided everywhere (126); one that is wholly
// selected or wholly unselected keeps its side. The region here is 9 x 5: the farthest two of
// its pixels are sqrt(8^2 + 4^2) < 9 apart, so any radius from 10 up reaches everything, and
// the widths below run from there to the largest band accepted.
TEST(GrabCutEdgeGen, BandWiderThanTheRegionLeavesAMixedRegionUndecided) {
    const std::vector<int> bands = {20, 21, 24, 25, 26, 27, 30, 64, 1000, 32767};
    auto everyPixel = [](Planes& p, unsigned char want, int band, const char* what) {
        for (int y = 0; y < p.h; ++y)
            for (int x = 0; x < p.w; ++x)
                ASSERT_EQ(p.mask.at(x, y), want)
                    << what << ", band " << band << ", at " << x << "," << y << "\n"
                    << p.picture();
        ASSERT_TRUE(p.mask.padsIntact());
    };
    for (const int band : bands) {
        Planes halves(9, 5, 0);  // selected on the left, unselected on the right
        halves.fill({0, 0, 4, 5}, 254);
        GrabCutRequest r = halves.request();
        qxGrabCutEdgeGen(&r, band);
        everyPixel(halves, 126, band, "two halves");

        Planes corner(9, 5, 0);  // one selected pixel is enough to make every pixel mixed
        corner.result.at(8, 4) = 254;
        r = corner.request();
        qxGrabCutEdgeGen(&r, band);
        everyPixel(corner, 126, band, "one selected corner");

        Planes hole(9, 5, 254);  // so is one unselected pixel
        hole.result.at(0, 0) = 0;
        r = hole.request();
        qxGrabCutEdgeGen(&r, band);
        everyPixel(hole, 126, band, "one unselected corner");

        Planes full(9, 5, 254), empty(9, 5, 0);  // nothing to mix: each keeps its side
        r = full.request();
        qxGrabCutEdgeGen(&r, band);
        everyPixel(full, 254, band, "all selected");
        r = empty.request();
        qxGrabCutEdgeGen(&r, band);
        everyPixel(empty, 0, band, "none selected");
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
