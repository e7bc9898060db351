// The plug-in's bridge to the tool's workflows: GIMP's byte order and row padding in, the same
// results as the tool's workflows on the same scene out, progress passed on, refusals reported.
#include <gtest/gtest.h>

#include <algorithm>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "demo_scene.h"
#include "grabcut.h"
#include "keepcut.h"
#include "workflow.h"
#include "workflow_bridge.h"

namespace {

constexpr unsigned char kPad = 0xAB;  // row padding, which the bridge must not write
constexpr int kPadBytes = 13;

// A plane of the scene's size in a padded buffer.
struct Padded {
    int width, height, channels, stride;
    std::vector<unsigned char> bytes;
    Padded(int w, int h, int c) : width(w), height(h), channels(c), stride(w * c + kPadBytes),
                                  bytes(static_cast<size_t>(stride) * h, kPad) {}
    unsigned char* row(int y) { return bytes.data() + static_cast<size_t>(y) * stride; }
    cv::Mat view() { return cv::Mat(height, width, CV_8UC(channels), bytes.data(), stride); }
    bool padIntact() {
        for (int y = 0; y < height; ++y)
            for (int i = width * channels; i < stride; ++i)
                if (row(y)[i] != kPad) return false;
        return true;
    }
};

// GIMP's layer bytes for a BGR image: R G B, and an alpha byte when asked (any value: unread).
Padded gimpPixels(const cv::Mat& bgr, bool withAlpha) {
    Padded p(bgr.cols, bgr.rows, withAlpha ? 4 : 3);
    for (int y = 0; y < bgr.rows; ++y)
        for (int x = 0; x < bgr.cols; ++x) {
            const cv::Vec3b c = bgr.at<cv::Vec3b>(y, x);
            unsigned char* o = p.row(y) + x * p.channels;
            o[0] = c[2], o[1] = c[1], o[2] = c[0];
            if (withAlpha) o[3] = static_cast<unsigned char>(x * 7 + y);
        }
    return p;
}

Padded paddedPlane(const cv::Mat& plane) {
    Padded p(plane.cols, plane.rows, 1);
    plane.copyTo(p.view());
    return p;
}

QxgImage imageOf(Padded& p) {
    return QxgImage{p.bytes.data(), p.stride, p.channels, p.width, p.height};
}

struct Progress {
    int calls = 0;
    double least = 1.0, most = 0.0;
};

void record(double fraction, void* data) {
    auto* p = static_cast<Progress*>(data);
    ++p->calls;
    p->least = std::min(p->least, fraction);
    p->most = std::max(p->most, fraction);
}

double meanDifference(const cv::Mat& a, const cv::Mat& b) {
    cv::Mat d;
    cv::absdiff(a, b, d);
    return cv::mean(d)[0];
}

class GimpBridge : public ::testing::Test {
protected:
    static void SetUpTestSuite() { scene = new qxmatte::DemoScene(qxmatte::makeDemoScene(632, 474)); }
    static void TearDownTestSuite() { delete scene; }
    static qxmatte::DemoScene* scene;
};
qxmatte::DemoScene* GimpBridge::scene = nullptr;

TEST_F(GimpBridge, TrimapAlphaFromPaddedRgbaIsTheToolsAndNearTheTruth) {
    Padded rgba = gimpPixels(scene->image, true);
    Padded trimap = paddedPlane(scene->trimap);
    Padded alpha(632, 474, 1);
    const QxgImage image = imageOf(rgba);
    Progress progress;
    QxgReport report{record, &progress, {}};
    ASSERT_EQ(qxg_matte_trimap(&image, trimap.bytes.data(), trimap.stride, 255, 0,
                               alpha.bytes.data(), alpha.stride, &report),
              QXG_OK)
        << report.message;
    EXPECT_TRUE(alpha.padIntact());
    const qxmatte::MatteResult tool =
        qxmatte::matteWithTrimap(scene->image, scene->trimap, qxmatte::MatteOptions{});
    ASSERT_TRUE(tool.ok);
    EXPECT_EQ(cv::countNonZero(alpha.view() != tool.alpha), 0);
    // On this scene the tri-map as it is lies 27 levels off the known alpha on average, the
    // solved alpha about 3.
    EXPECT_LT(meanDifference(alpha.view(), scene->truth), 8.0)
        << "the tri-map itself: " << meanDifference(scene->trimap, scene->truth);
    EXPECT_GT(progress.calls, 0);
    EXPECT_GE(progress.least, 0.0);
    EXPECT_LE(progress.most, 1.0);
}

TEST_F(GimpBridge, StrokeAlphaAndColoursComeBackInGimpOrder) {
    const cv::Mat strokes = qxmatte::edgeBandStrokes(scene->truth);
    Padded rgb = gimpPixels(scene->image, false);
    Padded plane = paddedPlane(strokes);
    Padded alpha(632, 474, 1), colours(632, 474, 3);
    const QxgImage image = imageOf(rgb);
    QxgReport report{nullptr, nullptr, {}};
    ASSERT_EQ(qxg_matte_strokes(&image, plane.bytes.data(), plane.stride, 0, alpha.bytes.data(),
                                alpha.stride, colours.bytes.data(), colours.stride, &report),
              QXG_OK)
        << report.message;
    EXPECT_TRUE(alpha.padIntact());
    EXPECT_TRUE(colours.padIntact());
    qxmatte::KeepCutOptions opt;
    opt.recover = true;
    const qxmatte::KeepCutResult tool = qxmatte::matteWithStrokes(scene->image, strokes, opt);
    ASSERT_TRUE(tool.ok);
    EXPECT_EQ(cv::countNonZero(alpha.view() != tool.alpha), 0);
    cv::Mat toolRgb;
    cv::cvtColor(tool.foreground, toolRgb, cv::COLOR_BGR2RGB);
    cv::Mat diff;
    cv::absdiff(colours.view(), toolRgb, diff);
    EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0);
    EXPECT_LT(meanDifference(alpha.view(), scene->truth), 8.0)
        << "the strokes themselves: " << meanDifference(strokes, scene->truth);
    // Painted pixels come back as painted: keep 255, cut 0.
    EXPECT_EQ(cv::countNonZero((strokes == 255) & (alpha.view() != 255)), 0);
    EXPECT_EQ(cv::countNonZero((strokes == 0) & (alpha.view() != 0)), 0);
}

