#include "solver/direct_solver.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <SuiteSparse_config.h>
#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <ctime>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <set>
#include <tuple>

#include "solver/solver_test_util.h"

namespace {

using qxtest::Csr;
using Form = int (*)(int, const float*, const int*, const int*, float*, float*, int, int);
using qx::detail::Backend;
using qx::detail::DirectSolveOptions;
using qx::detail::DirectSolveStats;

DirectSolveOptions withBackend(Backend b) {
    DirectSolveOptions o;
    o.backend = b;
    return o;
}

// The options of the plain form: the memory path closed, the solution in x, two kicks.
DirectSolveOptions plain(DirectSolveOptions o) {
    o.memoryPath = false;
    o.kickAfterAnalysis = false;
    o.solutionInB = false;
    return o;
}

// directSolve's result, or the int it threw (then -1000 - int, to tell them apart).
int outcome(const DirectSolveOptions& o, const Csr<float>& m, std::vector<float>& b, float* x,
            DirectSolveStats* stats = nullptr) {
    try {
        return qx::detail::directSolve(o, m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x,
                                       1, -2, stats);
    } catch (int e) {
        return -1000 - e;
    }
}

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

    for (Backend backend : {Backend::Mumps, Backend::Cholmod}) {
        SCOPED_TRACE(backend == Backend::Mumps ? "MUMPS" : "CHOLMOD");
        DirectSolveStats stats;
        std::vector<float> b(rhs.begin(), rhs.end());
        ASSERT_EQ(qx::detail::directSolve(withBackend(backend), n, m.a.data(), m.ia.data(),
                                          m.ja.data(), b.data(), nullptr, 1, -2, &stats), 1);
        EXPECT_EQ(stats.backend, backend);
        if (backend == Backend::Mumps) {
            EXPECT_GE(stats.nullPivots, 1);  // the zero row at least
            EXPECT_EQ(stats.shift, 0.0);
        } else {
            EXPECT_GT(stats.shift, 0.0);
        }
        EXPECT_LT(stats.backwardError, 1e-11);
        for (int i = 0; i < g; ++i) EXPECT_NEAR(b[size_t(i)], ref[size_t(i)], 1e-5);
        for (int i = g; i < n; ++i) EXPECT_NEAR(b[size_t(i)], 0.0, 1e-3);

        // The held grid alone is definite: no null pivot or shift, and the same answer.
        const auto held = qxtest::fromDense<float>(heldDense, g);
        std::vector<float> b2(rhs.begin(), rhs.begin() + g);
        ASSERT_EQ(qx::detail::directSolve(withBackend(backend), g, held.a.data(), held.ia.data(),
                                          held.ja.data(), b2.data(), nullptr, 1, -2, &stats), 1);
        EXPECT_EQ(stats.shift, 0.0);
        EXPECT_EQ(stats.nullPivots, 0);
        for (int i = 0; i < g; ++i) EXPECT_NEAR(b2[size_t(i)], b[size_t(i)], 1e-5);
    }
}

// A pivot that is small but real is not a null pivot: diag(255, 1e-10) x = (255, 1e-10) has the
// solution (1, 1). (Fixing the second unknown at 0 would leave a residual of only 1e-10.)
TEST(DirectSolver, SmallPivotsAreNotNullPivots) {
    const auto m = qxtest::fromDense<float>({255, 0, 0, 1e-10}, 2);
    DirectSolveStats stats;
    std::vector<float> b{255, 1e-10f};
    ASSERT_EQ(outcome({}, m, b, nullptr, &stats), 1);
    EXPECT_EQ(stats.backend, Backend::Mumps);
    EXPECT_EQ(stats.nullPivots, 0);
    EXPECT_NEAR(b[0], 1.0f, 1e-6);
    EXPECT_NEAR(b[1], 1.0f, 1e-5);
}

// Rows 0-2 the chain [[2,-1,0],[-1,2,-1],[0,-1,2]], rows 3 and 5 a lone explicit 0.0 on the
// diagonal, row 4 alone with the given value.
Csr<float> chainAndZeroRows(double lone) {
    Csr<float> m;
    m.add(0, 2), m.add(1, -1), m.endRow();
    m.add(1, 2), m.add(2, -1), m.endRow();
    m.add(2, 2), m.endRow();
    m.add(3, 0.0), m.endRow();
    m.add(4, lone), m.endRow();
    m.add(5, 0.0), m.endRow();
    return m;
}

