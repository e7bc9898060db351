// GrabCut on a large image: the cut runs on a small level of a mask pyramid, and the hard
// selection is brought back up by the guided two-times up-sampler, so that its edge follows the
// colour edges of each finer level.
#pragma once

#include "grabcut/grabcut_control.h"
#include "image/img.h"

namespace qx {

// Pyramid levels for a larger side of `longSide`: (int)(log(longSide / 400) / log 2) + 1,
// truncated toward zero, cut to at most 5. 101..200 give 0, 201..799 1, 800..1599 2,
// 1600..3199 3; 100 and less give a negative count, 3200 and more 4 or 5.
int grabCutLevels(int longSide);

// How a region of width x height is reduced for the cut.
//
// Inside the pyramid's range (grabCutLevels of the larger side in 0..3) the pyramid alone
// does it. Above it, the image is first halved (`outer` times, each a one-level mask pyramid:
// smoothed and decimated colour, decimated flags and codes) until the pyramid's range is
// reached, and each halving is undone afterwards by the same guided up-sampler. A larger side
// of 100 or less is cut at full size (no level). A level is never made narrower or lower
// than one pixel: a region too thin to halve is cut at the last size that could be made.
struct GrabCutPlan {
    int outer = 0;   // halvings before the pyramid
    int levels = 0;  // the pyramid's levels
    int width = 0;   // the working level, where cv::grabCut runs
    int height = 0;
};
GrabCutPlan planGrabCut(int width, int height);

// Whether `control` is a live control made for the working level of a width x height region,
// with its label plane and models in place.
bool grabCutControlFits(const void* control, int width, int height);

// planes: three colour planes; flags: 0 or 255 for each pixel (user-fixed); mask: the codes,
// which receive the selection: 0 or 255 at the working level, in-between values along edges
// after up-sampling; the pixels the up-sampler leaves without an estimate (the first row's
// and column's gaps, the last one to three rows and columns) keep their code.
// *control: the session's state; made here when null (with the working level's size).
// mode and the last argument make no difference to the result.
// The progress state is set to a total of 10000 and a step of 0, and kicked once after the
// cut. Returns 1; 0, with nothing done, when *control does not fit the working level. Throws
// 102 when the control cannot be made, and the ints of image/img.h.
int qxMapAlphaProcGrabCut(GIMG<unsigned char>** planes, GIMG<unsigned char>* flags,
                          GIMG<unsigned char>* mask, GrabCutControl** control, int mode, bool);

}  // namespace qx
