// qxGrabCut and qxGrabCutDeleteBuf through the C interface: selections on scenes whose answer
// is known, the code handling around the cut, sessions, refusals and sizes of every range.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include <opencv2/core.hpp>

#include "grabcut/grabcut_control.h"
#include "grabcut_fixtures.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

using test::HostPlane;
using test::Rect;
using test::TwoColourScene;

// Pixels where (plane >= 128) disagrees with the subject rectangle, inside `inner` (a rectangle
// of the plane that excludes the border pixels the up-sampler leaves alone), farther than
// `margin` pixels from the subject's edge.
long wrongPixels(HostPlane& plane, const Rect& subject, const Rect& inner, int margin = 0) {
    const Rect grown{subject.x - margin, subject.y - margin, subject.w + 2 * margin,
                     subject.h + 2 * margin};
    const Rect shrunk{subject.x + margin, subject.y + margin, subject.w - 2 * margin,
                      subject.h - 2 * margin};
    long wrong = 0;
    for (int y = inner.y; y < inner.y + inner.h; ++y)
        for (int x = inner.x; x < inner.x + inner.w; ++x) {
            if (margin > 0 && grown.contains(x, y) && !shrunk.contains(x, y)) continue;
            wrong += (plane.at(x, y) >= 128) != subject.contains(x, y);
        }
    return wrong;
}

// Intersection over union of (plane >= 128) and the pixels `inside` holds.
template <class In>
double iou(HostPlane& plane, In inside) {
    long both = 0, either = 0;
    for (int y = 0; y < plane.height; ++y)
        for (int x = 0; x < plane.width; ++x) {
            const bool a = plane.at(x, y) >= 128, b = inside(x, y);
            both += a && b;
            either += a || b;
        }
    return either ? double(both) / double(either) : 1.0;
}

void endSession(GrabCutRequest& r) {
    qxGrabCutDeleteBuf(&r);
    EXPECT_EQ(r.control, nullptr);
}

TEST(GrabCutEntry, TwoColoursAtFullSizeGiveTheExactSubject) {
    // 150 x 150: no pyramid level, the cut runs on the image itself.
    TwoColourScene s(150, 150, {40, 50, 61, 47});
    GrabCutRequest r = s.request();
    ASSERT_EQ(qxGrabCut(&r, 0), 1);
    ASSERT_NE(r.control, nullptr);
    for (int y = 0; y < 150; ++y)
        for (int x = 0; x < 150; ++x) {
            const unsigned char want = s.subject.contains(x, y) ? 254 : 0;
            ASSERT_EQ(s.mask.at(x, y), want) << x << "," << y;
            ASSERT_EQ(s.result.at(x, y), want) << x << "," << y;
        }
    EXPECT_TRUE(s.mask.padsIntact());
    EXPECT_TRUE(s.result.padsIntact());
    endSession(r);

    // Too small for the starting frame: everything is background but what the user fixed.
    TwoColourScene t(8, 6, {2, 2, 3, 3});
    t.mask.at(4, 3) = 255;
    GrabCutRequest q = t.request();
    ASSERT_EQ(qxGrabCut(&q, 0), 1);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x) EXPECT_EQ(t.result.at(x, y), x == 4 && y == 3 ? 255 : 0);
    endSession(q);
}

TEST(GrabCutEntry, TwoColoursThroughThePyramidFollowTheColourEdge) {
    // 700 x 500: one level; odd edges so that the subject's edge falls between coarse pixels.
    TwoColourScene s(700, 500, {201, 143, 257, 211});
    GrabCutRequest r = s.request();
    ASSERT_EQ(qxGrabCut(&r, 1), 1);
    // The cut sees smoothed colour at half size: its edge may be a coarse pixel off, which the
    // guided doubling narrows to the two pixels next to the colour edge.
    EXPECT_EQ(wrongPixels(s.result, s.subject, {4, 4, 692, 492}, 2), 0);
    EXPECT_GT(iou(s.result, [&](int x, int y) { return s.subject.contains(x, y); }), 0.95);
    // Values are 0 and 254 away from the edge: the low bit is clear everywhere.
    for (int y = 0; y < 500; ++y)
        for (int x = 0; x < 700; ++x) ASSERT_EQ(s.mask.at(x, y) & 1, 0);
    endSession(r);
}

