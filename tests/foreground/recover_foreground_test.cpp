#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "foreground/recovery.h"
#include "frame/memory.h"
#include "frame/progress.h"
#include "image/primitives.h"
#include "qxiveilon31.h"
#include "recovery_scene.h"

namespace {

// Host buffers of a full image with a region, as a host passes them.
struct Host {
    int fw, fh;
    std::vector<uint8_t> src, alpha, dst, aux;
    KeepCutRequest req{};
    Host(int w, int h, uint8_t dstFill = 0) : fw(w), fh(h) {
        src.assign(size_t(w) * h * 4, 0);
        alpha.assign(size_t(w) * h, 0);
        dst.assign(size_t(w) * h * 4, dstFill);
        aux.assign(size_t(w) * h, 0);
        req.srcImage = src.data();
        req.srcStep = w * 4;
        req.alphaPlane = alpha.data();
        req.alphaStep = w;
        req.dstImage = dst.data();
        req.dstStep = w * 4;
        req.auxPlane = aux.data();
        req.auxStep = w;
        req.fullWidth = w;
        req.fullHeight = h;
        region(0, 0, w, h);
    }
    void region(int x, int y, int w, int h) {
        req.roiX = x, req.roiY = y, req.roiWidth = w, req.roiHeight = h;
    }
    explicit Host(const fgtest::Scene& s) : Host(s.w, s.h) {
        src = s.composite;
        alpha = s.alpha;
        dst = s.composite;  // a host shows the image there
    }
    uint8_t* px(std::vector<uint8_t>& v, int x, int y) { return v.data() + (size_t(y) * fw + x) * 4; }
};

class Recovery : public ::testing::Test {
protected:
    void SetUp() override {
        const qx::MemStatus plenty{8ull << 30, 8ull << 30, 8ull << 30};
        qx::overrideMemStatus(&plenty);
        qx::setProgProc(nullptr, nullptr, 0, 0);
    }
    void TearDown() override {
        qx::overrideMemStatus(nullptr);
        qx::setProgProc(nullptr, nullptr, 0, 0);
    }
};

// ---- End to end on a composite with a known foreground --------------------------------------

TEST_F(Recovery, WholeRegionRecoversAKnownForeground) {
    const fgtest::Scene s = fgtest::discScene(240, 200, 60.0, 48.0);
    Host h(s);
    const double naive = fgtest::fgError(s, s.composite.data(), 4, 3);
    ASSERT_EQ(qxRecoverForeground(&h.req, 0), 0);
    const double err = fgtest::fgError(s, h.dst.data(), 4, 3);
    EXPECT_LT(err, 0.1 * naive) << "naive " << naive;
}

TEST_F(Recovery, CellWiseRecoversAKnownForeground) {
    // The window gives the result full weight only in the middle of the region (within about
    // 1/13 of its size of the centre it is above 0.87), so the subject sits there and the error
    // is measured there. 240 x 180 with regionMode set runs at full resolution (s = 1) in cells
    // of at most 100 pixels; from strokes alone it runs at 0.18 of the size.
    const fgtest::Scene s = fgtest::discScene(240, 180, 10.0, 16.0);
    auto centreError = [&](const std::vector<uint8_t>& img) {
        double e = 0;
        for (int y = 90 - 13; y <= 90 + 13; ++y)
            for (int x = 120 - 17; x <= 120 + 17; ++x) {
                const size_t i = size_t(y) * 240 + x;
                const int a = s.alpha[i];
                if (a == 0 || a == 255) continue;
                for (int c = 0; c < 3; ++c)
                    e += a / 255.0 * std::abs(int(img[4 * i + c]) - int(s.fg[3 * i + c])) / 255.0;
            }
        return e;
    };
    const double naive = centreError(s.composite);
    ASSERT_GT(naive, 50.0);
    Host h(s);
    h.req.regionMode = 4;
    ASSERT_EQ(qxRecoverForegroundCell(&h.req, 1), 1);
    EXPECT_LT(centreError(h.dst), 0.2 * naive) << "naive " << naive;
    Host h0(s);
    ASSERT_EQ(qxRecoverForegroundCell(&h0.req, 0), 1);
    EXPECT_LT(centreError(h0.dst), 0.2 * naive) << "naive " << naive;
}

// ---- Skipped cells, kept source, frames --------------------------------------------------------

TEST_F(Recovery, DecidedAlphaSkipsEveryCellAndCopiesTheSourceInsideTheFrame) {
    Host h(64, 48, 0x11);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            uint8_t* p = h.px(h.src, x, y);
            p[0] = uint8_t(3 * x), p[1] = uint8_t(5 * y), p[2] = uint8_t(x ^ y), p[3] = 200;
            h.alpha[size_t(y) * 64 + x] = (x + y) % 3 ? 255 : 0;
        }
    h.region(5, 4, 50, 40);
    ASSERT_EQ(qxRecoverForeground(&h.req, 0), 0);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            const bool inside = x >= 8 && x < 52 && y >= 7 && y < 41;  // region less 3
            const uint8_t* d = h.px(h.dst, x, y);
            const uint8_t* s = h.px(h.src, x, y);
            for (int c = 0; c < 3; ++c) ASSERT_EQ(d[c], inside ? s[c] : 0x11) << x << "," << y;
            ASSERT_EQ(d[3], 0x11);  // the fourth byte is never written
        }
}

