#include <algorithm>
#include <cstdio>
#include <cstring>
#include <opencv2/imgproc.hpp>

#include "frame/progress.h"
#include "workflow/workflow.h"

namespace qx::workflow {

void Relay::span(double lo, double hi) {
    qx::checkCancel();  // between the stages of a composed workflow
    lo_ = lo;
    hi_ = hi;
    report(lo);
}

CancelScope::CancelScope(const QxwJob* job)
    : saved_(qx::cancelFlag()), flag_(job ? job->cancel : nullptr) {
    qx::setCancelFlag(flag_);
}

CancelScope::~CancelScope() { qx::setCancelFlag(saved_); }

bool CancelScope::requested() const { return qx::cancelRequested(); }

QxwStatus cancelled(QxwJob* job) {
    return finishJob(job, QXW_CANCELLED, "cancelled", QX_CANCELLED);
}

void Relay::report(double fraction) {
    fraction = std::clamp(fraction, 0.0, 1.0);
    if (fraction <= last_) return;
    last_ = fraction;
    if (job_ && job_->progress) job_->progress(fraction, job_->progressData);
}

int Relay::proc(int current, int total, void* param) {
    auto* relay = static_cast<Relay*>(param);
    if (total > 0) {
        const double f = std::clamp(static_cast<double>(current) / total, 0.0, 1.0);
        relay->report(relay->lo_ + (relay->hi_ - relay->lo_) * f);
    }
    return 0;
}

void Relay::install(int total) { qx::setProgProc(&Relay::proc, this, total, 1); }

void Relay::uninstall() {
    // A job refused before it started leaves the callback installed; a relay that has gone
    // must not be.
    if (qx::progressState().param == this) qx::setProgProc(nullptr, nullptr, 0, 0);
}

KeepCutRequest wholeImageRequest(cv::Mat& src, cv::Mat& alpha, cv::Mat& dst, cv::Mat& aux) {
    KeepCutRequest req{};
    req.srcImage = src.data;
    req.srcStep = static_cast<int32_t>(src.step);
    req.alphaPlane = alpha.data;
    req.alphaStep = static_cast<int32_t>(alpha.step);
    req.dstImage = dst.data;
    req.dstStep = static_cast<int32_t>(dst.step);
    req.auxPlane = aux.data;
    req.auxStep = static_cast<int32_t>(aux.step);
    req.fullWidth = req.roiWidth = alpha.cols;
    req.fullHeight = req.roiHeight = alpha.rows;
    return req;
}

void startJob(QxwJob* job) {
    if (!job) return;
    job->libraryStatus = 0;
    job->message[0] = '\0';
}

QxwStatus finishJob(QxwJob* job, QxwStatus status, const std::string& message,
                    int libraryStatus) {
    if (job) {
        job->libraryStatus = libraryStatus;
        std::snprintf(job->message, sizeof job->message, "%s", message.c_str());
    }
    return status;
}

std::string checkImage(const QxwImage* image) {
    if (!image || !image->pixels) return "no image";
    if (image->channels != 3 && image->channels != 4)
        return "the image has " + std::to_string(image->channels) +
               " bytes a pixel; 3 or 4 are taken";
    if (image->width < 1 || image->height < 1) return "the image is empty";
    if (image->order != QXW_BGR && image->order != QXW_RGB) return "unknown byte order";
    if (image->stride < static_cast<int64_t>(image->width) * image->channels)
        return "the image's stride is shorter than a row";
    return {};
}

std::string checkPlane(const void* data, int stride, const QxwImage& image, const char* what) {
    if (!data) return std::string("no ") + what;
    if (stride < image.width) return std::string("the ") + what + "'s stride is shorter than a row";
    return {};
}

cv::Mat toBgr(const QxwImage& image) {
    const cv::Mat view(image.height, image.width, image.channels == 3 ? CV_8UC3 : CV_8UC4,
                       const_cast<unsigned char*>(image.pixels), image.stride);
    cv::Mat bgr;
    if (image.channels == 3)
        bgr = image.order == QXW_RGB ? (cv::cvtColor(view, bgr, cv::COLOR_RGB2BGR), bgr)
                                     : view.clone();
    else
        cv::cvtColor(view, bgr, image.order == QXW_RGB ? cv::COLOR_RGBA2BGR : cv::COLOR_BGRA2BGR);
    return bgr;
}

cv::Mat toBgra(const QxwImage& image) {
    cv::Mat out;
    cv::cvtColor(toBgr(image), out, cv::COLOR_BGR2BGRA);
    return out;
}

cv::Mat planeView(const unsigned char* data, int stride, const QxwImage& image) {
    return cv::Mat(image.height, image.width, CV_8UC1, const_cast<unsigned char*>(data), stride);
}

void copyPlaneOut(const cv::Mat& plane, unsigned char* data, int stride) {
    for (int y = 0; y < plane.rows; ++y)
        std::memcpy(data + static_cast<size_t>(y) * stride, plane.ptr(y), plane.cols);
}

void copyColoursOut(const cv::Mat& bgr, const QxwImage& image, const QxwColourOut& out) {
    cv::Mat ordered = bgr;
    if (image.order == QXW_RGB) cv::cvtColor(bgr, ordered, cv::COLOR_BGR2RGB);
    for (int y = 0; y < ordered.rows; ++y)
        std::memcpy(out.pixels + static_cast<size_t>(y) * out.stride, ordered.ptr(y),
                    static_cast<size_t>(ordered.cols) * 3);
}

cv::Mat encodeStrokes(const cv::Mat& strokes, unsigned char unpainted) {
    cv::Mat coded(strokes.size(), CV_8UC1);
    for (int y = 0; y < strokes.rows; ++y) {
        const unsigned char* s = strokes.ptr<unsigned char>(y);
        unsigned char* c = coded.ptr<unsigned char>(y);
        for (int x = 0; x < strokes.cols; ++x)
            c[x] = s[x] == QXW_KEEP ? 255 : s[x] == QXW_CUT ? 1 : unpainted;
    }
    return coded;
}

std::string checkRect(const QxwImage& image, int x, int y, int width, int height) {
    if (width < 1 || height < 1 || x < 0 || y < 0 || x > image.width - width ||
        y > image.height - height)
        return "the rectangle " + std::to_string(x) + "," + std::to_string(y) + "," +
               std::to_string(width) + "," + std::to_string(height) + " is not inside the " +
               std::to_string(image.width) + "x" + std::to_string(image.height) + " image";
    return {};
}

}  // namespace qx::workflow