TEST(GrabCutEntry, FixedCodesComeBackAndWorkingCodesLoseTheirLowBit) {
    // Every byte value in a 16 x 16 block inside the subject and one in the background.
    TwoColourScene s(150, 150, {20, 20, 100, 100});
    const int blocks[2][2] = {{50, 50}, {125, 70}};
    for (const auto& b : blocks)
        for (int v = 0; v < 256; ++v) s.mask.at(b[0] + v % 16, b[1] + v / 16) = v;
    GrabCutRequest r = s.request();
    ASSERT_EQ(qxGrabCut(&r, 0), 1);
    for (const auto& b : blocks)
        for (int v = 0; v < 256; ++v) {
            const int x = b[0] + v % 16, y = b[1] + v / 16;
            const unsigned char got = s.mask.at(x, y);
            if (v & 1)
                EXPECT_EQ(got, v) << "fixed code " << v;
            else
                EXPECT_EQ(got & 1, 0) << "working code " << v;
            EXPECT_EQ(s.result.at(x, y), got);
        }
    // The fixed pixels win over the colours: a fixed background code inside the subject is
    // not selected, a fixed foreground code in the background is.
    EXPECT_EQ(s.mask.at(50 + 1, 50), 1);
    EXPECT_EQ(s.mask.at(125 + 15, 70 + 15), 255);
    endSession(r);
}

int reports = 0, lastCurrent = -1, lastTotal = -1;
int countReports(int current, int total, void*) {
    ++reports;
    lastCurrent = current;
    lastTotal = total;
    return 1;
}

TEST(GrabCutEntry, ASessionGoesOnFromItsModelsAndReportsOnce) {
    TwoColourScene s(150, 150, {40, 40, 60, 60});
    GrabCutRequest r = s.request();
    int param = 0;
    r.progProc = countReports;
    r.progParam = &param;
    reports = 0;
    ASSERT_EQ(qxGrabCut(&r, 0), 1);
    EXPECT_EQ(reports, 1);
    EXPECT_EQ(lastCurrent, 0);
    EXPECT_EQ(lastTotal, 10000);
    void* const control = r.control;

    // Unchanged strokes: the same control, the same selection.
    ASSERT_EQ(qxGrabCut(&r, 0), 1);
    EXPECT_EQ(r.control, control);
    EXPECT_EQ(wrongPixels(s.result, s.subject, {0, 0, 150, 150}), 0);

    // A one-pixel stroke of fixed background stays.
    s.mask.at(10, 10) = 1;
    ASSERT_EQ(qxGrabCut(&r, 0), 1);
    EXPECT_EQ(s.mask.at(10, 10), 1);
    EXPECT_EQ(wrongPixels(s.result, {0, 0, 0, 0}, {10, 10, 1, 1}), 0);
    EXPECT_EQ(reports, 3);
    endSession(r);
}

TEST(GrabCutEntry, AFirstCutWithoutStrokesLearnsBothSidesColours) {
    // A disc of bright orange and dark brown squares on a noisy near-black ground, the
    // rectangle as the region and no stroke, as a plug-in calls it. The brown is close to the
    // ground: one Gaussian a side (a bright-centred subject, a dark ground) gives the brown
    // squares to the ground, so the cut keeps about half the disc; mixtures of several
    // components keep them apart.
    const int w = 240, h = 240;
    const double r = 72;
    HostPlane image(w, h, 4, 0), mask(w, h, 1, 126), result(w, h, 1, 0);
    const unsigned char orange[3] = {40, 140, 230}, brown[3] = {50, 52, 62},
                        ground[3] = {70, 50, 40};
    cv::RNG noise(3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool in = std::hypot(x - w / 2.0, y - h / 2.0) < r;
            const unsigned char* c = !in ? ground : ((x / 30 + y / 30) % 2 ? brown : orange);
            for (int b = 0; b < 3; ++b)
                image.at(x, y, b) = cv::saturate_cast<unsigned char>(c[b] + noise.uniform(-12, 13));
        }
    GrabCutRequest req = test::requestOver(&image, mask, &result);
    req.roiLeft = req.roiTop = 28;  // the disc's box and 20 pixels
    req.roiWidth = req.roiHeight = 184;
    ASSERT_EQ(qxGrabCut(&req, 0), 1);
    EXPECT_GT(iou(result, [&](int x, int y) { return std::hypot(x - w / 2.0, y - h / 2.0) < r; }), 0.9);
    endSession(req);
}