// The plain form on a semi-definite system in which some rows are a lone explicit 0.0 on the
// diagonal. x receives the solution, b stays as it was. The chain's right-hand side (1,0,1) gives
// (1,1,1); row 4 alone with 4 x = 2.
TEST(DirectSolver, PlainFormSolvesAroundZeroRows) {
    const Csr<float> m = chainAndZeroRows(4);
    const std::vector<float> rhs{1, 0, 1, 0, 2, 0};
    std::vector<float> b = rhs, x(6, 777.0f);
    qxtest::KickCounter counter;
    ASSERT_EQ(qx::pardisoSolverICPlain(6, m.a.data(), m.ia.data(), m.ja.data(), b.data(),
                                       x.data(), 1, -2), 1);
    EXPECT_EQ(b, rhs);
    EXPECT_EQ(x, (std::vector<float>{1, 1, 1, 0, 0.5f, 0}));
    EXPECT_EQ(counter.kicks, 2);
}

// The in-line form takes several right-hand sides in one factorisation, and each comes out
// bit for bit as when it is solved alone, also on the shift-and-refine path, where each column is
// refined on its own terms. The first matrix has two zero rows (an exactly zero pivot, so the
// factorisation is shifted by 1e-8 of the largest entry, 1e4, which the chain's smallest eigenvalue
// 0.59 feels at 2e-4); its third right side asks for something on a zero row, which no solution
// gives, so that its refinement stalls at once while the others' goes on. The second is a
// least-squares normal matrix like foreground recovery's: weakly coupled unknowns and an exactly
// singular 2 x 2 block [[1,2],[2,4]] left alone.
TEST(DirectSolver, InLineFormSolvesEachRightSideAsIfAlone) {
    const Csr<float> zeroRows = chainAndZeroRows(1e4);
    const std::vector<float> zeroRowsRhs{1, 0, 1, 0, 2e4f, 0,  -3, 2, 0.5f, 0, 1e4f, 0,
                                         1, 0, 1, 5, 2, 0};

    std::vector<double> dense(size_t(8 * 8), 0.0);
    auto at = [&](int i, int j) -> double& { return dense[size_t(i * 8 + j)]; };
    const double weights[5] = {1e4, 2e-6, 3e-3, 1e-5, 0.25};
    for (int i = 0; i < 5; ++i) {  // a chain of weak couplings held at its first unknown
        at(i, i) += weights[i] + 1e-4;
        if (i + 1 < 5) {
            const double c = 1e-3 * (i + 1);
            at(i, i) += c, at(i + 1, i + 1) += c, at(i, i + 1) -= c, at(i + 1, i) -= c;
        }
    }
    at(5, 5) = 1, at(5, 6) = at(6, 5) = 2, at(6, 6) = 4;  // rank 1
    at(7, 7) = 0.5;
    const auto chain = qxtest::fromDense<float>(dense, 8);
    std::vector<float> chainRhs;
    for (float scale : {1.0f, 255.0f, -7.5f})
        for (float v : {1e4f, 0.0f, 1e-3f, 0.5f, 0.0f, 1.0f, 2.0f, 1.0f})
            chainRhs.push_back(scale * v);

    for (const auto& [m, rhs] : {std::pair{zeroRows, zeroRowsRhs}, std::pair{chain, chainRhs}}) {
        const int n = m.n;
        std::vector<float> b = rhs, x(rhs.size(), 777.0f);
        qxtest::KickCounter counter;
        ASSERT_EQ(qx::pardisoSolverInLine(n, m.a.data(), m.ia.data(), m.ja.data(), b.data(),
                                          x.data(), 3, -2), 1);
        EXPECT_EQ(counter.kicks, 2);
        EXPECT_EQ(b, rhs);
        for (int c = 0; c < 3; ++c) {
            std::vector<float> bc(rhs.begin() + c * n, rhs.begin() + (c + 1) * n);
            std::vector<float> xc(size_t(n), 777.0f);
            ASSERT_EQ(qx::pardisoSolverInLine(n, m.a.data(), m.ia.data(), m.ja.data(), bc.data(),
                                              xc.data(), 1, -2), 1);
            EXPECT_EQ(xc, std::vector<float>(x.begin() + c * n, x.begin() + (c + 1) * n)) << c;
        }
    }
    // The consistent columns are solved: the chain of the first matrix, its lone 1e4 x = 2e4.
    std::vector<float> b = zeroRowsRhs, x(b.size());
    qx::pardisoSolverInLine(6, zeroRows.a.data(), zeroRows.ia.data(), zeroRows.ja.data(),
                            b.data(), x.data(), 3, -2);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(x[size_t(i)], 1.0f, 1e-5);
    EXPECT_NEAR(x[4], 2.0f, 1e-6);
    // Column 2: the chain's inverse is [[3,2,1],[2,4,2],[1,2,3]] / 4, so (-3, 2, 0.5) gives
    // (-1.125, 0.75, 0.625).
    EXPECT_NEAR(x[6], -1.125f, 1e-5);
    EXPECT_NEAR(x[7], 0.75f, 1e-5);
    EXPECT_NEAR(x[8], 0.625f, 1e-5);
    EXPECT_NEAR(x[10], 1.0f, 1e-6);
}

