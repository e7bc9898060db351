// qxKeepCutToAlpha: a user's keep and cut strokes to a full alpha plane. The entry keeps the
// earlier alpha of a refined region, picks an engine, runs foreground recovery when asked,
// merges the refinement with the earlier alpha, and turns every failure into a status with the
// paint flags back in the plane.
#include "keepcut/keep_cut.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

#include "runtime/args.h"
#include "runtime/fault.h"
#include "runtime/host_snapshot.h"
#include "foreground/recovery.h"
#include "runtime/fpmode.h"
#include "runtime/memory.h"
#include "keepcut/kd_drivers.h"
#include "keepcut/keep_cut_original.h"

namespace qx {
namespace {

constexpr int32_t kOriginalPixelLimit = 937024;

unsigned char* regionRow(unsigned char* plane, int step, const KeepCutRequest& r, int y) {
    return plane + (int64_t(r.roiY) + y) * step + r.roiX;
}

// mergeMode 0: a refinement can only lower alpha, 1: only raise it; unpainted pixels of the
// earlier plane only. Other modes merge nothing.
void mergeRefinement(const KeepCutRequest& r, const std::vector<unsigned char>& saved) {
    if (r.mergeMode != 0 && r.mergeMode != 1) return;
    const bool lower = r.mergeMode == 0;
    const int w = r.roiWidth;
#pragma omp parallel for schedule(static)
    for (int y = 0; y < r.roiHeight; ++y) {
        unsigned char* a = regionRow(r.alphaPlane, r.alphaStep, r, y);
        const unsigned char* s = saved.data() + size_t(y) * w;
        for (int x = 0; x < w; ++x) {
            if (s[x] & 1) continue;
            a[x] = lower ? std::min(a[x], s[x]) : std::max(a[x], s[x]);
        }
    }
}

int keepCutToAlpha(KeepCutRequest* request, KeepCutEngine engine, int memUnits) {
    const KeepCutRequest& r = *request;
    const bool refine = r.regionMode != 0;
    std::vector<unsigned char> savedAlpha;
    if (refine) {
        savedAlpha.resize(size_t(r.roiWidth) * r.roiHeight);
        for (int y = 0; y < r.roiHeight; ++y)
            std::copy_n(regionRow(r.alphaPlane, r.alphaStep, r, y), r.roiWidth,
                        savedAlpha.data() + size_t(y) * r.roiWidth);
    }
    // The engine's own status is not passed on: the windowed engine has restored the flags
    // itself when it declined the strokes.
    switch (engine) {
        case KeepCutEngine::Original: qxKeepCutToAlphaOriginal(request, memUnits); break;
        case KeepCutEngine::KDTreeHiRes: computeAlphaKDTreeHiRes(request, memUnits); break;
        case KeepCutEngine::KDTreePyramid: computeAlphaKDTreePyramid(request, memUnits); break;
    }
    // Under its own guard: a failure there leaves the alpha as it is, and the job goes on.
    if (r.recoverFlag != 0) recoverForegroundCellJob(request, memUnits);
    if (refine) mergeRefinement(r, savedAlpha);
    return 1;
}

}  // namespace

KeepCutEngine chooseKeepCutEngine(int regionMode, int roiWidth, int roiHeight, int hiRes) {
    const auto pixels = static_cast<int32_t>(static_cast<uint32_t>(roiWidth) *
                                             static_cast<uint32_t>(roiHeight));
    if (regionMode != 0 && pixels < kOriginalPixelLimit) return KeepCutEngine::Original;
    return hiRes == 1 ? KeepCutEngine::KDTreeHiRes : KeepCutEngine::KDTreePyramid;
}

void recoverBrushInfo(KeepCutRequest* request) {
    const KeepCutRequest& r = *request;
    const int w = r.roiWidth;
#pragma omp parallel for schedule(static)
    for (int y = 0; y < r.roiHeight; ++y) {
        unsigned char* a = regionRow(r.alphaPlane, r.alphaStep, r, y);
        const unsigned char* aux = regionRow(r.auxPlane, r.auxStep, r, y);
        for (int x = 0; x < w; ++x)
            a[x] = static_cast<unsigned char>((a[x] & 0xFE) + (aux[x] & 1));
    }
}

bool validKeepCutRequest(const KeepCutRequest* r, bool needsDst) {
    if (r == nullptr) return false;
    const int fw = r->fullWidth, fh = r->fullHeight;
    if (fw < 1 || fh < 1 || r->roiWidth < 1 || r->roiHeight < 1 || r->roiX < 0 || r->roiY < 0 ||
        int64_t(r->roiX) + r->roiWidth > fw || int64_t(r->roiY) + r->roiHeight > fh)
        return false;
    if (!validPlane(r->srcImage, r->srcStep, fw, fh, 4) ||
        !validPlane(r->alphaPlane, r->alphaStep, fw, fh, 1) ||
        !validPlane(r->auxPlane, r->auxStep, fw, fh, 1))
        return false;
    return !needsDst || validPlane(r->dstImage, r->dstStep, fw, fh, 4);
}

int keepCutJob(KeepCutRequest* request, KeepCutEngine engine, int memUnits) {
    try {
        return keepCutToAlpha(request, engine, memUnits);
    } catch (...) {
        recoverBrushInfo(request);
        throw;
    }
}

}  // namespace qx

extern "C" QX_API int qxKeepCutToAlpha(KeepCutRequest* request, int hiRes) {
    if (request == nullptr) return -1000;
    const qx::KeepCutEngine engine = qx::chooseKeepCutEngine(
        request->regionMode, request->roiWidth, request->roiHeight, hiRes);
    // The tree drivers copy full strokes into dstImage, and recovery writes it.
    const bool needsDst = engine != qx::KeepCutEngine::Original || request->recoverFlag != 0;
    if (!qx::validKeepCutRequest(request, needsDst)) return -1000;

    // Written in place: the stroke plane becomes the alpha, and dstImage takes strokes and
    // colours.
    qx::HostSnapshot kept;
    const int64_t fw = request->fullWidth, fh = request->fullHeight;
    kept.add(request->alphaPlane, request->alphaStep, fw, fh);
    if (needsDst) kept.add(request->dstImage, request->dstStep, 4 * fw, fh);
    const int status = qx::guardedExport(qx::Export::KeepCut,
                                         [&] { return qx::keepCutJob(request, engine, qx::usableMemInMB()); });
    if (status == qx::kCancelledStatus) kept.restore();
    return status;
}