TEST_F(Recovery, KeptSourceThresholds) {
    // A checkerboard source: what isn't kept comes back blurred by the reduction, what is kept
    // comes back exact. Columns by alpha: 250 | 251 | 4 | 5 (the whole-region entry keeps 251
    // and 4, not 250 or 5; none of them makes a cell mixed).
    Host h(240, 120);
    const uint8_t codes[4] = {250, 251, 4, 5};
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 240; ++x) {
            const uint8_t v = (x + y) % 2 ? 255 : 0;
            std::memset(h.px(h.src, x, y), v, 4);
            h.alpha[size_t(y) * 240 + x] = codes[x / 60];
        }
    ASSERT_EQ(qxRecoverForeground(&h.req, 0), 0);
    for (int band = 0; band < 4; ++band) {
        int exact = 0, total = 0;
        for (int y = 20; y < 100; ++y)
            for (int x = band * 60 + 10; x < band * 60 + 50; ++x, ++total)
                exact += h.px(h.dst, x, y)[0] == h.px(h.src, x, y)[0];
        if (band == 1 || band == 2) {
            EXPECT_EQ(exact, total) << "alpha " << int(codes[band]);
        } else {
            EXPECT_LT(exact, total / 10) << "alpha " << int(codes[band]);
        }
    }
}

TEST_F(Recovery, CellWiseKeepsFrom252Not251) {
    // From strokes alone (s = 0.18), destination 0: a kept pixel comes out as trunc(src * r)
    // with r the window's weight; one that isn't kept comes from the reduced image and misses
    // that value almost everywhere (the source is a fine pattern that the reduction can't keep).
    Host h(300, 200);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 300; ++x) {
            std::memset(h.px(h.src, x, y), uint8_t((x * 7919 + y * 104729) % 251), 4);
            h.alpha[size_t(y) * 300 + x] = x < 150 ? 251 : 252;
        }
    ASSERT_EQ(qxRecoverForegroundCell(&h.req, 0), 1);
    const std::vector<float> r = qx::featherWindow(300, 200);
    int kept[2] = {0, 0}, total[2] = {0, 0};
    for (int y = 80; y < 120; ++y)
        for (int x = 110; x < 190; ++x) {
            const int side = x < 150 ? 0 : 1;
            const float v = float(h.px(h.src, x, y)[0]) * r[size_t(y) * 300 + x];
            kept[side] += h.px(h.dst, x, y)[0] == int(v);
            ++total[side];
        }
    EXPECT_LT(kept[0], total[0] / 4);  // 251: not kept
    EXPECT_EQ(kept[1], total[1]);      // 252: kept
}

