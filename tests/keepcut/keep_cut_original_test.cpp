// The windowed engine without a tree: the budget's level choice, qxMapAlphaProc at each depth
// of the pyramid on a composite with a known alpha, and qxKeepCutToAlphaOriginal's frame and
// bounding-box paths with their statuses.
#include <gtest/gtest.h>

#include <cmath>

#include "budget.h"
#include "frame/progress.h"
#include "keepcut/keep_cut_original.h"
#include "keepcut/map_alpha_proc.h"
#include "matting/matting_fixtures.h"
#include "stroke_scene.h"

using qxtest::Budget;
using qxtest::Composite;
using qxtest::PaddedPlane;
using qxtest::StrokeScene;

namespace {

TEST(MapAlphaPlan, RatioOfNeedToBudgetPicksTheLevels) {
    // 100 x 100 with no unknown pixel: need = 10,000 * 1200 = 12,000,000 bytes.
    struct Case {
        int units, levels, step;
    } cases[] = {{12000, 0, 1428}, {11999, 1, 1}, {3000, 1, 1}, {2999, 2, 1},
                 {1500, 2, 1},     {1499, 3, 1},  {0, 3, 1}};
    for (const auto& c : cases) {
        const auto plan = qx::planMapAlpha(100, 100, 0, c.units);
        EXPECT_EQ(plan.levels, c.levels) << c.units;
        EXPECT_EQ(plan.progressStep, c.step) << c.units;
    }
    EXPECT_TRUE(std::isinf(qx::planMapAlpha(100, 100, 0, 0).ratio));
    // 10,000 unknown pixels need 19,440,000 bytes, more than the pixels' 12,000,000.
    EXPECT_EQ(qx::planMapAlpha(100, 100, 10000, 19440).levels, 0);
    EXPECT_EQ(qx::planMapAlpha(100, 100, 10000, 19439).levels, 1);
}

// qxMapAlphaProc over host buffers.
struct MapJob : qxtest::WindowImages {
    using WindowImages::WindowImages;
    int run() { return apply(qx::qxMapAlphaProc); }
};

TEST(MapAlphaProc, NothingToSolveAtTheCoarsestLevel) {
    PaddedPlane flat(40, 40, 4, 90);
    {
        // No known pixel at all: -5, nothing written.
        Budget budget(3500000);
        MapJob job(&flat, &flat, &flat, 40, 40);
        job.alpha = PaddedPlane(40, 40, 5, 50);
        const PaddedPlane before = job.alpha;
        EXPECT_EQ(job.run(), -5);
        EXPECT_EQ(job.alpha.bytes, before.bytes);
    }
    {
        // 400 unknown pixels at odd rows and columns. The budget asks for one level
        // (need 1,920,000 bytes, budget 1,000,000), and the halving keeps even pixels only:
        // the coarse level has no unknown pixel, so nothing is solved.
        Budget budget(1000);
        MapJob job(&flat, &flat, &flat, 40, 40);
        job.known = PaddedPlane(40, 40, 3, 255);
        job.alpha = PaddedPlane(40, 40, 5, 50);
        for (int y = 1; y < 40; y += 2)
            for (int x = 1; x < 40; x += 2) job.known.at(x, y) = 0;
        const PaddedPlane before = job.alpha;
        EXPECT_EQ(job.run(), 1);
        EXPECT_EQ(job.alpha.bytes, before.bytes);
    }
}

TEST(MapAlphaProc, EveryPyramidDepthRecoversTheComposite) {
    // 200 x 200: need 48,000,000 bytes. Budgets for ratios 1, 2.4, 6 and 9.6: 0 to 3 levels.
    Composite comp(200, 200, 50.0, 66.0, 3);
    const int budgets[4] = {48000, 20000, 8000, 5000};
    const double limits[4] = {0.006, 0.008, 0.015, 0.025};
    for (int levels = 0; levels < 4; ++levels) {
        Budget budget(budgets[levels]);
        MapJob job(&comp.planes[0], &comp.planes[1], &comp.planes[2], 200, 200);
        for (int y = 0; y < 200; ++y)
            for (int x = 0; x < 200; ++x) {
                const unsigned char t = comp.trimap.at(x, y);
                job.known.at(x, y) = t == 128 ? 0 : 255;
                job.alpha.at(x, y) = t == 128 ? 2 : t;
            }
        qx::setProgProc(nullptr, nullptr, 7, 7);
        EXPECT_EQ(job.run(), 1);
        const auto progress = qx::progressState();
        EXPECT_EQ(progress.total, 10000);
        EXPECT_EQ(progress.step, levels == 0 ? 1428 : 1);
        const double error = comp.meanError(job.alpha);
        EXPECT_LT(error, limits[levels]) << levels;
        EXPECT_TRUE(job.alpha.padsIntact());
    }
}

// The region (30, 20) 60 x 50 of a 120 x 100 scene; every byte outside the band is a stroke, and
// the earlier alpha is the truth (even bytes). Band pixels inside the region start at 0.
struct FrameCase {
    StrokeScene scene{120, 100, 24.0, 36.0, 2};
    FrameCase(int x, int y, int w, int h, int frame) {
        for (int yy = 0; yy < 100; ++yy)
            for (int xx = 0; xx < 120; ++xx)
                if ((scene.alpha.at(xx, yy) & 1) == 0)
                    scene.alpha.at(xx, yy) =
                        static_cast<unsigned char>(std::lround(scene.truth(xx, yy) * 127) * 2);
        scene.setRegion(x, y, w, h, frame);
        for (int yy = y; yy < y + h; ++yy)
            for (int xx = x; xx < x + w; ++xx)
                if ((scene.alpha.at(xx, yy) & 1) == 0) scene.alpha.at(xx, yy) = 0;
        scene.syncAux();
    }
};

TEST(KeepCutOriginal, FrameHoldsTheEarlierAlphaAndTheRegionIsSolved) {
    Budget budget(3500000);
    // Region at (40, 30), 40 x 40, frame 3: the working window is (37, 27) 46 x 46.
    FrameCase c(40, 30, 40, 40, 3);
    const PaddedPlane before = c.scene.alpha;
    const PaddedPlane dstBefore = c.scene.dst;
    EXPECT_EQ(qx::qxKeepCutToAlphaOriginal(&c.scene.req), 1);
    EXPECT_EQ(qx::progressState().total, 10000);

    int solved = 0;
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 120; ++x) {
            const bool inRegion = x >= 40 && x < 80 && y >= 30 && y < 70;
            const unsigned char in = before.at(x, y), out = c.scene.alpha.at(x, y);
            if (!inRegion || (in & 1)) {
                ASSERT_EQ(out, in) << x << "," << y;  // frame, outside, strokes
            } else {
                ASSERT_EQ(out & 1, 0);
                EXPECT_NEAR(out / 255.0, c.scene.truth(x, y), 0.06) << x << "," << y;
                ++solved;
            }
        }
    EXPECT_GT(solved, 100);
    EXPECT_LT(c.scene.meanError(40, 30, 40, 40), 0.015);
    EXPECT_EQ(c.scene.dst.bytes, dstBefore.bytes);
    EXPECT_TRUE(c.scene.alpha.padsIntact());
}

