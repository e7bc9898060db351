// The older keep-cut solve of one working window: the whole window at once when the memory
// budget allows it, otherwise a coarse solve on a mask pyramid brought back up level by level,
// with a window-grid refinement on the way.
#pragma once

#include "image/img.h"

namespace qx {

// Pyramid levels and progress step for a working window: need = max(pixels * 1200,
// unknown * 1944) bytes against the budget of `units` (1000 bytes each); ratio = need / budget.
// Ratio up to 1: no level, step 1428; up to 4: 1 level; up to 8: 2 levels; above (and a budget
// of 0): 3 levels; step 1 with any level.
struct MapAlphaPlan {
    double ratio;
    int levels;
    int progressStep;
};
MapAlphaPlan planMapAlpha(int width, int height, int64_t unknown, int units);

// Solves alpha in place over the window. planes: three colour planes with a common row step;
// known and alpha of the same size, known 255 at constraints and 0 elsewhere. The coarsest level
// of the pyramid is solved and filtered (cross bilateral, radius 1, sigma range 15, sigma space
// 0.825), then brought up; with 1 level the full size is refined in windows, with 2 or 3 levels
// level 1 is refined and the last doubling is not. A pyramid whose smallest level would be under
// 2 pixels in either direction is built with fewer levels.
// Returns 1, also when the coarsest level has fewer than 3 unknown pixels (nothing solved); -5
// when it has no known pixel (nothing solved). The levels are planned for a budget of memUnits
// (1000-byte units). Throws what the solve and allocations throw.
int qxMapAlphaProc(GIMG<unsigned char>** planes, GIMG<unsigned char>* known,
                   GIMG<unsigned char>* alpha, int memUnits);

}  // namespace qx
