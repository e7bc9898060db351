#include "grabcut.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "foreground.h"
#include "keepcut.h"
#include "progress_bar.h"
#include "qxiveilon31.h"
#include "workflow.h"

namespace qxmatte {
namespace {

double since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

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

GrabCutResult selectWithGrabCut(const cv::Mat& image, const cv::Mat& strokes,
                                const GrabCutOptions& opt) {
    GrabCutResult r;
    cv::Mat src = toFourBytes(image);
    cv::Mat codes = strokes.empty() ? cv::Mat(image.size(), CV_8UC1, cv::Scalar(126))
                                    : encodeStrokes(strokes);
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
    req.roiLeft = opt.rect.x;
    req.roiTop = opt.rect.y;
    req.roiWidth = opt.rect.width;
    req.roiHeight = opt.rect.height;
    if (opt.progress) {
        req.progProc = drawProgress;
        req.progParam = progressBarForJob();
    }
    r.status = qxGrabCut(&req, 0);
    if (opt.progress) clearProgress();
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
    }
    qxGrabCutDeleteBuf(&req);
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
    c.grabCutSeconds = since(t0);
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
            return c;
        }
        c.alpha = m.alpha;
    }
    c.mattingSeconds = since(t0);
    t0 = std::chrono::steady_clock::now();
    c.cutout = makeCutout(recoverForeground(image, c.alpha), c.alpha);
    c.foregroundSeconds = since(t0);
    c.ok = true;
    return c;
}

}  // namespace qxmatte
