// qxRecoverForeground: foreground colours over a whole region, solved at a quarter of its size
// in cells of up to 384 pixels a side.
#include "foreground/recovery.h"
#include "runtime/memory.h"
#include "qxiveilon31.h"

namespace qx {

RecoveryParams wholeRegionParams(bool blendEdges, int memUnits) {
    RecoveryParams p{};
    p.scale = 0.25f;
    p.grid = {384, 1.5, 0.5};
    p.cellTest = RecoveryParams::CellTest::Mixed;
    p.increment = RecoveryParams::Increment::Area;
    p.ownedInset = 0;
    p.keepHigh = 251;
    p.feather = blendEdges ? RecoveryParams::Feather::Ramp : RecoveryParams::Feather::None;
    p.frame = 3;
    p.memUnits = memUnits;
    return p;
}

}  // namespace qx

extern "C" QX_API int64_t qxRecoverForeground(KeepCutRequest* request, int blendEdges) {
    return qx::recoverForegroundGuarded(request, true,
                                        qx::wholeRegionParams((blendEdges & 0xFF) != 0,
                                                              qx::usableMemInMB()),
                                        0);
}
