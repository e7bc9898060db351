// The solve from triples to alpha, the closed-form result on composites with a known alpha, and
// the sharpening.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "runtime/progress.h"
#include "matting/cfmatt.h"
#include "matting_fixtures.h"

using qx::CFMatt;
using qx::Plane8;
using qxtest::PaddedPlane;

namespace {

Plane8 view(PaddedPlane& p) { return Plane8(p.width, p.height, p.data(), p.step); }

// Builds (L + C) x = C a densely from the triples, independently of the sparse assembly, and
// compares it with what alphaMain returns.
void checkAgainstDense(bool direct, int w = 11, int h = 9) {
    qxtest::RandomPlanes random(w, h, direct ? 3 : 4);
    PaddedPlane* planes = random.planes;
    PaddedPlane mask(w, h, 6, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) mask.at(x, y) = 3 * x < w ? 0 : 3 * x > 2 * w ? 255 : 128;
    unsigned char* ptrs[3] = {planes[0].data(), planes[1].data(), planes[2].data()};

    CFMatt m;
    m.useDirectSolver = direct ? 1 : 0;
    Plane8 maskView = view(mask);
    Plane8 known(w, h), core(w, h), fg(w, h);
    m.compMap(1, maskView, known, fg);
    qx::Copy(known, core);
    qx::ErodeMap3x3(core);
    int count = 0;
    ASSERT_EQ(m.compMatLap(core, ptrs, planes[0].step, &count), 0);
    // The triples' rows and columns: 45 a window, windows at the centres that are 0 in core
    // (inside the frame) in raster order, the pairs a <= b of its pixels in raster order.
    std::vector<int> rows, cols;
    for (int cy = 1; cy < h - 1; ++cy)
        for (int cx = 1; cx < w - 1; ++cx) {
            if (*core.ptr(cx, cy) != 0) continue;
            for (int a = 0; a < 9; ++a)
                for (int b = a; b < 9; ++b) {
                    rows.push_back((cy - 1 + a / 3) * w + cx - 1 + a % 3);
                    cols.push_back((cy - 1 + b / 3) * w + cx - 1 + b % 3);
                }
        }
    ASSERT_EQ(int(rows.size()), count);
    const std::vector<float> vals(m.lapVals, m.lapVals + count), diag(m.lapDiag, m.lapDiag + w * h);

    ASSERT_EQ(m.alphaMain(w, h, count, known, core, maskView), 0);
    EXPECT_EQ(m.lapVals, nullptr);  // the Laplacian is released once the system stands
    EXPECT_EQ(m.unknownIndex, nullptr);

    // System pixels: 0 in core after the second erosion, in raster order.
    std::vector<int> index(w * h, -1);
    int n = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (*core.ptr(x, y) == 0) index[y * w + x] = n++;
    ASSERT_GT(n, 0);
    std::vector<double> A(static_cast<size_t>(n) * n, 0.0), b(n, 0.0);
    for (int t = 0; t < count; ++t) {
        const int r = index[rows[t]], c = index[cols[t]];
        ASSERT_GE(r, 0);
        ASSERT_GE(c, 0);
        A[static_cast<size_t>(r) * n + c] -= vals[t];
        if (r != c) A[static_cast<size_t>(c) * n + r] -= vals[t];
    }
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int k = index[y * w + x];
            if (k < 0) continue;
            const double cw = *known.ptr(x, y);
            A[static_cast<size_t>(k) * n + k] += diag[y * w + x] + cw;
            b[k] = cw * *maskView.ptr(x, y) / 255.0;
        }
    const std::vector<double> x = qxtest::denseSolve(A, b);
    for (int k = 0; k < n; ++k) {
        const double want = std::clamp(x[k] * 255.0, 0.0, 255.0);
        EXPECT_NEAR(m.alpha[k], want, direct ? 0.05 : 1.5) << "pixel " << k;
    }
    std::free(m.alpha);
    m.alpha = nullptr;
}

TEST(AlphaMain, DirectSolveMatchesADenseSolve) { checkAgainstDense(true); }
TEST(AlphaMain, IterativeSolveMatchesADenseSolve) { checkAgainstDense(false); }

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

// The Cholesky form of the window affinities computes the same quantity as the adjugate form:
// on windows of random colours (well conditioned) the two Laplacians agree to float rounding.
TEST(CompAlpha, StableAffinitiesEqualTheAdjugateOnesForColours) {
    const int w = 23, h = 17;
    qxtest::RandomPlanes random(w, h, 11);
    unsigned char* ptrs[3] = {random.planes[0].data(), random.planes[1].data(),
                              random.planes[2].data()};
    PaddedPlane all(w, h, 2, 128);  // every window is used
    Plane8 core = view(all);
    qx::Set(static_cast<unsigned char>(0), core);
    std::vector<float> vals[2], diag[2];
    for (int stable = 0; stable < 2; ++stable) {
        CFMatt m;
        m.stableAffinities = stable != 0;
        int count = 0;
        ASSERT_EQ(m.compMatLap(core, ptrs, random.step(), &count), 0);
        vals[stable].assign(m.lapVals, m.lapVals + count);
        diag[stable].assign(m.lapDiag, m.lapDiag + w * h);
        m.cleanMemAll();
    }
    ASSERT_EQ(vals[0].size(), size_t(45 * (w - 2) * (h - 2)));
    for (size_t i = 0; i < vals[0].size(); ++i)
        ASSERT_NEAR(vals[1][i], vals[0][i], 1e-5 * (1.0 + std::fabs(vals[0][i]))) << i;
    for (size_t i = 0; i < diag[0].size(); ++i)
        ASSERT_NEAR(diag[1][i], diag[0][i], 1e-4 * (1.0 + std::fabs(diag[0][i]))) << i;
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
    PaddedPlane mask(3, 3, 2, 128);
    Plane8 v = view(mask);
    CFMatt m;
    EXPECT_EQ(m.CompAlpha(ptrs, planes[0].step, 3, 3, v), 2);  // 9 pixels: below 10
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(mask.at(x, y), 128);
}

TEST(OutAlpha, DefinitePixelsKeepTheirMaskValue) {
    PaddedPlane known(3, 1), core(3, 1), mask(3, 1);
    known.at(0, 0) = 255;  // definite but inside the system
    mask.at(0, 0) = 200;
    core.at(2, 0) = 255;   // outside the system: uses no element
    mask.at(2, 0) = 9;
    const float alpha[2] = {17.9f, 254.99f};
    Plane8 k = view(known), c = view(core), ms = view(mask);
    qx::outAlpha(alpha, 3, 1, k, c, ms);
    EXPECT_EQ(mask.at(0, 0), 200);
    EXPECT_EQ(mask.at(1, 0), 254);  // truncated
    EXPECT_EQ(mask.at(2, 0), 9);
}

TEST(SharpenAlpha, FlatMaskStaysFlat) {
    PaddedPlane mask(12, 12, 3, 77);
    CFMatt m;
    m.sharpen = 3.0f;
    Plane8 v = view(mask);
    m.SharpenAlpha(v);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x) EXPECT_EQ(mask.at(x, y), 77);
}

}  // namespace
