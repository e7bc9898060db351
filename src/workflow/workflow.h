// What the workflows share: checking the caller's buffers, the colour conversions, the stroke
// coding, and the progress relay that turns the library jobs' reports into one fraction of the
// whole workflow. The workflows call each other through the functions below (with one relay),
// so that a composed workflow such as the cut-out reports one climb from 0 to 1.
#pragma once

#include <algorithm>
#include <opencv2/core.hpp>
#include <string>

#include "runtime/fault.h"
#include "runtime/memory.h"
#include "runtime/progress.h"
#include "qxworkflow.h"

namespace qx::workflow {

// Where a workflow's progress goes. Each library job it runs is given a span [lo, hi] of the
// whole; the job's position is mapped into that span and never allowed to go back (the
// library's counter falls back to half its total when a job overruns its estimate). The relay
// hears the jobs as the thread's progress listener (runtime/progress.h), for its whole life: every
// kick, and the finer positions inside the long steps (a factorisation, a reduced run's
// doubling) that an export's own callback never hears. Jobs still take the relay through their
// request's progress fields, so that they count as for any host, and the library takes a job's
// callback out when the job returns. A job without such fields counts with the callback
// installed before it (install); the relay takes itself out at its end if the job left it.
//
// The relay also carries the call's memory budget, read from the system once when the call
// starts (an inner relay takes its outer one's) and handed to every job the call runs.
class Relay {
public:
    // Without a callback of the job's there is nobody to tell: no listener. budgetBytes 0: the
    // library's budget now.
    explicit Relay(QxwJob* job, double budgetBytes = 0.0)
        : job_(job),
          budget_(budgetBytes > 0.0 ? budgetBytes : qx::usableMemoryBytes()),
          listening_(job && job->progress ? &Relay::heard : nullptr, this) {}
    ~Relay() { uninstall(); }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    void span(double lo, double hi);  // the part of the whole that the next job covers
    void report(double fraction);     // a fraction of the whole (kept monotone)
    void reportPart(double part) { report(lo_ + (hi_ - lo_) * part); }  // of the current span
    double spanLow() const { return lo_; }
    double spanHigh() const { return hi_; }
    void finish() { report(1.0); }
    double budgetBytes() const { return budget_; }
    // The same in the 1000-byte units the tiled engines plan with.
    int budgetUnits() const { return static_cast<int>(std::min(budget_ / 1000.0, 2.0e9)); }
    // The callback and parameter for a request's progress fields (what they report, the
    // listener hears).
    static int proc(int current, int total, void* param);
    void* param() { return this; }
    // For jobs that report through the library's installed callback.
    void install(int total);

private:
    void uninstall();
    static void heard(double fraction, void* param);  // a job's position, 0..1
    QxwJob* job_;
    double budget_;
    double lo_ = 0.0, hi_ = 1.0, last_ = -1.0;
    qx::ProgressListenerScope listening_;
};

// Starts a job record (status 0, empty message); NULL is allowed.
void startJob(QxwJob* job);
// Ends a workflow with a status and a one-line message.
QxwStatus finishJob(QxwJob* job, QxwStatus status, const std::string& message = {},
                    int libraryStatus = 0);

// The job's cancel flag, given to the library jobs that the calling thread runs for the length
// of one workflow call (the thread's own flag is put back after).
class CancelScope {
public:
    explicit CancelScope(const QxwJob* job);
    ~CancelScope();
    CancelScope(const CancelScope&) = delete;
    CancelScope& operator=(const CancelScope&) = delete;
    bool requested() const;

private:
    const volatile int32_t* saved_;
    const volatile int32_t* flag_;
};
QxwStatus cancelled(QxwJob* job);

// A workflow's failures in words: one line, never a status number. Out of memory says what the
// job asked for when that is known, and what is free (qx::freeMemory): "out of memory: the job
// needs another 36 MB and 7.9 MB is free; close other programs or use a smaller image".
std::string outOfMemoryWords(uint64_t askedBytes);
// What it means that library job `which` returned `status` (not its success): what failed and
// why. The failure the calling thread's last job export noted (qx::lastFailure) tells apart what
// one status stands for, and gives the bytes an allocation asked for.
std::string jobFailureWords(qx::Export which, int status);
// Ends a workflow whose library job failed: QXW_FAILED, those words, the status in
// libraryStatus.
QxwStatus jobFailed(QxwJob* job, qx::Export which, int status);
// The words for the exception being handled (only inside a catch block) in workflow `what`.
std::string thrownWords(const char* what);

// The frame of every C entry: a refusal (when not empty) returns QXW_BAD_INPUT with nothing run;
// otherwise body(relay) runs with a relay over the whole call, 1 is reported when it returns
// QXW_OK, and an escaped exception becomes QXW_FAILED with its words (thrownWords).
// A cancelled call (the job's flag set, seen by a library job or between stages) returns
// QXW_CANCELLED whatever status the stage reported.
template <class Body>
QxwStatus runEntry(QxwJob* job, const std::string& refusal, const char* what, Body&& body) {
    if (!refusal.empty()) return finishJob(job, QXW_BAD_INPUT, refusal);
    CancelScope cancel(job);
    try {
        Relay relay(job);
        relay.span(0.0, 1.0);
        const QxwStatus s = body(relay);
        if (s != QXW_OK && cancel.requested()) return cancelled(job);
        if (s == QXW_OK) relay.finish();
        return s;
    } catch (...) {
        if (cancel.requested()) return cancelled(job);
        return finishJob(job, QXW_FAILED, thrownWords(what));
    }
}

// Runs a workflow that lays out its stages over the whole of a relay (refineMask) inside
// [lo, hi] of `outer`: body(relay, job) gets a relay of its own whose 0..1 is that span (with
// the outer one's budget), and a job record whose status words are copied to `job` when it
// returns.
template <class Body>
QxwStatus withinSpan(Relay& outer, QxwJob* job, double lo, double hi, Body&& body) {
    outer.span(lo, hi);
    QxwJob inner{};
    inner.progress = [](double part, void* data) { static_cast<Relay*>(data)->reportPart(part); };
    inner.progressData = &outer;
    QxwStatus s;
    {
        Relay relay(&inner, outer.budgetBytes());
        relay.span(0.0, 1.0);
        s = body(relay, &inner);
    }
    if (job) finishJob(job, s, inner.message, inner.libraryStatus);
    return s;
}

// Empty when a colour output (may be NULL: none asked for) can take the image's colours.
std::string checkColours(const QxwColourOut* colours, const QxwImage& image);
// Empty when a cut-out's buffers can be used: the image, strokes (may be NULL), the alpha and
// the colours (may be NULL); otherwise why not.
std::string checkCutoutBuffers(const QxwImage* image, const unsigned char* strokes,
                               int strokesStride, const unsigned char* alpha, int alphaStride,
                               const QxwColourOut* colours);

// The whole image as a keep-cut request: src and dst 4 bytes a pixel, alpha and aux one byte.
KeepCutRequest wholeImageRequest(cv::Mat& src, cv::Mat& alpha, cv::Mat& dst, cv::Mat& aux);

// Empty when the image can be used, otherwise why not.
std::string checkImage(const QxwImage* image);
// Empty when a grey plane of the image's size can be read or written at data with stride.
std::string checkPlane(const void* data, int stride, const QxwImage& image, const char* what);

// The image as 3-byte BGR, and 4-byte BGRA (the fourth byte 255), as the library's jobs take it.
cv::Mat toBgr(const QxwImage& image);
cv::Mat toBgra(const QxwImage& image);
// A read-only view of a caller's grey plane.
cv::Mat planeView(const unsigned char* data, int stride, const QxwImage& image);
// Copies an 8-bit plane or a BGR image (into the image's byte order) to a caller's buffer.
void copyPlaneOut(const cv::Mat& plane, unsigned char* data, int stride);
void copyColoursOut(const cv::Mat& bgr, const QxwImage& image, const QxwColourOut& out);

// The disc of `radius` pixels (2 radius + 1 across) for dilating and eroding a plane.
cv::Mat disc(int radius);

// The stroke coding of the library's planes for a stroke plane (QXW_KEEP, QXW_CUT, other):
// keep 255, cut 1, unpainted `unpainted` (even: to be computed).
cv::Mat encodeStrokes(const cv::Mat& strokes, unsigned char unpainted = 128);

// The workflows on the library's own images (image BGR), reporting through one relay; the
// status and message go to job. Outputs are written only on QXW_OK.
// How matteTrimap solves: with qxMaskAlphaFlow once (the one-click's fall-back narrow band),
// with it again on the tri-map tightened from the first alpha when that one would be solved at
// full size, the first then made at half size (a person's tri-map, refine's last band, GrabCut's
// band), with it again also after a reduced first run, at full size when the
// tightened band's undecided pixels fit a run (the one-click's band), or with qxMaskAlpha's
// sharpening and clean-up (refine's band growth reads the sharper edge).
enum class TrimapSolve { Flows, FlowsAgain, FlowsAgainAtFullSize, Finished };
QxwStatus matteTrimap(const cv::Mat& bgr, const cv::Mat& trimap, int fgCode, int bgCode,
                      int levelHigh, int levelLow, cv::Mat* alpha, Relay& relay, QxwJob* job,
                      TrimapSolve solve);
QxwStatus matteStrokes(const cv::Mat& bgr, const cv::Mat& strokes, QxwStrokeEngine engine,
                       cv::Mat* alpha, Relay& relay, QxwJob* job);
QxwStatus recoverForeground(const cv::Mat& bgr, const cv::Mat& alpha, QxwForegroundMethod method,
                            cv::Mat* colours, Relay& relay, QxwJob* job);
// selection: 255 selected, 0 not; trimap (when band > 0): 0 background, 128 band, 255 subject.
QxwStatus selectSubject(const cv::Mat& bgr, const cv::Mat& strokes, const cv::Rect& rect,
                        int band, cv::Mat* selection, cv::Mat* trimap, Relay& relay,
                        QxwJob* job);
// A clean alpha (and, when colours is not null, the recovered colours) from a coarse mask.
QxwStatus refineMask(const cv::Mat& bgr, const cv::Mat& mask, cv::Mat* alpha, cv::Mat* colours,
                     Relay& relay, QxwJob* job);
// The subject's soft mask from the segmentation network (modelPath: NULL for the environment's
// or the default cache's), reporting through the relay's current span.
QxwStatus subjectMask(const cv::Mat& bgr, const char* modelPath, cv::Mat* mask, Relay& relay,
                      QxwJob* job);
// The one-click's tri-map (0, 128, 255) from the network's soft mask: a band reaching far inside
// the mask's edge and a little outside it, scaled to `viewSide` (the longer side of what the
// network saw), thin parts keeping a sure middle.
cv::Mat subjectTrimap(const cv::Mat& soft, int viewSide);
// The one-click cut-out from the subject's soft mask `soft` (8-bit, the image's size): outside
// `rect` (empty: none) background, strokes (may be empty) over both, solved on subjectTrimap's
// band (a selection GrabCut completed is refined as refineMask does), trusted as it stands (a
// narrow band solved along its edge) when the solve loses most of it; painted and outside
// pixels keep their side in the alpha. Colours when not null.
QxwStatus cutoutFromSubject(const cv::Mat& bgr, const cv::Mat& soft, const cv::Mat& strokes,
                            const cv::Rect& rect, cv::Mat* alpha, cv::Mat* colours,
                            Relay& relay, QxwJob* job);
// What the network is shown for a rectangle (empty: the whole image): the rectangle with a
// margin of a tenth of its sides, within the image. It sees the subject larger than in the
// whole photo, with enough of its surroundings to tell it from them.
cv::Rect networkView(const cv::Size& image, const cv::Rect& rect);
// Labels the pixels along the edge of a hard selection again at full resolution, for a
// selection that was cut on a level `reduction` times smaller than the image (nothing happens
// for 1 or less). selection: 8-bit, 255 selected, 0 not; changed only inside `area`, and never
// where `fixed` (8-bit, may be empty) is non-zero. Open to change are a band of about one and a
// half working pixels either side of the edge, and thin runs of colour (narrower than about
// two working pixels) that the other side's colours explain far better; they are labelled by
// a graph cut with colour models learnt from the selection's sure parts, the rest held. What it
// adds must reach the selection. Reports into the relay's current span.
void refineSelection(const cv::Mat& bgr, const cv::Mat& fixed, const cv::Rect& area,
                     double reduction, cv::Mat& selection, Relay& relay);
// Empty when the rectangle lies inside the image, otherwise why not.
std::string checkRect(const QxwImage& image, int x, int y, int width, int height);

}  // namespace qx::workflow
