// qxRecoverForegroundCell: foreground colours as the keep-cut job runs it, in small cells, with
// the result laid over dstImage through a smooth window.
#include "foreground/recovery.h"
#include "runtime/memory.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

// A region refinement works at a resolution that follows the full image's size; a job from
// strokes alone always at 0.18.
float cellScale(const KeepCutRequest& r) {
    if (r.regionMode == 0) return 0.18f;
    const int64_t pixels = int64_t(r.fullWidth) * r.fullHeight;
    if (pixels <= 200000) return 1.0f;
    if (pixels < 4000000) return 0.33f;
    return 0.2f;
}

RecoveryParams cellParams(const KeepCutRequest& r, int memUnits) {
    RecoveryParams p{};
    p.scale = cellScale(r);
    p.grid = {100, 1.03, 0.03};
    p.cellTest = RecoveryParams::CellTest::UnpaintedMixed;
    p.increment = RecoveryParams::Increment::CellCount;
    p.ownedInset = 1;
    p.keepHigh = 252;
    p.feather = RecoveryParams::Feather::Window;
    p.frame = r.regionMode != 0 ? 3 : 1;
    p.memUnits = memUnits;
    return p;
}

}  // namespace

int64_t recoverForegroundCellJob(KeepCutRequest* request, int memUnits) {
    if (request == nullptr) return kRecoveryRefused;  // the rest is checked by the guard
    return recoverForegroundGuarded(request, false, cellParams(*request, memUnits), 1);
}

}  // namespace qx

extern "C" QX_API int64_t qxRecoverForegroundCell(KeepCutRequest* request, int64_t /*reserved*/) {
    return qx::recoverForegroundCellJob(request, qx::usableMemInMB());
}
