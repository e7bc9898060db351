// The one-click cut-out: the subject's soft mask from the network, what the user gave laid over
// it (outside a rectangle is background, strokes override), the band made from the mask
// (subjectTrimap) solved by the tri-map workflow, and the colours recovered at full resolution.
// The band is the network's own: refine's band, made for a coarse mask of any source, holds
// too much of the network's opaque hair as sure (see bench/README.md, "One click").
//
// On a photo where the subject and the background share colours the solve can lose most of a
// good mask. Its result is checked against the mask: when its hard selection overlaps the
// mask's by less than kLeastOverlap (intersection over union), or keeps less than kLeastKept of
// the mask's area, the mask is trusted as it stands and only a narrow band along its edge is
// solved.
//
// A user's rectangle is drawn around the whole subject, so the subject reaches close to its
// sides (within a few percent). When the network's selection in the rectangle spans less than
// kLeastSpan of its width or of its height, the network has found only part of the subject (a
// second flower it doubts, a limb): the selection is made by GrabCut in the rectangle instead,
// with the network's sure core (its mask at 230 and above, eroded) as keep strokes beside the
// user's, and that selection, a hard one, is refined as refine refines any coarse mask. On the
// benchmark photos with the rectangle grown 5% around the truth, the network's selection spans
// 0.90-1.00 of the rectangle where it found the subject and 0.84 where it missed a second
// flower (IoU 0.80 refined, 0.997 so).
#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "subject/subject_net.h"
#include "workflow/workflow.h"

