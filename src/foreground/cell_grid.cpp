#include "foreground/cell_grid.h"

#include <cmath>
#include <limits>

namespace qx {
namespace {

// Truncation toward zero that stays defined for any double: values beyond the int range and NaN
// come out as INT_MIN, which the callers' lower bounds catch.
int truncToInt(double v) {
    if (!(v > double(std::numeric_limits<int>::min()) && v < double(std::numeric_limits<int>::max())))
        return std::numeric_limits<int>::min();
    return int(v);
}

}  // namespace

CellGrid deriveCellGrid(int qw, int qh, const CellGridParams& params, int pixels) {
    CellGrid g;
    g.side = truncToInt(std::sqrt(pixels * 1000.0 / 1940.0));
    if (g.side > params.limit) g.side = params.limit;
    const double d = g.side / params.factor;
    g.nx = truncToInt(qw / d + 0.75);
    g.ny = truncToInt(qh / d + 0.75);
    if (g.nx < 1) g.nx = 1;
    if (g.ny < 1) g.ny = 1;
    g.cellW = int(params.factor * qw / g.nx);
    g.cellH = int(params.factor * qh / g.ny);
    g.stepX = qw / g.nx - int(params.overlap * g.cellW / g.nx);
    g.stepY = qh / g.ny - int(params.overlap * g.cellH / g.ny);
    if (qw <= g.side || g.cellW >= qw) {
        g.cellW = g.stepX = qw;
        g.singleX = true;
    }
    if (g.side >= qh || g.cellH >= qh) {
        g.cellH = g.stepY = qh;
        g.singleY = true;
    }
    // With a budget of a few pixels (side 1 or 2) the quotient qw / nx can be 0: the walk would
    // never move. A step of at least one pixel keeps it finite.
    if (g.stepX < 1) g.stepX = 1;
    if (g.stepY < 1) g.stepY = 1;
    if (g.cellW < 1) g.cellW = 1;
    if (g.cellH < 1) g.cellH = 1;
    g.trimX = (g.cellW - g.stepX) / 4;
    g.trimY = (g.cellH - g.stepY) / 4;
    return g;
}

void walkCells(const CellGrid& grid, int qw, int qh,
               const std::function<void(const CellPos&)>& visit) {
    int x = 0, y = 0;
    bool lastColumn = false, lastRow = false;
    for (;;) {
        visit(CellPos{x, y, lastColumn, lastRow});
        if (lastRow && lastColumn) return;
        int x2, y2;
        if (lastColumn) {
            x2 = 0;
            y2 = y + grid.stepY;
            lastColumn = false;
        } else {
            x2 = x + grid.stepX;
            y2 = y;
        }
        if (qw - x2 <= grid.cellW) {
            x = qw - grid.cellW;
            lastColumn = true;
        } else {
            x = x2;
        }
        if (qh - y2 <= grid.cellH) {
            y = qh - grid.cellH;
            lastRow = true;
        } else {
            y = y2;
        }
    }
}

}  // namespace qx
