#include "resample/mask_pyr.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "planes.h"
#include "resample/upsample2x.h"

namespace qx {
namespace {

using test::Plane8;

// A level-0 job held in padded caller planes.
struct Job {
    Plane8 c0, c1, c2, known, alpha;
    GIMG<unsigned char> v0, v1, v2, vk, va;
    GIMG<unsigned char>* planes[3];
    Job(int w, int h, unsigned seed)
        : c0(w, h), c1(w, h), c2(w, h), known(w, h), alpha(w, h),
          v0(c0.view()), v1(c1.view()), v2(c2.view()), vk(known.view()), va(alpha.view()),
          planes{&v0, &v1, &v2} {
        std::mt19937 rng(seed);
        c0.fillRandom(rng, 0, 255);
        c1.fillRandom(rng, 0, 255);
        c2.fillRandom(rng, 0, 255);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) known.at(x, y) = (rng() & 1) ? 255 : 0;
        alpha.fillRandom(rng, 0, 255);
    }
    int build(CMaskPyr& pyr, int levels) { return pyr.build(planes, &vk, &va, levels); }
};

TEST(MaskPyr, ZeroLevelsOnlyBorrowsTheCallersImages) {
    Job job(9, 9, 1);
    CMaskPyr pyr;
    EXPECT_EQ(pyr.levels, -1);
    EXPECT_EQ(pyr.getAlpha(0), nullptr);
    // Every allocation fails from here: a level-0 build must not need one.
    prim::failNextAllocations(1000);
    const int rc = job.build(pyr, 0);
    prim::failNextAllocations(0);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(pyr.levels, 0);
    EXPECT_EQ(pyr.getAlpha(0), &job.va);
    EXPECT_EQ(pyr.getKnown(0), &job.vk);
    EXPECT_EQ(pyr.getPlane(2, 0), &job.v2);
    EXPECT_EQ(pyr.getAlpha(1), nullptr);
    EXPECT_EQ(pyr.getPlane(0, 1), nullptr);
    for (int l = 1; l < 4; ++l) {
        EXPECT_EQ(pyr.plane0[l], nullptr);
        EXPECT_EQ(pyr.alpha[l], nullptr);
    }
}

TEST(MaskPyr, RefusedLevelCountsChangeNothing) {
    Job job(9, 9, 2);
    CMaskPyr pyr;
    EXPECT_EQ(job.build(pyr, 4), 1);
    EXPECT_EQ(job.build(pyr, -1), 1);
    EXPECT_EQ(pyr.levels, -1);
    EXPECT_EQ(pyr.getAlpha(0), nullptr);

    ASSERT_EQ(job.build(pyr, 2), 0);
    GIMG<unsigned char>* level2 = pyr.getAlpha(2);
    EXPECT_EQ(job.build(pyr, 4), 1);
    EXPECT_EQ(pyr.levels, 2);
    EXPECT_EQ(pyr.getAlpha(2), level2);

    // A level that would have to halve a single row or column is refused too.
    Job thin(9, 3, 3);  // 9x3 -> 5x2 -> 3x1 -> (1 row cannot be halved)
    CMaskPyr other;
    EXPECT_EQ(thin.build(other, 3), 1);
    EXPECT_EQ(other.levels, -1);
    EXPECT_EQ(thin.build(other, 2), 0);
}

TEST(MaskPyr, NineByNineGivesFiveThreeAndTwo) {
    Job job(9, 9, 4);
    CMaskPyr pyr;
    ASSERT_EQ(job.build(pyr, 3), 0);
    EXPECT_EQ(pyr.getLevels(), 3);
    const int sizes[4] = {9, 5, 3, 2};
    for (int l = 0; l <= 3; ++l) {
        for (GIMG<unsigned char>* img : {pyr.getPlane(0, l), pyr.getPlane(1, l),
                                         pyr.getPlane(2, l), pyr.getKnown(l), pyr.getAlpha(l)}) {
            ASSERT_NE(img, nullptr);
            EXPECT_EQ(img->width, sizes[l]) << "level " << l;
            EXPECT_EQ(img->height, sizes[l]) << "level " << l;
        }
    }
    EXPECT_EQ(pyr.getAlpha(4), nullptr);
    // The known map stays binary all the way up.
    for (int l = 1; l <= 3; ++l) {
        const GIMG<unsigned char>& k = *pyr.getKnown(l);
        for (int y = 0; y < k.height; ++y)
            for (int x = 0; x < k.width; ++x) {
                const int v = *k.ptr(x, y);
                EXPECT_TRUE(v == 0 || v == 255) << "level " << l;
            }
    }
}

TEST(MaskPyr, OddSizeRepeatsTheLastWrittenRowThenColumn) {
    Job job(5, 5, 5);
    CMaskPyr pyr;
    ASSERT_EQ(job.build(pyr, 1), 0);
    const GIMG<unsigned char>& a = *pyr.getAlpha(1);
    ASSERT_EQ(a.width, 3);
    ASSERT_EQ(a.height, 3);
    auto at = [](const GIMG<unsigned char>& img, int x, int y) { return int(*img.ptr(x, y)); };
    // Plain decimation in the written 2 x 2, then row 2 := row 1, column 2 := column 1: the
    // corner takes (1, 1).
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x) {
            const int sx = 2 * std::min(x, 1), sy = 2 * std::min(y, 1);
            EXPECT_EQ(at(a, x, y), job.alpha.at(sx, sy)) << x << "," << y;
        }
    // Colour planes: the smoothed halving, with the same fix-up.
    Plane8 half(2, 2);
    GIMG<unsigned char> hv = half.view();
    CDnsampleQX2X(job.v1, hv, 1);
    const GIMG<unsigned char>& c = *pyr.getPlane(1, 1);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x)
            EXPECT_EQ(at(c, x, y), half.at(std::min(x, 1), std::min(y, 1))) << x << "," << y;
}

