// The cells of foreground recovery: overlapping rectangles of the reduced image, sized from the
// memory budget so that one cell's least-squares system fits, and the order they are visited in.
#pragma once

#include <functional>

namespace qx {

// The constants that tell the two recovery entries apart.
struct CellGridParams {
    int limit;       // largest cell side: 384 (whole-image recovery), 100 (cell-wise recovery)
    double factor;   // cell size over the spacing of cells: 1.5, 1.03
    double overlap;  // share of a cell taken off the step: 0.5, 0.03
};

struct CellGrid {
    int side = 0;      // the cell side the memory allows, at most `limit`
    int nx = 1, ny = 1;
    int cellW = 0, cellH = 0;
    int stepX = 0, stepY = 0;
    int trimX = 0, trimY = 0;
    bool singleX = false;  // the cut across fell back to one cell as wide as the image
    bool singleY = false;
};

// The grid over a qw x qh image for a budget of `pixels` (usableMemInMB(): bytes / 1300, capped,
// 0 when the memory status cannot be read):
//   side  = trunc(sqrt(pixels * 1000 / 1940)), at most limit;  d = side / factor
//   nx    = trunc(qw / d + 0.75), at least 1 (also when d is 0); ny likewise
//   cellW = trunc(factor * qw / nx);  stepX = qw / nx - trunc(overlap * cellW / nx)
//   cellW = stepX = qw when qw <= side or cellW >= qw; the same for the rows
//   trimX = (cellW - stepX) / 4
// Steps and cell sizes are at least 1 (a budget of a few pixels could otherwise leave a walk
// that never moves).
CellGrid deriveCellGrid(int qw, int qh, const CellGridParams& params, int pixels);

// One visited cell: its corner, and whether it is the last of its row / lies in the last row.
struct CellPos {
    int x, y;
    bool lastColumn, lastRow;
};

// Visits the cells row by row. After each cell: stop when it was in the last column of the last
// row; otherwise step right by stepX (or go to the next row's start, stepY down, after the last
// column), and snap to the far edge (qw - cellW, qh - cellH) when what is left is not more than
// a cell. In an image one cell wide the first cell is visited twice (the second time as the
// last of its row); each later row starts as its own last column and is visited once.
void walkCells(const CellGrid& grid, int qw, int qh,
               const std::function<void(const CellPos&)>& visit);

}  // namespace qx
