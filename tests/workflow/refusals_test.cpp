// What the workflows make of inputs a user gets wrong: a tri-map without one of its sides is
// refused before any work, saying which side is missing; a binary mask saved as 0 and 1 is
// refined as the same mask saved as 0 and 255.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "qxworkflow.h"
#include "support/scenes.h"

namespace {

using qxtest::kSentinel;
using qxtest::untouched;

// A disc of radius 22 with a 1-pixel soft edge, its tri-map open 3 pixels either side.
struct Disc : qxtest::DiscScene {
    Disc() : DiscScene(96, 72, 22, 1, 2.5) {}
};

struct Calls {
    int count = 0;
    static void record(double, void* data) { ++static_cast<Calls*>(data)->count; }
};

// Runs the tri-map workflow on `trimap`; expects a refusal that wrote nothing and reported no
// progress, and returns its message.
std::string refusal(const Disc& d, const std::vector<unsigned char>& trimap, int fg, int bg) {
    const QxwImage img = d.view();
    std::vector<unsigned char> alpha(trimap.size(), kSentinel);
    Calls calls;
    QxwJob job{};
    job.progress = &Calls::record;
    job.progressData = &calls;
    EXPECT_EQ(qxwMatteTrimap(&img, trimap.data(), d.w, fg, bg, 255, 0, alpha.data(), d.w, &job),
              QXW_BAD_INPUT);
    EXPECT_TRUE(untouched(alpha));
    EXPECT_EQ(calls.count, 0);
    EXPECT_EQ(job.libraryStatus, 0);
    return job.message;
}

TEST(TrimapSides, ATrimapWithoutBackgroundOrSubjectIsRefusedSayingWhich) {
    const Disc d;
    std::vector<unsigned char> noBackground = d.trimap, noSubject = d.trimap;
    std::replace(noBackground.begin(), noBackground.end(), (unsigned char)0, (unsigned char)128);
    std::replace(noSubject.begin(), noSubject.end(), (unsigned char)255, (unsigned char)128);
    EXPECT_EQ(refusal(d, noBackground, 255, 0),
              "the tri-map has no background (no code at or below 0): mark some background");
    EXPECT_EQ(refusal(d, noSubject, 255, 0),
              "the tri-map has no subject (no code at or above 255): mark some of the subject");
    const std::vector<unsigned char> undecided(d.trimap.size(), 128);
    EXPECT_EQ(refusal(d, undecided, 255, 0),
              "the tri-map has neither background (no code at or below 0) nor subject (no code "
              "at or above 255): mark some of each");

    // Other codes: the sides are what lies at or beyond them, and the message names them.
    std::vector<unsigned char> coded = d.trimap;
    for (auto& v : coded) v = v == 255 ? 230 : v == 0 ? 20 : 128;
    const std::string m = refusal(d, coded, 240, 20);
    EXPECT_NE(m.find("no subject (no code at or above 240)"), std::string::npos) << m;
    EXPECT_NE(refusal(d, coded, 230, 10).find("no background (no code at or below 10)"),
              std::string::npos);
}

TEST(TrimapSides, OneBackgroundPixelIsEnoughOfASide) {
    const Disc d;
    const QxwImage img = d.view();
    // One background pixel in a corner is enough of a side.
    std::vector<unsigned char> tri = d.trimap;
    std::replace(tri.begin(), tri.end(), (unsigned char)0, (unsigned char)128);
    tri[0] = 0;
    std::vector<unsigned char> alpha(tri.size(), kSentinel);
    QxwJob job{};
    ASSERT_EQ(qxwMatteTrimap(&img, tri.data(), d.w, 255, 0, 255, 0, alpha.data(), d.w, &job),
              QXW_OK)
        << job.message;
    EXPECT_EQ(alpha[size_t(d.h / 2) * d.w + d.w / 2], 255);
}

// The workflows that make their tri-maps themselves still run: the cut-out's band from a
// rectangle over the whole image (no background outside it), and refine's band.
TEST(TrimapSides, WorkflowsThatMakeTheirOwnTrimapsAreUnaffected) {
    const Disc d;
    const QxwImage img = d.view();
    std::vector<unsigned char> alpha(d.trimap.size(), kSentinel);
    QxwJob job{};
    ASSERT_EQ(qxwCutoutFromRect(&img, nullptr, 0, 0, 0, d.w, d.h, 4, alpha.data(), d.w, nullptr,
                                &job),
              QXW_OK)
        << job.message;
    EXPECT_EQ(alpha[size_t(d.h / 2) * d.w + d.w / 2], 255);
    std::vector<unsigned char> mask(d.trimap.size());
    for (size_t i = 0; i < mask.size(); ++i) mask[i] = d.trimap[i] == 0 ? 0 : 255;
    ASSERT_EQ(qxwRefineMask(&img, mask.data(), d.w, alpha.data(), d.w, nullptr, &job), QXW_OK)
        << job.message;
    EXPECT_EQ(alpha[size_t(d.h / 2) * d.w + d.w / 2], 255);
    EXPECT_EQ(alpha[0], 0);
}

// The demonstration scene's truth cut at half: one mask saved as 0/255 and as 0/1.
TEST(RefineBinaryMask, ZeroOneMaskRefinesAsTheZero255Mask) {
    const qxtest::DemoScene d(240, 180, 5);
    const int w = d.w;
    const std::vector<unsigned char>& truth = d.truth;
    std::vector<unsigned char> mask255(truth.size()), mask01(truth.size());
    for (size_t i = 0; i < truth.size(); ++i) {
        mask255[i] = truth[i] >= 128 ? 255 : 0;
        mask01[i] = truth[i] >= 128 ? 1 : 0;
    }
    const QxwImage view = d.view();
    std::vector<unsigned char> a255(truth.size(), kSentinel), a01(truth.size(), kSentinel);
    std::vector<unsigned char> c255(d.image.size(), kSentinel), c01(d.image.size(), kSentinel);
    const QxwColourOut o255{c255.data(), w * 3}, o01{c01.data(), w * 3};
    QxwJob job{};
    ASSERT_EQ(qxwRefineMask(&view, mask255.data(), w, a255.data(), w, &o255, &job), QXW_OK)
        << job.message;
    ASSERT_EQ(qxwRefineMask(&view, mask01.data(), w, a01.data(), w, &o01, &job), QXW_OK)
        << job.message;
    EXPECT_EQ(a01, a255);
    EXPECT_EQ(c01, c255);
    // And the answer is the subject, not an empty alpha.
    EXPECT_GT(std::count_if(a01.begin(), a01.end(), [](unsigned char a) { return a >= 128; }),
              long(truth.size() / 20));

    // Only 0 and 1 make a binary mask: 0, 1 and 2 are a soft mask's values, all near nothing.
    std::vector<unsigned char> faint = mask01, faintAlpha(truth.size(), kSentinel);
    faint[0] = 2;
    ASSERT_EQ(qxwRefineMask(&view, faint.data(), w, faintAlpha.data(), w, nullptr, &job), QXW_OK)
        << job.message;
    EXPECT_EQ(*std::max_element(faintAlpha.begin(), faintAlpha.end()), 0);
    // All 1 is one value: refused as before.
    const std::vector<unsigned char> ones(truth.size(), 1);
    std::vector<unsigned char> kept(truth.size(), kSentinel);
    EXPECT_EQ(qxwRefineMask(&view, ones.data(), w, kept.data(), w, nullptr, &job), QXW_BAD_INPUT);
    EXPECT_TRUE(untouched(kept));
}

}  // namespace
