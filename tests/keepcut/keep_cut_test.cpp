// The keep-cut entry: engine choice by hiRes, refusals, the merge of a refinement with the
// earlier alpha, the region-mode statuses and failure statuses with the paint flags back.
#include <gtest/gtest.h>

#include <algorithm>

#include "runtime/memory.h"
#include "runtime/progress.h"
#include "image/primitives.h"
#include "qxiveilon31.h"
#include "stroke_scene.h"

using qxtest::PaddedPlane;
using qxtest::StrokeScene;

namespace {

// Pins the memory budget (4.55 GB) for the length of a test.
struct Budget {
    Budget() {
        const qx::MemStatus s{4550000000ull, 4550000000ull, 4550000000ull};
        qx::overrideMemStatus(&s);
    }
    ~Budget() { qx::overrideMemStatus(nullptr); }
};

// A whole-image job of 64 x 60: cut strokes everywhere but a 20 x 20 square of unpainted
// pixels, with one keep pixel at (31, 29) in it. At half size the pyramid driver samples even
// rows and columns only, so it sees no keep stroke.
struct LoneKeep {
    StrokeScene scene{64, 60, 1.0, 2.0, 0};
    LoneKeep() {
        for (int y = 0; y < 60; ++y)
            for (int x = 0; x < 64; ++x)
                scene.alpha.at(x, y) = x >= 22 && x < 42 && y >= 20 && y < 40 ? 0 : 1;
        scene.alpha.at(31, 29) = 255;
        scene.syncAux();
    }
};

TEST(KeepCutEntry, HiResOneIsTheFullResolutionTreeAnyOtherValueThePyramid) {
    for (int hiRes : {1, 2, 0, -1}) {
        LoneKeep job;
        const PaddedPlane before = job.scene.alpha;
        const int status = qxKeepCutToAlpha(&job.scene.req, hiRes);
        if (hiRes == 1) {
            EXPECT_EQ(status, 1);
            EXPECT_EQ(job.scene.alpha.at(31, 29), 255);
            EXPECT_GT(job.scene.alpha.at(31, 30), 0);  // the keep pixel pulls its neighbours up
        } else {
            EXPECT_EQ(status, -5) << hiRes;
            EXPECT_EQ(job.scene.alpha.buf, before.buf) << hiRes;
        }
    }
}

TEST(KeepCutEntry, TooFewStrokesGiveMinusFiveWithTheFlagsIntact) {
    for (int hiRes : {1, 2}) {
        // Keep strokes and a band, but no cut stroke.
        StrokeScene scene(50, 40, 10.0, 15.0, 2);
        for (auto& v : scene.alpha.buf)
            if (v == 1) v = 0;
        scene.syncAux();
        const PaddedPlane before = scene.alpha, dst = scene.dst;
        EXPECT_EQ(qxKeepCutToAlpha(&scene.req, hiRes), -5);
        EXPECT_EQ(scene.alpha.buf, before.buf);
        EXPECT_EQ(scene.dst.buf, dst.buf);
    }
}

TEST(KeepCutEntry, WholeImageJobsThroughBothTrees) {
    for (int hiRes : {1, 2}) {
        StrokeScene scene(96, 80, 20.0, 30.0, 2);
        const PaddedPlane before = scene.alpha;
        ASSERT_EQ(qxKeepCutToAlpha(&scene.req, hiRes), 1);
        EXPECT_EQ(qx::progressState().proc, nullptr);  // uninstalled when the job ended
        for (int y = 0; y < 80; ++y)
            for (int x = 0; x < 96; ++x) {
                const unsigned char in = before.at(x, y);
                if (in & 1) {
                    ASSERT_EQ(scene.alpha.at(x, y), in);
                    for (int c = 0; c < 4; ++c)
                        ASSERT_EQ(scene.dst.at(4 * x + c, y), scene.src.at(4 * x + c, y));
                } else {
                    ASSERT_EQ(scene.alpha.at(x, y) & 1, 0);
                    for (int c = 0; c < 4; ++c) ASSERT_EQ(scene.dst.at(4 * x + c, y), 0);
                }
            }
        EXPECT_LT(scene.meanError(0, 0, 96, 80), hiRes == 1 ? 0.01 : 0.06) << hiRes;
        EXPECT_TRUE(scene.alpha.padsIntact());
        EXPECT_TRUE(scene.dst.padsIntact());
    }
}

TEST(KeepCutEntry, LeafTooLargeGivesMinusOneWithTheFlagsIntact) {
    // Keep in column 0, cut in the last column, 2001 x 1000 unpainted between: one leaf of
    // 2,001,000 unknown pixels, more than one solve may take.
    const int w = 2003, h = 1000;
    PaddedPlane src(4 * w, h, 1, 60, 4), alpha(w, h, 1, 100, 3), aux(w, h, 1, 0, 2),
        dst(4 * w, h, 1, 0, 4);
    for (int y = 0; y < h; ++y) {
        alpha.at(0, y) = 255;
        alpha.at(w - 1, y) = 1;
        aux.at(0, y) = aux.at(w - 1, y) = 1;
    }
    alpha.at(500, 500) = 102;  // bit 1 set: normalising makes it 103
    KeepCutRequest req = qxtest::requestOver(src, alpha, aux, dst);
    const PaddedPlane before = alpha;
    EXPECT_EQ(qxKeepCutToAlpha(&req, 1), -1);
    EXPECT_EQ(alpha.buf, before.buf);
}

// A refinement of the region (20, 16) 50 x 44 of an 90 x 80 scene with a frame of 2: strokes
// from the tri-map, the earlier alpha 128 on every unpainted pixel.
struct MergeCase {
    StrokeScene scene{90, 80, 18.0, 30.0, 2, 128};
    explicit MergeCase(int mergeMode) {
        scene.alpha.at(40, 20) = 129;  // a painted partial value inside the region
        scene.syncAux();
        scene.setRegion(20, 16, 50, 44, 2);
        scene.req.mergeMode = mergeMode;
    }
};

TEST(KeepCutEntry, MergeModesLowerOrRaiseOnlyUnpaintedPixels) {
    const Budget budget;
    MergeCase none(2);  // any other mode merges nothing: the engine's own result
    const PaddedPlane before = none.scene.alpha;
    ASSERT_EQ(qxKeepCutToAlpha(&none.scene.req, 1), 1);
    const PaddedPlane& engine = none.scene.alpha;
    int raised = 0, lowered = 0;
    for (int y = 16; y < 60; ++y)
        for (int x = 20; x < 70; ++x) {
            raised += engine.at(x, y) > before.at(x, y);
            lowered += engine.at(x, y) < before.at(x, y);
        }
    ASSERT_GT(raised, 20);
    ASSERT_GT(lowered, 20);

    for (int mode : {0, 1}) {
        MergeCase c(mode);
        ASSERT_EQ(qxKeepCutToAlpha(&c.scene.req, 1), 1);
        for (int y = 0; y < 80; ++y)
            for (int x = 0; x < 90; ++x) {
                const unsigned char in = before.at(x, y), e = engine.at(x, y);
                const unsigned char expect =
                    (in & 1) ? e : mode == 0 ? std::min(e, in) : std::max(e, in);
                ASSERT_EQ(c.scene.alpha.at(x, y), expect) << mode << " " << x << "," << y;
            }
        EXPECT_EQ(c.scene.alpha.at(40, 20), 129);
    }
}

TEST(KeepCutEntry, RegionModeStatuses) {
    const Budget budget;
    {
        // No cut stroke at all, in a region smaller than the image: the frame holds the
        // earlier alpha, no stroke check is made, and the region is solved.
        MergeCase c(2);
        for (auto& v : c.scene.alpha.buf)
            if (v == 1) v = 0;
        c.scene.syncAux();
        const PaddedPlane before = c.scene.alpha;
        EXPECT_EQ(qxKeepCutToAlpha(&c.scene.req, 1), 1);
        EXPECT_NE(c.scene.alpha.buf, before.buf);
    }
    {
        // The same strokes with a region that is the whole image: the frame clips to nothing,
        // the bounding-box check fails, the flags are restored from the record (which also
        // marks (3, 3) as painted), and the call still reads 1.
        MergeCase c(2);
        for (auto& v : c.scene.alpha.buf)
            if (v == 1) v = 0;
        c.scene.syncAux();
        c.scene.aux.at(3, 3) = 1;
        c.scene.setRegion(0, 0, 90, 80, 2);
        const PaddedPlane before = c.scene.alpha;
        EXPECT_EQ(qxKeepCutToAlpha(&c.scene.req, 1), 1);
        PaddedPlane expect = before;
        expect.at(3, 3) |= 1;
        EXPECT_EQ(c.scene.alpha.buf, expect.buf);
    }
}

TEST(KeepCutEntry, ImageFailurePassesThroughWithFlagsRestored) {
    const Budget budget;
    MergeCase c(2);
    c.scene.aux.at(30, 30) = 1;  // the record has one more painted pixel than the plane
    const PaddedPlane before = c.scene.alpha;
    qx::prim::failNextAllocations(2);  // the first working image of the windowed engine
    EXPECT_EQ(qxKeepCutToAlpha(&c.scene.req, 1), 102);
    qx::prim::failNextAllocations(0);
    PaddedPlane expect = before;
    expect.at(30, 30) |= 1;
    EXPECT_EQ(c.scene.alpha.buf, expect.buf);
}

}  // namespace
