// The box of a tri-map's undecided pixels, as the tri-map job cuts it (qxMaskBBox).
#pragma once

namespace qx {

// The box of an 8-bit tri-map's undecided pixels (above bgCode and below fgCode), with the
// decided pixels counted inside it; nothing is written when there is no box (no undecided
// pixel, or under 24 rows with the margin).
void maskBox8(const unsigned char* data, int step, int width, int height, int fgCode,
              int bgCode, int* left, int* boxWidth, int* top, int* boxHeight, int* fgCount,
              int* bgCount);

}  // namespace qx
