#include "solver/direct_solver.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <SuiteSparse_config.h>

#include <cmath>
#include <cstdlib>
#include <set>

#include "solver/solver_test_util.h"

namespace {

using qxtest::Csr;
using Form = int (*)(int, const float*, const int*, const int*, float*, float*, int, int);

int thrown(Form f, const Csr<float>& m, std::vector<float> b, float* x, int nrhs = 1,
           int mtype = -2) {
    try {
        f(m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x, nrhs, mtype);
    } catch (int e) {
        return e;
    }
    return 0;
}

// [[4,1,0],[1,3,1],[0,1,2]] (1,2,3) = (6,10,8).
TEST(DirectSolver, FormsPutTheSolutionWhereTheyShouldAndKickProgress) {
    const auto m = qxtest::fromDense<float>({4, 1, 0, 1, 3, 1, 0, 1, 2}, 3);
    const std::vector<float> rhs{6, 10, 8};
    for (Form f : {Form(qx::pardisoSolverIC), Form(qx::pardisoSolverOOC)}) {
        qxtest::KickCounter counter;
        std::vector<float> b = rhs, x(3, 777.0f);
        EXPECT_EQ(f(3, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data(), 1, -2), 1);
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(b[size_t(i)], i + 1.0f, 1e-6);
        EXPECT_EQ(x, std::vector<float>(3, 777.0f));
        EXPECT_EQ(counter.kicks, 3);
    }
    {
        qxtest::KickCounter counter;
        std::vector<float> b = rhs, x(3, 777.0f);
        EXPECT_EQ(qx::pardisoSolverICPlain(3, m.a.data(), m.ia.data(), m.ja.data(), b.data(),
                                           x.data(), 1, 2), 1);
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(x[size_t(i)], i + 1.0f, 1e-6);
        EXPECT_EQ(b, rhs);
        EXPECT_EQ(counter.kicks, 2);
    }
    std::vector<float> b = rhs;
    EXPECT_EQ(qx::pardisoSolver(3, m.a.data(), m.ia.data(), m.ja.data(), b.data(), nullptr, 1, -2),
              0);
    EXPECT_NEAR(b[2], 3.0f, 1e-6);
}

// Several right-hand sides against a dense solve, and the same matrix stored untidily (columns
// reversed, diagonals split in two exact halves, junk below the diagonal) giving the same bits.
TEST(DirectSolver, MatchesDenseSolveAlsoFromUntidyStorage) {
    for (int n : {1, 30, 90}) {
        const auto dense = qxtest::randomSpd(n, unsigned(n));
        const auto tidy = qxtest::fromDense<float>(dense, n);
        Csr<float> untidy;
        for (int i = 0; i < n; ++i) {
            for (int j = n - 1; j > i; --j)
                if (dense[size_t(i * n + j)] != 0.0) untidy.add(j, dense[size_t(i * n + j)]);
            untidy.add(i, dense[size_t(i * n + i)] / 2), untidy.add(i, dense[size_t(i * n + i)] / 2);
            if (i > 0) untidy.add(0, -1e6);
            untidy.endRow();
        }
        const int nrhs = 2;
        std::vector<double> rhs(size_t(n * nrhs));
        for (size_t i = 0; i < rhs.size(); ++i) rhs[i] = double(int(i * 37 % 19) - 9);
        const auto ref = qxtest::denseSolve(dense, rhs, n, nrhs);
        std::vector<float> b1(rhs.begin(), rhs.end()), b2 = b1;
        ASSERT_EQ(qx::pardisoSolverIC(n, tidy.a.data(), tidy.ia.data(), tidy.ja.data(), b1.data(),
                                      nullptr, nrhs, -2), 1);
        ASSERT_EQ(qx::pardisoSolverIC(n, untidy.a.data(), untidy.ia.data(), untidy.ja.data(),
                                      b2.data(), nullptr, nrhs, -2), 1);
        for (size_t i = 0; i < rhs.size(); ++i) EXPECT_NEAR(b1[i], ref[i], 2e-6 * (1 + std::fabs(ref[i])));
        EXPECT_EQ(b1, b2);
    }
}

// Graph Laplacian of a side x side grid with random float weights over pixels [first, first +
// side*side) of an n-pixel system, with weight 255 on the constrained pixels.
void addGrid(std::vector<double>& m, int n, int first, int side, bool constrained, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> w(0.01f, 1.0f);
    for (int p = 0; p < side * side; ++p)
        for (int q : {p % side + 1 < side ? p + 1 : -1, p + side < side * side ? p + side : -1}) {
            if (q < 0) continue;
            const float v = w(rng);
            const int i = first + p, j = first + q;
            m[size_t(i * n + j)] = m[size_t(j * n + i)] = -v;
            m[size_t(i * n + i)] = float(m[size_t(i * n + i)] + v);
            m[size_t(j * n + j)] = float(m[size_t(j * n + j)] + v);
        }
    if (constrained)
        for (int y = 0; y < side; ++y) {
            m[size_t((first + y * side) * n + first + y * side)] += 255.0;
            m[size_t((first + y * side + side - 1) * n + first + y * side + side - 1)] += 255.0;
        }
}

// A matting system that is only semi-definite: a grid held by constraints at two sides, a grid
// with no constraint at all (its weights cancel only to float precision), and a pixel in no
// window, whose row is a zero diagonal. The shifted factorisation must solve it, reproduce the
// constrained grid's dense solution and leave the rest finite and near zero.
TEST(DirectSolver, SolvesSemiDefiniteMattingSystems) {
    const int side = 8, g = side * side, n = 2 * g + 1;
    std::vector<double> dense(size_t(n * n), 0.0);
    addGrid(dense, n, 0, side, true, 1);
    addGrid(dense, n, g, side, false, 2);
    std::vector<double> rhs(size_t(n), 0.0);
    for (int y = 0; y < side; ++y) rhs[size_t(y * side + side - 1)] = 255.0;
    const auto m = qxtest::fromDense<float>(dense, n);
    std::vector<double> heldDense(size_t(g * g));
    for (int i = 0; i < g; ++i)
        for (int j = 0; j < g; ++j)
            heldDense[size_t(i * g + j)] = double(float(dense[size_t(i * n + j)]));
    const auto ref = qxtest::denseSolve(heldDense, {rhs.begin(), rhs.begin() + g}, g);

    qx::detail::DirectSolveStats stats;
    std::vector<float> b(rhs.begin(), rhs.end());
    ASSERT_EQ(qx::detail::directSolve({}, n, m.a.data(), m.ia.data(), m.ja.data(), b.data(),
                                      nullptr, 1, -2, &stats), 1);
    EXPECT_GT(stats.shift, 0.0);
    for (int i = 0; i < g; ++i) EXPECT_NEAR(b[size_t(i)], ref[size_t(i)], 1e-5);
    for (int i = g; i < n; ++i) EXPECT_NEAR(b[size_t(i)], 0.0, 1e-3);

    // The held grid alone is definite: no shift, and the same answer.
    const auto held = qxtest::fromDense<float>(heldDense, g);
    std::vector<float> b2(rhs.begin(), rhs.begin() + g);
    ASSERT_EQ(qx::detail::directSolve({}, g, held.a.data(), held.ia.data(), held.ja.data(),
                                      b2.data(), nullptr, 1, -2, &stats), 1);
    EXPECT_EQ(stats.shift, 0.0);
    for (int i = 0; i < g; ++i) EXPECT_NEAR(b2[size_t(i)], b[size_t(i)], 1e-5);
}

TEST(DirectSolver, IndefiniteSystemsGoToLdl) {
    const auto m = qxtest::fromDense<float>({1, 2, 2, 1}, 2);
    qx::detail::DirectSolveStats stats;
    std::vector<float> b{3, 3};
    ASSERT_EQ(qx::detail::directSolve({}, 2, m.a.data(), m.ia.data(), m.ja.data(), b.data(),
                                      nullptr, 1, -2, &stats), 1);
    EXPECT_TRUE(stats.ldlFallback);
    EXPECT_NEAR(b[0], 1.0f, 1e-6);
    EXPECT_NEAR(b[1], 1.0f, 1e-6);
}

TEST(DirectSolver, MalformedArgumentsAreAnalysisErrors) {
    const auto m = qxtest::fromDense<float>({4, 1, 1, 3}, 2);
    auto badCol = m, badStart = m, empty = m, nan = m;
    badCol.ja[1] = 3, badStart.ia[0] = 0, empty.n = 0, nan.a[2] = std::nanf("");
    for (Form f : {Form(qx::pardisoSolverIC), Form(qx::pardisoSolverICPlain)}) {
        float x[2];
        EXPECT_EQ(thrown(f, badCol, {1, 1}, x), 121);
        EXPECT_EQ(thrown(f, badStart, {1, 1}, x), 121);
        EXPECT_EQ(thrown(f, empty, {1, 1}, x), 121);
        EXPECT_EQ(thrown(f, nan, {1, 1}, x), 121);
        EXPECT_EQ(thrown(f, m, {1, 1}, x, 0), 121);
        EXPECT_EQ(thrown(f, m, {1, 1}, x, 1, 11), 121);
    }
    EXPECT_EQ(thrown(qx::pardisoSolverICPlain, m, {1, 1}, nullptr), 121);
}

// CHOLMOD allocates through SuiteSparse_config; failing its k-th allocation, for every k until a
// solve gets through, takes each phase down the memory path in turn.
std::set<void*> live;
long allocations = 0, failAt = -1;
void* take(void* p) { return p ? (live.insert(p), p) : nullptr; }
bool refuse() { return allocations++ == failAt; }
void* fakeMalloc(size_t s) { return refuse() ? nullptr : take(std::malloc(s)); }
void* fakeCalloc(size_t n, size_t s) { return refuse() ? nullptr : take(std::calloc(n, s)); }
void* fakeRealloc(void* p, size_t s) {
    if (refuse()) return nullptr;
    live.erase(p);
    return take(std::realloc(p, s));
}
void fakeFree(void* p) { live.erase(p), std::free(p); }

TEST(DirectSolver, RunningOutOfMemoryReleasesEverythingInAnyPhase) {
    const auto saved = SuiteSparse_config;
    SuiteSparse_config.malloc_func = fakeMalloc, SuiteSparse_config.calloc_func = fakeCalloc;
    SuiteSparse_config.realloc_func = fakeRealloc, SuiteSparse_config.free_func = fakeFree;
    const int n = 40;
    const auto m = qxtest::fromDense<float>(qxtest::randomSpd(n, 3), n);
    const std::vector<float> rhs(size_t(n), 1.0f);
    std::vector<float> b = rhs, x(static_cast<size_t>(n));
    allocations = 0, failAt = -1;
    ASSERT_EQ(qx::pardisoSolverIC(n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), nullptr, 1,
                                  -2), 1);
    const long total = allocations;
    std::set<int> kicksSeen, thrownSeen;
    const int threads = omp_get_max_threads();  // the driver narrows the BLAS and must restore it
    for (failAt = 0; failAt < total; ++failAt) {
        qxtest::KickCounter counter;
        b = rhs, allocations = 0;
        const int result = qx::pardisoSolverIC(n, m.a.data(), m.ia.data(), m.ja.data(), b.data(),
                                               nullptr, 1, -2);
        EXPECT_TRUE(live.empty()) << failAt;
        if (result == 0) {
            EXPECT_EQ(b, rhs);
            kicksSeen.insert(counter.kicks);
        }
        allocations = 0;
        thrownSeen.insert(thrown(qx::pardisoSolverICPlain, m, rhs, x.data()));
        EXPECT_TRUE(live.empty()) << failAt;
        EXPECT_EQ(omp_get_max_threads(), threads);
    }
    SuiteSparse_config = saved;
    EXPECT_EQ(kicksSeen, (std::set<int>{0, 1, 2}));
    EXPECT_EQ(thrownSeen, (std::set<int>{0, 121, 122, 123}));
}

}  // namespace