TEST_F(Recovery, FramesOfBothEntries) {
    // Alpha 0 keeps the source (255) everywhere; the destination starts at 0.
    for (int mode : {0, 1}) {
        Host h(20, 20);
        for (size_t i = 0; i < h.src.size(); ++i) h.src[i] = 255;
        h.region(2, 3, 9, 9);
        h.req.regionMode = mode;
        ASSERT_EQ(qxRecoverForegroundCell(&h.req, mode), 1);
        // The window is 1 in the middle: the centre is written in both modes.
        EXPECT_GE(h.px(h.dst, 2 + 4, 3 + 4)[0], 250) << mode;
        // Two columns left of the centre the window is well above 0: written with a frame of 1,
        // left alone with a frame of 3.
        const int v = h.px(h.dst, 2 + 2, 3 + 4)[0];
        if (mode == 0) {
            EXPECT_GT(v, 20);
        } else {
            EXPECT_EQ(v, 0);
        }
        // Outside the region nothing changes; byte 3 is never written.
        for (int y = 0; y < 20; ++y)
            for (int x = 0; x < 20; ++x) {
                const bool in = x >= 2 && x < 11 && y >= 3 && y < 12;
                if (!in) {
                    ASSERT_EQ(h.px(h.dst, x, y)[0], 0);
                }
                ASSERT_EQ(h.px(h.dst, x, y)[3], 0);
            }
    }
    // A region of 5 x 5 with regionMode set leaves nothing inside a frame of 3.
    Host h(20, 20);
    for (size_t i = 0; i < h.src.size(); ++i) h.src[i] = 255;
    h.region(2, 3, 5, 5);
    h.req.regionMode = 1;
    ASSERT_EQ(qxRecoverForegroundCell(&h.req, 1), 1);
    EXPECT_TRUE(std::all_of(h.dst.begin(), h.dst.end(), [](uint8_t v) { return v == 0; }));
}

// ---- Feathering ------------------------------------------------------------------------------

TEST(Feathering, RampValuesByHand) {
    const std::vector<float> r = qx::featherRamp(200, 150);
    auto at = [&](int x, int y) { return r[size_t(y) * 200 + x]; };
    EXPECT_EQ(at(0, 75), 0.0f);
    EXPECT_EQ(at(100, 0), 0.0f);
    EXPECT_FLOAT_EQ(at(32, 75), 0.5f);
    EXPECT_FLOAT_EQ(at(100, 75), 1.0f);
    EXPECT_FLOAT_EQ(at(136, 75), 1.0f);            // 136 is not above 200 - 64
    EXPECT_FLOAT_EQ(at(137, 75), 63.0f / 64.0f);
    EXPECT_FLOAT_EQ(at(199, 75), 1.0f / 64.0f);
    EXPECT_FLOAT_EQ(at(16, 140), 0.25f * 10.0f / 64.0f);
    // Narrower than 65 columns: only the left ramp.
    const std::vector<float> n = qx::featherRamp(50, 150);
    EXPECT_FLOAT_EQ(n[size_t(75) * 50 + 49], 49.0f / 64.0f);
    const std::vector<float> m = qx::featherRamp(65, 150);
    EXPECT_FLOAT_EQ(m[size_t(75) * 65 + 64], 1.0f / 64.0f);
}

TEST_F(Recovery, EdgeBlendFollowsTheRamp) {
    Host h(200, 150, 100);
    for (size_t i = 0; i < h.src.size(); ++i) h.src[i] = 201;  // alpha 0: the source is kept
    ASSERT_EQ(qxRecoverForeground(&h.req, 1), 0);
    EXPECT_EQ(h.px(h.dst, 32, 75)[0], 150);   // 0.5 * 201 + 0.5 * 100 = 150.5
    EXPECT_EQ(h.px(h.dst, 3, 3)[1], 100);     // (3/64)^2: 100.2
    EXPECT_EQ(h.px(h.dst, 100, 75)[2], 201);
    EXPECT_EQ(h.px(h.dst, 180, 75)[0], 131);  // (20/64) * 201 + (44/64) * 100 = 131.56
    // Only the low byte of the flag counts.
    Host g(200, 150, 100);
    for (size_t i = 0; i < g.src.size(); ++i) g.src[i] = 201;
    ASSERT_EQ(qxRecoverForeground(&g.req, 0x100), 0);
    EXPECT_EQ(g.px(g.dst, 32, 75)[0], 201);
}

