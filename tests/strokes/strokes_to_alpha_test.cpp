// The stroke engine against a scene whose alpha is known, beside the tri-map job on the same
// strokes; its refusals, painted pixels, memory budget and progress.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "flows/mask_alpha_flow.h"
#include "runtime/progress.h"
#include "strokes/strokes_job.h"
#include "qxiveilon31.h"
#include "qxworkflow.h"
#include "support/holes_scene.h"
#include "support/requests.h"
#include "support/scenes.h"

namespace {

struct Scene : qxtest::DemoScene {
    std::vector<unsigned char>& bgr = image;
    std::vector<unsigned char> coded = qxtest::libraryCoding(strokes);  // the library's coding
    Scene(int width, int height) : DemoScene(width, height, 7) {}
    StrokeMatteRequest request(std::vector<unsigned char>& alpha) {
        alpha.assign(size_t(w) * h, 77);
        return qxtest::strokeRequest(bgr, coded, alpha, w, h);
    }
    // Mean absolute error over the unpainted pixels, on the 0..255 scale.
    double error(const std::vector<unsigned char>& alpha) const {
        double sum = 0;
        long n = 0;
        for (size_t i = 0; i < alpha.size(); ++i)
            if (!(coded[i] & 1)) sum += std::abs(alpha[i] - truth[i]), ++n;
        return sum / n;
    }
};

TEST(StrokesToAlpha, NearTheTruthAndNoWorseThanTheTrimapJob) {
    Scene s(360, 280);
    std::vector<unsigned char> alpha;
    StrokeMatteRequest r = s.request(alpha);
    ASSERT_EQ(qxStrokesToAlpha(&r), 1);
    for (size_t i = 0; i < alpha.size(); ++i) {
        if (s.coded[i] == 255) {
            ASSERT_EQ(alpha[i], 255);
        } else if (s.coded[i] == 1) {
            ASSERT_EQ(alpha[i], 0);
        }
    }
    // The closed-form tri-map job on the strokes taken as a tri-map (6.44 today).
    std::vector<unsigned char> byTrimap(s.strokes);
    qxtest::MaskJob job(s.bgr, byTrimap, s.w, s.h);
    const float open = static_cast<float>(std::count_if(
        s.strokes.begin(), s.strokes.end(), [](unsigned char v) { return v > 0 && v < 255; }));
    ASSERT_EQ(qxMaskAlphaPlain(&job.req, open, 255, 0, 255, 0), 1);
    EXPECT_LT(s.error(alpha), 9.0);  // 13.5 with the tri-map job's finishing steps
    EXPECT_LE(s.error(alpha), 1.05 * s.error(byTrimap));

    // The same image with four bytes a pixel gives the same alpha.
    std::vector<unsigned char> bgra(size_t(s.w) * s.h * 4, 200), alpha4;
    for (size_t i = 0; i < size_t(s.w) * s.h; ++i)
        for (int c = 0; c < 3; ++c) bgra[4 * i + c] = s.bgr[3 * i + c];
    r = s.request(alpha4);
    r.image = bgra.data();
    r.imageStep = 4 * s.w;
    r.imageChannels = 4;
    ASSERT_EQ(qxStrokesToAlpha(&r), 1);
    EXPECT_EQ(alpha4, alpha);
}

// The flows' solve of the same strokes: painted pixels as painted, and background seen through
// holes deep inside the subject (painted as a tri-map: keep inside, cut outside, a band between
// left unpainted) closer to the truth than the closed-form solve brings it; the workflows'
// stroke engine is this one; the same refusals.
TEST(StrokesToAlphaFlow, HolesComeBackCloserThanTheClosedFormSolve) {
    const flowtest::Scene s = flowtest::holesScene(96, 12);
    std::vector<unsigned char> bgr(s.tri.size() * 3), coded(s.tri.size());
    for (size_t i = 0; i < s.tri.size(); ++i) {
        for (int c = 0; c < 3; ++c) bgr[3 * i + size_t(c)] = s.planes[c][i];
        coded[i] = s.tri[i] == 255 ? 255 : s.tri[i] == 0 ? 1 : 128;
    }
    std::vector<unsigned char> closed(s.tri.size(), 77), flows(s.tri.size(), 77);
    StrokeMatteRequest r = qxtest::strokeRequest(bgr, coded, closed, s.width, s.height);
    ASSERT_EQ(qxStrokesToAlpha(&r), 1);
    r = qxtest::strokeRequest(bgr, coded, flows, s.width, s.height);
    ASSERT_EQ(qxStrokesToAlphaFlow(&r), 1);
    for (size_t i = 0; i < flows.size(); ++i) {
        if (coded[i] == 255) {
            ASSERT_EQ(flows[i], 255);
        } else if (coded[i] == 1) {
            ASSERT_EQ(flows[i], 0);
        }
    }
    const double flowHoles = flowtest::meanError(s, flows, s.holes);
    const double closedHoles = flowtest::meanError(s, closed, s.holes);
    std::printf("holes: flows %.3f, closed form %.3f\n", flowHoles, closedHoles);
    EXPECT_LT(flowHoles, 0.7 * closedHoles);

    // The workflow's stroke engine gives the same bytes (its strokes: 255 keep, 0 cut).
    std::vector<unsigned char> viaWorkflow(s.tri.size());
    const QxwImage image{bgr.data(), 3 * s.width, 3, s.width, s.height, QXW_BGR};
    ASSERT_EQ(qxwMatteStrokes(&image, s.tri.data(), s.width, QXW_ENGINE_STROKES,
                              viaWorkflow.data(), s.width, nullptr),
              QXW_OK);
    EXPECT_EQ(viaWorkflow, flows);

    std::vector<unsigned char> untouched(s.tri.size(), 77);
    r = qxtest::strokeRequest(bgr, coded, untouched, s.width, s.height);
    r.imageChannels = 2;
    EXPECT_EQ(qxStrokesToAlphaFlow(&r), -2);
    EXPECT_EQ(qxStrokesToAlphaFlow(nullptr), -2);
    EXPECT_TRUE(std::all_of(untouched.begin(), untouched.end(),
                            [](unsigned char a) { return a == 77; }));
}

// Sparse strokes on the demonstration scene: the flows' first solve leaves a haze and soft edges
// far from any stroke; solving again on the tri-map tightened from it brings the alpha closer
// to the truth, and a pixel the truth has clear is left hazy less often. The engine makes its
// own first solve at half size; its two solves still come closer than one at full size.
TEST(StrokesToAlphaFlow, TheSecondSolveTakesTheHazeOff) {
    Scene s(240, 180);
    std::vector<unsigned char> once, twice;
    StrokeMatteRequest r = s.request(once);
    ASSERT_EQ(qx::strokesJob(r, qx::flows::flowFinish(qx::flows::FlowRun::FirstOfStrokes)), 1);
    r = s.request(twice);
    ASSERT_EQ(qxStrokesToAlphaFlow(&r), 1);
    // Unpainted pixels the truth has clear (0 or 255) that come back more than 8 off.
    auto hazy = [&](const std::vector<unsigned char>& alpha) {
        long n = 0;
        for (size_t i = 0; i < alpha.size(); ++i)
            if (!(s.coded[i] & 1) && (s.truth[i] == 0 || s.truth[i] == 255))
                n += std::abs(alpha[i] - s.truth[i]) > 8;
        return n;
    };
    std::printf("one solve: error %.2f, %ld hazy; two: %.2f, %ld hazy\n", s.error(once),
                hazy(once), s.error(twice), hazy(twice));
    EXPECT_LT(s.error(twice), 0.8 * s.error(once));
    EXPECT_LT(hazy(twice), hazy(once) / 2);
}

int reports = 0;
int countReport(int, int, void* param) {
    reports += param == &reports;
    return 1;
}

// The reduced run, beside a full-size one that reports to its own callback and leaves none
// installed.
TEST(StrokesToAlpha, ASmallBudgetSolvesReducedAndStaysClose) {
    Scene s(360, 280);
    std::vector<unsigned char> full, reduced;
    StrokeMatteRequest r = s.request(full);
    r.progProc = countReport;
    r.progParam = &reports;
    ASSERT_EQ(qxStrokesToAlpha(&r), 1);
    EXPECT_GT(reports, 0);
    EXPECT_EQ(qx::progressState().proc, nullptr);
    r = s.request(reduced);
    r.memoryBudgetMB = 20;  // far below the full-resolution solve's need
    ASSERT_EQ(qxStrokesToAlpha(&r), 1);
    EXPECT_NE(reduced, full);
    // The reduced run keeps the tri-map job's finishing steps (18.7 today); the full-size solve
    // goes without them.
    EXPECT_LT(s.error(reduced), 21.0);
    EXPECT_LT(s.error(full), 9.0);
}

TEST(StrokesToAlpha, RefusalsAndTooFewStrokesWriteNothing) {
    Scene s(64, 48);
    std::vector<unsigned char> alpha;
    const StrokeMatteRequest good = s.request(alpha);
    const std::vector<unsigned char> before = alpha;
    EXPECT_EQ(qxStrokesToAlpha(nullptr), -2);
    StrokeMatteRequest r = good;
    r.imageChannels = 2;
    EXPECT_EQ(qxStrokesToAlpha(&r), -2);
    r = good;
    r.alphaStep = s.w - 1;
    EXPECT_EQ(qxStrokesToAlpha(&r), -2);
    r = good;
    r.strokes = nullptr;
    EXPECT_EQ(qxStrokesToAlpha(&r), -2);
    for (unsigned char& c : s.coded)
        if (c == 1) c = 128;  // keep strokes only
    EXPECT_EQ(qxStrokesToAlpha(&good), -5);
    EXPECT_EQ(alpha, before);
}

TEST(StrokesToAlpha, AnImagePaintedEverywhereComesBackAsPainted) {
    Scene s(40, 30);
    for (size_t i = 0; i < s.coded.size(); ++i) s.coded[i] = static_cast<unsigned char>(i % 256) | 1;
    std::vector<unsigned char> alpha;
    StrokeMatteRequest r = s.request(alpha);
    ASSERT_EQ(qxStrokesToAlpha(&r), 1);
    for (size_t i = 0; i < alpha.size(); ++i) {
        const unsigned v = s.coded[i];
        ASSERT_EQ(alpha[i], (v & 0xFE) + ((v >> 1) & 1));
    }
}

}  // namespace
