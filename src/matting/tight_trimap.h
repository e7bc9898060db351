// A tri-map for solving again, tightened from a first solve's alpha. A first solve from sparse
// strokes, or from a wide band, leaves a faint haze over large areas and edges softened by
// colours taken from far away; solved again with what came out clear taken as decided, each
// edge takes its colours from decided pixels right beside it.
#pragma once

namespace qx {

// What came out at or below `low` is taken as background, at or above `high` as the subject,
// the rest is left undecided (128) and grown by a disc of `grow` pixels.
struct TightLevels {
    int low, high, grow;
};

// Measured on the benchmark photos (mean SAD of the second solve): strokes 4.59 at 20 / 235 / 1,
// 4.67 at 20 / 235 / 2 and at 15 / 240 / 1, 4.87 at 10 / 245 / 1, 5.42 at 64 / 191 / 1.
constexpr TightLevels kTight{20, 235, 1};

// After a first solve at half size, whose doubled alpha is softer and has lost what is finer
// than its pixels, more is left undecided: the tri-map workflow's bands, mean SAD over the two
// tri-map sets of the benchmark photos (the second solve with every term) 3.753 / 4.250 against
// 3.948 / 4.231 at 20 / 235 / 1 (5 / 250: 3.726 / 4.484; 20 / 235 / 2: 3.876 / 4.202).
constexpr TightLevels kTightAfterHalfRun{10, 245, 1};

// `out` (0, 255, undecided 128) from `alpha` as above; where the caller's tri-map `given` is
// decided (at or below bgCode background, at or above fgCode subject), `out` keeps that. All
// three planes are width x height with their own steps.
void tightTrimap(const unsigned char* alpha, int alphaStep, const unsigned char* given,
                 int givenStep, int fgCode, int bgCode, int width, int height, unsigned char* out,
                 int outStep, TightLevels levels = kTight);

}  // namespace qx
