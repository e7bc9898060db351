// qxRecoverForeground: foreground colours over a whole region, solved at a quarter of its size
// in cells of up to 384 pixels a side.
#include "foreground/recovery.h"
#include "qxiveilon31.h"

namespace {

qx::RecoveryParams wholeRegionParams(bool blendEdges) {
    qx::RecoveryParams p{};
    p.scale = 0.25f;
    p.grid = {384, 1.5, 0.5};
    p.cellTest = qx::RecoveryParams::CellTest::Mixed;
    p.increment = qx::RecoveryParams::Increment::Area;
    p.ownedInset = 0;
    p.keepHigh = 251;
    p.feather = blendEdges ? qx::RecoveryParams::Feather::Ramp : qx::RecoveryParams::Feather::None;
    p.frame = 3;
    return p;
}

}  // namespace

extern "C" QX_API int64_t qxRecoverForeground(KeepCutRequest* request, int blendEdges) {
    return qx::recoverForegroundGuarded(request, true,
                                        wholeRegionParams((blendEdges & 0xFF) != 0), 0);
}
