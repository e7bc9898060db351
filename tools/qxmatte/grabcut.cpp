#include "grabcut.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "foreground.h"
#include "keepcut.h"
#include "measurement.h"
#include "progress_bar.h"
#include "qxiveilon31.h"
#include "workflow.h"

namespace qxmatte {
namespace {

// The tri-map command's codes for an edge-band plane: the subject (254, or a fixed 255) 255,
// background (0, or a fixed 1) 0, the band and any other code undecided (128).
cv::Mat bandToTrimap(const cv::Mat& band) {
    cv::Mat t(band.size(), CV_8UC1);
    for (int y = 0; y < band.rows; ++y) {
        const unsigned char* b = band.ptr<unsigned char>(y);
        unsigned char* o = t.ptr<unsigned char>(y);
        for (int x = 0; x < band.cols; ++x) o[x] = b[x] >= 254 ? 255 : b[x] <= 1 ? 0 : 128;
    }
    return t;
}

}  // namespace

bool parseRect(const std::string& text, cv::Rect* out) {
    int v[4];
    char tail = 0;
    if (std::sscanf(text.c_str(), "%d,%d,%d,%d%c", &v[0], &v[1], &v[2], &v[3], &tail) != 4)
        return false;
    if (v[2] < 1 || v[3] < 1) return false;
    *out = cv::Rect(v[0], v[1], v[2], v[3]);
    return true;
}

int defaultBandWidth(const cv::Size& size) {
    return std::max(10, std::max(size.width, size.height) / 100);
}

namespace {

// The library starts a session with a frame of sure background just inside its rectangle, a
// few pixels of its working level wide. The command's rectangle means what it means to
// cv::grabCut: everything outside it is background, everything inside it is for the cut to
// decide. So the library is given the rectangle grown by a margin wider than that frame, the
// margin fixed to background; where the image's border stops the growth, the frame falls inside
// the user's rectangle, and its pixels are marked probable foreground, which overrides the
// frame's start labels. When the rectangle reaches the border on all four sides there is no
// background outside it at all, and the library's frame is left as the only background the cut
// starts from. Painted strokes stay as they are.
cv::Rect prepareFrame(cv::Mat& codes, const cv::Rect& rect) {
    // The working level's longer side is at most 400 and above 200 unless no level is made,
    // so it is reduced by at most longSide / 200.
    const int margin = 5 * (1 + std::max(codes.cols, codes.rows) / 200);
    const cv::Rect roi =
        cv::Rect(rect.x - margin, rect.y - margin, rect.width + 2 * margin,
                 rect.height + 2 * margin) &
        cv::Rect(0, 0, codes.cols, codes.rows);
    const bool backgroundOutside = roi.x < rect.x || roi.y < rect.y || roi.br().x > rect.br().x ||
                                   roi.br().y > rect.br().y;
    for (int y = roi.y; y < roi.y + roi.height; ++y) {
        unsigned char* c = codes.ptr<unsigned char>(y);
        for (int x = roi.x; x < roi.x + roi.width; ++x) {
            if (c[x] == 255 || c[x] == 1) continue;  // painted
            if (!rect.contains(cv::Point(x, y))) {
                c[x] = 1;
            } else {
                const int edge = std::min({x - roi.x, roi.x + roi.width - 1 - x, y - roi.y,
                                           roi.y + roi.height - 1 - y});
                if (edge < margin && backgroundOutside) c[x] = 250;
            }
        }
    }
    return roi;
}

}  // namespace

GrabCutResult selectWithGrabCut(const cv::Mat& image, const cv::Mat& strokes,
                                const GrabCutOptions& opt) {
    GrabCutResult r;
    cv::Mat src = toFourBytes(image);
    cv::Mat codes = strokes.empty() ? cv::Mat(image.size(), CV_8UC1, cv::Scalar(126))
                                    : encodeStrokes(strokes);
    const cv::Rect roi = prepareFrame(codes, opt.rect);
    cv::Mat result(image.size(), CV_8UC1, cv::Scalar(0));

    GrabCutRequest req{};
    req.image = src.data;
    req.imageStep = static_cast<int32_t>(src.step);
    req.mask = codes.data;
    req.maskStep = static_cast<int32_t>(codes.step);
    req.result = result.data;
    req.resultStep = static_cast<int32_t>(result.step);
    req.width = image.cols;
    req.height = image.rows;
    req.roiLeft = roi.x;
    req.roiTop = roi.y;
    req.roiWidth = roi.width;
    req.roiHeight = roi.height;
    const bool bar =
        chooseProgress(opt.progress, &req.progProc, &req.progParam);
    r.status = qxGrabCut(&req, 0);
    if (bar) clearProgress();
    if (r.status != 1) {
        qxGrabCutDeleteBuf(&req);
        r.error = "GrabCut failed with status " + std::to_string(r.status);
        return r;
    }
    // The result holds 0 and 254 with in-between values along the edge, and the strokes'
    // fixed codes; outside the rectangle it stays 0.
    r.selection = result >= 128;
    if (opt.band > 0) {
        cv::Mat band(image.size(), CV_8UC1, cv::Scalar(0));
        req.mask = band.data;
        req.maskStep = static_cast<int32_t>(band.step);
        qxGrabCutEdgeGen(&req, opt.band);
        r.trimap = bandToTrimap(band);
        req.mask = codes.data;
        req.maskStep = static_cast<int32_t>(codes.step);
    }
    qxGrabCutDeleteBuf(&req);  // ends the session: frees the control
    r.ok = true;
    return r;
}

CutoutResult cutoutFromRect(const cv::Mat& image, const cv::Mat& strokes,
                            const GrabCutOptions& opt) {
    CutoutResult c;
    GrabCutOptions gopt = opt;
    if (gopt.band <= 0) gopt.band = defaultBandWidth(image.size());
    auto t0 = std::chrono::steady_clock::now();
    const GrabCutResult g = selectWithGrabCut(image, strokes, gopt);
    c.grabCutSeconds = secondsSince(t0);
    if (!g.ok) {
        c.error = g.error;
        return c;
    }
    c.trimap = g.trimap;
    t0 = std::chrono::steady_clock::now();
    if (cv::countNonZero(g.trimap == 128) == 0) {
        c.alpha = g.selection;  // no edge inside the rectangle: the selection is the alpha
    } else {
        MatteOptions mopt;
        mopt.progress = opt.progress;
        const MatteResult m = matteWithTrimap(image, g.trimap, mopt);
        if (!m.ok) {
            c.error = m.error;
            c.badInput = m.badInput;
            return c;
        }
        c.alpha = m.alpha;
    }
    c.mattingSeconds = secondsSince(t0);
    t0 = std::chrono::steady_clock::now();
    if (opt.recoverColours) c.cutout = makeCutout(recoverForeground(image, c.alpha), c.alpha);
    c.foregroundSeconds = secondsSince(t0);
    c.ok = true;
    return c;
}

}  // namespace qxmatte
