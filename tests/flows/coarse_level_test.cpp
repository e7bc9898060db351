// The two-level preconditioner: the aggregates follow the pixels' cells, the coarse solve inverts
// P^T A P as the fine product sees it, the correction is symmetric and positive, a singular
// coarse matrix is shifted instead of refused, and the conjugate gradients with it reach the
// Jacobi solution in fewer iterations, with the same bits on one thread as on two, and still stop
// on a cancel between iterations.
#include <gtest/gtest.h>

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include "flows/coarse_level.h"
#include "flows/colour_mixture.h"
#include "flows/flow_pcg.h"
#include "flows/flow_solve.h"
#include "flows/flow_system.h"
#include "flows/known_unknown.h"
#include "flows/local_laplacian.h"
#include "flows/unknown_unknown.h"
#include "runtime/fault.h"
#include "runtime/progress.h"
#include "support/holes_scene.h"

using namespace qx::flows;
using flowtest::holesScene;
using flowtest::Scene;

namespace {

using Rows = std::vector<std::vector<std::pair<int, float>>>;

// A scene's system with all four terms at the workflows' weights, and its pixel sets.
struct SceneSystem {
    Scene scene;
    PixelSets sets;
    FlowSystem system;
};

SceneSystem sceneSystem(int size, int band) {
    SceneSystem out{holesScene(size, band), {}, {}};
    const FlowImage image = out.scene.image();
    out.sets = classifyPixels(image);
    const WeightRows cm = colourMixtureWeights(image, out.sets, {});
    const WeightRows uu = unknownUnknownWeights(image, out.sets, {});
    const WeightRows L = localLaplacianRows(image, out.sets, 1e-8);
    const KnownUnknownEstimate ku = knownUnknownFlow(image, out.sets, {});
    out.system = assembleFlowSystem(out.sets, {&cm, &L, &uu, &ku}, FlowWeights{});
    return out;
}

const SceneSystem& scene64() {
    static const SceneSystem ss = sceneSystem(64, 8);
    return ss;
}

std::unique_ptr<CoarseLevel> sceneLevel(const SceneSystem& ss, int aggregate, double drop = 0.01) {
    CoarseOptions o;
    o.aggregate = aggregate;
    o.minUnknowns = 1;
    o.dropTolerance = drop;
    return CoarseLevel::build(ss.system, ss.sets.unknown.data(), ss.scene.width, o);
}

SparseRows csr(Rows rows) {
    SparseRows m;
    for (auto& row : rows) {
        std::sort(row.begin(), row.end());
        for (const auto& [c, v] : row) m.cols.push_back(c), m.values.push_back(v);
        m.start.push_back(static_cast<int>(m.cols.size()));
    }
    return m;
}

// The 5-point Laplacian of a w x h grid with nothing held fixed (each row sums to zero: the
// constants are its null space), plus `diagonal` on every pixel; all pixels unknown.
FlowSystem gridLaplacian(int w, int h, float diagonal) {
    FlowSystem s;
    s.n = w * h;
    Rows rows(size_t(s.n));
    for (int p = 0; p < s.n; ++p) {
        const int x = p % w, y = p / w;
        float d = diagonal;
        for (const auto& [qx, qy] : {std::pair{x, y - 1}, {x - 1, y}, {x + 1, y}, {x, y + 1}})
            if (qx >= 0 && qx < w && qy >= 0 && qy < h)
                rows[size_t(p)].push_back({qy * w + qx, -1.0f}), d += 1.0f;
        rows[size_t(p)].push_back({p, d});
        s.diagonal.push_back(d);
    }
    s.explicitPart = csr(rows);
    s.rhs.assign(size_t(s.n), 0.0);
    return s;
}

// The coarse level of a system over a whole w-wide grid (unknown i is pixel i).
std::unique_ptr<CoarseLevel> gridLevel(const FlowSystem& sys, int w, int aggregate,
                                       int minUnknowns = 1,
                                       double factorBytes = CoarseOptions{}.factorBytesPerUnknown) {
    std::vector<int> pixels(size_t(sys.n));
    std::iota(pixels.begin(), pixels.end(), 0);
    CoarseOptions o;
    o.aggregate = aggregate;
    o.minUnknowns = minUnknowns;
    o.factorBytesPerUnknown = factorBytes;
    return CoarseLevel::build(sys, pixels.data(), w, o);
}

// `s` with the right-hand side A 1, so that its solution is 1 everywhere.
FlowSystem solvedByOnes(FlowSystem s) {
    std::vector<double> ones(size_t(s.n), 1.0), scratch, partial;
    s.apply(ones.data(), s.rhs.data(), scratch, partial);
    return s;
}

std::vector<double> randomVector(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(static_cast<size_t>(n));
    for (auto& x : v) x = u(rng);
    return v;
}

double dot(const std::vector<double>& a, const std::vector<double>& b) {
    double s = 0.0;
    for (size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
    return s;
}

}  // namespace

TEST(FlowsCoarseLevel, AggregatesAreTheNonEmptyCellsOfThePixels) {
    const SceneSystem& ss = scene64();
    const auto level = sceneLevel(ss, 5);
    ASSERT_TRUE(level);
    const std::vector<int>& agg = level->aggregateOf();
    ASSERT_EQ(agg.size(), ss.sets.unknown.size());
    std::set<std::pair<int, int>> cells;
    std::vector<std::pair<int, int>> cellOfAggregate(size_t(level->unknowns()), {-1, -1});
    for (size_t i = 0; i < agg.size(); ++i) {
        const int p = ss.sets.unknown[i], w = ss.scene.width;
        const std::pair<int, int> cell{p % w / 5, p / w / 5};
        cells.insert(cell);
        ASSERT_GE(agg[i], 0);
        ASSERT_LT(agg[i], level->unknowns());
        auto& seen = cellOfAggregate[size_t(agg[i])];
        if (seen.first < 0) seen = cell;
        EXPECT_EQ(seen, cell) << "unknown " << i;  // one cell an aggregate
    }
    // ... and one aggregate a cell.
    EXPECT_EQ(static_cast<int>(cells.size()), level->unknowns());
}

TEST(FlowsCoarseLevel, CoarseSolveInvertsTheGalerkinProductAndDroppedLinksOnlyShrinkIt) {
    // P^T A P y formed through the fine product (A by apply, P and P^T from the aggregates)
    // and handed to the coarse solve gives y back.
    const SceneSystem& ss = scene64();
    const int n = ss.system.n;
    ASSERT_GT(ss.system.mixture.cols.size(), size_t(n));  // the mixture's part is in it
    const auto level = sceneLevel(ss, 4, 0.0);  // every link kept: Ac is P^T A P itself
    ASSERT_TRUE(level);
    const int nc = level->unknowns();
    ASSERT_GT(nc, 50);
    const std::vector<int>& agg = level->aggregateOf();
    const std::vector<double> y = randomVector(nc, 3);
    const size_t un = static_cast<size_t>(n);
    std::vector<double> fine(un), Afine(un), coarse(static_cast<size_t>(nc), 0.0), scratch, work,
        partial;
    for (int i = 0; i < n; ++i) fine[size_t(i)] = y[size_t(agg[size_t(i)])];
    ss.system.apply(fine.data(), Afine.data(), scratch, partial);
    for (int i = 0; i < n; ++i) coarse[size_t(agg[size_t(i)])] += Afine[size_t(i)];
    level->solve(coarse.data(), work);
    double err = 0.0, scale = 0.0;
    for (int a = 0; a < nc; ++a) {
        err = std::max(err, std::abs(coarse[size_t(a)] - y[size_t(a)]));
        scale = std::max(scale, std::abs(y[size_t(a)]));
    }
    EXPECT_LT(err, 1e-6 * scale);
    EXPECT_EQ(level->shift(), 0.0);

    // Moving a link onto its ends' diagonals adds a positive semi-definite term, so the coarse
    // inverse can only shrink: g . Ac~^-1 g <= g . Ac^-1 g for every g, and stays positive.
    const auto dropped = sceneLevel(ss, 4, 0.1), c = sceneLevel(ss, 6);
    ASSERT_TRUE(dropped && c);
    ASSERT_EQ(dropped->unknowns(), nc);
    EXPECT_LT(dropped->factorEntries(), level->factorEntries());
    for (unsigned seed = 1; seed <= 5; ++seed) {
        const std::vector<double> g = randomVector(nc, seed);
        std::vector<double> ga = g, gb = g;
        level->solve(ga.data(), work);
        dropped->solve(gb.data(), work);
        EXPECT_GT(dot(g, gb), 0.0);
        EXPECT_LE(dot(g, gb), dot(g, ga) * (1.0 + 1e-9));
        // The fine correction is symmetric and positive.
        const std::vector<double> r1 = randomVector(n, seed), r2 = randomVector(n, seed + 100);
        std::vector<double> z1(un, 0.0), z2(un, 0.0);
        c->correct(r1.data(), z1.data(), work);
        c->correct(r2.data(), z2.data(), work);
        EXPECT_GT(dot(r1, z1), 0.0);
        EXPECT_GT(dot(r2, z2), 0.0);
        const double cross = dot(r1, z2), back = dot(r2, z1);
        EXPECT_NEAR(cross, back, 1e-9 * (std::abs(cross) + dot(r1, z1) + dot(r2, z2)));
    }
}

TEST(FlowsCoarseLevel, SingularCoarseMatrixIsShiftedNotRefused) {
    // Nothing holds the grid Laplacian's level: P^T A P is singular (P 1 = 1 is in A's null
    // space), so the coarse level has to come from a shifted factorisation.
    const int w = 40, h = 30;
    const auto level = gridLevel(gridLaplacian(w, h, 0.0f), w, 4);
    ASSERT_TRUE(level);
    EXPECT_EQ(level->unknowns(), 10 * 8);  // 40 / 4 across, 30 / 4 rounded up down the grid
    EXPECT_GT(level->shift(), 0.0);
    const std::vector<double> r = randomVector(w * h, 9);
    std::vector<double> z(size_t(w * h), 0.0), work;
    level->correct(r.data(), z.data(), work);
    for (double v : z) ASSERT_TRUE(std::isfinite(v));
    EXPECT_GT(dot(r, z), 0.0);
}

TEST(FlowsCoarseLevel, LeftOutWhenTooSmallOrNotAsked) {
    const FlowSystem sys = gridLaplacian(20, 20, 0.01f);
    EXPECT_FALSE(gridLevel(sys, 20, 0));
    EXPECT_FALSE(gridLevel(sys, 20, 4, 26));  // 25 aggregates
    EXPECT_TRUE(gridLevel(sys, 20, 4, 25));
    EXPECT_FALSE(gridLevel(sys, 20, 4, 25, 0.01));  // no factor fits
}

TEST(FlowsCoarseLevel, GridLaplacianNeedsFarFewerIterations) {
    // A weakly held grid: the diagonal alone removes smooth error one pixel a step, the coarse
    // level across the grid at once. The solution is known: A x = A 1 has x = 1.
    const int w = 120, h = 90;
    const FlowSystem sys = solvedByOnes(gridLaplacian(w, h, 1e-3f));
    const auto level = gridLevel(sys, w, 6);
    ASSERT_TRUE(level);
    std::vector<double> xj(size_t(sys.n), 0.0), xc(size_t(sys.n), 0.0);
    const PcgResult rj = solveFlowPcg(sys, xj.data(), 1e-8, 5000);
    const PcgResult rc = solveFlowPcg(sys, xc.data(), 1e-8, 5000, {}, level.get());
    EXPECT_LE(rj.relativeResidual, 1e-8);
    EXPECT_LE(rc.relativeResidual, 1e-8);
    EXPECT_LT(rc.iterations * 3, rj.iterations) << rc.iterations << " against " << rj.iterations;
    for (int i = 0; i < sys.n; ++i) ASSERT_NEAR(xc[size_t(i)], 1.0, 1e-4) << "pixel " << i;
}

TEST(FlowsCoarseLevel, CompositeReachesTheJacobiSolutionInFewerIterations) {
    const SceneSystem ss = sceneSystem(160, 12);
    const Scene& s = ss.scene;
    const auto level = sceneLevel(ss, 6);
    ASSERT_TRUE(level);
    // The whole solve at the workflows' tolerance: the same alpha within a level or two, as close
    // to the composite's truth, in fewer iterations.
    FlowOptions jacobi, twoLevel;
    twoLevel.coarse.aggregate = 6;
    twoLevel.coarse.minUnknowns = 1;
    jacobi.coarse.aggregate = 0;
    FlowStats sj, sc;
    std::vector<unsigned char> aj(s.tri.size()), ac(s.tri.size());
    flowAlpha(s.image(), jacobi, aj.data(), s.width, &sj);
    flowAlpha(s.image(), twoLevel, ac.data(), s.width, &sc);
    EXPECT_EQ(sj.coarseUnknowns, 0);
    EXPECT_EQ(sc.coarseUnknowns, level->unknowns());
    EXPECT_LT(sc.iterations, sj.iterations);
    int worst = 0;
    for (size_t p = 0; p < aj.size(); ++p) worst = std::max(worst, std::abs(aj[p] - ac[p]));
    EXPECT_LE(worst, 3);
    const double ej = flowtest::meanError(s, aj), ec = flowtest::meanError(s, ac);
    EXPECT_LT(ej, 0.1);
    EXPECT_NEAR(ec, ej, 0.25 / 255.0);
}

TEST(FlowsCoarseLevel, SameBitsOnOneThreadAsOnTwo) {
    // Large enough for the parallel loops (16,384 unknowns and more), with the colour mixtures'
    // rows that link pixels far apart; the system too is made on that many threads (the trees'
    // subtrees and the searches' runs).
    auto run = [&](int threads, int* iterations) {
        const int before = omp_get_max_threads();
        omp_set_num_threads(threads);
        const SceneSystem ss = sceneSystem(320, 16);
        EXPECT_GE(ss.system.n, 16384);
        const auto level = sceneLevel(ss, 4);
        std::vector<double> x(size_t(ss.system.n), 0.0);
        const PcgResult r = solveFlowPcg(ss.system, x.data(), 1e-8, 100, {}, level.get());
        omp_set_num_threads(before);
        *iterations = level ? r.iterations : -1;
        return x;
    };
    int i1 = 0, i2 = 0;
    const std::vector<double> x1 = run(1, &i1), x2 = run(2, &i2);
    ASSERT_GT(i1, 0);
    EXPECT_EQ(i1, i2);
    EXPECT_TRUE(x1 == x2);
}

TEST(FlowsCoarseLevel, CancelStopsTheSolveBetweenIterations) {
    const int w = 120, h = 90;
    const FlowSystem sys = solvedByOnes(gridLaplacian(w, h, 1e-6f));
    const auto level = gridLevel(sys, w, 6);
    ASSERT_TRUE(level);
    // Uncancelled it takes more than the 12 iterations the cancel should stop it at.
    std::vector<double> x(size_t(sys.n), 0.0);
    ASSERT_GT(solveFlowPcg(sys, x.data(), 1e-12, 5000, {}, level.get()).iterations, 12);
    std::fill(x.begin(), x.end(), 0.0);
    // The poll's own function raises the flag the second time it is called; the third poll sees
    // the flag before calling it.
    struct State { volatile int32_t flag = 0; int calls = 0; } state;
    Poll poll;
    poll.param = &state;
    poll.fn = [](void* p) {
        State& st = *static_cast<State*>(p);
        if (++st.calls == 2) st.flag = 1;
    };
    qx::setCancelFlag(&state.flag);
    int thrown = 0;
    try {
        solveFlowPcg(sys, x.data(), 1e-12, 5000, poll, level.get());
    } catch (const qx::Failure& e) {
        thrown = e.value();
    }
    qx::setCancelFlag(nullptr);
    EXPECT_EQ(thrown, int(qx::Fault::Cancelled));
    EXPECT_EQ(state.calls, 2);
}
