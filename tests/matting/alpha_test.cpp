// The closed-form result on composites with a known alpha, its refusals and the sharpening.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "runtime/progress.h"
#include "matting/cfmatt.h"
#include "matting_fixtures.h"

using qx::CFMatt;
using qx::Plane8;
using qxtest::PaddedPlane;

namespace {

Plane8 view(PaddedPlane& p) { return Plane8(p.width, p.height, p.data(), p.step); }

// Colour-line model: with constant foreground and background colours the image is an affine
// function of alpha in every window, and closed-form matting recovers alpha almost exactly.
TEST(CompAlpha, RecoversAKnownSoftEdge) {
    qxtest::Composite comp(90, 70, 14, 24, 3);
    PaddedPlane mask = comp.trimap;
    CFMatt m;
    Plane8 v = view(mask);
    ASSERT_EQ(m.CompAlpha(comp.planeArray(), comp.planes[0].step, comp.width, comp.height, v), 0);
    EXPECT_LT(comp.meanError(mask), 0.005);
    for (int y = 0; y < comp.height; ++y)
        for (int x = 0; x < comp.width; ++x)
            if (comp.trimap.at(x, y) != 128) {
                EXPECT_EQ(mask.at(x, y), comp.trimap.at(x, y));
            }
    EXPECT_TRUE(mask.padsIntact());
    EXPECT_EQ(m.alpha, nullptr);
}

// A grey image has a covariance of rank one in every window. With a small regularisation the
// adjugate's cancellation spoils the affinities; the Cholesky form keeps the colour-line
// solution of a grey composite.
TEST(CompAlpha, StableAffinitiesKeepGreyImagesExact) {
    qxtest::Composite comp(90, 70, 14, 24, 3);
    for (int c = 1; c < 3; ++c) comp.planes[c] = comp.planes[0];
    double error[2];
    for (int stable = 0; stable < 2; ++stable) {
        PaddedPlane mask = comp.trimap;
        CFMatt m;
        m.epsilon = 1e-9;
        m.stableAffinities = stable != 0;
        Plane8 v = view(mask);
        ASSERT_EQ(m.CompAlpha(comp.planeArray(), comp.planes[0].step, comp.width, comp.height, v),
                  0);
        error[stable] = comp.meanError(mask);
    }
    EXPECT_LT(error[1], 0.005);        // 0.0017
    EXPECT_GT(error[0], 5 * error[1]);  // 0.034
}

TEST(CompAlpha, OuterFormSharpensAndKicksProgress) {
    qxtest::Composite comp(60, 50, 8, 16, 3);
    PaddedPlane mask = comp.trimap;
    int kicks = 0;
    qx::setProgProc([](int, int, void* p) { return ++*static_cast<int*>(p); }, &kicks, 1000, 1);
    CFMatt m;
    m.sharpen = 3.0f;
    EXPECT_EQ(m.CompAlpha(comp.planeArray(), comp.planes[0].step, comp.width, comp.height,
                          mask.data(), mask.step), 0);
    // compMap, Laplacian, two for the windows' map, assembly, three solver phases, after the
    // solve, and the outer form's own.
    EXPECT_EQ(kicks, 10);
    EXPECT_LT(comp.meanError(mask), 0.02);
    EXPECT_TRUE(mask.padsIntact());
    qx::initProgProc();
}

TEST(CompAlpha, RefusedSizesLeaveTheMask) {
    PaddedPlane planes[3] = {PaddedPlane(3, 3), PaddedPlane(3, 3), PaddedPlane(3, 3)};
    unsigned char* ptrs[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
    PaddedPlane mask(3, 3, 1, 128, 2);
    Plane8 v = view(mask);
    CFMatt m;
    EXPECT_EQ(m.CompAlpha(ptrs, planes[0].step, 3, 3, v), 2);  // 9 pixels: below 10
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(mask.at(x, y), 128);
}

TEST(SharpenAlpha, FlatMaskStaysFlat) {
    PaddedPlane mask(12, 12, 1, 77, 3);
    CFMatt m;
    m.sharpen = 3.0f;
    Plane8 v = view(mask);
    m.SharpenAlpha(v);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x) EXPECT_EQ(mask.at(x, y), 77);
}

}  // namespace
