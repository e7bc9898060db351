// The subject's soft mask in one click: the segmentation network of src/subject behind the
// workflows' frame (checks, progress relay, cancel, statuses and messages).
#include "subject/subject_mask.h"
#include "workflow/workflow.h"

namespace qx::workflow {

QxwStatus subjectMask(const cv::Mat& bgr, const char* modelPath, cv::Mat* mask, Relay& relay,
                      QxwJob* job) {
    using qx::subject::MaskStatus;
    const qx::subject::MaskResult r =
        qx::subject::subjectMask(bgr, modelPath, relay.budgetBytes(),
                                 [&](double part) { relay.reportPart(part); }, mask);
    switch (r.status) {
        case MaskStatus::Ok: return QXW_OK;
        case MaskStatus::NoModel:
            return finishJob(job, QXW_NO_MODEL,
                             "no subject model installed" +
                                 (r.path.empty() ? std::string() : " (looked for " + r.path + ")") +
                                 ": run scripts/setup.sh (or set QX_SUBJECT_MODEL)");
        case MaskStatus::BadModel:
            return finishJob(job, QXW_BAD_INPUT,
                             "the subject model " + r.path + " can't be used: " + r.detail);
        case MaskStatus::NoModule:
            return finishJob(job, QXW_FAILED,
                             "the library's subject network module can't be loaded (" + r.detail +
                                 "): reinstall the library");
        case MaskStatus::NoMemory: break;
    }
    return finishJob(job, QXW_FAILED, outOfMemoryWords(r.bytes));
}

}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwSubjectMask(const QxwImage* image, const QxwSubjectOptions* options,
                                           unsigned char* mask, int maskStride, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkImage(image);
    if (err.empty()) err = checkPlane(mask, maskStride, *image, "mask");
    return runEntry(job, err, "subject selection", [&](Relay& relay) {
        cv::Mat m;
        const QxwStatus s =
            subjectMask(toBgr(*image), options ? options->modelPath : nullptr, &m, relay, job);
        if (s != QXW_OK) return s;
        copyPlaneOut(m, mask, maskStride);
        return QXW_OK;
    });
}
