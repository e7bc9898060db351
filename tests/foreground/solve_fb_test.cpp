#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "foreground/fb_solve.h"
#include "frame/progress.h"
#include "recovery_scene.h"

namespace {

struct Planes {
    std::vector<uint8_t> data[3];
    int w, h;
    Planes(const fgtest::Scene& s) : w(s.w), h(s.h) {
        for (int c = 0; c < 3; ++c) {
            data[c].resize(size_t(w) * h);
            for (size_t i = 0; i < data[c].size(); ++i) data[c][i] = s.composite[4 * i + c];
        }
    }
    // Interleaved 3-byte copy for the error measure.
    std::vector<uint8_t> interleaved() const {
        std::vector<uint8_t> out(size_t(w) * h * 3);
        for (size_t i = 0; i < size_t(w) * h; ++i)
            for (int c = 0; c < 3; ++c) out[3 * i + c] = data[c][i];
        return out;
    }
};

int solve(Planes& p, std::vector<uint8_t>& alpha, int wantBackground) {
    qx::IMG<unsigned char, 1> p0(p.w, p.h, p.data[0].data(), p.w);
    qx::IMG<unsigned char, 1> p1(p.w, p.h, p.data[1].data(), p.w);
    qx::IMG<unsigned char, 1> p2(p.w, p.h, p.data[2].data(), p.w);
    qx::IMG<unsigned char, 1> a(p.w, p.h, alpha.data(), p.w);
    qx::IMG<unsigned char, 1>* const planes[3] = {&p0, &p1, &p2};
    void* unused[9] = {};
    return qx::solveForegroundBackground(unused, planes, wantBackground, a);
}

TEST(SolveForegroundBackground, RecoversAKnownForegroundFarBetterThanTheComposite) {
    fgtest::Scene s = fgtest::discScene(48, 40, 12.0, 14.0);
    Planes p(s);
    const double naive = fgtest::fgError(s, p.interleaved().data(), 3, 1);
    ASSERT_GT(naive, 20.0);  // the scene has a real mixed band
    EXPECT_EQ(solve(p, s.alpha, 0), 0);
    const double solved = fgtest::fgError(s, p.interleaved().data(), 3, 1);
    EXPECT_LT(solved, 0.15 * naive) << "naive " << naive;
}

TEST(SolveForegroundBackground, BackgroundOnRequestAndTheRingKept) {
    fgtest::Scene s = fgtest::discScene(40, 36, 10.0, 12.0);
    Planes p(s);
    const Planes before(s);
    EXPECT_EQ(solve(p, s.alpha, 1), 0);
    double err = 0, naive = 0;
    int mixed = 0;
    for (int y = 1; y < s.h - 1; ++y)
        for (int x = 1; x < s.w - 1; ++x) {
            const size_t i = size_t(y) * s.w + x;
            const int a = s.alpha[i];
            if (a == 0 || a == 255) continue;
            ++mixed;
            for (int c = 0; c < 3; ++c) {
                err += (1 - a / 255.0) * std::abs(int(p.data[c][i]) - int(s.bg[3 * i + c]));
                naive += (1 - a / 255.0) * std::abs(int(before.data[c][i]) - int(s.bg[3 * i + c]));
            }
        }
    ASSERT_GT(mixed, 50);
    EXPECT_LT(err, 0.15 * naive);
    // The outermost ring is not solved: it keeps the values it came with.
    for (int c = 0; c < 3; ++c) {
        for (int y = 0; y < s.h; ++y) {
            for (int x = 0; x < s.w; ++x) {
                if (x == 0 || y == 0 || x == s.w - 1 || y == s.h - 1) {
                    ASSERT_EQ(p.data[c][size_t(y) * s.w + x], before.data[c][size_t(y) * s.w + x]);
                }
            }
        }
    }
}

TEST(SolveForegroundBackground, DecidedPixelsKeepTheirColour) {
    // Where alpha is 255 the data term (weight 100) ties F to the image.
    fgtest::Scene s = fgtest::discScene(30, 30, 9.0, 6.0);
    Planes p(s);
    const Planes before(s);
    EXPECT_EQ(solve(p, s.alpha, 0), 0);
    for (size_t i = 0; i < s.alpha.size(); ++i) {
        if (s.alpha[i] == 255) {
            for (int c = 0; c < 3; ++c) EXPECT_NEAR(p.data[c][i], before.data[c][i], 1) << i;
        }
    }
}

// The three planes share one factorisation, but progress ticks as for three solves: four ticks
// while the system is built, five a plane (its right side, its products, the triangle, the
// factorisation, the solve) and one at the end.
TEST(SolveForegroundBackground, TicksTwentyTimes) {
    static int kicks;
    kicks = 0;
    qx::setProgProc([](int, int, void*) { return ++kicks, 1; }, &kicks, 1 << 30, 1);
    fgtest::Scene s = fgtest::discScene(20, 18, 6.0, 5.0);
    Planes p(s);
    EXPECT_EQ(solve(p, s.alpha, 0), 0);
    qx::setProgProc(nullptr, nullptr, 0, 0);
    EXPECT_EQ(kicks, 20);
}

// A plane's result doesn't depend on the planes solved with it: the planes rotated give the
// results rotated.
TEST(SolveForegroundBackground, EachPlaneComesOutAsIfSolvedAlone) {
    fgtest::Scene s = fgtest::discScene(36, 30, 9.0, 10.0);
    Planes p(s), rotated(s);
    for (int c = 0; c < 3; ++c) rotated.data[c] = p.data[(c + 1) % 3];
    ASSERT_EQ(solve(p, s.alpha, 0), 0);
    ASSERT_EQ(solve(rotated, s.alpha, 0), 0);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(rotated.data[c], p.data[(c + 1) % 3]) << c;
}

TEST(SolveForegroundBackground, BlockWithoutInteriorIsLeftAlone) {
    fgtest::Scene s = fgtest::discScene(2, 9, 3.0, 6.0);
    Planes p(s);
    const Planes before(s);
    EXPECT_EQ(solve(p, s.alpha, 0), 0);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(p.data[c], before.data[c]);
}

}  // namespace

namespace {

TEST(InLineSolve, SolvesAndReportsAFailedPhaseOnStandardOutput) {
    // [4 1; 1 3] x = [1; 2]: x = (1/11, 7/11).
    qx::SparseCsr u;
    u.rows = u.cols = 2;
    u.ia = {1, 3, 4};
    u.ja = {1, 2, 2};
    u.a = {4, 1, 3};
    float b[2] = {1, 2}, x[2] = {0, 0};
    qx::solveInLine(u, b, x);
    EXPECT_NEAR(x[0], 1.0 / 11, 1e-6);
    EXPECT_NEAR(x[1], 7.0 / 11, 1e-6);
    EXPECT_EQ(b[0], 1.0f);  // the right side is left alone

    // A value that isn't finite fails the analysis: the message goes to standard output and
    // the code is passed on.
    u.a[1] = std::numeric_limits<float>::quiet_NaN();
    testing::internal::CaptureStdout();
    int thrown = 0;
    try {
        qx::solveInLine(u, b, x);
    } catch (int e) {
        thrown = e;
    }
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(thrown, 121);
    EXPECT_EQ(out, "\nERROR during symbolic factorization: 121");
}

}  // namespace
