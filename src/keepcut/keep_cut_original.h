// The older keep-cut engine, without a tree: the region grown by its fixed frame (or, with no
// frame, cut down to the bounding box of the unsettled pixels) is solved as one working window
// by qxMapAlphaProc. qxKeepCutToAlpha takes it for region refinements under 937,024 pixels.
#pragma once

#include "qxiveilon31.h"

namespace qx {

// Works in place on the request's alpha plane (stroke coding). Colour is read from bytes 2, 1, 0
// of each source pixel, in that order; dstImage is not touched. The frame is regionMode pixels
// wide on each side, cut where the image ends; its alpha (bits 7..1, even or odd) is a fixed
// constraint like every painted pixel. Painted pixels and the frame come back with their input
// bytes; every other pixel of the window comes back as computed alpha with bit 0 clear.
// With no frame at all (regionMode below 1, or a region that fills the image), the window is
// the bounding box of the pixels that are neither 255 nor 1 (12 pixels of margin, at least 24
// rows), and the strokes are checked; a failed check restores the paint flags over the region
// from auxPlane and returns: -5 no box, no cut stroke (1) or no keep stroke (255) in it; 1 fewer
// than 3 unsettled pixels in it. Returns 1 otherwise (also when the solve found nothing to do).
// The caller has checked the request. Throws what the solve and allocations throw.
int qxKeepCutToAlphaOriginal(KeepCutRequest* request, int memUnits);

}  // namespace qx
