// The window solve: a composite's alpha recovered from its constraints, constraints and padding
// never written, and a window with nothing to solve left alone.
#include <gtest/gtest.h>

#include "keepcut/solve_alpha_window.h"
#include "matting/matting_fixtures.h"

using qxtest::Composite;
using qxtest::PaddedPlane;

namespace {

// Known map and alpha from a composite's tri-map: decided pixels are constraints with their
// code, undecided ones start at `fill`.
struct WindowJob {
    Composite comp;
    PaddedPlane known, alpha;
    WindowJob(int w, int h, unsigned char fill)
        : comp(w, h, 12.0, 20.0, 3), known(w, h, 9), alpha(w, h, 5) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const unsigned char t = comp.trimap.at(x, y);
                known.at(x, y) = t == 128 ? 0 : 255;
                alpha.at(x, y) = t == 128 ? fill : t;
            }
    }
    int solve(qx::CFMatt& matt) {
        return qx::solveAlphaWindow(matt, comp.planeArray(), comp.planes[0].step, comp.width,
                                    comp.height, known.data(), known.step, alpha.data(),
                                    alpha.step);
    }
};

TEST(SolveAlphaWindow, RecoversCompositeAndWritesOnlyUnknownPixels) {
    WindowJob job(48, 44, 77);
    // A partial constraint in the band comes through as it is.
    job.known.at(24, 5) = 255;
    job.alpha.at(24, 5) = 129;
    const PaddedPlane knownBefore = job.known;
    const PaddedPlane alphaBefore = job.alpha;

    qx::CFMatt matt;
    ASSERT_EQ(job.solve(matt), 0);
    EXPECT_EQ(matt.alpha, nullptr);  // the solution array is freed and cleared

    EXPECT_EQ(job.known.bytes, knownBefore.bytes);
    EXPECT_TRUE(job.alpha.padsIntact());
    int unknown = 0, stillFill = 0;
    for (int y = 0; y < job.comp.height; ++y)
        for (int x = 0; x < job.comp.width; ++x) {
            if (job.known.at(x, y) != 0) {
                ASSERT_EQ(job.alpha.at(x, y), alphaBefore.at(x, y)) << x << "," << y;
            } else {
                ++unknown;
                stillFill += job.alpha.at(x, y) == 77;
            }
        }
    ASSERT_GT(unknown, 100);
    EXPECT_LT(stillFill, unknown / 20);
    // Constant foreground and background: the colour-line model holds exactly, and the band's
    // linear ramp comes back to within a few levels.
    EXPECT_LT(job.comp.meanError(job.alpha), 0.02);
}

TEST(SolveAlphaWindow, NothingToSolveLeavesAlphaUntouched) {
    // Every pixel known: the Laplacian step finds no window and says so.
    WindowJob job(20, 20, 77);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x) job.known.at(x, y) = 255;
    job.alpha.at(10, 10) = 77;
    const PaddedPlane alphaBefore = job.alpha;
    qx::CFMatt matt;
    EXPECT_NE(job.solve(matt), 0);
    EXPECT_EQ(job.alpha.bytes, alphaBefore.bytes);
}

TEST(SolveAlphaWindow, LoneUnknownPixelTakesItsNeighboursValue) {
    // A flat window with one open pixel among constraints of 200: the only consistent alpha
    // for a pixel of the same colour is 200 (truncation may give 199).
    PaddedPlane plane(9, 9, 4, 90), known(9, 9, 3, 255), alpha(9, 9, 6, 200);
    known.at(4, 4) = 0;
    alpha.at(4, 4) = 3;
    unsigned char* planes[3] = {plane.data(), plane.data(), plane.data()};
    qx::CFMatt matt;
    ASSERT_EQ(qx::solveAlphaWindow(matt, planes, plane.step, 9, 9, known.data(), known.step,
                                   alpha.data(), alpha.step),
              0);
    EXPECT_GE(alpha.at(4, 4), 199);
    EXPECT_LE(alpha.at(4, 4), 200);
    EXPECT_TRUE(alpha.padsIntact());
}

}  // namespace