// The 2x2 block [[a*a, a*(1-a)], [a*(1-a), (1-a)*(1-a)]] of a pixel that only the compositing
// equation reaches is singular, but with its entries rounded to float its determinant in double
// is a tiny number of either sign. Where it is negative LL' must shift (the supernodal default
// does); the in-line form's LDL' takes the pivot as it is, without a shift, and the coupled
// unknowns beside the block are solved exactly.
TEST(DirectSolver, InLineFormTakesRoundingSingularBlocksWithoutAShift) {
    float a = 0, aa = 0, ab = 0, bb = 0;
    for (int k = 77; k < 179; ++k) {  // alpha bytes of 0.3..0.7
        a = float(k) * (1.0f / 255.0f);
        const float b = 1.0f - a;
        aa = a * a, ab = a * b, bb = b * b;
        if (double(aa) * bb - double(ab) * ab < 0.0) break;
    }
    ASSERT_LT(double(aa) * bb - double(ab) * ab, 0.0);
    // Unknowns 0, 1: [[3,-1],[-1,3]] with right side (2, 4) -> (1.25, 1.75); 2, 3: the block.
    Csr<float> m;
    m.add(0, 3), m.add(1, -1), m.endRow();
    m.add(1, 3), m.endRow();
    m.add(2, aa), m.add(3, ab), m.endRow();
    m.add(3, bb), m.endRow();
    const std::vector<float> rhs{2, 4, a * 100.0f, (1.0f - a) * 100.0f};

    DirectSolveStats stats;
    std::vector<float> b = rhs, x(4, 777.0f);
    ASSERT_EQ(qx::detail::directSolve(qx::detail::inLineOptions(), 4, m.a.data(), m.ia.data(),
                                      m.ja.data(), b.data(), x.data(), 1, -2, &stats), 1);
    EXPECT_EQ(stats.backend, Backend::Cholmod);
    EXPECT_EQ(stats.shift, 0.0);
    EXPECT_FALSE(stats.ldlFallback);
    EXPECT_NEAR(x[0], 1.25f, 1e-6);
    EXPECT_NEAR(x[1], 1.75f, 1e-6);
    EXPECT_TRUE(std::isfinite(x[2]) && std::isfinite(x[3]));

    std::vector<float> b2 = rhs;  // LL' shifts for the same block
    ASSERT_EQ(outcome(withBackend(Backend::Cholmod), m, b2, nullptr, &stats), 1);
    EXPECT_GT(stats.shift, 0.0);
}

