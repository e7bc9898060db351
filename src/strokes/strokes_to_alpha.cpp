// Keep and cut strokes to alpha at any image size (qxStrokesToAlpha).
//
// The strokes become a tri-map (painted pixels decided, the rest undecided), cut to the box of
// the undecided pixels. When the one-piece solve of the box at full resolution fits the memory
// budget it runs so (the tri-map job would halve any job of 400,000 undecided pixels or more,
// and strokes leave most pixels undecided: the full-resolution solve has about 10% less error
// on the benchmark photos); otherwise the tri-map job sizes its run to the budget and brings a
// reduced result back guided by the full-resolution colour. With the flows' solve, a second
// solve follows on a tri-map tightened from the first (matting/tight_trimap.h). Painted pixels
// come back as painted. The host's alpha plane is written only at the end.
#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

#include "runtime/args.h"
#include "runtime/fault.h"
#include "runtime/memory.h"
#include "flows/mask_alpha_flow.h"
#include "runtime/progress.h"
#include "matting/mask_job.h"
#include "matting/tight_trimap.h"
#include "strokes/strokes_job.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

// The closed-form solution as it comes: the tri-map job's sharpening and edge clean-up add to
// its error (on the benchmark photos' strokes 4.88 against 5.50 mean SAD with a tri-map).
constexpr MattingFinish kPlain = MattingFinish::plain();

// The alpha a painted byte of the stroke coding stands for.
inline unsigned char paintedAlpha(unsigned char v) {
    return static_cast<unsigned char>((v & 0xFE) + ((v >> 1) & 1));
}

bool validRequest(const StrokeMatteRequest* r) {
    if (!r || !r->image || !r->strokes || !r->alpha) return false;
    if (r->imageChannels != 3 && r->imageChannels != 4) return false;
    return validPlane(r->image, r->imageStep, r->width, r->height, r->imageChannels) &&
           validPlane(r->strokes, r->strokesStep, r->width, r->height, 1) &&
           validPlane(r->alpha, r->alphaStep, r->width, r->height, 1);
}

// The box of `tri`'s undecided pixels cut from the image, solved by the tri-map job, pasted into
// `out` (which holds `tri` outside the box). With the plain finish, when the box's
// full-resolution solve fits the budget it runs in one piece. False, with `out` untouched, when
// the box rule gives no box and `wholeIfNoBox` is not set.
bool solveBox(const StrokeMatteRequest& r, const std::vector<unsigned char>& tri,
              const MattingFinish& finish, double budget, bool wholeIfNoBox, ProgressParts& parts,
              int part, std::vector<unsigned char>& out) {
    const int w = r.width, h = r.height;
    int left = 0, boxW = 0, top = 0, boxH = 0, fg = 0, bg = 0;
    qxMaskBBox(0, tri.data(), w, w, h, &left, &boxW, &top, &boxH, &fg, &bg, 0, 255, 0);
    if (boxW < 1 || boxH < 1) {  // too few rows for a box: the whole image
        if (!wholeIfNoBox) {
            parts.next();
            return false;
        }
        left = top = 0;
        boxW = w;
        boxH = h;
        fg = bg = 0;
        for (unsigned char t : tri) fg += t == 255, bg += t == 0;
    }
    std::vector<unsigned char> planes(size_t(boxW) * boxH * 3);
    unsigned char* plane[3];
    for (int c = 0; c < 3; ++c) plane[c] = planes.data() + size_t(c) * boxW * boxH;
    std::vector<unsigned char> mask(size_t(boxW) * boxH);
    for (int y = 0; y < boxH; ++y) {
        const unsigned char* px =
            r.image + int64_t(top + y) * r.imageStep + int64_t(left) * r.imageChannels;
        for (int x = 0; x < boxW; ++x, px += r.imageChannels)
            for (int c = 0; c < 3; ++c) plane[c][size_t(y) * boxW + x] = px[c];
        std::copy_n(tri.data() + size_t(top + y) * w + left, boxW,
                    mask.data() + size_t(y) * boxW);
    }
    MaskRequest mr{};
    mr.planes = plane;
    mr.planeStep = boxW;
    mr.mask = mask.data();
    mr.maskStep = boxW;
    mr.width = boxW;
    mr.height = boxH;
    const float unknown = float(int64_t(boxW) * boxH - fg - bg);
    const RunChoice run = chooseMaskRun(boxW, boxH, unknown, budget);
    // At full resolution, the one-piece solve's stages are those of a direct run.
    const RunChoice direct{RunKind::Direct, boxW, boxH, run.scale};
    const bool onePiece = run.scale <= 1.0 && !finish.solveRun;
    parts.weigh(part, maskJobSeconds(boxW, boxH, unknown, onePiece ? direct : run, finish)
                          .total());
    parts.next();
    if (onePiece) {
        Plane8 p0(boxW, boxH, plane[0], boxW), p1(boxW, boxH, plane[1], boxW),
            p2(boxW, boxH, plane[2], boxW), m(boxW, boxH, mask.data(), boxW);
        Plane8* colour[3] = {&p0, &p1, &p2};
        qxMaskProc(colour, m, 0, 255, 0, 255, 0, kPlain);
    } else {
        maskAlphaJob(&mr, unknown, 255, 0, 255, 0, budget, finish);
    }
    out = tri;
    for (int y = 0; y < boxH; ++y)
        std::copy_n(mask.data() + size_t(y) * boxW, boxW, out.data() + size_t(top + y) * w + left);
    return true;
}

}  // namespace

