// The session state: the control's life, the constraint fingerprint, the label mapping and the
// choice between re-learning and going on from the stored models.
#include "grabcut/grabcut_control.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "grabcut/codes.h"
#include "grabcut/comp_alpha_map.h"

namespace qx {
namespace {

TEST(GrabCutControl, MadeRegisteredAndDeletedOnce) {
    GrabCutControl* c = grabcutCreateBuf(0, 10);
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(isLiveGrabCutControl(c));
    ASSERT_NE(c->mask, nullptr);
    EXPECT_TRUE(c->mask->empty());
    EXPECT_TRUE(c->bgdModel->empty());
    EXPECT_TRUE(c->fgdModel->empty());
    EXPECT_EQ(c->constsSum, 0.0);
    EXPECT_EQ(c->maskReady, 0);
    EXPECT_TRUE(GrabCutDeleteBuf(c));
    EXPECT_FALSE(isLiveGrabCutControl(c));
    EXPECT_FALSE(GrabCutDeleteBuf(c));  // a second delete is refused, not a double free
    int foreign = 0;
    EXPECT_FALSE(GrabCutDeleteBuf(reinterpret_cast<GrabCutControl*>(&foreign)));
    EXPECT_FALSE(GrabCutDeleteBuf(nullptr));

    GrabCutControl* d = grabcutCreateBuf(7, 5);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->mask->rows, 5);
    EXPECT_EQ(d->mask->cols, 7);
    EXPECT_EQ(d->mask->type(), CV_8UC1);
    EXPECT_TRUE(GrabCutDeleteBuf(d));
}

TEST(GrabCutControl, FingerprintCountsFlaggedPixels) {
    GrabCutControl* c = grabcutCreateBuf(6, 4);
    cv::Mat flags(4, 6, CV_8UC1, cv::Scalar(0));
    EXPECT_FALSE(isConstsChanged(flags.data, static_cast<int>(flags.step), c));  // 0 == 0
    flags.at<unsigned char>(1, 2) = 255;
    EXPECT_TRUE(isConstsChanged(flags.data, static_cast<int>(flags.step), c));
    EXPECT_EQ(c->constsSum, 255.0);
    EXPECT_FALSE(isConstsChanged(flags.data, static_cast<int>(flags.step), c));
    EXPECT_EQ(c->constsSum, 255.0);
    // The same number of flagged pixels elsewhere counts as unchanged.
    flags.at<unsigned char>(1, 2) = 0;
    flags.at<unsigned char>(3, 5) = 255;
    EXPECT_FALSE(isConstsChanged(flags.data, static_cast<int>(flags.step), c));
    flags.setTo(cv::Scalar(255));
    EXPECT_TRUE(isConstsChanged(flags.data, static_cast<int>(flags.step), c));
    EXPECT_EQ(c->constsSum, 24 * 255.0);
    GrabCutDeleteBuf(c);
}

TEST(GrabCutCodes, WorkingCodeOfEveryByte) {
    // Worked out bit by bit: bit 0 is replaced by bit 1, the other bits stay.
    for (int m = 0; m < 256; ++m) {
        const int bit1 = (m / 2) % 2;
        const int want = m - m % 2 + bit1;
        EXPECT_EQ(workingCode(static_cast<unsigned char>(m)), want) << m;
    }
    EXPECT_EQ(workingCode(126), 127);  // the brush's undecided: no opinion
    EXPECT_EQ(workingCode(1), 0);
    EXPECT_EQ(workingCode(255), 255);
    EXPECT_EQ(workingCode(2), 3);
    EXPECT_EQ(workingCode(244), 244);
    EXPECT_EQ(workingCode(246), 247);
}

TEST(GrabCutCodes, LabelOfEveryCodeAndFlag) {
    for (int code = 0; code < 256; ++code)
        for (int stored = 0; stored < 4; ++stored) {
            const auto c = static_cast<unsigned char>(code);
            const auto s = static_cast<unsigned char>(stored);
            if (code <= 9) {
                EXPECT_EQ(grabCutLabel(true, c, s), cv::GC_BGD);
                EXPECT_EQ(grabCutLabel(false, c, s), cv::GC_PR_BGD);
            } else if (code >= 246) {
                EXPECT_EQ(grabCutLabel(true, c, s), cv::GC_FGD);
                EXPECT_EQ(grabCutLabel(false, c, s), cv::GC_PR_FGD);
            } else {
                EXPECT_EQ(grabCutLabel(true, c, s), s);
                EXPECT_EQ(grabCutLabel(false, c, s), s);
            }
        }
}

// A noisy two-colour scene at the working level, its codes and flags.
struct Level {
    cv::Mat image, mask, flags;
    explicit Level(int w = 64, int h = 48) {
        image.create(h, w, CV_8UC3);
        cv::RNG rng(5);
        rng.fill(image, cv::RNG::NORMAL, cv::Scalar(60, 150, 90), cv::Scalar(25, 25, 25));
        cv::Mat subject = image(cv::Rect(20, 14, 24, 20));
        cv::Mat noise(subject.size(), CV_8UC3);
        rng.fill(noise, cv::RNG::NORMAL, cv::Scalar(180, 60, 140), cv::Scalar(25, 25, 25));
        noise.copyTo(subject);
        mask.create(h, w, CV_8UC1);
        mask.setTo(cv::Scalar(127));
        flags.create(h, w, CV_8UC1);
        flags.setTo(cv::Scalar(0));
    }
    int cut(GrabCutControl* c) {
        return CompAlphaMapGrabCut(image.data, static_cast<int>(image.step), image.cols,
                                   image.rows, mask.data, static_cast<int>(mask.step),
                                   flags.data, static_cast<int>(flags.step), c);
    }
};

bool same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

TEST(GrabCutCut, FirstCutStartsFromTheFrame) {
    Level lv;
    GrabCutControl* c = grabcutCreateBuf(64, 48);
    ASSERT_EQ(lv.cut(c), 0);
    EXPECT_EQ(c->maskReady, 1);
    // The frame is sure background and nothing relabels it; the subject is found inside.
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            const bool frame = x < 5 || y < 5 || x >= 59 || y >= 43;
            if (frame) {
                ASSERT_EQ(c->mask->at<unsigned char>(y, x), cv::GC_BGD);
                ASSERT_EQ(lv.mask.at<unsigned char>(y, x), 0);
            }
            const unsigned char want = (x >= 20 && x < 44 && y >= 14 && y < 34) ? 255 : 0;
            ASSERT_EQ(lv.mask.at<unsigned char>(y, x), want) << x << "," << y;
        }
    GrabCutDeleteBuf(c);
}

