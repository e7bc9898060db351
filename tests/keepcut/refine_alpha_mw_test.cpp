// The multi-window refinement: grid arithmetic on the edge cases (worked out by hand), the walk's
// positions and margins, the skip rule, and a composite refined from a flat guess.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <vector>

#include "budget.h"
#include "frame/memory.h"
#include "frame/progress.h"
#include "keepcut/refine_alpha_mw.h"
#include "matting/matting_fixtures.h"
#include "stroke_scene.h"

using qxtest::Budget;
using qxtest::Composite;
using qxtest::PaddedPlane;

namespace {

struct Axis {
    int count, win, step;
};
void expectGrid(const qx::MWGrid& g, int side, Axis x, Axis y) {
    EXPECT_EQ(g.side, side);
    EXPECT_EQ(g.nx, x.count);
    EXPECT_EQ(g.winW, x.win);
    EXPECT_EQ(g.stepX, x.step);
    EXPECT_EQ(g.ny, y.count);
    EXPECT_EQ(g.winH, y.win);
    EXPECT_EQ(g.stepY, y.step);
}

TEST(RefineGrid, SideFromBudgetAndItsCap) {
    // side = (int)sqrt(units * 1000 / 1940): 19400 units give exactly 100, one unit less 99.
    EXPECT_EQ(qx::planMWGrid(10, 10, 19400).side, 100);
    EXPECT_EQ(qx::planMWGrid(10, 10, 19399).side, 99);
    // 1141281 units: sqrt(588289.2) = 767.0001 stays 767; anything above 767 becomes 768.
    EXPECT_EQ(qx::planMWGrid(10, 10, 1141281).side, 767);
    EXPECT_EQ(qx::planMWGrid(10, 10, 1200000).side, 768);
    EXPECT_EQ(qx::planMWGrid(10, 10, 3500000).side, 768);
}

TEST(RefineGrid, ImagesAtTheCapAreOneWindowWide) {
    // 768 wide: not above the side. 769 wide: 769 / 698.18 + 0.75 = 1.85 gives one window of
    // (int)(769 * 1.1) = 845, wider than the image, so the image is one window again.
    expectGrid(qx::planMWGrid(768, 300, 3500000), 768, {1, 768, 768}, {1, 300, 300});
    expectGrid(qx::planMWGrid(769, 769, 3500000), 768, {1, 769, 769}, {1, 769, 769});
}

TEST(RefineGrid, SeveralWindowsOverlapByAboutATenth) {
    // 1000: 1000 / 698.18 + 0.75 = 2.18 -> 2 windows of 550, step 500 - (int)27.5 = 473.
    // 1600: 2.29 + 0.75 = 3.04 -> 3 windows of (int)586.7 = 586, step 533 - (int)19.5 = 514.
    expectGrid(qx::planMWGrid(1000, 1600, 3500000), 768, {2, 550, 473}, {3, 586, 514});
    // side 100, 250 wide: 2.75 + 0.75 = 3.5 -> 3 windows of (int)91.7 = 91, step 83 - 3 = 80;
    // 100 high is not above the side.
    expectGrid(qx::planMWGrid(250, 100, 19400), 100, {3, 91, 80}, {1, 100, 100});
}

TEST(RefineGrid, FailedMemoryQueryGivesOneWindowAndTinyBudgetsStayFinite) {
    // A budget of 0 (the query failed): side 0, W / 0 is infinite, one window of the image.
    expectGrid(qx::planMWGrid(500, 400, 0), 0, {1, 500, 500}, {1, 400, 400});
    // side 1: 11 windows of 1 pixel over 10, whose step 10 / 11 - 0 would be 0; it is 1.
    expectGrid(qx::planMWGrid(10, 3, 2), 1, {11, 1, 1}, {4, 1, 1});
}

std::vector<qx::MWWindow> walk(int W, int H, int units) {
    std::vector<qx::MWWindow> out;
    qx::walkMWGrid(qx::planMWGrid(W, H, units), W, H, [&](const qx::MWWindow& w) {
        if (out.size() > 10000000) throw std::runtime_error("walk does not end");
        out.push_back(w);
    });
    return out;
}

TEST(RefineGrid, WalkClampsTheLastWindowsFlushWithTheEdges) {
    // 250 x 100, side 100: x = 0, 80, then 160 + 91 passes 250 and stands at 159.
    auto w = walk(250, 100, 19400);
    ASSERT_EQ(w.size(), 3u);
    const int xs[3] = {0, 80, 159};
    const int lefts[3] = {0, 4, 4}, rights[3] = {4, 4, 0};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(w[i].x, xs[i]);
        EXPECT_EQ(w[i].y, 0);
        EXPECT_EQ(w[i].left, lefts[i]);
        EXPECT_EQ(w[i].right, rights[i]);
        EXPECT_EQ(w[i].top, 0);
        EXPECT_EQ(w[i].bottom, 0);
    }
    // 1000 x 1600 at the cap: columns 0 and 450, rows 0, 514 and 1014 (1028 + 586 passes 1600).
    w = walk(1000, 1600, 3500000);
    ASSERT_EQ(w.size(), 6u);
    const int ys[3] = {0, 514, 1014};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 2; ++c) {
            const auto& win = w[r * 2 + c];
            EXPECT_EQ(win.x, c == 0 ? 0 : 450);
            EXPECT_EQ(win.y, ys[r]);
            EXPECT_EQ(win.left, c == 0 ? 0 : 4);
            EXPECT_EQ(win.right, c == 0 ? 4 : 0);
            EXPECT_EQ(win.top, r == 0 ? 0 : 4);
            EXPECT_EQ(win.bottom, r == 2 ? 0 : 4);
        }
    }
}

