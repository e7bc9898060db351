// A synthetic scene with a known alpha: a soft-edged subject with thin hair-like strands over a
// textured background. The demo and the tests use it as ground truth.
#pragma once

#include <opencv2/core.hpp>

#include "workflow/workflow.h"

namespace qx::workflow {

struct DemoScene {
    cv::Mat image;      // 8-bit BGR composite
    cv::Mat trimap;     // 0 background, 128 undecided, 255 foreground
    cv::Mat truth;      // 8-bit alpha
    cv::Mat foreground; // 8-bit BGR colour of the subject, for a new composite
};

DemoScene makeDemoScene(int width, int height, unsigned seed = 7);

// Keep/cut strokes as a host's edge-band tool leaves them: every pixel painted keep (255) where
// the subject is solid or cut (0) where it is absent, except a band of about bandWidth pixels
// along its edge and strands, left unpainted (128).
cv::Mat edgeBandStrokes(const cv::Mat& truth, int bandWidth = 16);

// A few hand-like scribbles: one keep stroke through the subject, cut strokes along the image's
// border and beside the subject; the rest unpainted (128).
cv::Mat scribbleStrokes(const cv::Mat& truth);

// The subject over a background, with the given alpha.
cv::Mat compositeOver(const cv::Mat& foreground, const cv::Mat& alpha, const cv::Mat& background);

}  // namespace qx::workflow
