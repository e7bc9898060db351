// Constraint maps and the matting Laplacian.
#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <map>
#include <random>
#include <utility>

#include <omp.h>
#include <cstring>

#include "matting/cfmatt.h"
#include "matting_fixtures.h"

using qx::CFMatt;
using qx::Plane8;
using qxtest::PaddedPlane;

namespace {

Plane8 view(PaddedPlane& p) { return Plane8(p.width, p.height, p.data(), p.step); }

// compMap over one row of codes; the planes after the call.
struct MapRun {
    PaddedPlane tri, known, fg;
    MapRun(std::initializer_list<unsigned char> codes, int fgCode, int bgCode, int applyLevels)
        : tri(static_cast<int>(codes.size()), 1), known(tri.width, 1), fg(tri.width, 1) {
        int x = 0;
        for (unsigned char c : codes) tri.at(x++, 0) = c;
        Plane8 t = view(tri), k = view(known), f = view(fg);
        CFMatt m;
        m.fgCode = static_cast<unsigned char>(fgCode);
        m.bgCode = static_cast<unsigned char>(bgCode);
        m.compMap(applyLevels, t, k, f);
    }
};

TEST(ConstraintMap, NarrowCodesAreStretchedWithATruncatedMultiplier) {
    // fg 200, bg 50: multiplier min(16320 / 150, 255) = 108, so 200 -> 150 * 108 / 64 = 253.1
    // -> 253: such a tri-map has no definite foreground at all.
    MapRun r({40, 50, 125, 200}, 200, 50, 1);
    // 125 -> 75 * 108 = 8100 / 64 = 126.5625 -> 127
    EXPECT_EQ(r.tri.at(0, 0), 0);
    EXPECT_EQ(r.tri.at(1, 0), 0);
    EXPECT_EQ(r.tri.at(2, 0), 127);
    EXPECT_EQ(r.tri.at(3, 0), 253);
    EXPECT_EQ(r.known.at(0, 0), 255);
    EXPECT_EQ(r.known.at(1, 0), 255);
    EXPECT_EQ(r.known.at(2, 0), 0);
    EXPECT_EQ(r.known.at(3, 0), 0);
    EXPECT_EQ(r.fg.at(3, 0), 0);
    EXPECT_TRUE(r.tri.padsIntact() && r.known.padsIntact() && r.fg.padsIntact());
}

TEST(ConstraintMap, DividingRangesReach255AndFullRangeIsUntouched) {
    // range 190: 16320 / 190 = 85, 190 * 85 / 64 = 252.3: not 255
    MapRun narrow({10, 200, 100}, 200, 10, 1);
    EXPECT_EQ(narrow.tri.at(1, 0), 252);

    MapRun natural({0, 255, 77}, 255, 0, 1);  // codes 255 / 0: the plane is read as it stands
    EXPECT_EQ(natural.tri.at(2, 0), 77);
    EXPECT_EQ(natural.known.at(0, 0), 255);
    EXPECT_EQ(natural.known.at(1, 0), 255);
    EXPECT_EQ(natural.known.at(2, 0), 0);
    EXPECT_EQ(natural.fg.at(1, 0), 255);
    EXPECT_EQ(natural.fg.at(0, 0), 0);
}

TEST(ConstraintMap, WithoutLevelsTheCodesAreThresholds) {
    MapRun r({50, 51, 199, 200}, 200, 50, 0);
    EXPECT_EQ(r.tri.at(0, 0), 50);  // unchanged
    EXPECT_EQ(r.known.at(0, 0), 255);
    EXPECT_EQ(r.known.at(1, 0), 0);
    EXPECT_EQ(r.known.at(2, 0), 0);
    EXPECT_EQ(r.known.at(3, 0), 255);
    EXPECT_EQ(r.fg.at(3, 0), 255);
}

TEST(ErodeMap, SingleHoleOpensItsBlockAndEdgesDoNotErode) {
    PaddedPlane map(6, 5, 4, 255);
    Plane8 v = view(map);
    qx::ErodeMap3x3(v);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(map.at(x, y), 255);

    map.at(3, 2) = 0;
    map.at(0, 4) = 0;  // corner
    qx::ErodeMap3x3(v);
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 6; ++x) {
            const bool nearHole = std::abs(x - 3) <= 1 && std::abs(y - 2) <= 1;
            const bool nearCorner = x <= 1 && y >= 3;
            EXPECT_EQ(map.at(x, y), nearHole || nearCorner ? 0 : 255) << x << "," << y;
        }
    }
    EXPECT_TRUE(map.padsIntact());
}

