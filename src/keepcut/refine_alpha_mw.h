// Closed-form refinement of an upsampled alpha over an image too big for one solve: a grid of
// overlapping windows, each solved with the alpha around it as a constraint, walked in order so
// that every window sees what the ones before it wrote.
#pragma once

#include "image/img.h"

namespace qx {

// The window grid for an image of W x H under a budget of `units` (units of 1000 bytes).
struct MWGrid {
    int side;   // the largest window side the budget allows, capped at 768
    int nx;     // windows across and down (before the walk's clamping)
    int ny;
    int winW;   // window size
    int winH;
    int stepX;  // distance between the origins of neighbouring windows
    int stepY;
};

// side = (int)sqrt(units * 1000 / 1940), at most 768. nx = (int)(W / (side / 1.1) + 0.75), at
// least 1 (a side of 0, from a failed memory query, gives 1). winW = (int)(W * 1.1 / nx),
// stepX = W / nx - (int)(winW * 0.1 / nx) (first division in integers). When W is not above
// side or not above winW, the image is one window wide: winW = stepX = W. The same for H.
// Sizes and steps are at least 1, so a budget under 8 units still walks a finite grid.
MWGrid planMWGrid(int W, int H, int units);

// One window of the walk: position, size and the strips of its edge that act as constraints.
struct MWWindow {
    int x, y;
    int left, top, right, bottom;  // margins in pixels (4 or 0)
};

// Walks the windows in order, rows from the top, windows from the left, calling visit(window)
// with the clamped position: a window that would pass the right (bottom) edge stands flush with
// it and has no right (bottom) margin; the first window of a row has no left margin and the
// first row no top margin.
template <typename Visit>
void walkMWGrid(const MWGrid& g, int W, int H, Visit&& visit) {
    int x = 0, y = 0;
    bool firstInRow = true;
    for (;;) {
        MWWindow w{};
        if (x + g.winW < W) {
            w.x = x;
            w.right = 4;
        } else {
            w.x = W - g.winW;
        }
        if (y + g.winH < H) {
            w.y = y;
            w.bottom = 4;
        } else {
            w.y = H - g.winH;
        }
        w.top = y == 0 ? 0 : 4;
        w.left = firstInRow ? 0 : 4;
        visit(w);
        if (w.x < W - g.winW) {
            x = w.x + g.stepX;
            firstInRow = false;
            continue;
        }
        x = 0;
        firstInRow = true;
        if (!(w.y < H - g.winH)) return;
        y = w.y + g.stepY;
    }
}

// Refines alpha in place over the grid planned from W x H (the alpha image's size) and the
// budget memUnits (1000-byte units). planes: three colour planes with a common row step; known: 255 at
// constraints. Windows with 5 or fewer unknown pixels are skipped. In each other window the
// margins count as known, the window is solved and filtered (cross bilateral, radius 1, sigma
// range 15, sigma space 0.825); pixels known in `known` keep their value and the rest of the
// window, margins included, takes the result. One progress kick per solved window. Returns 0.
// Throws what the solve and the image allocations throw.
int refineAlphaMW(GIMG<unsigned char>** planes, GIMG<unsigned char>* known,
                  GIMG<unsigned char>* alpha, int memUnits);

}  // namespace qx
