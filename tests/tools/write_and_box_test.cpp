// The command-line tool's all-or-nothing writing and its explanation of an empty mask box,
// checked against the library's own box rule.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "qxiveilon31.h"
#include "workflow.h"

namespace fs = std::filesystem;

namespace {

class WriteAll : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("qx_write_all_" + std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string at(const char* name) const { return (dir_ / name).string(); }
    int filesLeft() const {
        int n = 0;
        for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir_)) ++n;
        return n;
    }
    fs::path dir_;
};

cv::Mat ramp(int width, int height) {
    cv::Mat m(height, width, CV_8UC1);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) m.at<unsigned char>(y, x) = static_cast<unsigned char>(x * 7 + y);
    return m;
}

TEST_F(WriteAll, WritesEveryImageWhenAllCanBeWritten) {
    const cv::Mat a = ramp(9, 5), b = ramp(4, 11);
    EXPECT_EQ(qxmatte::writeImagesAtomically({{at("a.png"), a}, {"", cv::Mat()}, {at("b.png"), b}}),
              "");
    EXPECT_EQ(cv::norm(cv::imread(at("a.png"), cv::IMREAD_UNCHANGED), a, cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(cv::imread(at("b.png"), cv::IMREAD_UNCHANGED), b, cv::NORM_INF), 0.0);
    EXPECT_EQ(filesLeft(), 2);  // no temporary left
}

TEST_F(WriteAll, LeavesNothingWhenOneCannotBeWritten) {
    // The second write fails (no such folder): the first, already written under its temporary
    // name, must not appear.
    std::string err = qxmatte::writeImagesAtomically(
        {{at("a.png"), ramp(8, 8)}, {at("missing/b.png"), ramp(8, 8)}});
    EXPECT_NE(err.find("missing/b.png: cannot write"), std::string::npos) << err;
    EXPECT_EQ(filesLeft(), 0);

    // The last rename fails (a folder stands in the way): the ones renamed before go again.
    fs::create_directory(dir_ / "c.png");
    err = qxmatte::writeImagesAtomically(
        {{at("a.png"), ramp(8, 8)}, {at("b.png"), ramp(8, 8)}, {at("c.png"), ramp(8, 8)}});
    EXPECT_NE(err.find("c.png: cannot write"), std::string::npos) << err;
    EXPECT_FALSE(fs::exists(dir_ / "a.png"));
    EXPECT_FALSE(fs::exists(dir_ / "b.png"));
    EXPECT_EQ(filesLeft(), 1);  // only the folder
}

// For every single undecided row of planes around the 24-row limit, the tool's explanation
// agrees with qxMaskBBox: no box exactly when it says there are too few rows, and the row count
// it gives is the clipped span of 12 rows either side (worked out here by hand per case).
TEST(EmptyBoxReason, AgreesWithTheLibrarysBoxRule) {
    for (const int height : {20, 23, 24, 25, 30}) {
        for (int row = 0; row < height; ++row) {
            cv::Mat trimap(height, 32, CV_8UC1, cv::Scalar(0));
            trimap.at<unsigned char>(row, 16) = 128;
            int left, width, top, boxHeight, fg, bg;
            qxMaskBBox(0, trimap.data, static_cast<int>(trimap.step), trimap.cols, trimap.rows,
                       &left, &width, &top, &boxHeight, &fg, &bg, 0, 255, 0);
            const bool noBox = width <= 0 || boxHeight <= 0;
            const int span = std::min(height - 1, row + 12) - std::max(0, row - 12) + 1;
            EXPECT_EQ(noBox, span < 24) << height << " rows, undecided row " << row;
            if (!noBox) continue;
            const std::string why = qxmatte::emptyBoxReason(trimap, 255, 0);
            if (height < 24) {
                EXPECT_EQ(why, "too few rows for the tri-map job: the image is " +
                                   std::to_string(height) + " rows high, the job needs at least 24");
            } else {
                EXPECT_NE(why.find("lie on row " + std::to_string(row) + ", " +
                                   std::to_string(span) + " rows with 12 rows of margin"),
                          std::string::npos)
                    << why;
            }
        }
    }
    // Nothing undecided, with codes of a narrowed range: 10 and below background, 200 and above
    // foreground; 5 and 230 are decided, 11 is not.
    cv::Mat trimap(40, 40, CV_8UC1, cv::Scalar(5));
    trimap.rowRange(20, 40).setTo(230);
    EXPECT_EQ(qxmatte::emptyBoxReason(trimap, 200, 10), "the tri-map has no undecided pixel");
    trimap.at<unsigned char>(0, 0) = 11;
    EXPECT_NE(qxmatte::emptyBoxReason(trimap, 200, 10).find("lie on row 0, 13 rows"),
              std::string::npos);
}

}  // namespace