// [[1,2],[2,1]] is indefinite but factors without pivoting (pivots 1 and -3); [[0,1],[1,0]] needs
// a 2 x 2 pivot. MUMPS solves both (with the fallback off, so that it can't pass them on);
// CHOLMOD gets there by LDL' after the shifts fail.
TEST(DirectSolver, IndefiniteSystems) {
    DirectSolveOptions mumps;
    mumps.fallback = false;
    DirectSolveStats stats;
    for (const auto& [matrix, rhs, solution] :
         {std::tuple{std::vector<double>{1, 2, 2, 1}, std::vector<float>{3, 3},
                     std::vector<float>{1, 1}},
          std::tuple{std::vector<double>{0, 1, 1, 0}, std::vector<float>{2, 3},
                     std::vector<float>{3, 2}}})
        for (Backend backend : {Backend::Mumps, Backend::Cholmod}) {
            const auto m = qxtest::fromDense<float>(matrix, 2);
            mumps.backend = backend;
            std::vector<float> b = rhs;
            ASSERT_EQ(outcome(mumps, m, b, nullptr, &stats), 1);
            EXPECT_EQ(stats.backend, backend);
            EXPECT_EQ(stats.ldlFallback, backend == Backend::Cholmod);
            EXPECT_NEAR(b[0], solution[0], 1e-5);
            EXPECT_NEAR(b[1], solution[1], 1e-5);
        }
}

