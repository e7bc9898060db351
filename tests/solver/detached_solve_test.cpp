// A direct solve with a cancel flag installed runs on a thread of its own; the caller must see
// exactly what a solve on its own thread gives: the same bits, the same kicks on its own thread,
// the same thrown phase.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "runtime/fault.h"
#include "runtime/progress.h"
#include "solver/direct_solver.h"

namespace {

using qx::detail::SystemArrays;

// The upper triangle of a 2-D grid Laplacian plus a diagonal weight on every fifth pixel, one-based
// compressed rows, in malloc'd arrays: positive definite, coupled like a matting system.
std::shared_ptr<SystemArrays> gridSystem(int side) {
    const int n = side * side;
    std::vector<int> ia(1, 1), ja;
    std::vector<float> a;
    for (int p = 0; p < n; ++p) {
        const int x = p % side, y = p / side;
        const int degree = (x > 0) + (x + 1 < side) + (y > 0) + (y + 1 < side);
        a.push_back(float(degree) + (p % 5 == 0 ? 0.5f : 0.0f));
        ja.push_back(p + 1);
        if (x + 1 < side) a.push_back(-1.0f), ja.push_back(p + 2);
        if (y + 1 < side) a.push_back(-1.0f), ja.push_back(p + side + 1);
        ia.push_back(int(ja.size()) + 1);
    }
    auto s = std::make_shared<SystemArrays>();
    s->a = static_cast<float*>(std::malloc(a.size() * sizeof(float)));
    s->ja = static_cast<int*>(std::malloc(ja.size() * sizeof(int)));
    s->ia = static_cast<int*>(std::malloc(ia.size() * sizeof(int)));
    std::memcpy(s->a, a.data(), a.size() * sizeof(float));
    std::memcpy(s->ja, ja.data(), ja.size() * sizeof(int));
    std::memcpy(s->ia, ia.data(), ia.size() * sizeof(int));
    return s;
}

std::vector<float> rightSide(int n) {
    std::vector<float> b(size_t(n), 0.0f);
    for (int i = 0; i < n; i += 5) b[size_t(i)] = 0.5f * float(i % 3);  // weight 0.5, target 0..2
    return b;
}

struct Solved {
    std::vector<float> b, x;
    int64_t kicks = 0;
    int result = 0;
};

Solved solve(const std::shared_ptr<SystemArrays>& s, int n, bool solutionInB) {
    qx::detail::DirectSolveOptions o;
    o.solutionInB = solutionInB;
    Solved r;
    r.b = rightSide(n);
    r.x.assign(size_t(n), -7.0f);
    const int64_t before = qx::progressKickCount();
    r.result = qx::detail::directSolveOwned(o, n, s, r.b.data(), r.x.data(), 1, 2, nullptr);
    r.kicks = qx::progressKickCount() - before;
    return r;
}

TEST(DetachedSolve, GivesTheBitsAndKicksOfASolveOnTheCallersThread) {
    const int side = 60, n = side * side;
    const auto s = gridSystem(side);
    for (bool inB : {true, false}) {
        SCOPED_TRACE(inB ? "solution in b" : "solution in x");
        const Solved here = solve(s, n, inB);
        volatile int32_t flag = 0;
        qx::setCancelFlag(&flag);
        const Solved away = solve(s, n, inB);
        qx::setCancelFlag(nullptr);
        ASSERT_EQ(here.result, 1);
        EXPECT_EQ(away.result, 1);
        EXPECT_EQ(away.b, here.b);
        EXPECT_EQ(away.x, here.x);
        EXPECT_EQ(away.kicks, here.kicks);
        EXPECT_EQ(away.kicks, 3);
        // And it is a solution: the weighted pixels pull the grid to their targets, so every
        // value lies between 0 and 2 and the residual is tiny.
        const std::vector<float>& x = inB ? away.b : away.x;
        if (!inB) {
            EXPECT_EQ(away.b, rightSide(n));
        }
        const std::vector<float> b = rightSide(n);
        double worst = 0.0;
        for (int k = 0; k < n; ++k) {
            double ax = 0.0;
            const int px = k % side, py = k / side;
            const int degree = (px > 0) + (px + 1 < side) + (py > 0) + (py + 1 < side);
            ax += (degree + (k % 5 == 0 ? 0.5 : 0.0)) * x[size_t(k)];
            if (px > 0) ax -= x[size_t(k - 1)];
            if (px + 1 < side) ax -= x[size_t(k + 1)];
            if (py > 0) ax -= x[size_t(k - side)];
            if (py + 1 < side) ax -= x[size_t(k + side)];
            worst = std::max(worst, std::fabs(ax - b[size_t(k)]));
            EXPECT_GE(x[size_t(k)], -1e-5f);
            EXPECT_LE(x[size_t(k)], 2.0f + 1e-5f);
        }
        EXPECT_LT(worst, 1e-5);
    }
    EXPECT_EQ(qx::detail::runningDetachedSolves(), 0);
}

TEST(DetachedSolve, ThrowsTheSolversFailureOnTheCallersThread) {
    const int side = 20, n = side * side;
    const auto s = gridSystem(side);
    s->a[7] = std::nanf("");
    volatile int32_t flag = 0;
    qx::setCancelFlag(&flag);
    std::vector<float> b = rightSide(n);
    int thrown = 0;
    try {
        qx::detail::directSolveOwned(qx::detail::DirectSolveOptions{}, n, s, b.data(), nullptr, 1,
                                     2, nullptr);
    } catch (const qx::Failure& e) {
        thrown = e.value();
    }
    qx::setCancelFlag(nullptr);
    EXPECT_EQ(thrown, 121);
    EXPECT_EQ(b, rightSide(n));
}

TEST(DetachedSolve, AFlagAlreadySetStopsBeforeAnySolve) {
    const int side = 20, n = side * side;
    const auto s = gridSystem(side);
    volatile int32_t flag = 1;
    qx::setCancelFlag(&flag);
    std::vector<float> b = rightSide(n);
    EXPECT_ANY_THROW(qx::detail::directSolveOwned(qx::detail::DirectSolveOptions{}, n, s, b.data(),
                                                  nullptr, 1, 2, nullptr));
    qx::setCancelFlag(nullptr);
    EXPECT_EQ(b, rightSide(n));
    EXPECT_EQ(qx::detail::runningDetachedSolves(), 0);
}

}  // namespace