TEST(KeepCutOriginal, FrameIsCutWhereTheImageEnds) {
    Budget budget(3500000);
    // Region in the bottom-right corner with a frame of 5: only the left and top frames exist.
    FrameCase c(80, 60, 40, 40, 5);
    const PaddedPlane before = c.scene.alpha;
    EXPECT_EQ(qx::qxKeepCutToAlphaOriginal(&c.scene.req), 1);
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 120; ++x)
            if (x < 80 || y < 60) {
                ASSERT_EQ(c.scene.alpha.at(x, y), before.at(x, y)) << x << "," << y;
            }
    EXPECT_LT(c.scene.meanError(80, 60, 40, 40), 0.015);
    EXPECT_TRUE(c.scene.alpha.padsIntact());
}

// A 60 x 60 plane of strokes for the bounding-box checks: keep on the left half, cut on the
// right, `open` unpainted pixels (byte 100) in the middle. The host's record has the keep stroke
// at (5, 5) as unpainted, so a restore from it shows there as 254.
struct BoxCase {
    StrokeScene scene{60, 60, 5.0, 6.0, 0};
    BoxCase(int open, bool keep, bool cut) {
        for (int y = 0; y < 60; ++y)
            for (int x = 0; x < 60; ++x) scene.alpha.at(x, y) = x < 30 ? (keep ? 255 : 129) : (cut ? 1 : 129);
        for (int i = 0; i < open; ++i) scene.alpha.at(20 + i, 30) = 100;
        scene.syncAux();
        scene.aux.at(5, 5) = 0;
        scene.setRegion(0, 0, 60, 60, 0);
    }
    bool onlyFlagRestored(const PaddedPlane& before) const {
        for (int y = 0; y < 60; ++y)
            for (int x = 0; x < 60; ++x) {
                const int expect = x == 5 && y == 5 ? (before.at(x, y) & 0xFE) : before.at(x, y);
                if (scene.alpha.at(x, y) != expect) return false;
            }
        return true;
    }
};

TEST(KeepCutOriginal, BoundingBoxChecksRestoreTheFlags) {
    Budget budget(3500000);
    struct Case {
        int open;
        bool keep, cut;
        int status;
    } cases[] = {
        {0, true, true, -5},   // nothing unsettled: no box
        {2, true, true, 1},    // a box of 25 rows, but fewer than 3 unsettled pixels
        {3, true, false, -5},  // no cut stroke in the box
        {3, false, true, -5},  // no keep stroke in the box
    };
    for (const auto& c : cases) {
        BoxCase b(c.open, c.keep, c.cut);
        const PaddedPlane before = b.scene.alpha;
        EXPECT_EQ(qx::qxKeepCutToAlphaOriginal(&b.scene.req), c.status) << c.open;
        EXPECT_TRUE(b.onlyFlagRestored(before)) << c.open << c.keep << c.cut;
    }
}

TEST(KeepCutOriginal, BoundingBoxPathSolvesInsideTheBox) {
    Budget budget(3500000);
    // Whole-image work with no frame: the box around the band is the working window.
    StrokeScene scene(90, 90, 22.0, 34.0, 2);
    scene.setRegion(0, 0, 90, 90, 0);
    const PaddedPlane before = scene.alpha;
    EXPECT_EQ(qx::qxKeepCutToAlphaOriginal(&scene.req), 1);
    for (int y = 0; y < 90; ++y)
        for (int x = 0; x < 90; ++x)
            if (before.at(x, y) & 1) {
                ASSERT_EQ(scene.alpha.at(x, y), before.at(x, y));
            }
    EXPECT_LT(scene.meanError(0, 0, 90, 90), 0.015);
}

}  // namespace
