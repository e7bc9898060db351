// A synthetic scene with a known alpha: a soft-edged subject with thin hair-like strands over a
// textured background. The demo and the tests use it as ground truth.
#pragma once

#include <opencv2/core.hpp>

namespace qxmatte {

struct DemoScene {
    cv::Mat image;      // 8-bit BGR composite
    cv::Mat trimap;     // 0 background, 128 undecided, 255 foreground
    cv::Mat truth;      // 8-bit alpha
    cv::Mat foreground; // 8-bit BGR colour of the subject, for a new composite
};

DemoScene makeDemoScene(int width, int height, unsigned seed = 7);

// The subject over a new background, with the given alpha.
cv::Mat compositeOver(const cv::Mat& foreground, const cv::Mat& alpha, const cv::Mat& background);
cv::Mat makeNewBackground(int width, int height);

}  // namespace qxmatte
