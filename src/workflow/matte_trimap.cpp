// Alpha from a tri-map: find the box of the undecided pixels, cut the image to it, solve, paste
// the alpha back (outside the box every pixel is decided).
#include <algorithm>
#include <optional>
#include <vector>

#include "flows/mask_alpha_flow.h"
#include "matting/mask_bbox.h"
#include "matting/mask_job.h"
#include "matting/tight_trimap.h"
#include "workflow/workflow.h"

namespace qx::workflow {
namespace {

constexpr const char* kNothingUndecided = "the tri-map has no undecided pixel";
// solveBox's status when its caller let the job go.
constexpr int kLetGo = 2;

// Why the tri-map job's box rule gave no box: no undecided pixel, or too few rows for the job. The box rule:
// rows from the first to the last with an undecided pixel, 12 more on each side, clipped to the
// image; under 24 rows is no box.
std::string emptyBoxReason(const cv::Mat& trimap, int fgCode, int bgCode) {
    constexpr int kMargin = 12, kLeastRows = 24;
    int first = -1, last = -1;
    for (int y = 0; y < trimap.rows; ++y) {
        const unsigned char* t = trimap.ptr<unsigned char>(y);
        for (int x = 0; x < trimap.cols; ++x) {
            if (t[x] > bgCode && t[x] < fgCode) {
                if (first < 0) first = y;
                last = y;
                break;
            }
        }
    }
    if (first < 0) return kNothingUndecided;
    if (trimap.rows < kLeastRows)
        return "too few rows for the tri-map job: the image is " + std::to_string(trimap.rows) +
               " rows high, the job needs at least " + std::to_string(kLeastRows);
    const int top = std::max(0, first - kMargin);
    const int bottom = std::min(trimap.rows - 1, last + kMargin);
    const std::string rows = first == last ? "row " + std::to_string(first)
                                           : "rows " + std::to_string(first) + " to " +
                                                 std::to_string(last);
    return "too few undecided rows for the tri-map job: the undecided pixels lie on " + rows +
           ", " + std::to_string(bottom - top + 1) + " rows with 12 rows of margin, the job " +
           "needs at least " + std::to_string(kLeastRows) + " (widen the undecided band)";
}

// Why a tri-map can't be solved at all: nothing is undecided, or the undecided pixels have no
// definite background or no definite subject to take their colours from. Empty when it has
// all three.
std::string unusableTrimap(const cv::Mat& trimap, int fgCode, int bgCode) {
    bool background = false, subject = false, undecided = false;
    for (int y = 0; y < trimap.rows && !(background && subject && undecided); ++y) {
        const unsigned char* t = trimap.ptr<unsigned char>(y);
        for (int x = 0; x < trimap.cols; ++x) {
            background |= t[x] <= bgCode;
            subject |= t[x] >= fgCode;
            undecided |= t[x] > bgCode && t[x] < fgCode;
        }
    }
    if (!undecided) return kNothingUndecided;
    const std::string bg = "no code at or below " + std::to_string(bgCode);
    const std::string fg = "no code at or above " + std::to_string(fgCode);
    if (!background && !subject)
        return "the tri-map has neither background (" + bg + ") nor subject (" + fg +
               "): mark some of each";
    if (!background) return "the tri-map has no background (" + bg + "): mark some background";
    if (!subject) return "the tri-map has no subject (" + fg + "): mark some of the subject";
    return {};
}

// The tri-map job on the box of the undecided pixels, pasted into `out` (decided pixels 255 or
// 0, undecided ones as solved). Before the job starts, `chooseFinish(runOf)` gives the finish
// it runs with, or nothing to let it go; runOf(f) is the run the job would make of this box
// with finish f. Returns the job's status (1: solved, 0: no box, kLetGo: let go).
template <typename ChooseFinish>
int solveBox(const cv::Mat& bgr, const cv::Mat& trimap, int fgCode, int bgCode, int levelHigh,
             int levelLow, cv::Mat& out, Relay& relay, ChooseFinish chooseFinish) {
    const int width = bgr.cols, height = bgr.rows;
    int left = 0, boxWidth = 0, top = 0, boxHeight = 0, fgCount = 0, bgCount = 0;
    qx::maskBox8(trimap.data, static_cast<int>(trimap.step), width, height, fgCode, bgCode, &left,
                 &boxWidth, &top, &boxHeight, &fgCount, &bgCount);
    if (boxWidth <= 0 || boxHeight <= 0) return 0;
    const int unknownPixels = boxWidth * boxHeight - fgCount - bgCount;

    // Cut to the box: three separate colour planes and a copy of the tri-map.
    const cv::Rect box(left, top, boxWidth, boxHeight);
    std::vector<cv::Mat> planes;
    cv::split(bgr(box), planes);
    cv::Mat mask = trimap(box).clone();
    unsigned char* planePtrs[3] = {planes[0].data, planes[1].data, planes[2].data};
    MaskRequest req{};
    req.planes = planePtrs;
    req.planeStep = static_cast<int32_t>(planes[0].step);
    req.mask = mask.data;
    req.maskStep = static_cast<int32_t>(mask.step);
    req.width = boxWidth;
    req.height = boxHeight;
    req.progProc = &Relay::proc;
    req.progParam = relay.param();
    const float unknown = static_cast<float>(unknownPixels);
    const std::optional<qx::MattingFinish> jobFinish =
        chooseFinish([&](const qx::MattingFinish& f) {
            return qx::maskJobRun(boxWidth, boxHeight, unknown, relay.budgetBytes(), f).kind;
        });
    if (!jobFinish) return kLetGo;
    const int status = qx::guardedExport(qx::Export::MaskAlpha, [&] {
        return qx::maskAlphaJob(&req, unknown, static_cast<unsigned char>(fgCode),
                                static_cast<unsigned char>(bgCode), levelHigh, levelLow,
                                relay.budgetBytes(), *jobFinish);
    });
    if (status != 1) return status;
    out.create(height, width, CV_8UC1);
    for (int y = 0; y < height; ++y) {
        const unsigned char* t = trimap.ptr<unsigned char>(y);
        unsigned char* a = out.ptr<unsigned char>(y);
        for (int x = 0; x < width; ++x) a[x] = t[x] >= fgCode ? 255 : t[x] <= bgCode ? 0 : t[x];
    }
    mask.copyTo(out(box));
    return 1;
}

// The share of the job's progress the first solve takes when a second follows: at full size,
// and at half size.
constexpr double kFirstSolveShare = 0.6, kHalvedFirstSolveShare = 0.3;

}  // namespace

QxwStatus matteTrimap(const cv::Mat& bgr, const cv::Mat& trimap, int fgCode, int bgCode,
                      int levelHigh, int levelLow, cv::Mat* alpha, Relay& relay, QxwJob* job,
                      TrimapSolve solve) {
    using qx::RunKind;
    qx::MattingFinish finish =
        solve == TrimapSolve::Finished ? qx::MattingFinish{} : qx::flows::flowFinish();
    const double lo = relay.spanLow(), hi = relay.spanHigh();
    // The flows' alpha of a full-size run is solved again on the tri-map tightened from it.
    // Not after a reduced run: its alpha has lost the strands finer than its pixels, and the
    // tightening would take them as background (true-resolution composites, summed SAD 0.98x
    // the closed-form job's against 0.93x). Not with final levels other than 255 and 0 either:
    // the alpha's values are not the solve's then.
    // A person's tri-map (FlowsAgain) makes that first solve at half size: it only has to find
    // the edges, and the second solve, at full size, takes the detail. On the benchmark photos'
    // two tri-map sets this takes 0.4 of the time for 2-3% of the SAD (bench/README.md).
    // The one-click's band (FlowsAgainAtFullSize) is wide: on a photo of 1.5 MP and more its
    // first solve is a reduced run, which softens a crisp outline. Its tightened band is solved
    // again at full size when its undecided pixels fit a run (the benchmark photos enlarged 2x:
    // 0.58 of the raw mask's SAD against 0.63), and let go otherwise.
    const bool atFullSize = solve == TrimapSolve::FlowsAgainAtFullSize;
    const bool mayRepeat =
        (solve == TrimapSolve::FlowsAgain || atFullSize) && levelHigh == 255 && levelLow == 0;
    finish.fullSizeWhenUnknownsFit = atFullSize;
    bool firstFullSize = false, firstHalved = false;
    double split = lo + (hi - lo) * kFirstSolveShare;
    cv::Mat out;
    int status = solveBox(
        bgr, trimap, fgCode, bgCode, levelHigh, levelLow, out, relay,
        [&](const auto& runOf) -> std::optional<qx::MattingFinish> {
            firstFullSize = runOf(finish) == RunKind::Direct;
            if (!mayRepeat || !(firstFullSize || atFullSize)) return finish;
            if (!firstFullSize) {
                relay.span(lo, split);
                return finish;
            }
            qx::MattingFinish first = qx::flows::flowFinish(qx::flows::FlowRun::FirstOfBand);
            first.fullSizeWhenUnknownsFit = finish.fullSizeWhenUnknownsFit;
            first.halveFullSizeRun = solve == TrimapSolve::FlowsAgain;
            firstHalved = runOf(first) == RunKind::Half;
            if (firstHalved) split = lo + (hi - lo) * kHalvedFirstSolveShare;
            relay.span(lo, split);
            return first;
        });
    if (status == 0)
        return finishJob(job, QXW_BAD_INPUT, emptyBoxReason(trimap, fgCode, bgCode));
    if (status != 1) return jobFailed(job, qx::Export::MaskAlpha, status);
    if (mayRepeat && (firstFullSize || atFullSize)) {
        const qx::MattingFinish second =
            firstHalved ? qx::flows::flowFinish(qx::flows::FlowRun::SecondOfBand) : finish;
        cv::Mat tight(trimap.size(), CV_8UC1), again;
        qx::tightTrimap(out.data, static_cast<int>(out.step), trimap.data,
                        static_cast<int>(trimap.step), fgCode, bgCode, out.cols, out.rows,
                        tight.data, static_cast<int>(tight.step),
                        firstHalved ? qx::kTightAfterHalfRun : qx::kTight);
        relay.span(split, hi);
        // After a reduced first run, only a full-size second one is worth its time.
        status = solveBox(bgr, tight, 255, 0, 255, 0, again, relay,
                          [&](const auto& runOf) -> std::optional<qx::MattingFinish> {
                              if (firstFullSize || runOf(second) == RunKind::Direct)
                                  return second;
                              return std::nullopt;
                          });
        relay.span(lo, hi);
        // 0: nothing left unclear; kLetGo: too large for a full-size run. The first alpha stands.
        if (status == 1) out = again;
        else if (status != 0 && status != kLetGo)
            return jobFailed(job, qx::Export::MaskAlpha, status);
    }
    *alpha = out;
    return finishJob(job, QXW_OK);
}

}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwMatteTrimap(const QxwImage* image, const unsigned char* trimap,
                                           int trimapStride, int fgCode, int bgCode,
                                           int levelHigh, int levelLow, unsigned char* alpha,
                                           int alphaStride, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkImage(image);
    if (err.empty()) err = checkPlane(trimap, trimapStride, *image, "tri-map");
    if (err.empty()) err = checkPlane(alpha, alphaStride, *image, "alpha");
    if (err.empty() && (fgCode < 1 || fgCode > 255 || bgCode < 0 || bgCode >= fgCode))
        err = "the codes need 0 <= background < foreground <= 255";
    if (err.empty() && (levelHigh < 0 || levelHigh > 255 || levelLow < 0 || levelLow > 255))
        err = "the levels take 0 to 255";
    if (err.empty()) err = unusableTrimap(planeView(trimap, trimapStride, *image), fgCode, bgCode);
    return runEntry(job, err, "matting", [&](Relay& relay) {
        cv::Mat out;
        const QxwStatus s = matteTrimap(toBgr(*image), planeView(trimap, trimapStride, *image),
                                        fgCode, bgCode, levelHigh, levelLow, &out, relay, job,
                                        TrimapSolve::FlowsAgain);
        if (s != QXW_OK) return s;
        copyPlaneOut(out, alpha, alphaStride);
        return QXW_OK;
    });
}