// A matting-like grid (5 x 5 coupling, weight 255 at both sides) solved in single precision: the
// factor alone leaves a backward error of float's order, refinement in double takes it to double's
// order, and the result matches the double-precision backend. Without refinement the single
// precision solution isn't accepted and the system goes to the double-precision path.
TEST(DirectSolver, RefinementBringsSinglePrecisionToDoubleAccuracy) {
    const int side = 40, n = side * side;
    Csr<float> m;
    std::vector<float> rhs(size_t(n), 0.0f);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> w(0.05f, 1.0f);
    std::vector<double> diag(static_cast<size_t>(n), 0.0);
    std::vector<std::vector<std::pair<int, float>>> upper(static_cast<size_t>(n));
    for (int p = 0; p < n; ++p)
        for (int dy = 0; dy <= 2; ++dy)
            for (int dx = -2; dx <= 2; ++dx) {
                const int x = p % side + dx, y = p / side + dy, q = y * side + x;
                if ((dy == 0 && dx <= 0) || x < 0 || x >= side || y >= side) continue;
                const float v = w(rng);
                upper[size_t(p)].push_back({q, -v});
                diag[size_t(p)] += v, diag[size_t(q)] += v;
            }
    for (int p = 0; p < n; ++p) {
        const bool known = p % side == 0 || p % side == side - 1;
        m.add(p, diag[size_t(p)] + (known ? 255.0 : 0.0));
        for (const auto& [q, v] : upper[size_t(p)]) m.add(q, v);
        m.endRow();
        if (p % side == side - 1) rhs[size_t(p)] = 255.0f;
    }
    DirectSolveStats single, twice;
    std::vector<float> b1 = rhs, b2 = rhs;
    ASSERT_EQ(outcome({}, m, b1, nullptr, &single), 1);
    ASSERT_EQ(outcome(withBackend(Backend::Cholmod), m, b2, nullptr, &twice), 1);
    EXPECT_EQ(single.backend, Backend::Mumps);
    EXPECT_GE(single.refinementSteps, 1);
    EXPECT_LT(single.backwardError, 1e-13);
    for (int i = 0; i < n; ++i) EXPECT_NEAR(b1[size_t(i)], b2[size_t(i)], 1e-6) << i;
    // Alpha rises from 0 at the left to 1 at the right.
    EXPECT_LT(b1[size_t(side / 2 * side + 1)], 0.1f);
    EXPECT_GT(b1[size_t(side / 2 * side + side - 2)], 0.9f);

    DirectSolveOptions unrefined;
    unrefined.refinementSteps = 0;
    std::vector<float> b3 = rhs;
    ASSERT_EQ(outcome(unrefined, m, b3, nullptr, &single), 1);
    EXPECT_TRUE(single.fellBack);
    unrefined.fallback = false;
    EXPECT_EQ(outcome(unrefined, m, b3, nullptr), -1000 - 122);
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

TEST(DirectSolver, CholmodRunningOutOfMemoryReleasesEverythingInAnyPhase) {
    const auto saved = SuiteSparse_config;
    SuiteSparse_config.malloc_func = fakeMalloc, SuiteSparse_config.calloc_func = fakeCalloc;
    SuiteSparse_config.realloc_func = fakeRealloc, SuiteSparse_config.free_func = fakeFree;
    const int n = 40;
    const auto m = qxtest::fromDense<float>(qxtest::randomSpd(n, 3), n);
    const std::vector<float> rhs(size_t(n), 1.0f);
    const DirectSolveOptions matting = withBackend(Backend::Cholmod);
    std::vector<float> b = rhs, x(static_cast<size_t>(n));
    allocations = 0, failAt = -1;
    ASSERT_EQ(outcome(matting, m, b, nullptr), 1);
    const long total = allocations;
    std::set<int> kicksSeen, thrownSeen;
    for (failAt = 0; failAt < total; ++failAt) {
        qxtest::KickCounter counter;
        b = rhs, allocations = 0;
        const int result = outcome(matting, m, b, nullptr);
        EXPECT_TRUE(live.empty()) << failAt;
        EXPECT_GE(result, 0);
        if (result == 0) {
            EXPECT_EQ(b, rhs);
            kicksSeen.insert(counter.kicks);
        }
        allocations = 0;
        b = rhs;
        const int r = outcome(plain(matting), m, b, x.data());
        thrownSeen.insert(r < 0 ? -1000 - r : 0);
        EXPECT_TRUE(live.empty()) << failAt;
    }
    SuiteSparse_config = saved;
    EXPECT_EQ(kicksSeen, (std::set<int>{0, 1, 2}));
    EXPECT_EQ(thrownSeen, (std::set<int>{0, 121, 122, 123}));
}

// MUMPS's memory errors: a cap on its working memory far below what the factor needs fails the
// factorisation; the matting forms return 0 (after the analysis's kick, nothing written), the
// plain form throws 122. A generous cap changes nothing.
TEST(DirectSolver, MumpsMemoryErrorsTakeTheMemoryPath) {
    const int side = 60, n = side * side;
    Csr<float> m;
    for (int p = 0; p < n; ++p) {
        m.add(p, 4.5);
        if (p % side + 1 < side) m.add(p + 1, -1);
        if (p + side < n) m.add(p + side, -1);
        m.endRow();
    }
    const std::vector<float> rhs(size_t(n), 1.0f);
    DirectSolveOptions capped;
    capped.maxWorkMB = 1;
    std::vector<float> b = rhs, x(size_t(n), 0.0f);
    {
        qxtest::KickCounter counter;
        EXPECT_EQ(outcome(capped, m, b, nullptr), 0);
        EXPECT_EQ(b, rhs);
        EXPECT_EQ(counter.kicks, 1);
    }
    EXPECT_EQ(outcome(plain(capped), m, b, x.data()), -1000 - 122);
    EXPECT_EQ(x, std::vector<float>(size_t(n), 0.0f));
    capped.maxWorkMB = 1000;
    DirectSolveStats stats;
    EXPECT_EQ(outcome(capped, m, b, nullptr, &stats), 1);
    EXPECT_EQ(stats.backend, Backend::Mumps);
    EXPECT_GT(b[size_t(n / 2)], 0.5f);
}

// During the solve the BLAS runs on the calling thread alone (seen from the progress callback,
// which is called between the phases); afterwards its thread count and OpenMP's are as before.
TEST(DirectSolver, BlasThreadsAreNarrowedForTheSolveAndPutBack) {
    using Set = void (*)(int);
    using Get = int (*)();
    const auto set = reinterpret_cast<Set>(dlsym(RTLD_DEFAULT, "openblas_set_num_threads"));
    const auto get = reinterpret_cast<Get>(dlsym(RTLD_DEFAULT, "openblas_get_num_threads"));
    if (!set || !get) GTEST_SKIP() << "the BLAS isn't OpenBLAS";
    const int before = get();
    set(2);
    const int threads = omp_get_max_threads();
    struct Seen {
        Get get;
        std::set<int> counts;
        static int proc(int, int, void* p) {
            auto* s = static_cast<Seen*>(p);
            s->counts.insert(s->get());
            return 1;
        }
    } seen{get, {}};
    qx::setProgProc(&Seen::proc, &seen, 1 << 30, 1);
    const auto m = qxtest::fromDense<float>(qxtest::randomSpd(30, 4), 30);
    for (Backend backend : {Backend::Mumps, Backend::Cholmod}) {
        std::vector<float> b(30, 1.0f);
        EXPECT_EQ(outcome(withBackend(backend), m, b, nullptr), 1);
        EXPECT_EQ(get(), 2);
        EXPECT_EQ(omp_get_max_threads(), threads);
    }
    qx::setProgProc(nullptr, nullptr, 0, 0);
    EXPECT_EQ(seen.counts, std::set<int>{1});
    set(before);
}

// CPU time of the whole process minus that of the calling thread: what other threads used.
double othersCpu() {
    timespec p, t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &p);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(p.tv_sec - t.tv_sec) + 1e-9 * double(p.tv_nsec - t.tv_nsec);
}

