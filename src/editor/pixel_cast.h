// Float-to-byte stores of the editor's per-pixel blends.
#pragma once

#include <cstdint>

namespace qx {

// (unsigned char)(int)v: truncation toward zero, then the low byte, which is what the blends
// have always stored (in-range arguments never leave 0..255). A value that no int can hold
// (only from nonsense weights or NaN) stores 0 rather than being undefined.
inline uint8_t truncToByte(float v) {
    if (!(v > -2147483648.0f && v < 2147483648.0f)) return 0;
    return static_cast<uint8_t>(static_cast<int>(v));
}

}  // namespace qx
