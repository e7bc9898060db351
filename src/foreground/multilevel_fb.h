// Foreground and background colours under a known alpha, solved on a pyramid of halved levels.
//
// Per pixel p and colour channel the unknowns are F(p) and B(p) on 0..1. The energy is
//
//   sum_p (a F + (1 - a) B - I)^2  +  sum_{p~q} w(p, q) ((F(p) - F(q))^2 + (B(p) - B(q))^2)
//
// over 4-neighbours, with w = eps + |a(p) - a(q)|^1.5: the colours follow the image where
// alpha is flat and are smoothed where alpha changes, most where it changes most. Each level
// starts from the coarser level's answer (nearest pixel) and relaxes it with red-black
// successive over-relaxation: the pixels with x + y even are updated from their neighbours,
// then the odd ones, each update the exact 2 x 2 minimiser for that pixel blended with
// factor kFbOmega, clamped to 0..1. Pixels whose alpha is 0 or 1 with the same alpha on all
// four sides take the image as F (alpha 1) or B (alpha 0) and keep the other unknown.
//
// The red-black order is what makes a level computable in overlapping pieces: after n
// iterations a pixel depends only on pixels at most 2n + 1 away, so a piece grown by
// fbHalo() on each side gives, in its core, exactly the bytes of the whole.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace qx {

constexpr int kFbIterations = 10;     // per level
constexpr float kFbOmega = 1.8f;      // over-relaxation
constexpr float kFbEpsilon = 1e-5f;   // smoothing where alpha is flat
constexpr int kFbCoarsest = 16;       // the pyramid stops once the longer side is at most this

// Pixels of context a piece needs on each side for its core to equal the whole.
constexpr int fbHalo() { return 2 * kFbIterations + 2; }

// One level, or one piece of the finest level: (x0, y0) is its place in the level, which sets
// the red-black colouring.
struct FbLevel {
    int w = 0, h = 0, x0 = 0, y0 = 0;
    std::vector<float> I, A;  // image (3 a pixel) and alpha, 0..1
    std::vector<float> F, B;  // the unknowns, 3 a pixel

    // Bytes a level or piece of w x h holds while it is relaxed.
    static double bytesFor(int64_t w, int64_t h) { return double(w) * double(h) * 60.0; }
};

// The next coarser level: 2 x 2 means of image and alpha (the last row or column repeated on
// an odd side). F and B are left empty.
FbLevel fbHalve(const FbLevel& fine);

// Starts F and B of `fine` from the level above it: every pixel takes the coarse pixel that
// covers it.
void fbStartFrom(FbLevel& fine, const FbLevel& coarse);

// Relaxes F and B, kFbIterations times; `tick` (may be empty) after each iteration.
void fbRelax(FbLevel& level, const std::function<void()>& tick);

}  // namespace qx
