// The subject's own colours under an alpha: the full-resolution recovery (as
// qxRecoverForegroundFull), the quarter-scale least-squares recovery (as qxRecoverForeground),
// or the shared-sample separation of the foreground subsystem.
#include <opencv2/imgproc.hpp>

#include "foreground/recovery.h"
#include "foreground/shared_sample.h"
#include "workflow/workflow.h"

namespace qx::workflow {

QxwStatus recoverForeground(const cv::Mat& bgr, const cv::Mat& alpha, QxwForegroundMethod method,
                            cv::Mat* colours, Relay& relay, QxwJob* job) {
    if (method == QXW_FG_FULL) {
        cv::Mat out(bgr.size(), CV_8UC3);
        ForegroundRequest req{};
        req.image = bgr.data;
        req.imageStep = static_cast<int32_t>(bgr.step);
        req.imageChannels = 3;
        req.alpha = alpha.data;
        req.alphaStep = static_cast<int32_t>(alpha.step);
        req.colours = out.data;
        req.coloursStep = static_cast<int32_t>(out.step);
        req.coloursChannels = 3;
        req.width = bgr.cols;
        req.height = bgr.rows;
        req.progProc = &Relay::proc;
        req.progParam = relay.param();
        const int status = qx::guardedExport(qx::Export::ForegroundFull, [&] {
            return qx::recoverJob(req, relay.budgetBytes());
        });
        if (status != 1) return jobFailed(job, qx::Export::ForegroundFull, status);
        *colours = out;
        return finishJob(job, QXW_OK);
    }
    if (method == QXW_FG_SAMPLING) {
        cv::Mat out(bgr.size(), CV_8UC3);
        if (qx::recoverForegroundBySampling(bgr.data, static_cast<int>(bgr.step), 3, bgr.cols,
                                            bgr.rows, alpha.data, static_cast<int>(alpha.step),
                                            out.data, static_cast<int>(out.step)) != 1)
            return finishJob(job, QXW_BAD_INPUT,
                             "the sampling method refused the image (a side over 32767 pixels?)");
        *colours = out;
        return finishJob(job, QXW_OK);
    }
    cv::Mat src;
    cv::cvtColor(bgr, src, cv::COLOR_BGR2BGRA);
    cv::Mat dst = src.clone();  // rows the recovery leaves alone keep the image's colours
    cv::Mat plainAlpha = alpha.clone();
    cv::Mat aux(alpha.size(), CV_8UC1, cv::Scalar(0));
    KeepCutRequest req = wholeImageRequest(src, plainAlpha, dst, aux);
    // This job reports through the callback installed before it (total 20000).
    relay.install(20000);
    const int64_t status =
        qx::recoverForegroundGuarded(&req, true, qx::wholeRegionParams(false, relay.budgetUnits()),
                                     0);
    if (status != 0)
        return jobFailed(job, qx::Export::ForegroundRecovery, static_cast<int>(status));
    cv::cvtColor(dst, *colours, cv::COLOR_BGRA2BGR);
    return finishJob(job, QXW_OK);
}

}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwRecoverForeground(const QxwImage* image,
                                                 const unsigned char* alpha, int alphaStride,
                                                 QxwForegroundMethod method,
                                                 const QxwColourOut* colours, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkImage(image);
    if (err.empty()) err = checkPlane(alpha, alphaStride, *image, "alpha");
    if (err.empty()) err = colours ? checkColours(colours, *image) : "no colour output";
    if (err.empty() && method != QXW_FG_LEAST_SQUARES && method != QXW_FG_SAMPLING &&
        method != QXW_FG_FULL)
        err = "unknown recovery method " + std::to_string(static_cast<int>(method));
    return runEntry(job, err, "foreground recovery", [&](Relay& relay) {
        cv::Mat out;
        const QxwStatus s = recoverForeground(toBgr(*image), planeView(alpha, alphaStride, *image),
                                              method, &out, relay, job);
        if (s != QXW_OK) return s;
        copyColoursOut(out, *image, *colours);
        return QXW_OK;
    });
}
