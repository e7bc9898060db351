// Alpha from keep and cut strokes, with one of three engines: the stroke engine with the flows'
// solve (as qxStrokesToAlphaFlow), or the older tiled engine (as qxKeepCutToAlpha) at full
// resolution (the KD-tree engine) or at half resolution with one guided doubling (the pyramid
// engine).
#include <opencv2/imgproc.hpp>

#include "keepcut/keep_cut.h"
#include "strokes/strokes_job.h"
#include "workflow/workflow.h"

namespace qx::workflow {
namespace {

constexpr const char* kTooFewStrokes =
    "too few strokes: paint at least one keep (255) and one cut (0) stroke, and leave at least "
    "3 pixels unpainted";

// The tiled engine on the whole image; the coded plane comes back with the alpha in it.
int runTiled(const cv::Mat& bgr, cv::Mat& plane, bool hiRes, Relay& relay) {
    cv::Mat src;
    cv::cvtColor(bgr, src, cv::COLOR_BGR2BGRA);
    cv::Mat dst = src.clone();
    cv::Mat aux = plane.clone();  // the host's record of its strokes
    KeepCutRequest req = wholeImageRequest(src, plane, dst, aux);
    req.progProc = &Relay::proc;
    req.progParam = relay.param();
    const qx::KeepCutEngine engine =
        qx::chooseKeepCutEngine(req.regionMode, req.roiWidth, req.roiHeight, hiRes ? 1 : 0);
    return qx::guardedExport(qx::Export::KeepCut,
                             [&] { return qx::keepCutJob(&req, engine, relay.budgetUnits()); });
}

}  // namespace

QxwStatus matteStrokes(const cv::Mat& bgr, const cv::Mat& strokes, QxwStrokeEngine engine,
                       cv::Mat* alpha, Relay& relay, QxwJob* job) {
    long keep = 0, cut = 0, unpainted = 0;
    for (int y = 0; y < strokes.rows; ++y) {
        const unsigned char* s = strokes.ptr<unsigned char>(y);
        for (int x = 0; x < strokes.cols; ++x)
            (s[x] == QXW_KEEP ? keep : s[x] == QXW_CUT ? cut : unpainted) += 1;
    }
    if (unpainted == 0) {  // painted everywhere: nothing to compute
        *alpha = strokes.clone();
        return finishJob(job, QXW_OK);
    }
    if (keep == 0 || cut == 0) return finishJob(job, QXW_BAD_INPUT, kTooFewStrokes);

    cv::Mat plane = encodeStrokes(strokes);
    cv::Mat out(strokes.size(), CV_8UC1);
    int status = 0;
    if (engine == QXW_ENGINE_STROKES) {
        StrokeMatteRequest req{};
        req.image = bgr.data;
        req.imageStep = static_cast<int32_t>(bgr.step);
        req.imageChannels = 3;
        req.strokes = plane.data;
        req.strokesStep = static_cast<int32_t>(plane.step);
        req.width = bgr.cols;
        req.height = bgr.rows;
        req.alpha = out.data;
        req.alphaStep = static_cast<int32_t>(out.step);
        req.progProc = &Relay::proc;
        req.progParam = relay.param();
        status = qx::guardedExport(qx::Export::StrokesToAlpha,
                                   [&] { return qx::strokesFlowJob(req, relay.budgetBytes()); });
    } else {
        status = runTiled(bgr, plane, engine == QXW_ENGINE_KDTREE, relay);
        // Back from the stroke coding: keep 255, cut 0, computed alpha as it is.
        for (int y = 0; status == 1 && y < plane.rows; ++y) {
            const unsigned char* p = plane.ptr<unsigned char>(y);
            unsigned char* a = out.ptr<unsigned char>(y);
            for (int x = 0; x < plane.cols; ++x)
                a[x] = static_cast<unsigned char>((p[x] & 0xFE) + ((p[x] >> 1) & 1));
        }
    }
    switch (status) {
        case 1:
            *alpha = out;
            return finishJob(job, QXW_OK);
        case -5:
            return finishJob(job, QXW_BAD_INPUT, kTooFewStrokes, status);
        default:
            return jobFailed(job,
                             engine == QXW_ENGINE_STROKES ? qx::Export::StrokesToAlpha
                                                          : qx::Export::KeepCut,
                             status);
    }
}

}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwMatteStrokes(const QxwImage* image, const unsigned char* strokes,
                                            int strokesStride, QxwStrokeEngine engine,
                                            unsigned char* alpha, int alphaStride, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkImage(image);
    if (err.empty()) err = checkPlane(strokes, strokesStride, *image, "stroke plane");
    if (err.empty()) err = checkPlane(alpha, alphaStride, *image, "alpha");
    if (err.empty() && engine != QXW_ENGINE_STROKES && engine != QXW_ENGINE_KDTREE &&
        engine != QXW_ENGINE_PYRAMID)
        err = "unknown stroke engine " + std::to_string(static_cast<int>(engine));
    return runEntry(job, err, "keep-cut matting", [&](Relay& relay) {
        cv::Mat out;
        const QxwStatus s = matteStrokes(toBgr(*image), planeView(strokes, strokesStride, *image),
                                         engine, &out, relay, job);
        if (s != QXW_OK) return s;
        copyPlaneOut(out, alpha, alphaStride);
        return QXW_OK;
    });
}