int strokesJob(const StrokeMatteRequest& r, const MattingFinish& finish, double budgetBytes,
               const MattingFinish* second) {
    const int w = r.width, h = r.height;
    const size_t n = size_t(w) * h;
    // For the progress listener: the tri-map and the box's planes, the solve (weighed once the
    // box and the run are known), the second solve (weighed likewise), the alpha out.
    const double pixels = double(n);
    ProgressParts parts({3 * SolveSeconds::pass(pixels), SolveSeconds::whole(pixels, pixels),
                         second ? SolveSeconds::whole(pixels, pixels) / 4 : 0.0,
                         2 * SolveSeconds::pass(pixels)},
                        true);
    std::vector<unsigned char> tri(n);
    int64_t unpainted = 0;
    bool high = false, low = false;
    for (int y = 0; y < h; ++y) {
        const unsigned char* s = r.strokes + int64_t(y) * r.strokesStep;
        unsigned char* t = tri.data() + size_t(y) * w;
        for (int x = 0; x < w; ++x) {
            if (!(s[x] & 1)) {
                t[x] = 128;
                ++unpainted;
            } else if (paintedAlpha(s[x]) >= 128) {
                t[x] = 255;
                high = true;
            } else {
                t[x] = 0;
                low = true;
            }
        }
    }
    std::vector<unsigned char> out(n);
    if (unpainted > 0) {
        if (!high || !low) return -5;
        setProgProc(r.progProc, r.progParam, 130, 10);
        const double budget = budgetBytes > 0.0        ? budgetBytes
                              : r.memoryBudgetMB > 0 ? r.memoryBudgetMB * 1e6
                                                     : usableMemoryBytes();
        solveBox(r, tri, finish, budget, true, parts, 1, out);
        if (second) {
            std::vector<unsigned char> tight(n);
            tightTrimap(out.data(), w, tri.data(), w, 255, 0, w, h, tight.data(), w);
            std::vector<unsigned char> again;
            if (solveBox(r, tight, *second, budget, false, parts, 2, again))
                out.swap(again);
        } else {
            parts.next();
        }
        parts.next();
    }
    // Painted pixels keep their painted alpha, partial values included.
    for (int y = 0; y < h; ++y) {
        const unsigned char* s = r.strokes + int64_t(y) * r.strokesStep;
        unsigned char* o = out.data() + size_t(y) * w;
        for (int x = 0; x < w; ++x)
            if (s[x] & 1) o[x] = paintedAlpha(s[x]);
    }
    for (int y = 0; y < h; ++y)
        std::copy_n(out.data() + size_t(y) * w, w, r.alpha + int64_t(y) * r.alphaStep);
    return 1;
}

// The first solve, when it would be at full size, runs at half size: strokes leave most pixels
// undecided, and the second solve, at full size on the tightened tri-map, takes the detail. At
// full size the second goes without the colour mixture and with the cheaper known-to-unknown
// estimate (FlowRun::SecondOfBand); a reduced second keeps every term. On the benchmark
// photos' strokes (bench_strokes, 1x, one run each): mean SAD 4.51 against 4.54, MSE 2.18
// against 2.19, in 11.4 s against 31.6 s, peak 159 MB against 441 MB. Tightened at 10 / 245
// after the halved run, as a tri-map's band is: 4.79 (4.82 with the cheaper second).
int strokesFlowJob(const StrokeMatteRequest& r, double budgetBytes) {
    MattingFinish first = flows::flowFinish(flows::FlowRun::FirstOfStrokes);
    first.halveFullSizeRun = true;
    const MattingFinish second = flows::flowFinish(flows::FlowRun::SecondOfBand);
    return strokesJob(r, first, budgetBytes, &second);
}

}  // namespace qx

extern "C" QX_API int qxStrokesToAlpha(const StrokeMatteRequest* request) {
    if (!qx::validRequest(request)) return -2;
    return qx::guardedExport(qx::Export::StrokesToAlpha,
                             [&] { return qx::strokesJob(*request, qx::MattingFinish::plain()); });
}

extern "C" QX_API int qxStrokesToAlphaFlow(const StrokeMatteRequest* request) {
    if (!qx::validRequest(request)) return -2;
    return qx::guardedExport(qx::Export::StrokesToAlpha, [&] {
        return qx::strokesFlowJob(*request);
    });
}
