// GrabCut in a rectangle: the library's session framed so that the rectangle means what it
// means to an editor (everything outside it background), the hard selection, and the undecided
// band along its edge as a tri-map for the matting stage.
#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "runtime/export_guard.h"
#include "grabcut/grabcut_session.h"
#include "grabcut/pyramid_cut.h"
#include "workflow/grabcut_frame.h"
#include "workflow/workflow.h"

namespace qx::workflow {

// The library starts a session with a frame of sure background just inside its rectangle, a
// few pixels of its working level wide. Our rectangle means everything outside it is
// background, everything inside it is for the cut to decide. So the library is given the
// rectangle grown by a margin wider than that frame, the margin fixed to background; where the
// image's border stops the growth, the frame falls inside the caller's rectangle, and its pixels
// are marked probable foreground, which overrides the frame's start labels. When the rectangle
// reaches the border on all four sides there is no background outside it at all, and the
// library's frame is left as the only background the cut starts from. Painted strokes stay.
cv::Rect prepareFrame(cv::Mat& codes, const cv::Rect& rect) {
    // The working level's longer side is at most 400 and above 200 unless no level is made,
    // so it is reduced by at most longSide / 200.
    const int margin = 5 * (1 + std::max(codes.cols, codes.rows) / 200);
    const cv::Rect roi = cv::Rect(rect.x - margin, rect.y - margin, rect.width + 2 * margin,
                                  rect.height + 2 * margin) &
                         cv::Rect(0, 0, codes.cols, codes.rows);
    const bool backgroundOutside = roi.x < rect.x || roi.y < rect.y ||
                                   roi.br().x > rect.br().x || roi.br().y > rect.br().y;
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

GrabCutRequest grabCutRequest(cv::Mat& src, cv::Mat& codes, cv::Mat& result, const cv::Rect& roi) {
    GrabCutRequest req{};
    req.image = src.data;
    req.imageStep = static_cast<int32_t>(src.step);
    req.mask = codes.data;
    req.maskStep = static_cast<int32_t>(codes.step);
    req.result = result.data;
    req.resultStep = static_cast<int32_t>(result.step);
    req.width = src.cols;
    req.height = src.rows;
    req.roiLeft = roi.x;
    req.roiTop = roi.y;
    req.roiWidth = roi.width;
    req.roiHeight = roi.height;
    return req;
}

cv::Mat edgeTrimap(GrabCutRequest& req, int band) {
    cv::Mat edge(req.height, req.width, CV_8UC1, cv::Scalar(0));
    unsigned char* const mask = req.mask;
    const int32_t maskStep = req.maskStep;
    req.mask = edge.data;
    req.maskStep = static_cast<int32_t>(edge.step);
    qx::guardedCall(
        [&] {
            qx::edgeGen(req, band);
            return 1;
        },
        0);
    req.mask = mask;
    req.maskStep = maskStep;
    // Subject (254, or a fixed 255) 255, background (0, or a fixed 1) 0, the rest undecided.
    cv::Mat t(edge.size(), CV_8UC1);
    for (int y = 0; y < edge.rows; ++y) {
        const unsigned char* b = edge.ptr<unsigned char>(y);
        unsigned char* o = t.ptr<unsigned char>(y);
        for (int x = 0; x < edge.cols; ++x) o[x] = b[x] >= 254 ? 255 : b[x] <= 1 ? 0 : 128;
    }
    return t;
}

QxwStatus selectSubject(const cv::Mat& bgr, const cv::Mat& strokes, const cv::Rect& rect,
                        int band, cv::Mat* selection, cv::Mat* trimap, Relay& relay,
                        QxwJob* job) {
    cv::Mat src;
    cv::cvtColor(bgr, src, cv::COLOR_BGR2BGRA);
    // Unpainted: 126 without strokes, the stroke coding's 128 with them.
    cv::Mat codes = strokes.empty() ? cv::Mat(bgr.size(), CV_8UC1, cv::Scalar(126))
                                    : encodeStrokes(strokes);
    const cv::Rect roi = prepareFrame(codes, rect);
    cv::Mat result(bgr.size(), CV_8UC1, cv::Scalar(0));
    GrabCutRequest req = grabCutRequest(src, codes, result, roi);
    req.progProc = &Relay::proc;
    req.progParam = relay.param();
    // The session is ended (its control freed) however this returns, a throw included; the
    // codes it settles are our own copy.
    struct EndSession {
        GrabCutRequest& req;
        cv::Mat& codes;
        ~EndSession() {
            req.mask = codes.data;
            req.maskStep = static_cast<int32_t>(codes.step);
            qx::guardedCall([&] { return qx::endSession(req) ? 1 : 0; }, 0);
        }
    } endSession{req, codes};
    // Two cuts, then the edge at full resolution; shares of the span roughly as their times go.
    // The second cut goes on from the models the first learnt (the strokes have not changed),
    // as a second click of the interactive tool would: three more rounds on the small working
    // level cost little and settle regions that the first rounds left on the wrong side.
    const double lo = relay.spanLow(), hi = relay.spanHigh();
    const auto at = [&](double f) { return lo + f * (hi - lo); };
    relay.span(lo, at(0.25));
    const auto cut = [&] {
        return qx::guardedExport(qx::Export::GrabCut, [&] {
            qx::cut(req, 0);
            return 1;
        });
    };
    int status = cut();
    if (status == 1) {
        relay.span(at(0.25), at(0.5));
        status = cut();
    }
    if (status != 1) return jobFailed(job, qx::Export::GrabCut, status);
    // The result holds 0 and 254 with in-between values along the edge, and the strokes' fixed
    // codes; outside the rectangle it stays 0.
    *selection = result >= 128;
    relay.span(at(0.5), hi);
    const GrabCutPlan plan = planGrabCut(roi.width, roi.height);
    const double reduction =
        std::max(double(roi.width) / plan.width, double(roi.height) / plan.height);
    cv::Mat fixed;
    cv::bitwise_and(result, cv::Scalar(1), fixed);
    refineSelection(bgr, fixed, rect, reduction, *selection, relay);
    // The band follows the refined edge: working codes from the selection, fixed codes kept.
    for (int y = 0; y < result.rows; ++y) {
        unsigned char* r = result.ptr<unsigned char>(y);
        const unsigned char* sel = selection->ptr<unsigned char>(y);
        for (int x = 0; x < result.cols; ++x)
            if (!(r[x] & 1)) r[x] = sel[x] ? 254 : 0;
    }
    if (band > 0) *trimap = edgeTrimap(req, band);
    return finishJob(job, QXW_OK);
}

}  // namespace qx::workflow

extern "C" QX_API int qxwDefaultBand(int width, int height) {
    return std::max(10, std::max(width, height) / 100);
}

extern "C" QX_API QxwStatus qxwSelectSubject(const QxwImage* image, const unsigned char* strokes,
                                             int strokesStride, int x, int y, int width,
                                             int height, int band, unsigned char* selection,
                                             int selectionStride, unsigned char* trimap,
                                             int trimapStride, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkImage(image);
    if (err.empty() && strokes) err = checkPlane(strokes, strokesStride, *image, "stroke plane");
    if (err.empty()) err = checkPlane(selection, selectionStride, *image, "selection");
    if (err.empty() && trimap) err = checkPlane(trimap, trimapStride, *image, "tri-map");
    if (err.empty()) err = checkRect(*image, x, y, width, height);
    if (err.empty() && band < 0) err = "the band width can't be negative";
    return runEntry(job, err, "GrabCut", [&](Relay& relay) {
        if (!trimap) band = 0;
        else if (band == 0) band = qxwDefaultBand(image->width, image->height);
        cv::Mat sel, tri;
        const QxwStatus s =
            selectSubject(toBgr(*image), strokes ? planeView(strokes, strokesStride, *image)
                                                 : cv::Mat(),
                          cv::Rect(x, y, width, height), band, &sel, &tri, relay, job);
        if (s != QXW_OK) return s;
        copyPlaneOut(sel, selection, selectionStride);
        if (trimap) copyPlaneOut(tri, trimap, trimapStride);
        return QXW_OK;
    });
}
