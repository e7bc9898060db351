// The closed-form solve of one window or tile whose constraints are already given as a known
// map and an alpha plane (the keep-cut path, foreground recovery and the hair brush share it).
#pragma once

#include "matting/cfmatt.h"

namespace qx {

// Solves alpha over a width x height window. planes: three colour planes with the common row
// step planeStep; known: nonzero at a constraint; alpha: 0..255, read at constraints and written
// only where known is 0. Returns 0, or the nonzero status of the Laplacian step (4: no window to
// use), with alpha untouched. Throws what CFMatt::alphaMain throws (-1 a system over 2,000,000
// pixels, 125 solver memory, 130 array memory, 121..123 solver phases) and the image codes.
int solveAlphaWindow(CFMatt& matt, unsigned char* const* planes, int planeStep, int width,
                     int height, unsigned char* known, int knownStep, unsigned char* alpha,
                     int alphaStep);

}  // namespace qx
