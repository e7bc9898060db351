// The keep-cut entry's internal parts: engine choice and the restoring of the paint flags.
#pragma once

#include "qxiveilon31.h"

namespace qx {

enum class KeepCutEngine { Original, KDTreeHiRes, KDTreePyramid };

// Region refinements (regionMode nonzero) whose signed 32-bit pixel product roiWidth * roiHeight
// is below 937,024 take the older windowed engine; every other call a KD-tree driver, the
// full-resolution one for hiRes 1, the half-resolution one for any other value. The product
// wraps as a 32-bit int would: a region of 65536 x 65536 counts as 0 pixels.
KeepCutEngine chooseKeepCutEngine(int regionMode, int roiWidth, int roiHeight, int hiRes);

// alpha = (alpha & 0xFE) + (aux & 1) over the region: the paint flags back from auxPlane, bits
// 7..1 as they stand. The request must be valid.
void recoverBrushInfo(KeepCutRequest* request);

// The keep-cut job on a valid request (qxKeepCutToAlpha without its checks): the stroke plane
// becomes the alpha in place. Whichever way it fails, the paint flags go back into the plane
// before the failure is thrown on. memUnits: the job's memory budget in 1000-byte units (the
// windowed engine and the colour recovery plan their windows and cells for it). Returns the
// engine's status.
int keepCutJob(KeepCutRequest* request, KeepCutEngine engine, int memUnits);

// A request the entry can serve: non-null, both sizes of image and region at least 1, the
// region inside the image, source, alpha and aux planes with steps of at least a row (dstImage
// too when `needsDst`).
bool validKeepCutRequest(const KeepCutRequest* request, bool needsDst);

}  // namespace qx
