// Foreground colour recovery over a region of a host image: the pipeline that both exported
// entries run, parameterised by what tells them apart.
//
//  1. The region of the source and of alpha is reduced by `scale` (cubic).
//  2. The reduced image is cut into overlapping cells (cell_grid.h); a cell with mixed alpha is
//     solved by solveForegroundBackground, and the part of it that the cell owns is written into
//     the reduced foreground, which starts as the reduced source.
//  3. The reduced foreground is brought back to the region's size (cubic).
//  4. Detail: the colour byte 1 of the source less its reduced-and-restored copy (D) is added,
//     times 0.618, to the three colour bytes where alpha lies in 11..249.
//  5. Where alpha is at or above keepHigh, or at or below 4, the source pixel is kept.
//  6. Feathering into what dstImage holds: a 64-pixel ramp along the region's edges, or a smooth
//     window scaled from a 13 x 13 table; result = trunc(result * r + (1 - r) * dst).
//  7. Bytes 0..2 go to dstImage for the region less a frame of `frame` pixels; byte 3 and the
//     frame are not written. Nothing is written to dstImage before this step, so a call that
//     fails leaves it untouched.
#pragma once

#include <cstdint>
#include <vector>

#include "foreground/cell_grid.h"
#include "qxiveilon31.h"

namespace qx {

struct RecoveryParams {
    float scale;              // reduction of the region: 0.25, or the cell-wise entry's choice
    CellGridParams grid;
    enum class CellTest { Mixed, UnpaintedMixed } cellTest;
    // Mixed: some byte strictly between 10 and 250. UnpaintedMixed: some even byte (bit 0 clear,
    // not a painted stroke) at or above 6 and below 250.
    enum class Increment { Area, CellCount } increment;
    // Area: 10000 / ((qw * qh) / (2.25 * cellW * cellH)), at least 0, the callback kept as it
    // stands. CellCount: 0.065 * (20000 / (nx * ny)), 20 if not above 0, after installing the
    // request's callback (total 20000, current 0) and one kick.
    int ownedInset;           // 0: a cell owns its trimmed part, ring included; 1: ring left out
    int keepHigh;             // the source is kept at alpha >= keepHigh (and at alpha <= 4)
    enum class Feather { None, Ramp, Window } feather;
    int frame;                // pixels of dstImage's region edge left unwritten
    int memUnits;             // the job's memory budget, 1000-byte units: plans the cell grid
};

// Statuses shared by the two entries (see qxiveilon31.h): a request that cannot be served, and
// an internal failure e mapped to e - 1000 (-879/-878/-877 for the solver's phases).
constexpr int64_t kRecoveryRefused = -2;

// The request's planes and region can be served: request, srcImage, alphaPlane and dstImage
// (and auxPlane when needAux) non-null, full size and region at least 1, the region inside the
// full image, and every row step at least a row of the full width.
bool validRecoveryRequest(const KeepCutRequest* request, bool needAux);

// Runs the pipeline on a request that validRecoveryRequest accepted. Throws Failure (see
// fb_solve.h and img.h) and std::bad_alloc.
void recoverForegroundRegion(const KeepCutRequest& request, const RecoveryParams& params);

// Validation, pipeline and the status mapping of an exported entry: `success` when done,
// kRecoveryRefused when validation fails, e - 1000 for a thrown fault of value e (130 for an
// allocation failure), -1000 for any other exception.
int64_t recoverForegroundGuarded(KeepCutRequest* request, bool needAux,
                                 const RecoveryParams& params, int64_t success);

// The parameters of qxRecoverForeground: the whole region at a quarter of its size, in cells of
// up to 384 pixels a side, the edges feathered when blendEdges, for a budget of memUnits.
RecoveryParams wholeRegionParams(bool blendEdges, int memUnits);
// qxRecoverForegroundCell (the keep-cut job's own recovery) for a budget of memUnits: its
// parameters for the request, under its guard, with its statuses.
int64_t recoverForegroundCellJob(KeepCutRequest* request, int memUnits);

// The full-resolution recovery (qxRecoverForegroundFull) on a valid request: the colours
// written, 1 returned; failures are thrown. The budget is budgetBytes, else the request's
// memoryBudgetMB, else the library's.
int recoverJob(const ForegroundRequest& r, double budgetBytes = 0.0);

// The feathering weights of a w x h region, row-major.
// Ramp: rx(x) * ry(y) with rx(x) = x / 64 below 64, (w - x) / 64 above w - 64, else 1 (the left
// ramp wins where both would apply); ry likewise.
std::vector<float> featherRamp(int w, int h);
// Window: the 13 x 13 table (zero on its outer rows and on two columns each side) scaled to
// w x h with Lanczos interpolation.
std::vector<float> featherWindow(int w, int h);

}  // namespace qx