TEST(GrabCutEntry, TheSameRequestGivesTheSameSelectionWhateverRanBefore) {
    // Noisy colours and a stroke, so that the models are seeded by k-means.
    TwoColourScene s(150, 150, {30, 40, 70, 60});
    cv::RNG noise(9);
    for (int y = 0; y < 150; ++y)
        for (int x = 0; x < 150; ++x)
            for (int b = 0; b < 3; ++b)
                s.image.at(x, y, b) = cv::saturate_cast<unsigned char>(
                    s.image.at(x, y, b) + noise.uniform(-60, 61));
    s.mask.at(60, 70) = 255;
    const HostPlane codes = s.mask;
    std::vector<unsigned char> first;
    cv::Mat firstModel;
    for (uint64_t state : {1ull, 987654321ull}) {
        s.mask = codes;
        cv::theRNG().state = state;  // whatever the host's own use of OpenCV left behind
        GrabCutRequest r = s.request();
        ASSERT_EQ(qxGrabCut(&r, 0), 1);
        EXPECT_EQ(cv::theRNG().state, state);
        std::vector<unsigned char> got;
        for (int y = 0; y < 150; ++y)
            for (int x = 0; x < 150; ++x) got.push_back(s.result.at(x, y));
        // The colour models too, which k-means seeds differently from different states.
        const cv::Mat model = static_cast<GrabCutControl*>(r.control)->fgdModel->clone();
        if (first.empty()) {
            first = got;
            firstModel = model;
        } else {
            EXPECT_EQ(got, first);
            EXPECT_EQ(cv::norm(model, firstModel, cv::NORM_INF), 0.0);
        }
        endSession(r);
    }
}

TEST(GrabCutEntry, DeletingSettlesEveryCode) {
    // The codes after a session: 0 and 1 become fixed background, 254 and 255 fixed foreground,
    // everything else loses its low bit. Worked out by hand for every value.
    HostPlane mask(16, 16, 1, 0), result(16, 16, 1, 0);
    for (int v = 0; v < 256; ++v) mask.at(v % 16, v / 16) = static_cast<unsigned char>(v);
    GrabCutRequest r = test::requestOver(nullptr, mask, &result);
    qxGrabCutDeleteBuf(&r);  // no control: only the codes
    for (int v = 0; v < 256; ++v) {
        int want;
        if (v <= 1) want = 1;
        else if (v >= 254) want = 255;
        else want = v % 2 == 0 ? v : v - 1;
        EXPECT_EQ(mask.at(v % 16, v / 16), want) << v;
        EXPECT_EQ(result.at(v % 16, v / 16), want) << v;
    }
    EXPECT_TRUE(mask.padsIntact() && result.padsIntact());

    // A null result: only the mask is settled. A null request: nothing happens.
    HostPlane m2(4, 1, 1, 0);
    m2.at(1, 0) = 3;
    r.mask = m2.data();
    r.maskStep = m2.step;
    r.result = nullptr;
    r.width = r.roiWidth = 4;
    r.height = r.roiHeight = 1;
    qxGrabCutDeleteBuf(&r);
    EXPECT_EQ(m2.at(0, 0), 1);
    EXPECT_EQ(m2.at(1, 0), 2);
    qxGrabCutDeleteBuf(nullptr);
}

// ---- Sizes ------------------------------------------------------------------------------------

TEST(GrabCutSizes, LargeImagesAreHalvedFirstAndBroughtBack) {
    // 3300 wide: beyond the pyramid's range, one halving, then three levels.
    TwoColourScene s(3300, 420, {1201, 97, 1333, 251});
    GrabCutRequest r = s.request();
    ASSERT_EQ(qxGrabCut(&r, 0), 1);
    // A working pixel is 16 image pixels. The one that straddles the subject's edge holds a
    // third colour, a blend, which the learnt mixtures may give to either side: the edge may
    // come back up to two working pixels off.
    EXPECT_EQ(wrongPixels(s.result, s.subject, {8, 8, 3284, 404}, 32), 0);
    EXPECT_GT(iou(s.result, [&](int x, int y) { return s.subject.contains(x, y); }), 0.97);
    endSession(r);
}

}  // namespace
}  // namespace qx