TEST(WindowHelpers, IndicesAndCopiesFollowWindowOrder) {
    int idx[9];
    qx::winIdx(2, 3, 10, idx);
    const int expected[9] = {21, 22, 23, 31, 32, 33, 41, 42, 43};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(idx[i], expected[i]);

    unsigned char bytes[3 * 5];
    for (int i = 0; i < 15; ++i) bytes[i] = static_cast<unsigned char>(i * 17);
    double out[9];
    qx::copy3x3(bytes + 5 + 1, 5, out);  // around (1, 1), step 5
    const int src[9] = {0, 1, 2, 5, 6, 7, 10, 11, 12};
    for (int i = 0; i < 9; ++i) EXPECT_DOUBLE_EQ(out[i], src[i] * 17 * 0.00392156862745098);

    int ints[3 * 4];
    for (int i = 0; i < 12; ++i) ints[i] = i - 5;
    int iout[9];
    qx::copy3x3(ints + 4 + 1, 4 * sizeof(int), iout);
    const int isrc[9] = {0, 1, 2, 4, 5, 6, 8, 9, 10};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(iout[i], isrc[i] - 5);

    unsigned char rgb[3 * 3 * 3];
    for (int i = 0; i < 27; ++i) rgb[i] = static_cast<unsigned char>(i);
    double c3[27];
    qx::copy3x3C3(rgb + 9 + 3, 9, c3);
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < 9; ++k)
            EXPECT_DOUBLE_EQ(c3[9 * c + k], (3 * k + c) * 0.00392156862745098);
}