// The second cut of a session, checked against cv::grabCut run by hand from a copy of the
// state after the first cut, in the mode the constraints call for.
void secondCutUsesMode(bool addStroke, int wantMode) {
    Level lv;
    GrabCutControl* c = grabcutCreateBuf(64, 48);
    lv.cut(c);
    cv::Mat labels = c->mask->clone(), bgd = c->bgdModel->clone(), fgd = c->fgdModel->clone();
    const double sum = c->constsSum;

    lv.mask.setTo(cv::Scalar(127));  // no opinion anywhere: the labels stay as they are
    if (addStroke) {
        lv.flags.at<unsigned char>(2, 2) = 255;
        lv.mask.at<unsigned char>(2, 2) = 0;
    }
    // The cut seeds k-means from its own fixed state and gives the caller's back.
    cv::theRNG().state = 12345;
    lv.cut(c);
    EXPECT_EQ(cv::theRNG().state, 12345u);
    if (addStroke) labels.at<unsigned char>(2, 2) = cv::GC_BGD;
    cv::theRNG().state = kGrabCutSeed;
    cv::grabCut(lv.image, labels, cv::Rect(5, 5, 54, 38), bgd, fgd, 3, wantMode);
    EXPECT_TRUE(same(labels, *c->mask));
    EXPECT_TRUE(same(bgd, *c->bgdModel));
    EXPECT_TRUE(same(fgd, *c->fgdModel));
    EXPECT_EQ(c->constsSum, addStroke ? sum + 255.0 : sum);
    GrabCutDeleteBuf(c);
}

TEST(GrabCutCut, UnchangedConstraintsGoOnFromTheStoredModels) {
    secondCutUsesMode(false, cv::GC_EVAL);
}

TEST(GrabCutCut, ChangedConstraintsRelearnTheModels) {
    secondCutUsesMode(true, cv::GC_INIT_WITH_MASK);
}

TEST(GrabCutCut, OneSidedLabelsAreTheSelection) {
    // Everything fixed foreground: no background to learn from; the labels are the answer and
    // the models are left as they were.
    Level lv;
    GrabCutControl* c = grabcutCreateBuf(64, 48);
    lv.flags.setTo(cv::Scalar(255));
    lv.mask.setTo(cv::Scalar(255));
    ASSERT_EQ(lv.cut(c), 0);
    EXPECT_EQ(cv::countNonZero(lv.mask == 255), 64 * 48);
    EXPECT_TRUE(c->bgdModel->empty());
    GrabCutDeleteBuf(c);
}

}  // namespace
}  // namespace qx
