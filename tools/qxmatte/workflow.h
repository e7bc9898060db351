// The host's tri-map workflow on top of the C interface: find the box of the undecided pixels,
// cut the image to it, solve, paste the alpha back.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

#include "progress_bar.h"

namespace qxmatte {

struct MatteOptions {
    int fgCode = 255;
    int bgCode = 0;
    int levelHigh = 255;
    int levelLow = 0;
    Progress progress;  // where the jobs report
};

struct MatteResult {
    bool ok = false;
    std::string error;      // one line, when !ok
    bool badInput = false;  // when !ok: the tri-map can't be used (not a failure of the job)
    cv::Mat alpha;      // 8-bit, full image size
    int boxLeft = 0, boxTop = 0, boxWidth = 0, boxHeight = 0;
    int unknownPixels = 0;
    int status = 0;  // qxMaskAlpha's status
};

// image: 8-bit, 3 channels; trimap: 8-bit, 1 channel, same size.
// The job needs a box of at least 24 rows around the undecided pixels (12 rows of margin on each
// side, clipped to the image); a tri-map without one is refused with a message saying why.
MatteResult matteWithTrimap(const cv::Mat& image, const cv::Mat& trimap, const MatteOptions& opt);

// SAD (in thousands) and MSE (times 1000) over the pixels the tri-map marks undecided
// (strictly between bgCode and fgCode), alpha on the 0..1 scale.
struct Accuracy {
    double sad = 0.0;
    double mse = 0.0;
    long pixels = 0;
};
Accuracy measureAccuracy(const cv::Mat& alpha, const cv::Mat& truth, const cv::Mat& trimap,
                         int fgCode = 255, int bgCode = 0);

// Colour image with alpha as a 4-channel BGRA cut-out.
cv::Mat makeCutout(const cv::Mat& image, const cv::Mat& alpha);

// Why qxMaskBBox gave no box for this tri-map: no undecided pixel (a value strictly between
// bgCode and fgCode), or too few rows for the job. One line.
std::string emptyBoxReason(const cv::Mat& trimap, int fgCode, int bgCode);

// Writes every named image or none: each goes to a temporary name in its own folder first, and
// only when all are written are they renamed to their names. Entries with an empty path are
// skipped. An empty string when it worked, otherwise the reason (nothing is left behind).
std::string writeImagesAtomically(const std::vector<std::pair<std::string, cv::Mat>>& files);

// One image through a temporary file and a rename, so that a failed write leaves no partial file.
bool writeImageAtomically(const std::string& path, const cv::Mat& image, std::string* error);

}  // namespace qxmatte