TEST(Feathering, WindowIsTheTableAndVanishesAtTheBorder) {
    const std::vector<float> t = qx::featherWindow(13, 13);
    auto at = [&](int i, int j) { return t[size_t(i) * 13 + j]; };
    EXPECT_NEAR(at(6, 6), 1.0f, 1e-6);
    EXPECT_NEAR(at(1, 2), 0.001f, 1e-6);
    EXPECT_NEAR(at(2, 6), 0.1041f, 1e-6);
    EXPECT_NEAR(at(4, 5), 0.4932f, 1e-6);
    for (int k = 0; k < 13; ++k) {
        EXPECT_NEAR(at(0, k), 0.0f, 1e-6);
        EXPECT_NEAR(at(12, k), 0.0f, 1e-6);
        for (int j : {0, 1, 11, 12}) EXPECT_NEAR(at(k, j), 0.0f, 1e-6);
        for (int j = 0; j < 13; ++j) {
            EXPECT_NEAR(at(k, j), at(12 - k, j), 1e-6);
            EXPECT_NEAR(at(k, j), at(k, 12 - j), 1e-6);
        }
    }
    const std::vector<float> big = qx::featherWindow(260, 130);
    auto b = [&](int x, int y) { return big[size_t(y) * 260 + x]; };
    for (int y = 0; y < 130; ++y) {
        EXPECT_LT(std::abs(b(0, y)), 0.01f);
        EXPECT_LT(std::abs(b(259, y)), 0.01f);
    }
    for (int x = 0; x < 260; ++x) EXPECT_LT(std::abs(b(x, 0)), 0.01f);
    EXPECT_GT(b(130, 65), 0.95f);
}

// ---- Progress ----------------------------------------------------------------------------------

struct Calls {
    std::vector<int> current, total;
};
int record(int current, int total, void* param) {
    auto* c = static_cast<Calls*>(param);
    c->current.push_back(current);
    c->total.push_back(total);
    return 1;
}

TEST_F(Recovery, CellWiseInstallsItsProgressAndSteps650) {
    // 800 x 600 at 0.18 is 144 x 108: two cells across, one down, so the step is
    // 0.065 * (20000 / 2) = 650.
    const fgtest::Scene s = fgtest::discScene(800, 600, 200.0, 60.0);
    Host h(s);
    Calls calls;
    h.req.progProc = record;
    h.req.progParam = &calls;
    ASSERT_EQ(qxRecoverForegroundCell(&h.req, 0), 1);
    ASSERT_GE(calls.current.size(), 3u);
    EXPECT_EQ(calls.current[0], 0);  // the opening tick, before the step is set
    for (int t : calls.total) EXPECT_EQ(t, 20000);
    for (size_t i = 1; i < calls.current.size(); ++i) {
        const int expected = calls.current[i - 1] + 650;
        EXPECT_EQ(calls.current[i], expected >= 20000 ? 10000 : expected) << i;
    }
    // A null parameter: no call at all.
    Calls none;
    Host g(s);
    g.req.progProc = record;
    ASSERT_EQ(qxRecoverForegroundCell(&g.req, 0), 1);
    EXPECT_TRUE(none.current.empty());
}

TEST_F(Recovery, OneCellImageReportsAsManyStepsAsTwoCells) {
    // The walk visits a one-cell image's cell twice and solves it once; the host must still see
    // the reports of two solves, as for an image two cells across (800 x 600 at 0.18 is
    // 144 x 108; 400 x 300 is 72 x 54, one cell), each cell holding part of the disc's edge.
    auto reports = [](int w, int h, double radius) {
        const fgtest::Scene s = fgtest::discScene(w, h, radius, 0.3 * radius);
        Host host(s);
        Calls calls;
        host.req.progProc = record;
        host.req.progParam = &calls;
        EXPECT_EQ(qxRecoverForegroundCell(&host.req, 0), 1);
        return calls.current.size();
    };
    const size_t twoCells = reports(800, 600, 200.0);
    EXPECT_GT(twoCells, 4u);
    EXPECT_EQ(reports(400, 300, 100.0), twoCells);
}

TEST_F(Recovery, WholeRegionKeepsTheInstalledCallbackAndSetsItsStep) {
    // 400 x 300 at 0.25 is 100 x 75: one cell, step 10000 / (7500 / (2.25 * 7500)) = 22500.
    const fgtest::Scene s = fgtest::discScene(400, 300, 100.0, 30.0);
    Host h(s);
    Calls calls;
    qx::setProgProc(record, &calls, 5, 1);
    ASSERT_EQ(qxRecoverForeground(&h.req, 0), 0);
    const qx::ProgressSnapshot st = qx::progressState();
    EXPECT_EQ(st.proc, &record);
    EXPECT_EQ(st.param, &calls);
    EXPECT_EQ(st.total, 20000);
    EXPECT_EQ(st.step, 22500);
    ASSERT_FALSE(calls.current.empty());
    // 22500 overruns 20000 at once: every report is the fallback to half.
    for (int c : calls.current) EXPECT_EQ(c, 10000);
}

// ---- Refusals and failures -------------------------------------------------------------------

