// The host's GrabCut workflows on top of the C interface: a rectangle (and, if given, keep and
// cut strokes) becomes a hard selection; its edge becomes an undecided band for the matting
// stage; closed-form alpha on the band and the recovered colours make an RGBA cut-out.
#pragma once

#include <opencv2/core.hpp>
#include <string>

#include "progress_bar.h"

namespace qxmatte {

// "X,Y,W,H" with W and H at least 1; false when the text is not of that form.
bool parseRect(const std::string& text, cv::Rect* out);

// The default width of the undecided band for an image of this size: about 1% of its longer
// side, at least 10 pixels.
int defaultBandWidth(const cv::Size& size);

struct GrabCutOptions {
    cv::Rect rect;          // the region to cut; everything outside it is background
    int band = 0;           // edge band width for the tri-map; 0: no tri-map
    Progress progress;  // where the jobs report
    bool recoverColours = true;  // cutoutFromRect: false leaves the cut-out empty (alpha only)
};

struct GrabCutResult {
    bool ok = false;
    std::string error;    // one line, when !ok
    cv::Mat selection;    // 8-bit, full image size: 255 selected, 0 not
    cv::Mat trimap;       // when a band was asked for: 0 background, 128 band, 255 subject
    int status = 0;       // qxGrabCut's status
};

// image: 8-bit BGR; strokes: empty, or 8-bit grey of the image's size (255 keep, 0 cut, other
// values unpainted). The rectangle must lie inside the image.
GrabCutResult selectWithGrabCut(const cv::Mat& image, const cv::Mat& strokes,
                                const GrabCutOptions& opt);

struct CutoutResult {
    bool ok = false;
    std::string error;      // one line, when !ok
    bool badInput = false;  // when !ok: the input can't be used (not a failure of a job)
    cv::Mat alpha;         // 8-bit, full image size
    cv::Mat cutout;        // 8-bit BGRA: recovered colours and alpha
    cv::Mat trimap;        // the edge-band tri-map the matting stage solved
    double grabCutSeconds = 0, mattingSeconds = 0, foregroundSeconds = 0;
};

// The whole editor workflow in one call: GrabCut in the rectangle, the edge band of opt.band
// pixels (the default width when 0), closed-form alpha on the band, foreground recovery.
CutoutResult cutoutFromRect(const cv::Mat& image, const cv::Mat& strokes,
                            const GrabCutOptions& opt);

}  // namespace qxmatte
