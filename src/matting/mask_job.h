// The tri-map job behind qxMaskAlpha: run choice, one run at one resolution, final levels.
#pragma once

#include "matting/cfmatt.h"
#include "qxiveilon31.h"

namespace qx {

enum class RunKind { Direct, Half, Free };

// How a run solves and finishes. qxMaskAlpha takes the defaults. The workflows' plain solve
// (plain()) takes neither finishing step (on the benchmark photos they add 12% to the closed-form
// solve's error; in a reduced run the settled regularisation needs them for the guided doubling,
// the plain one doesn't);
// it regularises the colour model ten times less (mean SAD 4.79 against 4.88 on the benchmark
// photos) with window affinities that stay exact for windows of greys, where the adjugate's
// cancellation made a smaller regularisation cost up to 8%, and refines its solve once.
struct MattingFinish {
    bool sharpen = true;            // unsharp masking of the solved alpha (amount 3)
    bool smoothEdges = true;        // cross bilateral clean-up along the colour edges
    double epsilon = 1e-7;          // the colour model's regularisation, on the 0..255 scale
    bool stableAffinities = false;  // the Laplacian through a Cholesky factor of the covariance
    // Refinement steps of the direct solve in double. Without sharpening one step is enough: on
    // the benchmark photos the 8-bit results keep their SAD and MSE, and the solve takes half as
    // long (each step reads the whole factor once more).
    int refinementSteps = 2;
    // Another solve for the run in place of the closed-form one (the finishing steps and the
    // final levels still follow as set): it turns the run's tri-map, at or below bgCode
    // background and at or above fgCode foreground, into alpha in place. Failures are thrown.
    void (*solveRun)(Plane8** colour, Plane8& mask, unsigned char fgCode,
                     unsigned char bgCode) = nullptr;
    // The solve of a reduced run (half or free size) in place of solveRun, when set.
    void (*solveReducedRun)(Plane8** colour, Plane8& mask, unsigned char fgCode,
                            unsigned char bgCode) = nullptr;
    // Only pixels given as exactly 0 or 255 come back as 0 or 255 (the others are moved to 1 or
    // 254). The flows' solve leaves whole stretches of a wide band at exactly 0 or 1, where the
    // move costs it 2% of its SAD on the benchmark photos; it goes without.
    bool undecidedOffTheEnds = true;
    // Runs whose undecided pixels would exceed this many are made smaller until they don't
    // (0: no limit beyond the budget's).
    float runUnknownLimit = 0.0f;
    // A job whose undecided pixels are within runUnknownLimit runs at full size whatever the
    // image's size, when the budget allows: the 1.5 MP limit is the direct factorisation's, and
    // the flows' time follows the undecided pixels.
    bool fullSizeWhenUnknownsFit = false;
    // A first solve that only has to find the edges for a second solve at full size (the
    // tri-map workflow's): a run that would be at full size is made at half size, when it has
    // at least kHalvedRunLeastUnknowns undecided pixels (below that a run takes a fraction of a
    // second either way).
    bool halveFullSizeRun = false;

    static constexpr MattingFinish plain() { return {false, false, 1e-8, true, 1}; }
};

struct RunChoice {
    RunKind kind;
    int width;    // run size
    int height;
    double scale;  // sqrt(need / budget)
};

// Each undecided pixel is budgeted at 1920 bytes and each image pixel at 12; the run shrinks
// both by the square of the scale. Images of 1,500,000 pixels or more and jobs of 400,000
// undecided pixels or more never run at full size.
RunChoice chooseMaskRun(int width, int height, float unknownPixels, double budgetBytes);

// The run of chooseMaskRun made smaller, when needed, so that it holds at most `limit` undecided
// pixels (taken as spread evenly over the image): a direct run becomes a half-size one, a
// half-size one a free-size one, except that a half-size run given is kept up to 1.5 times the
// limit. A limit of 0 or below changes nothing.
RunChoice limitRunUnknowns(const RunChoice& run, int width, int height, float unknownPixels,
                           float limit);

constexpr float kHalvedRunLeastUnknowns = 10000.0f;

// The run the tri-map job makes for a request (budgetBytes 0: the library's own budget).
RunChoice maskJobRun(int width, int height, float unknownPixels, double budgetBytes,
                     const MattingFinish& finish);

// Rough seconds of a tri-map job's stages, for laying out its progress (only their ratios
// matter): the solve of the run with its finishing steps, and for a reduced run the halving
// before it and the guided doubling after.
struct MaskJobSeconds {
    double reduce = 0.0, solve = 0.0, enlarge = 0.0;
    double total() const { return reduce + solve + enlarge; }
};
MaskJobSeconds maskJobSeconds(int width, int height, float unknownPixels, const RunChoice& run,
                              const MattingFinish& finish);
// The same for qxMaskProc alone, on `pixels` pixels of which `unknowns` are undecided.
double maskProcSeconds(double pixels, double unknowns, const MattingFinish& finish);

// The tri-map job on a checked request: the run chosen for budgetBytes (0: the library's own
// budget), solved, brought back to the request's size; only pixels given as exactly 0 or 255
// may come back as 0 or 255, unless the finish says otherwise. Returns 1; failures are thrown.
int maskAlphaJob(MaskRequest* req, float unknownPixels, unsigned char fgCode,
                 unsigned char bgCode, int levelHigh, int levelLow, double budgetBytes = 0.0,
                 const MattingFinish& finish = {});

// The export's frame around maskAlphaJob: the request checked (-1000, nothing written, when it
// is unusable), failures turned into statuses, the tri-map given back on a cancel.
int maskAlphaExport(MaskRequest* request, float unknownPixels, int fgCode, int bgCode,
                    int levelHigh, int levelLow, const MattingFinish& finish);

// One run: closed-form solve with sharpening, cross bilateral clean-up along the colour edges,
// final levels. The colour views and the mask share one size. Returns 1.
int qxMaskProc(Plane8** colour, Plane8& mask, int ignored, unsigned char fgCode,
               unsigned char bgCode, int levelHigh, int levelLow,
               const MattingFinish& finish = {});

// Stretches [levelLow, levelHigh] to [0, 255] (multiplier min(16320 / range, 255) over 64); a
// range of 255 or more leaves the mask, an empty or negative range counts as 1.
void applyFinalLevels(Plane8& mask, int levelHigh, int levelLow);

}  // namespace qx
