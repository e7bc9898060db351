// The tri-map job through the C interface: run choice, the three runs on composites with a known
// alpha, the hard-value rule, the final levels, progress and refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>

#include <vector>

#include "runtime/memory.h"
#include "matting/mask_job.h"
#include "solver/direct_solver.h"
#include "matting_fixtures.h"
#include "qxiveilon31.h"

using qx::RunKind;
using qxtest::Composite;
using qxtest::PaddedPlane;

namespace {

struct Job {
    Composite comp;
    PaddedPlane mask;
    MaskRequest req{};
    std::vector<int> progress;

    Job(int w, int h, double r0, double r1, int band) : comp(w, h, r0, r1, band) {
        mask = comp.trimap;
        req.planes = comp.planeArray();
        req.planeStep = comp.planes[0].step;
        req.mask = mask.data();
        req.maskStep = mask.step;
        req.width = w;
        req.height = h;
        req.progProc = [](int current, int, void* p) {
            static_cast<std::vector<int>*>(p)->push_back(current);
            return 0;
        };
        req.progParam = &progress;
    }
    int run(int hi = 255, int lo = 0) {
        return qxMaskAlpha(&req, 0, static_cast<float>(comp.unknownCount()), 255, 0, hi, lo);
    }
    int runPlain() {
        return qxMaskAlphaPlain(&req, static_cast<float>(comp.unknownCount()), 255, 0, 255, 0);
    }
    // Close to the truth, the hard-value rule kept and the pads of the tri-map untouched.
    void expectFinished(double maxError) const {
        EXPECT_LT(comp.meanError(mask), maxError);
        expectHardValueRule();
        EXPECT_TRUE(mask.padsIntact());
    }
    // Only pixels given as exactly 0 or 255 may come out as 0 or 255.
    void expectHardValueRule() const {
        for (int y = 0; y < comp.height; ++y)
            for (int x = 0; x < comp.width; ++x) {
                const int r = mask.at(x, y), t = comp.trimap.at(x, y);
                if (r == 0) {
                    ASSERT_EQ(t, 0) << x << "," << y;
                }
                if (r == 255) {
                    ASSERT_EQ(t, 255) << x << "," << y;
                }
            }
    }
};

class MaskAlpha : public ::testing::Test {
protected:
    void TearDown() override { qx::overrideMemStatus(nullptr); }
};

// The workflows' plain solve refines its single-precision solution once: that must still reach
// the accuracy the double-precision path would be asked for (a fallback would double the time),
// and the unsharpened closed-form solution is at least as close to the truth as the finished one.
TEST_F(MaskAlpha, DirectRunsRecoverAKnownAlphaThePlainOneRefiningOnce) {
    Job finished(160, 120, 25, 40, 4), plain(160, 120, 25, 40, 4);
    ASSERT_EQ(finished.run(), 1);
    finished.expectFinished(0.015);
    for (int c = 0; c < 3; ++c) EXPECT_TRUE(finished.comp.planes[c].padsIntact());

    qx::detail::resetDirectSolveTotals();
    ASSERT_EQ(plain.runPlain(), 1);
    const auto totals = qx::detail::directSolveTotals();
    EXPECT_EQ(totals.solves, 1);
    EXPECT_EQ(totals.fallbacks, 0);
    EXPECT_LE(plain.comp.meanError(plain.mask), finished.comp.meanError(finished.mask));
    plain.expectHardValueRule();
}

TEST_F(MaskAlpha, NaNCountRunsAndInfiniteCountIsRefused) {
    Job job(160, 120, 25, 40, 4);
    const auto before = job.mask.buf;
    EXPECT_EQ(qxMaskAlpha(&job.req, 0, INFINITY, 255, 0, 255, 0), -1000);
    EXPECT_EQ(job.mask.buf, before);
    EXPECT_EQ(qxMaskAlpha(&job.req, 0, std::nanf(""), 255, 0, 255, 0), 1);
    job.expectFinished(0.015);
}

// 1,560,000 pixels: never direct. The plain solve's reduced run takes no finishing step: its
// smaller regularisation keeps the doubled alpha as close to the truth as the sharpened,
// cleaned-up one of the settled solve.
TEST_F(MaskAlpha, HalfSizeRunsOnALargeImage) {
    Job finished(1300, 1200, 300, 360, 6), plain(1300, 1200, 300, 360, 6);
    ASSERT_EQ(finished.run(), 1);
    finished.expectFinished(0.01);
    ASSERT_EQ(finished.progress.size(), 13u);  // one more kick after the reduction
    EXPECT_EQ(finished.progress.back(), 65);
    ASSERT_EQ(plain.runPlain(), 1);
    EXPECT_EQ(plain.progress.size(), 13u);
    EXPECT_LE(plain.comp.meanError(plain.mask), finished.comp.meanError(finished.mask));
    plain.expectHardValueRule();
}

TEST_F(MaskAlpha, FreeSizeRunUnderATightBudget) {
    Job job(1300, 1200, 300, 360, 6);
    // need = 1920 * unknowns + 12 * pixels; a budget of need / 9 gives scale 3.
    const double need = 1920.0 * job.comp.unknownCount() + 12.0 * 1300 * 1200;
    const uint64_t bytes = static_cast<uint64_t>(need / 9.0 / 1000.0) * 1300;
    const qx::MemStatus s{bytes, bytes, bytes};
    qx::overrideMemStatus(&s);
    ASSERT_EQ(job.run(), 1);
    job.expectFinished(0.012);
}

TEST_F(MaskAlpha, IntermediateCodesNeverBecomeHardValues) {
    Job job(120, 90, 18, 30, 3);
    // A definite-looking code that is not 0 or 255 stays off the extremes.
    job.mask.at(0, 0) = 17;
    job.comp.trimap.at(0, 0) = 17;
    job.mask.at(60, 45) = 250;
    job.comp.trimap.at(60, 45) = 250;
    ASSERT_EQ(qxMaskAlpha(&job.req, 0, static_cast<float>(job.comp.unknownCount()), 250, 17,
                          255, 0), 1);
    EXPECT_EQ(job.mask.at(0, 0), 1);
    EXPECT_EQ(job.mask.at(60, 45), 254);
    job.expectHardValueRule();
}

// The levels (80, 16) map the plain result's 16..80 linearly onto the whole range: worked out
// by hand, (v - 16) * 255 / 64 within the hard values.
TEST_F(MaskAlpha, LevelsStretchTheResult) {
    Job plain(100, 80, 15, 25, 3), stretched(100, 80, 15, 25, 3);
    ASSERT_EQ(plain.run(), 1);
    ASSERT_EQ(stretched.run(80, 16), 1);
    int mid = 0;
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 100; ++x) {
            const int v = plain.mask.at(x, y);
            if (plain.comp.trimap.at(x, y) != 128 || v == 1 || v == 254) continue;
            const double want = std::clamp((v - 16) * 255.0 / 64.0, 1.0, 254.0);
            EXPECT_NEAR(stretched.mask.at(x, y), want, 1.0) << v << " at " << x << "," << y;
            mid += v > 40 && v < 70;
        }
    EXPECT_GT(mid, 20);
}

TEST_F(MaskAlpha, TriMapsWithoutUndecidedOrWithoutDefinitePixelsRunToTheEnd) {
    for (bool known : {true, false}) {
        Job job(50, 40, 8, 12, 0);
        for (int y = 0; y < 40; ++y)
            for (int x = 0; x < 50; ++x)
                job.mask.at(x, y) = job.comp.trimap.at(x, y) = !known ? 128 : x < 25 ? 0 : 255;
        EXPECT_EQ(job.run(), 1) << known;
        job.expectHardValueRule();
    }
}

}  // namespace
