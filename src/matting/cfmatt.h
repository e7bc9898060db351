// One closed-form alpha computation: the job's parameters and the arrays that pass from building
// the matting Laplacian (compMatLap) to solving it (alphaMain) and writing the result (outAlpha).
//
// Flow: compMap turns a tri-map into the constraint map `known` (255 definite, 0 undecided);
// `core` is `known` eroded once (0 marks window centres of the Laplacian) and, inside alphaMain,
// eroded again (0 marks the pixels of the linear system). The system solved is
// (L + C) x = C a, with C = 255 at definite pixels and a the tri-map over 255.
//
// Failures are thrown ints: -1 a size limit, 125 the direct solver ran out of memory, 130 an
// array allocation failed, 121..123 a solver phase. The object frees its arrays before each
// throw of its own and in its destructor.
#pragma once

#include "image/img.h"

namespace qx {

using Plane8 = GIMG<unsigned char>;

class CFMatt {
public:
    CFMatt() = default;
    ~CFMatt() { cleanMemAll(); }
    CFMatt(const CFMatt&) = delete;
    CFMatt& operator=(const CFMatt&) = delete;

    // Frees and nulls every array.
    void cleanMemAll();

    // Constraint map from a tri-map. With applyLevels, a code range fgCode - bgCode below 255 is
    // first stretched in place so that bgCode becomes 0 and fgCode 255 (multiplier truncated:
    // a range that does not divide 16320 never reaches 255); then known = tri <= 0 or >= 255.
    // Without it, known = tri <= bgCode or >= fgCode and the tri-map stays.
    void compMap(int applyLevels, Plane8& tri, Plane8& known, Plane8& fgMap);

    // Laplacian triples from the eroded map and three byte planes with a common step: the values
    // in lapVals, 45 a window (windows at the centres that are 0 in core, inside the frame, in
    // raster order; in each the pairs a <= b of its pixels in raster order), the row sums in
    // lapDiag. Rows and columns follow from that layout and are not stored.
    // Returns 0 on success, 4 when no window is to be used; *count receives the number of
    // triples (or the first estimate when not successful). Throws -1 when the estimate is over
    // 400,000,000 triples.
    int compMatLap(Plane8& core, unsigned char* const* planes, int planeStep, int* count);
    // The same over three float planes, values used as they stand (no 1/255).
    int compMatLap(Plane8& core, GIMG<float>* const* planes, int* count);
    // The same over one interleaved 3-channel byte image.
    int compMatLap(Plane8& core, const IMG3<unsigned char>& image, int* count);

    // Merges the triples into one sparse system over the pixels with 0 in `core` after a second
    // erosion (done here, in place), with the sums a stable sort by row and column followed by a
    // merge would form; solves it and leaves the result, 0..255, in `alpha`. Returns 0; throws
    // on failure.
    int alphaMain(int width, int height, int tripleCount, Plane8& known, Plane8& core,
                  Plane8& mask);

    // The whole solve on a caller's mask plane: copy, inner form, progress, sharpening, copy
    // back. Returns 0 (the inner status is not passed on).
    int CompAlpha(unsigned char* const* planes, int planeStep, int width, int height,
                  unsigned char* mask, int maskStep);
    // Inner form on an image: 0 success, 2 size refused (mask untouched), 4 no window (mask
    // holds the levels remap only).
    int CompAlpha(unsigned char* const* planes, int planeStep, int width, int height,
                  Plane8& mask);
    // The same with three float colour planes.
    int CompAlpha(GIMG<float>* const* planes, int width, int height, Plane8& mask);

    // Unsharp masking of the mask around its 5x5 blur, with a gain that falls where the local
    // range of the mask is high.
    void SharpenAlpha(Plane8& mask);

    float* lapVals = nullptr;
    float* lapDiag = nullptr;
    void* reservedArray = nullptr;
    int* unknownIndex = nullptr;
    unsigned char* knownBytes = nullptr;
    unsigned char* maskBytes = nullptr;
    unsigned char useDirectSolver = 1;
    float* alpha = nullptr;
    int primitiveStatus = 0;
    double epsilon = 1e-7;
    unsigned char bgCode = 0;
    unsigned char fgCode = 255;
    float sharpen = 0.0f;
    // Window affinities through a Cholesky factor of the covariance (windowAffinitiesStable).
    bool stableAffinities = false;
    // Refinement steps of the direct solve (DirectSolveOptions::refinementSteps).
    int refinementSteps = 2;
    // Undecided pixels the caller expects, for laying out the progress of the whole solve
    // (0: not known; the inner form counts them itself).
    double expectedUnknowns = 0.0;

private:
    // Frees the Laplacian's arrays and the pixel numbering once the system stands.
    void freeLaplacian();
    // Shared body of the three compMatLap forms; `window` fills the 27 colour values of the
    // window around a centre (channel-major, window order).
    template <typename ReadWindow>
    int buildLaplacian(Plane8& core, int* count, ReadWindow&& window);
    template <typename Build>
    int compAlphaInner(int width, int height, Plane8& mask, Build&& buildLaplacian);
};

// Rough seconds of the closed-form solve's stages, for laying out a job's progress (only their
// ratios matter; measured on 2 cores): n unknowns, p pixels.
struct SolveSeconds {
    static double laplacian(double n) { return 0.7e-6 * n; }
    static double assembly(double n) { return 0.7e-6 * n; }  // the windows' map and the rows
    // Analysis, factorisation (about 18 n^1.5 flops) and solve.
    static double solver(double n);
    static double pass(double p) { return 2e-9 * p; }  // a light pass over the pixels
    static double sharpen(double p) { return 2e-8 * p; }
    // The inner form: maps, Laplacian, assembly, solve, output.
    static double whole(double n, double p) {
        return pass(p) + laplacian(n) + assembly(n) + solver(n) + pass(p);
    }
};

// Writes the solution: in raster order over the pixels with 0 in `core`, a pixel with 0 in
// `known` takes the float truncated towards zero; definite pixels keep their mask value.
void outAlpha(const float* alpha, int width, int height, Plane8& known, Plane8& core,
              Plane8& mask);

// In-place 3x3 erosion with replicated edges: an image edge never erodes the map.
void ErodeMap3x3(Plane8& map);

// Raster indices of the 3x3 window around (x, y) in window order.
void winIdx(int x, int y, int width, int out[9]);

// The 3x3 window around `p` into nine values, rows top to bottom, left to right. Bytes are
// scaled by 1/255; floats and ints are copied as they stand.
void copy3x3(const unsigned char* p, int step, double out[9]);
void copy3x3(const float* p, int step, double out[9]);
void copy3x3(const int* p, int step, int out[9]);
// Interleaved 3-channel bytes: channel c into out[9c .. 9c+8], scaled by 1/255.
void copy3x3C3(const unsigned char* p, int step, double out[27]);

}  // namespace qx
