// The one-click's band from a network's mask: how far it reaches in and out of the mask's edge
// at two sizes, the sure middle a thin part keeps, and the frame, which is no edge.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "workflow/workflow.h"

namespace {

using qx::workflow::subjectTrimap;

// A mask of a disc (radius r, centred at c) at 255 over 0.
cv::Mat discMask(cv::Size size, cv::Point c, int r) {
    cv::Mat m = cv::Mat::zeros(size, CV_8UC1);
    cv::circle(m, c, r, cv::Scalar(255), cv::FILLED);
    return m;
}

// For a view 800 pixels across, the band reaches 40 pixels into the subject and 16 out of it:
// read along a ray from the disc's centre, leftwards.
TEST(SubjectTrimap, ReachesFarInsideTheMasksEdgeAndALittleOutside) {
    const cv::Point c(200, 150);
    const cv::Mat tri = subjectTrimap(discMask({400, 300}, c, 100), 800);
    ASSERT_EQ(tri.size(), cv::Size(400, 300));
    auto at = [&](int inside) { return int(tri.at<uchar>(c.y, c.x - 100 + inside)); };
    EXPECT_EQ(at(100), 255);  // the centre
    EXPECT_EQ(at(45), 255);
    EXPECT_EQ(at(35), 128);   // within the inner reach
    EXPECT_EQ(at(1), 128);
    EXPECT_EQ(at(-12), 128);  // within the outer reach
    EXPECT_EQ(at(-20), 0);
    EXPECT_EQ(int(tri.at<uchar>(0, 0)), 0);
    // Soft values are undecided wherever they are, however deep.
    cv::Mat soft = discMask({400, 300}, c, 100);
    soft.at<uchar>(c) = 200;
    EXPECT_EQ(int(subjectTrimap(soft, 800).at<uchar>(c)), 128);
    soft.at<uchar>(c) = 235;
    EXPECT_EQ(int(subjectTrimap(soft, 800).at<uchar>(c)), 255);
}

// The reach follows the view: at 4,000 pixels across it is about 200 pixels in and 80 out (the
// band is made on a copy 1,024 across, so its edges fall within a few pixels of that).
TEST(SubjectTrimap, ScalesWithTheView) {
    const cv::Point c(1000, 750);
    const cv::Mat tri = subjectTrimap(discMask({2000, 1500}, c, 500), 4000);
    ASSERT_EQ(tri.size(), cv::Size(2000, 1500));
    auto at = [&](int inside) { return int(tri.at<uchar>(c.y, c.x - 500 + inside)); };
    EXPECT_EQ(at(215), 255);
    EXPECT_EQ(at(185), 128);
    EXPECT_EQ(at(-60), 128);
    EXPECT_EQ(at(-90), 0);
    // The same mask seen in a view a tenth as large: a tenth of the reach.
    const cv::Mat near = subjectTrimap(discMask({2000, 1500}, c, 500), 400);
    EXPECT_EQ(int(near.at<uchar>(c.y, c.x - 500 + 25)), 255);
    EXPECT_EQ(int(near.at<uchar>(c.y, c.x - 500 - 12)), 0);
}

// A limb 20 pixels wide, thinner than twice the inner reach, keeps its middle row as sure
// subject rather than being solved whole; a gap as narrow between two parts keeps its middle as
// sure background.
TEST(SubjectTrimap, AThinPartKeepsItsMiddle) {
    cv::Mat m = discMask({400, 300}, {150, 150}, 90);
    cv::rectangle(m, cv::Rect(230, 140, 160, 20), cv::Scalar(255), cv::FILLED);  // the limb
    const cv::Mat tri = subjectTrimap(m, 800);
    EXPECT_EQ(int(tri.at<uchar>(150, 330)), 255);  // its middle
    EXPECT_EQ(int(tri.at<uchar>(141, 330)), 128);  // its sides
    EXPECT_EQ(int(tri.at<uchar>(158, 330)), 128);
    EXPECT_EQ(int(tri.at<uchar>(120, 330)), 0);    // background beside it, beyond the reach
    // A gap 14 pixels wide between two slabs: its middle column sure background, its sides not.
    cv::Mat slabs(300, 400, CV_8UC1, cv::Scalar(255));
    slabs(cv::Rect(193, 0, 14, 300)).setTo(0);
    const cv::Mat gap = subjectTrimap(slabs, 800);
    EXPECT_EQ(int(gap.at<uchar>(150, 200)), 0);
    EXPECT_EQ(int(gap.at<uchar>(150, 194)), 128);
    EXPECT_EQ(int(gap.at<uchar>(150, 100)), 255);
}

// A subject the frame cuts keeps its sure core up to the frame: the border is not its edge.
TEST(SubjectTrimap, TheFrameIsNoEdge) {
    cv::Mat m = cv::Mat::zeros(300, 400, CV_8UC1);
    m(cv::Rect(0, 0, 200, 300)).setTo(255);
    const cv::Mat tri = subjectTrimap(m, 800);
    EXPECT_EQ(int(tri.at<uchar>(150, 0)), 255);
    EXPECT_EQ(int(tri.at<uchar>(0, 100)), 255);
    EXPECT_EQ(int(tri.at<uchar>(150, 170)), 128);  // 30 pixels from the edge at x = 200
    EXPECT_EQ(int(tri.at<uchar>(150, 399)), 0);
    EXPECT_EQ(int(tri.at<uchar>(0, 399)), 0);
}

}  // namespace