TEST_F(GimpBridge, SubjectFromRectangleIsTheToolsCutout) {
    Padded rgb = gimpPixels(scene->image, false);
    Padded alpha(632, 474, 1), colours(632, 474, 3);
    const QxgImage image = imageOf(rgb);
    QxgReport report{nullptr, nullptr, {}};
    const cv::Rect rect(100, 60, 430, 350);
    ASSERT_EQ(qxg_select_subject(&image, nullptr, 0, rect.x, rect.y, rect.width, rect.height, 0,
                                 alpha.bytes.data(), alpha.stride, colours.bytes.data(),
                                 colours.stride, &report),
              QXG_OK)
        << report.message;
    qxmatte::GrabCutOptions opt;
    opt.rect = rect;
    const qxmatte::CutoutResult tool = qxmatte::cutoutFromRect(scene->image, cv::Mat(), opt);
    ASSERT_TRUE(tool.ok);
    EXPECT_EQ(cv::countNonZero(alpha.view() != tool.alpha), 0);
    cv::Mat toolRgb, diff;
    cv::cvtColor(tool.cutout, toolRgb, cv::COLOR_BGRA2RGB);
    cv::absdiff(colours.view(), toolRgb, diff);
    EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0);
    // Outside the rectangle everything is background.
    cv::Mat outside = alpha.view().clone();
    outside(rect).setTo(0);
    EXPECT_EQ(cv::countNonZero(outside), 0);
    EXPECT_GT(cv::countNonZero(alpha.view()(rect)), rect.area() / 10);
}

TEST_F(GimpBridge, RefusalsSayWhyAndWriteNothing) {
    Padded rgb = gimpPixels(scene->image, false);
    Padded alpha(632, 474, 1);
    const QxgImage image = imageOf(rgb);
    QxgReport report{nullptr, nullptr, {}};
    auto untouched = [&] {
        return std::all_of(alpha.bytes.begin(), alpha.bytes.end(),
                           [](unsigned char b) { return b == kPad; });
    };
    // A tri-map with nothing undecided.
    Padded solid = paddedPlane(cv::Mat(474, 632, CV_8UC1, cv::Scalar(255)));
    EXPECT_EQ(qxg_matte_trimap(&image, solid.bytes.data(), solid.stride, 255, 0,
                               alpha.bytes.data(), alpha.stride, &report),
              QXG_BAD_INPUT);
    EXPECT_NE(std::string(report.message).find("no undecided pixel"), std::string::npos)
        << report.message;
    // Codes the wrong way round.
    Padded trimap = paddedPlane(scene->trimap);
    EXPECT_EQ(qxg_matte_trimap(&image, trimap.bytes.data(), trimap.stride, 0, 255,
                               alpha.bytes.data(), alpha.stride, &report),
              QXG_BAD_INPUT);
    // A rectangle reaching past the image, and a negative band.
    EXPECT_EQ(qxg_select_subject(&image, nullptr, 0, 532, 100, 101, 20, 0, alpha.bytes.data(),
                                 alpha.stride, nullptr, 0, &report),
              QXG_BAD_INPUT);
    EXPECT_NE(std::string(report.message).find("rectangle"), std::string::npos);
    EXPECT_EQ(qxg_select_subject(&image, nullptr, 0, 10, 10, 50, 50, -1, alpha.bytes.data(),
                                 alpha.stride, nullptr, 0, &report),
              QXG_BAD_INPUT);
    // Strokes without any cut stroke.
    Padded keepOnly = paddedPlane(cv::Mat(474, 632, CV_8UC1, cv::Scalar(128)));
    keepOnly.view()(cv::Rect(100, 80, 20, 20)).setTo(255);
    Padded colours(632, 474, 3);
    EXPECT_EQ(qxg_matte_strokes(&image, keepOnly.bytes.data(), keepOnly.stride, 0,
                                alpha.bytes.data(), alpha.stride, colours.bytes.data(),
                                colours.stride, &report),
              QXG_BAD_INPUT);
    EXPECT_NE(std::string(report.message).find("too few strokes"), std::string::npos);
    // A row step shorter than a row.
    QxgImage narrow = image;
    narrow.stride = 632 * 3 - 1;
    EXPECT_EQ(qxg_matte_trimap(&narrow, trimap.bytes.data(), trimap.stride, 255, 0,
                               alpha.bytes.data(), alpha.stride, &report),
              QXG_BAD_INPUT);
    EXPECT_TRUE(untouched());
}

}  // namespace
