// The two KD-tree drivers of a keep-cut call: strokes in the request's alpha plane to alpha, at
// full resolution or at half resolution with one guided doubling.
#pragma once

#include "qxiveilon31.h"

namespace qx {

// Both work in place on the region of request->alphaPlane and write dstImage only at full
// strokes (1 and 255). They return nothing: a failure is thrown, -5 for too few strokes (paint
// flags restored), -1 for a leaf over 2,000,000 unknown pixels (alpha left normalised: the
// caller restores the flags), the image codes and std::bad_alloc for memory. The caller checks
// the request and catches. The pyramid driver also throws -1, before writing anything, for a
// region narrower or lower than 2 pixels, which can't be halved. A null dstImage is not written;
// a null auxPlane reopens nothing.
// memUnits: the job's memory budget in 1000-byte units, for the leaves' colour recovery.
void computeAlphaKDTreeHiRes(KeepCutRequest* request, int memUnits);
void computeAlphaKDTreePyramid(KeepCutRequest* request, int memUnits);

// Leaves of the tree that the last driver run on this thread built (0 before one got that far):
// a figure for benchmarks and reports.
int lastKDTreeLeafCount();

}  // namespace qx
