// Foreground colour recovery through the C interface, and its error measure.
#pragma once

#include <opencv2/core.hpp>

namespace qxmatte {

enum class ForegroundMethod {
    LeastSquares,  // the library's recovery (qxRecoverForeground): smooth, solved in cells
    Sampling,      // shared-sample separation: the best pair of nearby foreground and
                   // background samples for each partial pixel
};

// The subject's own colours (8-bit BGR) under an alpha from any source: where alpha is partial
// the background's share is taken out; elsewhere the image's colours stand. Empty when the
// method refused the image.
cv::Mat recoverForeground(const cv::Mat& image, const cv::Mat& alpha,
                          ForegroundMethod method = ForegroundMethod::LeastSquares);

// Foreground error against a known foreground: over the pixels with 0 < truthAlpha < 255, the
// sum of alpha * (|dB| + |dG| + |dR|) on the 0..1 scale, in thousands.
double foregroundError(const cv::Mat& recovered, const cv::Mat& truthForeground,
                       const cv::Mat& truthAlpha);

// BGR and an 8-bit alpha as one 4-byte image, as the library's colour images are laid out.
cv::Mat toFourBytes(const cv::Mat& bgr);

}  // namespace qxmatte
