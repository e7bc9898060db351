#include "solver/cg_solver.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <limits>

#include "solver/solver_test_util.h"

namespace {

using qxtest::Csr;
using Solver = int (*)(int, const double*, const int*, const int*, const double*, double*,
                       double*, int, double);

int run(Solver s, const Csr<double>& m, const std::vector<double>& b, std::vector<double>& x,
        int maxIterations, double tol) {
    std::vector<double> tmp(4 * size_t(m.n));
    return s(m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data(), tmp.data(),
             maxIterations, tol);
}

// On tridiag(-1, 2, -1) with b = e1, iterate k solves the leading k x k block (its Krylov space
// is spanned by e1..ek), so x_k(i) = (k + 1 - i) / (k + 1) for i <= k and the relative residual is
// exactly 1 / (k + 1). The diagonal is constant, so Jacobi doesn't change the iterates.
TEST(CgSolver, IteratesMatchKnownKrylovSolutions) {
    const auto m = qxtest::laplacian1d<double>(50);
    std::vector<double> b(50, 0.0);
    b[0] = 1.0;
    for (Solver s : {Solver(qx::cgSolver), Solver(qx::cgSolver_jacobi)}) {
        std::vector<double> x(50, 0.0);
        ASSERT_EQ(run(s, m, b, x, 7, 1e-6), 7);
        for (int i = 0; i < 50; ++i) EXPECT_NEAR(x[size_t(i)], i < 7 ? (7.0 - i) / 8.0 : 0.0, 1e-13);
        // Relative residual 1/9 after 8 steps, 1/10 after 9: a tolerance between stops at 9.
        std::fill(x.begin(), x.end(), 0.0);
        EXPECT_EQ(run(s, m, b, x, 40, 0.105), 9);
    }
}

TEST(CgSolver, StopsAtOnceOnASolutionAndAfterOneStepOnAScaledIdentity) {
    Csr<double> d;
    d.add(0, 2.0), d.endRow(), d.add(1, 4.0), d.endRow();
    std::vector<double> x{1.0, 1.0};
    EXPECT_EQ(run(qx::cgSolver, d, {2.0, 4.0}, x, 10, 1e-8), 0);
    EXPECT_EQ(run(qx::cgSolver_jacobi, d, {2.0, 4.0}, x, 10, 1e-8), 0);
    EXPECT_EQ(x, (std::vector<double>{1.0, 1.0}));

    Csr<double> s;
    for (int i = 0; i < 4; ++i) s.add(i, 3.0), s.endRow();
    x.assign(4, 0.0);
    EXPECT_EQ(run(qx::cgSolver, s, {3.0, -6.0, 9.0, 0.75}, x, 10, 1e-12), 1);
    const double expected[] = {1.0, -2.0, 3.0, 0.25};
    for (int i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(x[size_t(i)], expected[i]);
}

// With a tolerance no residual reaches, cgSolver stops at n although more was allowed; the
// Jacobi form runs on to the limit it was given.
TEST(CgSolver, IterationLimitIsCutToNOnlyForThePlainForm) {
    const auto m = qxtest::laplacian1d<double>(40);
    std::vector<double> b(40, 0.0), x(40, 0.0);
    b[0] = 1.0;
    EXPECT_EQ(run(qx::cgSolver, m, b, x, 100, 1e-300), 40);
    for (int i = 0; i < 40; ++i) EXPECT_NEAR(x[size_t(i)], (40.0 - i) / 41.0, 1e-10);
    x.assign(40, 0.0);
    EXPECT_GT(run(qx::cgSolver_jacobi, m, b, x, 100, 1e-300), 40);
    x.assign(40, 0.0);
    EXPECT_EQ(run(qx::cgSolver_jacobi, m, b, x, 0, 1e-6), 0);
}

TEST(CgSolver, JacobiKicksProgressAfterEvery21stIteration) {
    const auto m = qxtest::laplacian1d<double>(200);  // residual 1/(k+1): never converges here
    std::vector<double> b(200, 0.0), x;
    b[0] = 1.0;
    for (auto [limit, kicks] : {std::pair{20, 0}, {21, 1}, {62, 2}, {63, 3}}) {
        qxtest::KickCounter counter;
        x.assign(200, 0.0);
        EXPECT_EQ(run(qx::cgSolver_jacobi, m, b, x, limit, 1e-6), limit);
        EXPECT_EQ(counter.kicks, kicks) << limit;
    }
    qxtest::KickCounter counter;
    x.assign(200, 0.0);
    EXPECT_EQ(run(qx::cgSolver, m, b, x, 63, 1e-6), 63);
    EXPECT_EQ(counter.kicks, 0);
}

// Columns out of order, a column split in two, an entry below the diagonal (ignored) and a zero
// row: the result must still be the dense solution.
TEST(CgSolver, SolvesIrregularStorageLikeTheDenseSystem) {
    const int n = 60;
    auto dense = qxtest::randomSpd(n, 7);
    Csr<double> m;
    for (int i = 0; i < n; ++i) {
        for (int j = n - 1; j > i; --j)
            if (dense[size_t(i * n + j)] != 0.0) m.add(j, dense[size_t(i * n + j)]);
        m.add(i, dense[size_t(i * n + i)] / 2), m.add(i, dense[size_t(i * n + i)] / 2);
        if (i > 0) m.add(i - 1, 1000.0);
        m.endRow();
    }
    m.add(n, 0.0), m.endRow();  // row n: a zero diagonal alone, with b = 0 there
    std::vector<double> b(size_t(n) + 1, 0.0), x(size_t(n) + 1, 0.0);
    for (int i = 0; i < n; ++i) b[size_t(i)] = std::sin(i + 1.0);
    const auto ref = qxtest::denseSolve(dense, {b.begin(), b.end() - 1}, n);
    for (Solver s : {Solver(qx::cgSolver), Solver(qx::cgSolver_jacobi)}) {
        std::fill(x.begin(), x.end(), 0.0);
        const int it = run(s, m, b, x, 500, 1e-13);
        EXPECT_GT(it, 0);
        EXPECT_LT(it, n + 1);
        for (int i = 0; i < n; ++i) EXPECT_NEAR(x[size_t(i)], ref[size_t(i)], 1e-11);
        EXPECT_EQ(x[size_t(n)], 0.0);
    }
}

TEST(CgSolver, RefusesBrokenArgumentsWithoutTouchingX) {
    auto m = qxtest::laplacian1d<double>(5);
    std::vector<double> b(5, 1.0), x(5, 9.0), tmp(20);
    auto call = [&](Solver s, int n, const int* ia, const int* ja, int maxIt, double tol) {
        return s(n, m.a.data(), ia, ja, b.data(), x.data(), tmp.data(), maxIt, tol);
    };
    auto badStart = m.ia, badCol = m.ja;
    badStart[0] = 0, badCol[3] = 6;
    for (Solver s : {Solver(qx::cgSolver), Solver(qx::cgSolver_jacobi)}) {
        EXPECT_EQ(call(s, 0, m.ia.data(), m.ja.data(), 10, 1e-6), -1);
        EXPECT_EQ(call(s, 5, nullptr, m.ja.data(), 10, 1e-6), -1);
        EXPECT_EQ(call(s, 5, badStart.data(), m.ja.data(), 10, 1e-6), -1);
        EXPECT_EQ(call(s, 5, m.ia.data(), badCol.data(), 10, 1e-6), -1);
        EXPECT_EQ(call(s, 5, m.ia.data(), m.ja.data(), -1, 1e-6), -1);
        EXPECT_EQ(call(s, 5, m.ia.data(), m.ja.data(), 10, std::nan("")), -1);
        EXPECT_EQ(s(5, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data(), nullptr, 10, 1e-6),
                  -1);
    }
    EXPECT_EQ(x, std::vector<double>(5, 9.0));
}

// Large enough for the parallel paths: one thread and two give the same bits.
TEST(CgSolver, ResultDoesNotDependOnThreadCount) {
    const int side = 140, n = side * side;
    Csr<double> m;
    for (int p = 0; p < n; ++p) {
        m.add(p, 4.5 + (p % 7) * 0.125);
        if (p % side + 1 < side) m.add(p + 1, -1.0);
        if (p + side < n) m.add(p + side, -1.0);
        m.endRow();
    }
    std::vector<double> b(static_cast<size_t>(n));
    for (int p = 0; p < n; ++p) b[size_t(p)] = std::cos(p * 0.01);
    std::vector<double> x1(size_t(n), 0.0), x2(size_t(n), 0.0);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    const int it1 = run(qx::cgSolver_jacobi, m, b, x1, 300, 1e-9);
    omp_set_num_threads(2);
    const int it2 = run(qx::cgSolver_jacobi, m, b, x2, 300, 1e-9);
    omp_set_num_threads(saved);
    EXPECT_EQ(it1, it2);
    EXPECT_EQ(x1, x2);
}

}  // namespace
