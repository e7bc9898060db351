// Stretching of an alpha plane between two levels, shared by qxScaleAlpha and the preview
// styles of qxShowImageAlpha.
#pragma once

#include <cstdint>

#include "image/img.h"

namespace qx {

// In place on the region of `alpha`: `low` becomes 0 and `high` about 255, as
// (a - low) * gain / 32 with gain = min(8160 / (high - low), 255), the gain's integer division
// losing the rest (200/100 maps 200 to 253). high - low = 255 leaves the plane alone.
// keepFixed: pixels with the low bit set keep their value, all others come out even.
// The caller makes sure that high != low.
void scaleAlpha(IMG<uint8_t, 1>& alpha, uint8_t high, uint8_t low, bool keepFixed);

}  // namespace qx
