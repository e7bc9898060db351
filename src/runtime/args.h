// Argument checks at the C interface: a call that cannot be served must refuse before it
// touches a host buffer.
#pragma once

#include <cstdint>

namespace qx {

// A plane of width x height pixels of bytesPerPixel bytes with rows `step` bytes apart:
// non-null, both sizes at least 1, and rows that do not overlap.
inline bool validPlane(const void* p, int step, int width, int height, int bytesPerPixel) {
    return p != nullptr && width >= 1 && height >= 1 &&
           static_cast<int64_t>(step) >= static_cast<int64_t>(width) * bytesPerPixel;
}

}  // namespace qx
