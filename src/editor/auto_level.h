// Chroma stretching of the diagnostic preview (qxRGB2YCbCrAutoLevel).
#pragma once

#include <cstdint>

#include "image/primitives.h"

namespace qx {

// Stretches one chroma plane in place about the neutral 128 so that its larger mean excursion
// (above or below 128) approaches `level`. The gain is k/8 with k = (int)(8 * ratio), at most
// 120; gains of 1.12 and below are not applied. Returns 0 for level <= 0, else 1.
int autoStretchC1(uint8_t* plane, int step, prim::Size size, int level);

// The same for two planes with one shared gain, measured on their mean excursions above 128
// only. Returns 0 for level <= 0, else 1.
int autoStretchC2(uint8_t* planeA, uint8_t* planeB, int step, prim::Size size, int level);

}  // namespace qx