TEST(MaskPyr, CleanUpKeepsTheCallersImagesAndAllowsRebuild) {
    Job job(12, 10, 6);
    const Plane8 alphaBefore = job.alpha;
    {
        CMaskPyr pyr;
        ASSERT_EQ(job.build(pyr, 2), 0);
        ASSERT_EQ(job.build(pyr, 3), 0);  // the first build's levels are released
        pyr.cleanUp();
        EXPECT_EQ(pyr.levels, 3);
        for (int l = 0; l < 4; ++l) {
            EXPECT_EQ(pyr.alpha[l], nullptr);
            EXPECT_EQ(pyr.plane2[l], nullptr);
            EXPECT_EQ(pyr.known[l], nullptr);
        }
        ASSERT_EQ(job.build(pyr, 1), 0);
    }  // the destructor deletes level 1 only
    // The caller's level 0 is alive and unchanged; its views still work.
    EXPECT_TRUE(test::samePixels(job.alpha, alphaBefore));
    Set(static_cast<unsigned char>(3), job.va);
    EXPECT_EQ(job.alpha.at(11, 9), 3);
    EXPECT_TRUE(job.alpha.padIntact());
}

TEST(MaskPyr, FailedLevelAllocationThrowsAndLeavesAConsistentPyramid) {
    Job job(9, 9, 9);
    CMaskPyr pyr;
    prim::failNextAllocations(2);
    int thrown = 0;
    try {
        job.build(pyr, 2);
    } catch (int e) {
        thrown = e;
    }
    prim::failNextAllocations(0);
    EXPECT_EQ(thrown, 102);
    EXPECT_EQ(pyr.getAlpha(0), &job.va);  // level 0 was stored before the failure
    EXPECT_EQ(pyr.plane0[1], nullptr);
    // The pyramid can be built again and released as usual.
    EXPECT_EQ(job.build(pyr, 2), 0);
    EXPECT_NE(pyr.getAlpha(2), nullptr);
}

TEST(MaskPyr, UpSamplingWithZeroLevelsDoesNothing) {
    Job job(8, 8, 7);
    const Plane8 alphaBefore = job.alpha;
    CMaskPyr pyr;
    pyr.upSampling();  // before any build
    ASSERT_EQ(job.build(pyr, 0), 0);
    pyr.upSampling();
    EXPECT_EQ(pyr.upSamplingOneLevel(1), 0);
    EXPECT_EQ(pyr.upSamplingOneLevel(0), 0);
    EXPECT_TRUE(test::samePixels(job.alpha, alphaBefore));
}

TEST(MaskPyr, UpSamplingRunsTheGuidedDoublerFromTheTopDown) {
    // Two levels: 16x12 -> 8x6 -> 4x3. Expected: the doubler with sigma 9, level 2 into a copy
    // of level 1, then that into a copy of level 0, each guided by the finer colour.
    Job job(16, 12, 8);
    CMaskPyr pyr;
    ASSERT_EQ(job.build(pyr, 2), 0);
    const Plane8 knownBefore = job.known;

    Plane8 a1(8, 6), a0 = job.alpha;
    GIMG<unsigned char> a1v = a1.view(), a0v = a0.view();
    Copy(*pyr.getAlpha(1), a1v);
    // The coarse alpha is changed (the caller "solves" it) before going up.
    Set(static_cast<unsigned char>(200), *pyr.getAlpha(2));
    *pyr.getAlpha(2)->ptr(1, 1) = 10;
    {
        GIMG<unsigned char>* s[1] = {pyr.getAlpha(2)};
        GIMG<unsigned char>* b[1] = {&a1v};
        GIMG<unsigned char>* g[3] = {pyr.getPlane(0, 1), pyr.getPlane(1, 1), pyr.getPlane(2, 1)};
        ASSERT_EQ(CUpSampleQX2X(s, b, 1, g, 3, 9.0f), 1);
        GIMG<unsigned char>* s0[1] = {&a1v};
        GIMG<unsigned char>* b0[1] = {&a0v};
        ASSERT_EQ(CUpSampleQX2X(s0, b0, 1, job.planes, 3, 9.0f), 1);
    }
    EXPECT_EQ(pyr.upSampling(), 1);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x) EXPECT_EQ(*pyr.getAlpha(1)->ptr(x, y), a1.at(x, y));
    EXPECT_TRUE(test::samePixels(job.alpha, a0));
    EXPECT_EQ(job.alpha.at(4, 4), 10);  // the solved coarse value reached the caller
    EXPECT_TRUE(test::samePixels(job.known, knownBefore));
    EXPECT_TRUE(job.alpha.padIntact());
}

}  // namespace
}  // namespace qx
