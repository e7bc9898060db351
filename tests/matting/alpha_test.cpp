// The solve from triples to alpha, the closed-form result on composites with a known alpha, and
// the sharpening.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "frame/progress.h"
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
    const std::vector<int> rows(m.lapRows, m.lapRows + count), cols(m.lapCols, m.lapCols + count);
    const std::vector<float> vals(m.lapVals, m.lapVals + count), diag(m.lapDiag, m.lapDiag + w * h);

    ASSERT_EQ(m.alphaMain(w, h, count, known, core, maskView), 0);
    EXPECT_EQ(m.lapRows, nullptr);  // the Laplacian is released once the system stands
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
// Narrow images take the general column sort instead of the neighbour buckets.
TEST(AlphaMain, NarrowImageMatchesADenseSolve) { checkAgainstDense(true, 4, 12); }

TEST(AlphaMain, TwoMillionSystemPixelsAreSolvedAndOneMoreThrows) {
    for (int extra : {0, 1}) {
        const int w = 2000, h = 1000;
        Plane8 known(w, h), core(w, h), mask(w, h);
        qx::Set(static_cast<unsigned char>(0), known);
        qx::Set(static_cast<unsigned char>(0), core);
        qx::Set(static_cast<unsigned char>(0), mask);
        if (extra) {
            // 3 x 666,667 all undecided: 2,000,001 system pixels.
            const int w3 = 3, h3 = 666667;
            Plane8 k2(w3, h3), c2(w3, h3), m2(w3, h3);
            qx::Set(static_cast<unsigned char>(0), k2);
            qx::Set(static_cast<unsigned char>(0), c2);
            qx::Set(static_cast<unsigned char>(0), m2);
            CFMatt m;
            m.lapRows = static_cast<int*>(std::malloc(4));
            m.lapCols = static_cast<int*>(std::malloc(4));
            m.lapVals = static_cast<float*>(std::malloc(4));
            m.lapDiag = static_cast<float*>(std::calloc(static_cast<size_t>(w3) * h3, 4));
            try {
                m.alphaMain(w3, h3, 0, k2, c2, m2);
                FAIL() << "no throw";
            } catch (int e) {
                EXPECT_EQ(e, -1);
            }
            EXPECT_EQ(m.lapDiag, nullptr);  // cleaned before the throw
            continue;
        }
        CFMatt m;
        m.lapRows = static_cast<int*>(std::malloc(4));
        m.lapCols = static_cast<int*>(std::malloc(4));
        m.lapVals = static_cast<float*>(std::malloc(4));
        m.lapDiag = static_cast<float*>(std::calloc(static_cast<size_t>(w) * h, 4));
        // No triples: every row has its zero diagonal alone. The solver's shift solves it.
        ASSERT_EQ(m.alphaMain(w, h, 0, known, core, mask), 0);
        for (int k = 0; k < w * h; k += 99991) EXPECT_EQ(m.alpha[k], 0.0f);
    }
}

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

TEST(CompAlpha, OuterFormSharpensAndKicksProgress) {
    qxtest::Composite comp(60, 50, 8, 16, 3);
    PaddedPlane mask = comp.trimap;
    int kicks = 0;
    qx::setProgProc([](int, int, void* p) { return ++*static_cast<int*>(p); }, &kicks, 1000, 1);
    CFMatt m;
    m.sharpen = 3.0f;
    EXPECT_EQ(m.CompAlpha(comp.planeArray(), comp.planes[0].step, comp.width, comp.height,
                          mask.data(), mask.step), 0);
    // compMap, Laplacian, two in the sort and merge, assembly, three solver phases, after the
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

TEST(CompAlpha, NoWindowLeavesOnlyTheLevelsRemap) {
    const int w = 8, h = 8;
    PaddedPlane planes[3] = {PaddedPlane(w, h), PaddedPlane(w, h), PaddedPlane(w, h)};
    unsigned char* ptrs[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
    PaddedPlane mask(w, h, 2, 20);  // all at bgCode or above fgCode: nothing undecided
    for (int x = 0; x < w; ++x) mask.at(x, 0) = 220;
    Plane8 v = view(mask);
    CFMatt m;
    m.bgCode = 20;
    m.fgCode = 200;  // range 180: multiplier 90
    EXPECT_EQ(m.CompAlpha(ptrs, planes[0].step, w, h, v), 4);
    EXPECT_EQ(mask.at(0, 0), 255);  // 200 * 90 / 64 = 281 -> 255
    EXPECT_EQ(mask.at(0, 1), 0);
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

// Per-pixel reference of the sharpening, written from its formulas.
int roundShift(int v, int s) { return std::min(255, (v + (1 << (s - 1)) - 1 + ((v >> s) & 1)) >> s); }

TEST(SharpenAlpha, MatchesAPerPixelReference) {
    const int w = 13, h = 11;
    std::mt19937 rng(9);
    std::uniform_int_distribution<int> byte(0, 255);
    PaddedPlane mask(w, h, 5);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) mask.at(x, y) = static_cast<unsigned char>(x < 6 ? 30 : byte(rng));
    const PaddedPlane in = mask;
    CFMatt m;
    m.sharpen = 3.0f;  // gain 192
    Plane8 v = view(mask);
    m.SharpenAlpha(v);

    static const int g55[5][5] = {{2, 7, 12, 7, 2}, {7, 31, 52, 31, 7}, {12, 52, 127, 52, 12},
                                  {7, 31, 52, 31, 7}, {2, 7, 12, 7, 2}};
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int a = in.at(x, y);
            int smooth = a, lo = a, hi = a;
            if (x >= 2 && y >= 2 && x < w - 2 && y < h - 2) {
                int s = 0;
                for (int j = 0; j < 5; ++j)
                    for (int i = 0; i < 5; ++i) s += g55[j][i] * in.at(x + i - 2, y + j - 2);
                smooth = static_cast<int>((static_cast<int64_t>(s + 286) * 29382) >> 24);
            }
            if (x >= 1 && y >= 1 && x < w - 1 && y < h - 1) {
                lo = 255, hi = 0;
                for (int j = -1; j <= 1; ++j)
                    for (int i = -1; i <= 1; ++i) {
                        lo = std::min<int>(lo, in.at(x + i, y + j));
                        hi = std::max<int>(hi, in.at(x + i, y + j));
                    }
            }
            int weight = roundShift((255 - (hi - lo)) * 192, 8);
            weight = std::min(255, weight + 64);
            const int down = roundShift(std::max(smooth - a, 0) * weight, 6);
            const int up = roundShift(std::max(a - smooth, 0) * weight, 6);
            const int want = std::max(0, std::min(255, smooth + up) - down);
            EXPECT_EQ(mask.at(x, y), want) << x << "," << y;
        }
    }
    EXPECT_TRUE(mask.padsIntact());
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
