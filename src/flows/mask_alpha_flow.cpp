// qxMaskAlphaFlow: the tri-map job with the flows' solve in its run. The job around the run is
// the plain one's (run choice for the budget, halving and guided doubling, final levels,
// statuses, cancel) without the hard-value rule; the run is solved by flowAlpha with the workflows' settings, and
// runs are kept to kRunUnknownLimit undecided pixels, where the iterative solve still takes
// seconds, not minutes.
#include "flows/mask_alpha_flow.h"

#include "flows/flow_solve.h"
#include "qxiveilon31.h"

namespace qx::flows {
namespace {

constexpr float kRunUnknownLimit = 400000.0f;

// The conjugate gradients stop at this residual, relative to the right-hand side's. Beside the
// two-level preconditioner a tri-map's band loses nothing at 1e-3 against 1e-4 (mean SAD over
// infoFlow's 0.783 / 0.860 against 0.783 / 0.862 on the benchmark photos' two tri-map sets, the
// true-resolution composites 0.4% lower) in 47% fewer iterations; strokes lose 3% there and
// keep 1e-4.
constexpr double kBandTolerance = 1e-3, kStrokesTolerance = 1e-4;

// What a run leaves out or cuts short of the full solve.
struct RunShape {
    double tolerance;
    bool mixture = true;
    int knownNeighbours = 0;  // 0: the default
    int knownChecks = 0;
};

void solveWith(const RunShape& shape, Plane8** colour, Plane8& mask, unsigned char fgCode,
               unsigned char bgCode) {
    FlowImage image;
    image.width = mask.width;
    image.height = mask.height;
    for (int c = 0; c < 3; ++c) image.planes[c] = colour[c]->data;
    image.planeStep = colour[0]->step;
    image.tri = mask.data;
    image.triStep = mask.step;
    image.fgCode = fgCode;
    image.bgCode = bgCode;
    FlowOptions options;
    options.tolerance = shape.tolerance;
    if (!shape.mixture) options.weights.colourMixture = 0.0;
    if (shape.knownNeighbours > 0) options.known.neighbours = shape.knownNeighbours;
    if (shape.knownChecks > 0) options.known.maxChecks = shape.knownChecks;
    // The tri-map is read while the alpha is written: the alpha goes to a plane of its own.
    Plane8 alpha(mask.width, mask.height);
    flowAlpha(image, options, alpha.data, alpha.step);
    Copy(alpha, mask);
}

void solveBand(Plane8** colour, Plane8& mask, unsigned char fgCode, unsigned char bgCode) {
    solveWith({kBandTolerance}, colour, mask, fgCode, bgCode);
}

// A first solve that a second one follows (matting/tight_trimap.h) goes without the colour
// mixture: the second solve brings the same error either way (tri-maps' mean SAD over
// infoFlow's 0.732 / 0.730 against 0.730 / 0.739, strokes 4.54 against 4.59) and the first
// takes a fifth to two fifths less time. Dropping the links between undecided pixels as well
// gave 0.751 / 0.753 and 4.55.
void solveFirstOfBand(Plane8** colour, Plane8& mask, unsigned char fgCode, unsigned char bgCode) {
    solveWith({kBandTolerance, false}, colour, mask, fgCode, bgCode);
}

// The second solve of a band whose first was at half size (the tri-map workflow's, strokes')
// goes, at full size, without the colour mixture too, and its known-to-unknown estimate takes
// 4 neighbours a side from searches of 32 points. On the benchmark photos' two tri-map sets
// (mean SAD, seconds for the ten photos of each, one run): the full second solve 3.753 / 4.250
// in 9.2 / 9.6 s; without the mixture 3.799 / 4.267, 6.4 / 6.9 s; with the cheaper estimate as
// well 3.774 / 4.256, 5.8 / 6.1 s (without the estimate 3.810 / 4.379; without the
// intra-unknown links 4.113 / 4.419). A reduced run keeps every term: there the mixture is
// worth its time (true-resolution composites solved once without it, summed SAD 0.930x the
// closed form's against 0.916x).
void solveSecondOfBand(Plane8** colour, Plane8& mask, unsigned char fgCode, unsigned char bgCode) {
    solveWith({kBandTolerance, false, 4, 32}, colour, mask, fgCode, bgCode);
}

void solveFirstOfStrokes(Plane8** colour, Plane8& mask, unsigned char fgCode,
                         unsigned char bgCode) {
    solveWith({kStrokesTolerance, false}, colour, mask, fgCode, bgCode);
}

}  // namespace

MattingFinish flowFinish(FlowRun run) {
    MattingFinish finish = MattingFinish::plain();
    finish.solveRun = run == FlowRun::FirstOfStrokes ? &solveFirstOfStrokes
                      : run == FlowRun::FirstOfBand  ? &solveFirstOfBand
                      : run == FlowRun::SecondOfBand ? &solveSecondOfBand
                                                     : &solveBand;
    if (run == FlowRun::SecondOfBand) finish.solveReducedRun = &solveBand;
    finish.runUnknownLimit = kRunUnknownLimit;
    finish.undecidedOffTheEnds = false;
    return finish;
}

}  // namespace qx::flows

extern "C" QX_API int qxMaskAlphaFlow(MaskRequest* request, float unknownPixels, int fgCode,
                                      int bgCode, int levelHigh, int levelLow) {
    return qx::maskAlphaExport(request, unknownPixels, fgCode, bgCode, levelHigh, levelLow,
                               qx::flows::flowFinish());
}