TEST(RefineGrid, WalkCoversEveryPixelAndStaysInside) {
    const int sizes[] = {1, 2, 7, 37, 100, 333, 769, 1000, 2500};
    const int budgets[] = {0, 2, 50, 19400, 3500000};
    for (int units : budgets)
        for (int W : sizes)
            for (int H : {1, 9, 250, 1601}) {
                const auto g = qx::planMWGrid(W, H, units);
                std::vector<char> col(W, 0), row(H, 0);
                for (const auto& win : walk(W, H, units)) {
                    ASSERT_GE(win.x, 0);
                    ASSERT_GE(win.y, 0);
                    ASSERT_LE(win.x + g.winW, W);
                    ASSERT_LE(win.y + g.winH, H);
                    for (int x = win.x; x < win.x + g.winW; ++x) col[x] = 1;
                    for (int y = win.y; y < win.y + g.winH; ++y) row[y] = 1;
                }
                for (int x = 0; x < W; ++x) ASSERT_TRUE(col[x]) << W << " " << units;
                for (int y = 0; y < H; ++y) ASSERT_TRUE(row[y]) << H << " " << units;
            }
}

int kicks = 0;
int countKicks(int, int, void*) {
    ++kicks;
    return 1;
}

// refineAlphaMW over host buffers, counting progress kicks.
struct RefineJob : qxtest::WindowImages {
    using WindowImages::WindowImages;
    void run() {
        kicks = 0;
        int counter = 0;
        qx::setProgProc(countKicks, &counter, 1000000, 1);
        EXPECT_EQ(apply(qx::refineAlphaMW), 0);
        qx::setProgProc(nullptr, nullptr, 0, 0);
    }
};