// A 3x3 image with an undecided centre: one window, 45 triples; a uniform window gives all
// affinities 1/9.
TEST(Laplacian, UniformThreeByThreeGivesFortyFiveNinths) {
    PaddedPlane core(3, 3, 2, 255);
    core.at(1, 1) = 0;
    PaddedPlane planes[3] = {PaddedPlane(3, 3, 2, 90), PaddedPlane(3, 3, 2, 90), PaddedPlane(3, 3, 2, 90)};
    unsigned char* ptrs[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
    Plane8 c = view(core);
    CFMatt m;
    int count = -1;
    ASSERT_EQ(m.compMatLap(c, ptrs, planes[0].step, &count), 0);
    ASSERT_EQ(count, 45);
    for (int t = 0; t < 45; ++t) {
        EXPECT_LE(m.lapRows[t], m.lapCols[t]);
        EXPECT_NEAR(m.lapVals[t], 1.0f / 9.0f, 1e-6f);
    }
    for (int p = 0; p < 9; ++p) EXPECT_NEAR(m.lapDiag[p], 1.0f, 1e-5f);
}

TEST(Laplacian, NothingToDoReturnsFourAndAllocatesNothing) {
    PaddedPlane planes[3] = {PaddedPlane(2, 8), PaddedPlane(2, 8), PaddedPlane(2, 8)};
    unsigned char* ptrs[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
    PaddedPlane narrow(2, 8, 3, 0);
    Plane8 n = view(narrow);
    CFMatt m;
    int count = -1;
    EXPECT_EQ(m.compMatLap(n, ptrs, planes[0].step, &count), 4);
    EXPECT_EQ(m.lapVals, nullptr);

    PaddedPlane full(6, 6, 3, 255);  // interior all definite
    PaddedPlane p6[3] = {PaddedPlane(6, 6), PaddedPlane(6, 6), PaddedPlane(6, 6)};
    unsigned char* q[3] = {p6[0].data(), p6[1].data(), p6[2].data()};
    Plane8 f = view(full);
    EXPECT_EQ(m.compMatLap(f, q, p6[0].step, &count), 4);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(m.lapVals, nullptr);
    EXPECT_EQ(m.lapDiag, nullptr);
}

TEST(Laplacian, OversizedEstimateThrowsBeforeAllocating) {
    // 3000 x 3000 undecided: 2998^2 windows * 50 is over 400,000,000.
    const int w = 3000, h = 3000;
    Plane8 core(w, h);
    qx::Set(static_cast<unsigned char>(0), core);
    std::vector<unsigned char> plane(static_cast<size_t>(w) * h, 0);
    unsigned char* ptrs[3] = {plane.data(), plane.data(), plane.data()};
    CFMatt m;
    int count = 0;
    try {
        m.compMatLap(core, ptrs, w, &count);
        FAIL() << "no throw";
    } catch (int e) {
        EXPECT_EQ(e, -1);
    }
    EXPECT_EQ(count, 2998 * 2998 * 50);
    EXPECT_EQ(m.lapVals, nullptr);
}

// Assembles the dense Laplacian from the triples and row sums: symmetric, with every row
// summing to zero (each window's affinity block sums to the same value both ways).
TEST(Laplacian, RowsSumToZeroOnRandomColours) {
    const int w = 9, h = 7;
    qxtest::RandomPlanes random(w, h, 5);
    PaddedPlane* planes = random.planes;
    PaddedPlane core(w, h, 4, 255);
    for (int y = 2; y < 6; ++y)
        for (int x = 1; x < 7; ++x) core.at(x, y) = 0;
    unsigned char** ptrs = random.ptrs;
    Plane8 c = view(core);
    CFMatt m;
    int count = 0;
    ASSERT_EQ(m.compMatLap(c, ptrs, planes[0].step, &count), 0);
    EXPECT_EQ(count, 45 * 4 * 6);

    std::vector<double> L(static_cast<size_t>(w * h) * w * h, 0.0);
    auto at = [&](int r, int col) -> double& { return L[static_cast<size_t>(r) * w * h + col]; };
    for (int t = 0; t < count; ++t) {
        const int r = m.lapRows[t], col = m.lapCols[t];
        ASSERT_LE(r, col);
        at(r, col) -= m.lapVals[t];
        if (r != col) at(col, r) -= m.lapVals[t];
    }
    for (int p = 0; p < w * h; ++p) at(p, p) += m.lapDiag[p];
    double maxDiag = 0;
    for (int p = 0; p < w * h; ++p) {
        double sum = 0;
        for (int q = 0; q < w * h; ++q) sum += at(p, q);
        maxDiag = std::max(maxDiag, at(p, p));
        EXPECT_NEAR(sum, 0.0, 2e-3 * std::max(1.0, at(p, p))) << "row " << p;
    }
    EXPECT_GT(maxDiag, 0.5);
}

}  // namespace

namespace {

// Rows are built in three passes of every third row so that row sums are added in one fixed
// order: the result must not depend on the number of threads.
TEST(Laplacian, IdenticalWithOneOrTwoThreads) {
    const int w = 37, h = 29;
    qxtest::RandomPlanes random(w, h, 11);
    PaddedPlane* planes = random.planes;
    PaddedPlane core(w, h, 4, 0);
    for (int x = 0; x < w; ++x) core.at(x, 5) = 255;
    unsigned char* ptrs[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
    auto build = [&](int threads, CFMatt& m) {
        const int saved = omp_get_max_threads();
        omp_set_num_threads(threads);
        Plane8 c = view(core);
        int count = 0;
        EXPECT_EQ(m.compMatLap(c, ptrs, planes[0].step, &count), 0);
        omp_set_num_threads(saved);
        return count;
    };
    CFMatt one, two;
    const int n1 = build(1, one), n2 = build(2, two);
    ASSERT_EQ(n1, n2);
    EXPECT_EQ(n1, 45 * (35 * 27 - 35));  // interior windows less the definite row
    EXPECT_EQ(0, std::memcmp(one.lapRows, two.lapRows, sizeof(int) * n1));
    EXPECT_EQ(0, std::memcmp(one.lapCols, two.lapCols, sizeof(int) * n1));
    EXPECT_EQ(0, std::memcmp(one.lapVals, two.lapVals, sizeof(float) * n1));
    EXPECT_EQ(0, std::memcmp(one.lapDiag, two.lapDiag, sizeof(float) * w * h));
}

}  // namespace