namespace qx::workflow {
namespace {

constexpr double kLeastOverlap = 0.5, kLeastKept = 0.25;
constexpr double kLeastSpan = 0.88;
constexpr int kSureCore = 230, kCoreErosion = 4;
// Above this many pixels the refinement and the colours need far more memory than the network
// keeps between calls (about 0.8 GB of weights and working buffers): it is let go once its mask
// is made, and the next call reads it again (about a second against a minute's job).
constexpr int64_t kKeepNetPixels = 4000000;
// The network sees a rectangle's surroundings too, this many percent of its sides either way.
constexpr int kViewMargin = 10;
// The narrow band of the fall-back: about 0.4% of the longer side, at least 3 pixels.
int fallbackBand(const cv::Size& size) {
    return std::max(3, std::max(size.width, size.height) / 250);
}

bool trustworthy(const cv::Mat& refined, const cv::Mat& mask) {
    const cv::Mat a = refined >= 128, m = mask >= 128;
    const double inter = cv::countNonZero(a & m), uni = cv::countNonZero(a | m);
    const double kept = cv::countNonZero(a);
    return uni > 0 && inter / uni >= kLeastOverlap && kept >= kLeastKept * cv::countNonZero(m);
}

// The pixels whose side the user fixed: 255 subject, 0 background, 128 free.
cv::Mat fixedSides(const cv::Size& size, const cv::Mat& strokes, const cv::Rect& rect) {
    cv::Mat fixed(size, CV_8UC1, cv::Scalar(128));
    if (!rect.empty()) {
        fixed.setTo(0);
        fixed(rect).setTo(128);
    }
    if (!strokes.empty()) {
        fixed.setTo(255, strokes == QXW_KEEP);
        fixed.setTo(0, strokes == QXW_CUT);
    }
    return fixed;
}

void applyFixed(cv::Mat& plane, const cv::Mat& fixed) {
    plane.setTo(255, fixed == 255);
    plane.setTo(0, fixed == 0);
}

// Whether the mask's selection (128 and above) inside rect falls short of the rectangle's width
// or height by more than kLeastSpan allows.
bool fallsShort(const cv::Mat& mask, const cv::Rect& rect) {
    if (rect.empty()) return false;
    const cv::Rect box = cv::boundingRect(mask(rect) >= 128);
    return box.width < kLeastSpan * rect.width || box.height < kLeastSpan * rect.height;
}

// GrabCut's selection in rect with the mask's sure core as keep strokes under the user's own.
QxwStatus seededSelection(const cv::Mat& bgr, const cv::Mat& mask, const cv::Mat& strokes,
                          const cv::Rect& rect, cv::Mat* selection, Relay& relay, QxwJob* job) {
    cv::Mat seeds(bgr.size(), CV_8UC1, cv::Scalar(128)), core;
    cv::erode(mask >= kSureCore, core, disc(kCoreErosion));
    seeds.setTo(QXW_KEEP, core);
    applyFixed(seeds, fixedSides(bgr.size(), strokes, cv::Rect()));
    return selectSubject(bgr, seeds, rect, 0, selection, nullptr, relay, job);
}

// The mask trusted as it stands: a band of fallbackBand pixels either side of its edge solved.
QxwStatus narrowBand(const cv::Mat& bgr, const cv::Mat& mask, cv::Mat* alpha, Relay& relay,
                     QxwJob* job) {
    const cv::Mat hard = mask >= 128;
    const cv::Mat round = disc(fallbackBand(mask.size()));
    cv::Mat grown, shrunk;
    cv::dilate(hard, grown, round);
    cv::erode(hard, shrunk, round);
    cv::Mat trimap = hard.clone();
    trimap.setTo(128, grown != shrunk);
    if (cv::countNonZero(trimap == 128) == 0) {
        *alpha = hard;
        return QXW_OK;
    }
    const QxwStatus s =
        matteTrimap(bgr, trimap, 255, 0, 255, 0, alpha, relay, job, TrimapSolve::Flows);
    if (s == QXW_OK || s == QXW_CANCELLED) return s;
    *alpha = hard;  // a band the job refuses (too few rows): the mask's hard edge
    return finishJob(job, QXW_OK);
}

// The network's mask solved on its own band; QXW_BAD_INPUT when the band has nothing undecided
// (a subject that fills the frame, a mask of one value) or the job refuses it.
QxwStatus solveSubjectBand(const cv::Mat& bgr, const cv::Mat& mask, const cv::Mat& fixed,
                           int viewSide, cv::Mat* alpha, Relay& relay, QxwJob* job) {
    cv::Mat trimap = subjectTrimap(mask, viewSide);
    applyFixed(trimap, fixed);
    if (cv::countNonZero(trimap == 128) == 0) return QXW_BAD_INPUT;
    return matteTrimap(bgr, trimap, 255, 0, 255, 0, alpha, relay, job,
                       TrimapSolve::FlowsAgainAtFullSize);
}

}  // namespace

cv::Rect networkView(const cv::Size& image, const cv::Rect& rect) {
    if (rect.empty()) return cv::Rect(cv::Point(0, 0), image);
    const int dx = rect.width * kViewMargin / 100, dy = rect.height * kViewMargin / 100;
    return cv::Rect(rect.x - dx, rect.y - dy, rect.width + 2 * dx, rect.height + 2 * dy) &
           cv::Rect(cv::Point(0, 0), image);
}

QxwStatus cutoutFromSubject(const cv::Mat& bgr, const cv::Mat& soft, const cv::Mat& strokes,
                            const cv::Rect& rect, cv::Mat* alpha, cv::Mat* colours,
                            Relay& relay, QxwJob* job) {
    const cv::Mat fixed = fixedSides(bgr.size(), strokes, rect);
    cv::Mat mask = soft.clone();
    applyFixed(mask, fixed);
    if (cv::countNonZero(mask >= 128) == 0)
        return finishJob(job, QXW_BAD_INPUT,
                         std::string("no subject found") +
                             (rect.empty() ? "" : " in the rectangle") +
                             ": draw a rectangle around it or paint keep strokes over it");
    // Shares of the caller's span: the band's solve is most of the time.
    const double lo = relay.spanLow(), hi = relay.spanHigh();
    auto at = [&](double part) { return lo + (hi - lo) * part; };
    const double solveEnd = colours ? 0.7 : 0.85, bandEnd = colours ? 0.8 : 1.0;
    double start = 0.0;
    QxwStatus s = QXW_OK;
    bool completed = false;  // by GrabCut: a hard selection, refined as any coarse mask
    if (fallsShort(mask, rect)) {
        start = 0.15;
        cv::Mat selection;
        s = withinSpan(relay, job, at(0.0), at(start), [&](Relay& r, QxwJob* j) {
            return seededSelection(bgr, mask, strokes, rect, &selection, r, j);
        });
        if (s == QXW_CANCELLED) return s;
        if (s == QXW_OK && cv::countNonZero(selection) > 0) {
            mask = selection;
            applyFixed(mask, fixed);
            completed = true;
        }
    }
    const cv::Size view = networkView(bgr.size(), rect).size();
    cv::Mat result;
    s = withinSpan(relay, job, at(start), at(solveEnd), [&](Relay& r, QxwJob* j) {
        if (completed) return refineMask(bgr, mask, &result, nullptr, r, j);
        return solveSubjectBand(bgr, mask, fixed, std::max(view.width, view.height), &result, r,
                                j);
    });
    if (s == QXW_CANCELLED) return s;
    if (s != QXW_OK && s != QXW_BAD_INPUT) return s;
    // A mask of one value (the subject fills the frame) has no edge to solve; nor can a mask
    // that the solve loses be the answer.
    if (s == QXW_BAD_INPUT || !trustworthy(result, mask)) {
        relay.span(at(solveEnd), at(bandEnd));
        s = narrowBand(bgr, mask, &result, relay, job);
        if (s != QXW_OK) return s;
    }
    applyFixed(result, fixed);
    if (colours) {
        relay.span(at(bandEnd), hi);
        s = recoverForeground(bgr, result, QXW_FG_FULL, colours, relay, job);
        if (s != QXW_OK) return s;
    }
    *alpha = result;
    return finishJob(job, QXW_OK);
}

}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwCutoutSubject(const QxwImage* image,
                                             const QxwSubjectOptions* options,
                                             const unsigned char* strokes, int strokesStride,
                                             int x, int y, int width, int height,
                                             unsigned char* alpha, int alphaStride,
                                             const QxwColourOut* colours, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err =
        checkCutoutBuffers(image, strokes, strokesStride, alpha, alphaStride, colours);
    const bool rect = width != 0 || height != 0 || x != 0 || y != 0;
    if (err.empty() && rect) err = checkRect(*image, x, y, width, height);
    return runEntry(job, err, "the subject's cut-out", [&](Relay& relay) {
        const cv::Mat bgr = toBgr(*image);
        cv::Mat soft, a, fg;
        // The network's pass is 5 to 6 s on two cores, a refinement of a photo 2 to 13 s.
        const cv::Rect box = rect ? cv::Rect(x, y, width, height) : cv::Rect();
        const cv::Rect seen = networkView(bgr.size(), box);
        relay.span(0.0, 0.35);
        cv::Mat part;
        QxwStatus s =
            subjectMask(bgr(seen), options ? options->modelPath : nullptr, &part, relay, job);
        if (s != QXW_OK) return s;
        if (static_cast<int64_t>(bgr.total()) > kKeepNetPixels)
            qx::subject::releaseNet(
                qx::subject::modelPath(options ? options->modelPath : nullptr));
        soft = cv::Mat::zeros(bgr.size(), CV_8UC1);
        part.copyTo(soft(seen));
        relay.span(0.35, 1.0);
        s = cutoutFromSubject(bgr, soft,
                              strokes ? planeView(strokes, strokesStride, *image) : cv::Mat(),
                              box, &a, colours ? &fg : nullptr, relay, job);
        if (s != QXW_OK) return s;
        copyPlaneOut(a, alpha, alphaStride);
        if (colours) copyColoursOut(fg, *image, *colours);
        return QXW_OK;
    });
}
