// Keep and cut strokes to alpha at any image size (qxStrokesToAlpha).
#include "qxiveilon31.h"

extern "C" QX_API int qxStrokesToAlpha(const StrokeMatteRequest* request) {
    if (!request || !request->image || !request->strokes || !request->alpha) return -2;
    return -1000;  // the engine lands next
}
