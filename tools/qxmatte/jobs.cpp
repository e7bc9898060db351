// What the commands do around a workflow call: the image record, colour recovery after an alpha,
// the cut-out of a photo and its partner (shared with batch), and the exit status of a failure.
#include "cli.h"
#include "measurement.h"

namespace qxmatte {

int jobFailure(const std::string& source, QxwStatus status, const QxwJob& job) {
    if (status == QXW_CANCELLED) return fail(128 + interruptedBy(), "interrupted, nothing written");
    // No subject model is the set-up's business, not the photo's: the message alone.
    if (status == QXW_NO_MODEL) return fail(kExitInput, job.message);
    return fail(status == QXW_BAD_INPUT ? kExitInput : kExitJob, source + ": " + job.message);
}

QxwImage imageOf(const cv::Mat& bgr) {
    return {bgr.data, static_cast<int32_t>(bgr.step), 3, bgr.cols, bgr.rows, QXW_BGR};
}

QxwStatus recover(const cv::Mat& image, const cv::Mat& alpha, Job& job, cv::Mat* out,
                  QxwForegroundMethod method) {
    const QxwImage img = imageOf(image);
    cv::Mat fg(image.size(), CV_8UC3);
    const QxwColourOut colours{fg.data, static_cast<int32_t>(fg.step)};
    const QxwStatus s = qxwRecoverForeground(&img, alpha.data, static_cast<int>(alpha.step),
                                             method, &colours, job);
    if (s == QXW_OK) *out = fg;
    return s;
}

int cutoutOf(Partner kind, const std::string& imagePath, const std::string& partnerPath, Job& job,
             cv::Mat* rgba, cv::Mat* alphaOut) {
    const char* what = kind == Partner::Mask ? "mask"
                       : kind == Partner::Trimap ? "tri-map"
                                                 : "stroke image";
    cv::Mat image, plane;
    const std::string err = kind == Partner::Subject
                                ? readImage(imagePath, &image)
                                : readImageAndPlane(imagePath, partnerPath, what, &image, &plane);
    if (!err.empty()) return fail(kExitInput, err);
    const QxwImage img = imageOf(image);
    cv::Mat alpha(image.size(), CV_8UC1), fg;
    QxwStatus s;
    if (kind == Partner::Subject) {
        fg.create(image.size(), CV_8UC3);
        const QxwColourOut colours{fg.data, static_cast<int32_t>(fg.step)};
        s = qxwCutoutSubject(&img, nullptr, nullptr, 0, 0, 0, 0, 0, alpha.data,
                             static_cast<int>(alpha.step), &colours, job);
        if (s != QXW_OK) return jobFailure(imagePath, s, job.job);
    } else if (kind == Partner::Mask) {
        fg.create(image.size(), CV_8UC3);
        const QxwColourOut colours{fg.data, static_cast<int32_t>(fg.step)};
        s = qxwRefineMask(&img, plane.data, static_cast<int>(plane.step), alpha.data,
                          static_cast<int>(alpha.step), &colours, job);
        if (s != QXW_OK) return jobFailure(partnerPath, s, job.job);
    } else {
        job.stage(0.0, kSolveShare);
        s = kind == Partner::Trimap
                ? qxwMatteTrimap(&img, plane.data, static_cast<int>(plane.step), 255, 0, 255, 0,
                                 alpha.data, static_cast<int>(alpha.step), job)
                : qxwMatteStrokes(&img, plane.data, static_cast<int>(plane.step),
                                  QXW_ENGINE_STROKES, alpha.data, static_cast<int>(alpha.step),
                                  job);
        if (s != QXW_OK) return jobFailure(partnerPath, s, job.job);
        job.stage(kSolveShare, 1.0);
        if ((s = recover(image, alpha, job, &fg)) != QXW_OK)
            return jobFailure(imagePath, s, job.job);
    }
    *rgba = withAlpha(fg, alpha);
    if (alphaOut) *alphaOut = alpha;
    return kExitOk;
}

}  // namespace qxmatte