// Right after a parallel region, OpenMP's idle workers spin for a while: milliseconds by default,
// for ever under OMP_WAIT_POLICY=active. So the check runs in a child process of this test
// program with that policy in its environment (this process's environment stays as it is): from
// the first progress kick (the analysis done) to the end of the solve, no other thread of the
// process may use the CPU, neither those workers nor the BLAS's. The region after the solve still
// runs on all threads.
void checkNoOtherThreadWorks() {
    // OpenBLAS starts its workers when it loads, and they spin for about a tenth of a second before
    // they sleep; that is before any solve and not what is measured here.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    const int side = 120, n = side * side;
    Csr<float> m;
    for (int p = 0; p < n; ++p) {
        m.add(p, 8.5);
        for (int d : {1, side - 1, side, side + 1})
            if (p + d < n) m.add(p + d, -1);
        m.endRow();
    }
    volatile double sink = 0;
    auto region = [&] {
        std::set<int> threads;
        double s = 0;
#pragma omp parallel reduction(+ : s)
        {
#pragma omp critical
            threads.insert(omp_get_thread_num());
            for (int i = 0; i < 200000; ++i) s += i * 1e-9;
        }
        sink = s;
        return threads.size();
    };
    struct FirstKick {
        double others = -1;
        std::chrono::steady_clock::time_point at;
        static int proc(int, int, void* p) {
            auto* k = static_cast<FirstKick*>(p);
            if (k->others < 0) k->others = othersCpu(), k->at = std::chrono::steady_clock::now();
            return 1;
        }
    };
    for (int run = 0; run < 3; ++run) {
        EXPECT_EQ(region(), size_t(omp_get_max_threads()));
        FirstKick kick;
        qx::setProgProc(&FirstKick::proc, &kick, 1 << 30, 1);
        std::vector<float> b(size_t(n), 1.0f);
        ASSERT_EQ(qx::pardisoSolverIC(n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), nullptr, 1,
                                      -2), 1);
        const double others = othersCpu() - kick.others;
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - kick.at).count();
        qx::setProgProc(nullptr, nullptr, 0, 0);
        EXPECT_LT(others, 0.05 * wall + 1e-4) << "wall " << wall;
    }
    EXPECT_EQ(region(), size_t(omp_get_max_threads()));
}

TEST(DirectSolver, NoOtherThreadWorksDuringASolve) {
    if (std::getenv("QX_TEST_SPIN_CHILD")) return checkNoOtherThreadWorks();
    if (omp_get_max_threads() < 2) GTEST_SKIP() << "one OpenMP thread";
    std::string filter = "--gtest_filter=";
    filter += ::testing::UnitTest::GetInstance()->current_test_suite()->name();
    filter += std::string(".") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "OMP_WAIT_POLICY=", 16) != 0) env.emplace_back(*e);
    env.emplace_back("OMP_WAIT_POLICY=active");
    env.emplace_back("QX_TEST_SPIN_CHILD=1");
    std::vector<char*> envp, argv;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string self = "/proc/self/exe";
    argv = {self.data(), filter.data(), nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, argv.data(), envp.data()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's output above tells what failed";
}

}  // namespace
