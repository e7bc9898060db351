// The one place that runs cv::grabCut: a hard selection on the working level of the pyramid,
// going on from the colour models and labels that the control keeps between calls.
#pragma once

#include <cstdint>

#include "grabcut/grabcut_control.h"

namespace qx {

// The cv::grabCut label of a pixel for its flag (user-fixed or not) and its code at the working
// level: below 10 the background side, above 245 the foreground side (sure for a fixed pixel,
// probable otherwise); any other code keeps the stored label.
constexpr uint64_t kGrabCutSeed = 0x6772616263757431ull;

uint8_t grabCutLabel(bool fixed, uint8_t code, uint8_t stored);

// image: packed 3-byte pixels, width x height, imageStep bytes between rows (0: packed rows).
// mask: the level's codes, read, then overwritten with the selection (255 where the label is
// foreground or probably so, 0 elsewhere). flags: 0 or non-zero for each pixel.
// The first cut on a control starts from a 5-pixel frame of sure background around probable
// foreground. Then every pixel's label follows its flag and code (grabCutLabel), and cv::grabCut
// runs 3 iterations: from the new labels (GC_INIT_WITH_MASK) when the constraints changed since
// the last cut (isConstsChanged) or the models are still empty (the first cut of a session,
// strokes or not), else on from the stored models (GC_EVAL). The fingerprint is recorded
// either way.
// When one side has too few labelled pixels for cv::grabCut to learn a model (fewer than 5
// for a new model, none for a kept one), the labels as they stand are the selection and the
// models stay as they were.
// Re-learning seeds the models by k-means from OpenCV's random generator of the calling
// thread; the cut runs it from kGrabCutSeed, so that the same strokes on the same image give the
// same selection whatever ran before, and gives the caller's generator back as it was.
// The control must have been made for width x height. Returns 0. cv::grabCut's exceptions pass
// through.
int CompAlphaMapGrabCut(const unsigned char* image, int imageStep, int width, int height,
                        unsigned char* mask, int maskStep, const unsigned char* flags,
                        int flagStep, GrabCutControl* control);

}  // namespace qx
