#include "workflow_bridge.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <opencv2/imgproc.hpp>
#include <string>
#include <thread>

#include "grabcut.h"
#include "keepcut.h"
#include "workflow.h"

namespace {

// The library keeps the last callback and its parameter installed after a job (a later
// foreground step reports through them), so the parameter lives as long as the process.
struct ProgressRelay {
    QxgProgressFn fn = nullptr;
    void* data = nullptr;
    std::thread::id owner;
};

int relayProgress(int current, int total, void* param) {
    const auto* relay = static_cast<const ProgressRelay*>(param);
    if (relay->fn && total > 0 && std::this_thread::get_id() == relay->owner)
        relay->fn(std::clamp(static_cast<double>(current) / total, 0.0, 1.0), relay->data);
    return 0;
}

// A job's progress, passed on to the report's callback.
qxmatte::Progress relayForJob(const QxgReport* report) {
    static ProgressRelay relay;
    relay.fn = report->progress;
    relay.data = report->progressData;
    relay.owner = std::this_thread::get_id();
    return {false, relayProgress, &relay};
}

QxgStatus say(QxgReport* report, QxgStatus status, const std::string& message) {
    std::snprintf(report->message, sizeof report->message, "%s", message.c_str());
    return status;
}

bool validImage(const QxgImage* image) {
    return image && image->pixels && image->width > 0 && image->height > 0 &&
           (image->channels == 3 || image->channels == 4) &&
           image->stride >= image->width * image->channels;
}

// The workflows' colour image: B, G, R.
cv::Mat toBgr(const QxgImage* image) {
    const cv::Mat view(image->height, image->width, CV_8UC(image->channels),
                       const_cast<unsigned char*>(image->pixels), image->stride);
    cv::Mat bgr;
    cv::cvtColor(view, bgr, image->channels == 4 ? cv::COLOR_RGBA2BGR : cv::COLOR_RGB2BGR);
    return bgr;
}

cv::Mat planeView(const unsigned char* data, int stride, const QxgImage* image) {
    return cv::Mat(image->height, image->width, CV_8UC1, const_cast<unsigned char*>(data),
                   stride);
}

void writePlane(const cv::Mat& plane, unsigned char* out, int stride) {
    cv::Mat dst(plane.rows, plane.cols, CV_8UC1, out, stride);
    plane.copyTo(dst);
}

// bgr: 3 or 4 channels (B, G, R[, A]); out: R, G, B.
void writeRgb(const cv::Mat& bgr, unsigned char* out, int stride) {
    cv::Mat dst(bgr.rows, bgr.cols, CV_8UC3, out, stride);
    cv::cvtColor(bgr, dst, bgr.channels() == 4 ? cv::COLOR_BGRA2RGB : cv::COLOR_BGR2RGB);
}

// Runs a job body; an exception on the way (no memory for a copy, OpenCV) becomes a failure.
template <typename Body>
QxgStatus guarded(QxgReport* report, Body body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return say(report, QXG_FAILED, "out of memory");
    } catch (const std::exception& e) {
        return say(report, QXG_FAILED, e.what());
    }
}

}  // namespace

extern "C" QxgStatus qxg_matte_trimap(const QxgImage* image, const unsigned char* trimap,
                                      int trimapStride, int fgCode, int bgCode,
                                      unsigned char* alpha, int alphaStride, QxgReport* report) {
    if (!validImage(image) || !trimap || !alpha || trimapStride < image->width ||
        alphaStride < image->width)
        return say(report, QXG_BAD_INPUT, "bad image or plane");
    if (bgCode < 0 || fgCode > 255 || bgCode >= fgCode)
        return say(report, QXG_BAD_INPUT, "the background code must be below the foreground code");
    return guarded(report, [&] {
        qxmatte::MatteOptions opt;
        opt.fgCode = fgCode;
        opt.bgCode = bgCode;
        opt.progress = relayForJob(report);
        const qxmatte::MatteResult r =
            qxmatte::matteWithTrimap(toBgr(image), planeView(trimap, trimapStride, image), opt);
        if (!r.ok) return say(report, r.badInput ? QXG_BAD_INPUT : QXG_FAILED, r.error);
        writePlane(r.alpha, alpha, alphaStride);
        return QXG_OK;
    });
}

extern "C" QxgStatus qxg_matte_strokes(const QxgImage* image, const unsigned char* strokes,
                                       int strokesStride, int pyramid, unsigned char* alpha,
                                       int alphaStride, unsigned char* rgb, int rgbStride,
                                       QxgReport* report) {
    if (!validImage(image) || !strokes || !alpha || !rgb || strokesStride < image->width ||
        alphaStride < image->width || rgbStride < image->width * 3)
        return say(report, QXG_BAD_INPUT, "bad image or plane");
    return guarded(report, [&] {
        qxmatte::KeepCutOptions opt;
        opt.hiRes = !pyramid;
        opt.recover = true;
        opt.progress = relayForJob(report);
        const qxmatte::KeepCutResult r = qxmatte::matteWithStrokes(
            toBgr(image), planeView(strokes, strokesStride, image), opt);
        if (!r.ok) return say(report, r.badInput ? QXG_BAD_INPUT : QXG_FAILED, r.error);
        writePlane(r.alpha, alpha, alphaStride);
        writeRgb(r.foreground, rgb, rgbStride);
        return QXG_OK;
    });
}

extern "C" QxgStatus qxg_select_subject(const QxgImage* image, const unsigned char* strokes,
                                        int strokesStride, int x, int y, int width, int height,
                                        int band, unsigned char* alpha, int alphaStride,
                                        unsigned char* rgb, int rgbStride, QxgReport* report) {
    if (!validImage(image) || !alpha || alphaStride < image->width ||
        (strokes && strokesStride < image->width) || (rgb && rgbStride < image->width * 3))
        return say(report, QXG_BAD_INPUT, "bad image or plane");
    const cv::Rect rect(x, y, width, height);
    if (width < 1 || height < 1 || (rect & cv::Rect(0, 0, image->width, image->height)) != rect)
        return say(report, QXG_BAD_INPUT, "the rectangle is not inside the layer");
    if (band < 0 || band > 32767)
        return say(report, QXG_BAD_INPUT, "the band width must be 0 (default) to 32767");
    return guarded(report, [&] {
        qxmatte::GrabCutOptions opt;
        opt.rect = rect;
        opt.band = band;
        opt.recoverColours = rgb != nullptr;
        opt.progress = relayForJob(report);
        const cv::Mat strokePlane =
            strokes ? planeView(strokes, strokesStride, image) : cv::Mat();
        const qxmatte::CutoutResult c = qxmatte::cutoutFromRect(toBgr(image), strokePlane, opt);
        if (!c.ok) return say(report, c.badInput ? QXG_BAD_INPUT : QXG_FAILED, c.error);
        writePlane(c.alpha, alpha, alphaStride);
        if (rgb) writeRgb(c.cutout, rgb, rgbStride);
        return QXG_OK;
    });
}
