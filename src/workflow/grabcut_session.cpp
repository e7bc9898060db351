// An interactive GrabCut session: the rectangle framed as qxwSelectSubject frames it, then one
// cut per gesture of the user, each going on from the colour models the cuts before it learnt,
// with the strokes painted since as fixed codes.
#include <memory>
#include <opencv2/imgproc.hpp>

#include "runtime/export_guard.h"
#include "grabcut/grabcut_session.h"
#include "workflow/grabcut_frame.h"
#include "workflow/workflow.h"

struct QxwGrabCut {
    QxwImage size{};  // the image's size, for the checks of later planes
    cv::Mat src;      // the image, BGRA
    cv::Mat codes;    // the session's codes: 126 open, 255 and 1 fixed, the frame's 1 and 250
    cv::Mat result;   // the library's result: 0 and 254, values between along the edge
    GrabCutRequest req{};
    bool cut = false;  // a selection exists
};

namespace qx::workflow {
namespace {

// Keep (QXW_KEEP) fixed foreground, cut (QXW_CUT) fixed background; other values leave the
// codes as they are.
void paintStrokes(cv::Mat& codes, const cv::Mat& strokes) {
    for (int y = 0; y < codes.rows; ++y) {
        const unsigned char* s = strokes.ptr<unsigned char>(y);
        unsigned char* c = codes.ptr<unsigned char>(y);
        for (int x = 0; x < codes.cols; ++x)
            if (s[x] == QXW_KEEP) c[x] = 255;
            else if (s[x] == QXW_CUT) c[x] = 1;
    }
}

std::string checkSession(const QxwGrabCut* session) {
    return session ? std::string() : std::string("no GrabCut session");
}

}  // namespace
}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwGrabCutBegin(const QxwImage* image, const unsigned char* strokes,
                                            int strokesStride, int x, int y, int width,
                                            int height, QxwGrabCut** session, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = session ? checkImage(image) : std::string("no place for the session");
    if (err.empty() && strokes) err = checkPlane(strokes, strokesStride, *image, "stroke plane");
    if (err.empty()) err = checkRect(*image, x, y, width, height);
    if (session) *session = nullptr;
    return runEntry(job, err, "GrabCut", [&](Relay&) {
        auto s = std::make_unique<QxwGrabCut>();
        s->size = *image;
        s->size.pixels = nullptr;
        s->src = toBgra(*image);
        s->codes = cv::Mat(image->height, image->width, CV_8UC1, cv::Scalar(126));
        if (strokes) paintStrokes(s->codes, planeView(strokes, strokesStride, *image));
        const cv::Rect roi = prepareFrame(s->codes, cv::Rect(x, y, width, height));
        s->result = cv::Mat(image->height, image->width, CV_8UC1, cv::Scalar(0));
        s->req = grabCutRequest(s->src, s->codes, s->result, roi);
        *session = s.release();
        return finishJob(job, QXW_OK);
    });
}

extern "C" QX_API QxwStatus qxwGrabCutCut(QxwGrabCut* session, const unsigned char* strokes,
                                          int strokesStride, unsigned char* selection,
                                          int selectionStride, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkSession(session);
    if (err.empty() && strokes)
        err = checkPlane(strokes, strokesStride, session->size, "stroke plane");
    if (err.empty()) err = checkPlane(selection, selectionStride, session->size, "selection");
    return runEntry(job, err, "GrabCut", [&](Relay& relay) {
        if (strokes) paintStrokes(session->codes, planeView(strokes, strokesStride, session->size));
        GrabCutRequest& req = session->req;
        req.progProc = &Relay::proc;
        req.progParam = relay.param();
        const int status = qx::guardedExport(qx::Export::GrabCut, [&] {
            qx::cut(req, 0);
            return 1;
        });
        req.progProc = nullptr;
        req.progParam = nullptr;
        if (status != 1) return jobFailed(job, qx::Export::GrabCut, status);
        session->cut = true;
        copyPlaneOut(session->result >= 128, selection, selectionStride);
        return finishJob(job, QXW_OK);
    });
}

extern "C" QX_API QxwStatus qxwGrabCutTrimap(QxwGrabCut* session, int band, unsigned char* trimap,
                                             int trimapStride, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkSession(session);
    if (err.empty()) err = checkPlane(trimap, trimapStride, session->size, "tri-map");
    if (err.empty() && band < 0) err = "the band width can't be negative";
    if (err.empty() && !session->cut) err = "cut first: the tri-map is made from the selection";
    return runEntry(job, err, "GrabCut", [&](Relay&) {
        if (band == 0) band = qxwDefaultBand(session->size.width, session->size.height);
        copyPlaneOut(edgeTrimap(session->req, band), trimap, trimapStride);
        return finishJob(job, QXW_OK);
    });
}

extern "C" QX_API void qxwGrabCutEnd(QxwGrabCut* session) {
    if (!session) return;
    qx::guardedCall([&] { return qx::endSession(session->req) ? 1 : 0; }, 0);
    delete session;
}