TEST_F(Recovery, BadRequestsAreRefusedWithoutWriting) {
    using Edit = void (*)(KeepCutRequest&);
    const Edit edits[] = {
        [](KeepCutRequest& r) { r.srcImage = nullptr; },
        [](KeepCutRequest& r) { r.alphaPlane = nullptr; },
        [](KeepCutRequest& r) { r.dstImage = nullptr; },
        [](KeepCutRequest& r) { r.fullWidth = 0; },
        [](KeepCutRequest& r) { r.fullHeight = -3; },
        [](KeepCutRequest& r) { r.roiWidth = 0; },
        [](KeepCutRequest& r) { r.roiHeight = 0; },
        [](KeepCutRequest& r) { r.roiX = -1; },
        [](KeepCutRequest& r) { r.roiY = 25; },  // 25 + 16 > 40
        [](KeepCutRequest& r) { r.roiX = 20; },  // 20 + 32 > 48
        [](KeepCutRequest& r) { r.srcStep = 48 * 4 - 1; },
        [](KeepCutRequest& r) { r.alphaStep = 47; },
        [](KeepCutRequest& r) { r.dstStep = -48 * 4; },
    };
    for (size_t i = 0; i < std::size(edits); ++i) {
        for (int entry = 0; entry < 2; ++entry) {
            Host h(48, 40, 9);
            h.region(4, 4, 32, 16);
            edits[i](h.req);
            const std::vector<uint8_t> before = h.dst;
            const int64_t st = entry == 0 ? qxRecoverForeground(&h.req, 1)
                                          : qxRecoverForegroundCell(&h.req, 0);
            EXPECT_EQ(st, qx::kRecoveryRefused) << i << " entry " << entry;
            EXPECT_EQ(h.dst, before);
        }
    }
    EXPECT_EQ(qxRecoverForeground(nullptr, 0), qx::kRecoveryRefused);
    EXPECT_EQ(qxRecoverForegroundCell(nullptr, 0), qx::kRecoveryRefused);
    // The whole-region entry needs auxPlane; the cell-wise one doesn't read it.
    Host h(48, 40);
    h.req.auxPlane = nullptr;
    EXPECT_EQ(qxRecoverForeground(&h.req, 0), qx::kRecoveryRefused);
    EXPECT_EQ(qxRecoverForegroundCell(&h.req, 0), 1);
    h.req.auxPlane = h.aux.data();
    h.req.auxStep = 10;
    EXPECT_EQ(qxRecoverForeground(&h.req, 0), qx::kRecoveryRefused);
}

TEST_F(Recovery, ImageFailureBecomesItsStatusAndLeavesTheDestination) {
    const fgtest::Scene s = fgtest::discScene(64, 64, 16.0, 12.0);
    Host h(s);
    std::fill(h.dst.begin(), h.dst.end(), 3);
    const std::vector<uint8_t> before = h.dst;
    qx::prim::failNextAllocations(2);  // the first working image: its allocator and the fallback
    EXPECT_EQ(qxRecoverForeground(&h.req, 0), 102 - 1000);
    qx::prim::failNextAllocations(0);
    EXPECT_EQ(h.dst, before);
}

TEST_F(Recovery, TinyRegionsAreServed) {
    // Under 4 pixels the reduced image is empty; the region still gets the source where alpha
    // is decided and nothing breaks.
    for (int w : {1, 2, 3, 5}) {
        Host h(w, 3, 0);
        for (size_t i = 0; i < h.src.size(); ++i) h.src[i] = 90;
        EXPECT_EQ(qxRecoverForeground(&h.req, 1), 0) << w;
        EXPECT_EQ(qxRecoverForegroundCell(&h.req, 0), 1) << w;
        h.req.regionMode = 2;
        EXPECT_EQ(qxRecoverForegroundCell(&h.req, 0), 1) << w;
        EXPECT_TRUE(std::all_of(h.dst.begin(), h.dst.end(), [](uint8_t v) { return v <= 90; }));
    }
    // A 3 x 3 region from strokes alone has a frame of 1: the centre is written.
    Host h(3, 3, 0);
    for (size_t i = 0; i < h.src.size(); ++i) h.src[i] = 90;
    EXPECT_EQ(qxRecoverForegroundCell(&h.req, 0), 1);
    EXPECT_GT(h.px(h.dst, 1, 1)[0], 0);
}

}  // namespace
