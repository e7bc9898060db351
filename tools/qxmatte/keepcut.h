// The host's keep-cut workflow on top of the C interface: a stroke image becomes the stroke
// coding of the alpha plane, the library turns it into alpha (and, if asked, the subject's
// recovered colours), and the result comes back as a plain alpha image.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "progress_bar.h"
#include "qxiveilon31.h"

namespace qxmatte {

// Stroke images: 255 keep (definite foreground), 0 cut (definite background), any other value
// unpainted.
constexpr unsigned char kKeepStroke = 255;
constexpr unsigned char kCutStroke = 0;

struct KeepCutOptions {
    bool hiRes = true;      // false: the half-resolution engine with one guided doubling
    bool recover = false;   // recover the subject's colours too
    Progress progress;  // where the jobs report
};

struct KeepCutResult {
    bool ok = false;
    std::string error;      // one line, when !ok
    bool badInput = false;  // when !ok: the strokes can't be used (not a failure of the job)
    cv::Mat alpha;          // 8-bit, full image size
    cv::Mat foreground;     // 8-bit BGR, when recovery was asked for
    int status = 0;         // qxKeepCutToAlpha's status
};

// image: 8-bit BGR; strokes: 8-bit grey, same size.
KeepCutResult matteWithStrokes(const cv::Mat& image, const cv::Mat& strokes,
                               const KeepCutOptions& opt);

// A straight brush stroke from (x0, y0) to (x1, y1), 2 * radius + 1 pixels wide.
struct VectorStroke {
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0, radius = 0;
    bool keep = true;
};
// Parses "X0,Y0,X1,Y1,R"; false when the text is not five integers with R >= 0.
bool parseVectorStroke(const std::string& text, bool keep, VectorStroke* out);
// Paints the strokes into a stroke image (255 keep, 0 cut), clipped to it.
void paintStrokes(cv::Mat& strokes, const std::vector<VectorStroke>& list);

// A request over the whole of the given images: src and dst 4 bytes a pixel, alpha and aux one
// byte, all of one size and held by the caller.
KeepCutRequest wholeImageRequest(cv::Mat& src, cv::Mat& alpha, cv::Mat& dst, cv::Mat& aux);

// The stroke coding of the library's alpha plane for a stroke image: keep 255, cut 1,
// unpainted 128 (even: to be computed).
cv::Mat encodeStrokes(const cv::Mat& strokes);

}  // namespace qxmatte