TEST(RefineAlphaMW, WindowsWithFiveOrFewerUnknownPixelsAreSkipped) {
    Budget budget(3500000);  // one window
    PaddedPlane flat(30, 30, 4, 90);
    for (int open : {5, 6}) {
        RefineJob job(&flat, &flat, &flat, 30, 30);
        job.known = PaddedPlane(30, 30, 3, 255);
        job.alpha = PaddedPlane(30, 30, 5, 200);
        for (int i = 0; i < open; ++i) {
            job.known.at(5 + 4 * i, 15) = 0;
            job.alpha.at(5 + 4 * i, 15) = 3;
        }
        const PaddedPlane before = job.alpha;
        job.run();
        if (open == 5) {
            EXPECT_EQ(job.alpha.bytes, before.bytes);  // not even filtered
            EXPECT_EQ(kicks, 0);
        } else {
            EXPECT_GT(kicks, 0);
            for (int i = 0; i < open; ++i) EXPECT_NEAR(job.alpha.at(5 + 4 * i, 15), 200, 2);
            for (int y = 0; y < 30; ++y)
                for (int x = 0; x < 30; ++x)
                    if (job.known.at(x, y)) {
                        ASSERT_EQ(job.alpha.at(x, y), 200);
                    }
            EXPECT_TRUE(job.alpha.padsIntact());
        }
    }
}

TEST(RefineAlphaMW, NineWindowsSharpenACoarseAlphaToTheCompositesOwn) {
    // 250 x 250 with side 100: 3 x 3 windows of 91, each reached by the soft ring (radius 56 to
    // 84). The undecided pixels start from the true alpha cut to quarter steps, as an upsampled
    // coarse solve would leave them; the margins hold that guess where no window solved yet.
    Budget budget(19400);
    Composite comp(250, 250, 60.0, 80.0, 4);
    RefineJob job(&comp.planes[0], &comp.planes[1], &comp.planes[2], 250, 250);
    for (int y = 0; y < 250; ++y)
        for (int x = 0; x < 250; ++x) {
            const unsigned char t = comp.trimap.at(x, y);
            job.known.at(x, y) = t == 128 ? 0 : 255;
            const double q = std::round(comp.alpha[size_t(y) * 250 + x] * 4.0) / 4.0;
            job.alpha.at(x, y) = t == 128 ? static_cast<unsigned char>(q * 255.0) : t;
        }
    const double guess = comp.meanError(job.alpha);
    job.run();
    const double error = comp.meanError(job.alpha);
    EXPECT_GT(kicks, 0);
    EXPECT_GT(guess, 0.04);
    EXPECT_LT(error, 0.01);
    for (int y = 0; y < 250; ++y)
        for (int x = 0; x < 250; ++x)
            if (job.known.at(x, y)) {
                ASSERT_EQ(job.alpha.at(x, y), comp.trimap.at(x, y));
            }
    EXPECT_TRUE(job.alpha.padsIntact());
}

}  // namespace

namespace {

TEST(RefineAlphaMW, MarginsHoldTheAlphaAroundTheWindow) {
    // 150 x 20 of one colour, side 100: two windows of 82, at 0 (right margin 78..81) and at 68
    // (left margin 68..71). Only columns 0..2 are known (250); the rest starts at 10. In the
    // first window the right margin holds 10, so alpha falls from 250 towards 10 across it; the
    // second window has no constraint but its left margin, so it takes that margin's level.
    Budget budget(19400);
    PaddedPlane flat(150, 20, 4, 90);
    RefineJob job(&flat, &flat, &flat, 150, 20);
    job.known = PaddedPlane(150, 20, 3, 0);
    job.alpha = PaddedPlane(150, 20, 5, 10);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 3; ++x) job.known.at(x, y) = 255, job.alpha.at(x, y) = 250;
    job.run();
    const int mid = job.alpha.at(40, 10), join = job.alpha.at(70, 10), far = job.alpha.at(140, 10);
    EXPECT_GT(mid, 40);
    EXPECT_LT(mid, 220);
    EXPECT_LT(join, mid);
    EXPECT_NEAR(far, join, 6);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 3; ++x) ASSERT_EQ(job.alpha.at(x, y), 250);
}

}  // namespace
