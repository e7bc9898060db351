// The editor tools (brushes, fills, filters, the hair brush and the tri-map band), the mask box
// and the display functions called from several host threads at once: each thread's results
// must be those of the same calls made one at a time, and each thread's floating-point mode
// must come back as it was.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "editor/padded_plane.h"
#include "runtime/fpmode.h"
#include "qxiveilon31.h"

namespace {

using qxtest::PaddedPlane;

// All outputs of one round of calls on images made from `seed`, concatenated.
std::vector<uint8_t> round(unsigned seed) {
    std::mt19937 rng(seed);
    const int w = 48 + int(rng() % 16), h = 40 + int(rng() % 16);
    PaddedPlane image(w, h, 4, 0, 3), codes(w, h, 1, 126, 2), alpha(w, h, 1, 0, 1);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            for (int c = 0; c < 4; ++c) image.at(x, y, c) = uint8_t(rng());
            alpha.at(x, y) = uint8_t(x * 255 / (w - 1));
            if (x < 6) codes.at(x, y) = 1;
        }
    std::vector<uint8_t> out;
    auto keep = [&out](int status, const PaddedPlane& p) {
        out.push_back(uint8_t(status));
        out.insert(out.end(), p.buf.begin(), p.buf.end());
    };

    // Editor tools.
    keep(qxDrawLine8u(codes.data(), codes.step, w, h, 3, 4, w - 5, h - 7, int(rng() % 5), 1, 0),
         codes);
    int rect[4];
    keep(qxFloodFillAlpha(codes.data(), codes.step, w, h, w / 2, 1, 0, 0, 2, 0, rect), codes);
    out.insert(out.end(), reinterpret_cast<uint8_t*>(rect), reinterpret_cast<uint8_t*>(rect + 4));
    GrabCutRequest req{.image = image.data(), .imageStep = image.step, .mask = codes.data(),
                       .maskStep = codes.step, .width = w, .height = h};
    const uint8_t colour[3] = {uint8_t(rng()), uint8_t(rng()), uint8_t(rng())};
    keep(qxColorRangeSelect(&req, 0, h / 2, w, h / 3, 6, colour, 200, 0), codes);
    keep(qxDesaturation(image.data(), image.step, w, h, alpha.data(), alpha.step, 0.7f), image);
    PaddedPlane smooth = alpha;
    keep(qxfilterIm8u(smooth.data(), smooth.step, w, h, int(rng() % 2)), smooth);

    // Hair brush over the image between two colours, and the tri-map band of a selection.
    uint8_t fore[3] = {250, 240, 230}, back[3] = {5, 10, 15};
    PaddedPlane hairAlpha = alpha;
    KeepCutRequest hair{.srcImage = image.data(), .srcStep = image.step,
                        .alphaPlane = hairAlpha.data(), .alphaStep = alpha.step, .fullWidth = w,
                        .fullHeight = h, .foreColor = fore, .backColor = back};
    keep(int(qxHairSelect(&hair, 10, 12, w - 12, h - 10, 3 + rng() % 4)), hairAlpha);
    PaddedPlane selection(w, h, 1, 0, 3), trimap(w, h, 1, 99, 1);
    for (int y = h / 4; y < h * 3 / 4; ++y)
        for (int x = w / 5 + int(rng() % 3); x < w * 4 / 5; ++x) selection.at(x, y) = 254;
    GrabCutRequest band{.mask = trimap.data(), .maskStep = trimap.step, .result = selection.data(),
                        .resultStep = selection.step, .width = w, .height = h, .roiWidth = w,
                        .roiHeight = h};
    qxGrabCutEdgeGen(&band, 4 + int(rng() % 5));
    keep(1, trimap);

    // Mask box of the code plane.
    int box[6];
    out.push_back(uint8_t(qxMaskBBox(0, codes.data(), codes.step, w, h, &box[0], &box[1],
                                     &box[2], &box[3], &box[4], &box[5], 0, 255, 1)));
    out.insert(out.end(), reinterpret_cast<uint8_t*>(box), reinterpret_cast<uint8_t*>(box + 6));

    // Display.
    PaddedPlane shown = image;
    keep(qxShowImageAlpha(shown.data(), shown.step, w, h, alpha.data(), alpha.step, 200, 30,
                          1 + int(rng() % 6), colour),
         shown);
    PaddedPlane scaled = alpha;
    keep(qxScaleAlpha(scaled.data(), scaled.step, w, h, 220, 10, 1), scaled);
    PaddedPlane blend = image;
    qxShowKeepBlend(blend.data(), blend.step, w, h, shown.data(), shown.step, 0, 0, 0.3f);
    keep(1, blend);
    PaddedPlane rgb(w, h, 3, 0, 2);
    for (int y = 0; y < h; ++y)
        for (int i = 0; i < w * 3; ++i) rgb.buf[size_t(y) * rgb.step + i] = uint8_t(rng() % 128);
    PaddedPlane ycc = rgb;
    keep(qxRGB2YCbCrAutoLevel(ycc.data(), ycc.step, w, h, int(rng() % 5), 2), ycc);
    keep(qxPreviewAutoLevel(rgb.data(), rgb.step, w, h, 180.0f), rgb);
    return out;
}

TEST(Threads, ToolsBoxAndDisplayFromFourThreadsMatchOneAtATime) {
    constexpr int kThreads = 4, kSeeds = 6, kRounds = 5;
    std::vector<std::vector<uint8_t>> expected;
    for (unsigned s = 0; s < kSeeds; ++s) expected.push_back(round(s));
    ASSERT_NE(expected[0], expected[1]);  // the seeds make different work

    std::atomic<int> mismatches{0}, modeChanged{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            const bool ftz = qx::flushToZeroOn(), daz = qx::denormalsAreZeroOn();
            for (int r = 0; r < kRounds; ++r)
                for (unsigned s = 0; s < kSeeds; ++s) {
                    const unsigned seed = (s + unsigned(t)) % kSeeds;  // threads out of step
                    if (round(seed) != expected[seed]) ++mismatches;
                    if (qx::flushToZeroOn() != ftz || qx::denormalsAreZeroOn() != daz)
                        ++modeChanged;
                }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(modeChanged.load(), 0);
}

}  // namespace
