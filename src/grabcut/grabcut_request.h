// Checks and addressing of a host's GrabCutRequest, shared by the GrabCut entries.
#pragma once

#include <cstdint>

#include "runtime/args.h"
#include "qxiveilon31.h"

namespace qx {

// The rectangle is at least one pixel and lies inside the width x height planes.
inline bool roiInside(const GrabCutRequest& r) {
    return r.width >= 1 && r.height >= 1 && r.roiWidth >= 1 && r.roiHeight >= 1 &&
           r.roiLeft >= 0 && r.roiTop >= 0 &&
           static_cast<int64_t>(r.roiLeft) + r.roiWidth <= r.width &&
           static_cast<int64_t>(r.roiTop) + r.roiHeight <= r.height;
}

// A one-byte plane of the request (mask or result) over the whole width x height.
inline bool validCodePlane(const unsigned char* p, int step, const GrabCutRequest& r) {
    return validPlane(p, step, r.width, r.height, 1);
}

// The first byte of the rectangle in a plane of bytesPerPixel bytes a pixel.
inline unsigned char* atRoi(unsigned char* p, int step, const GrabCutRequest& r,
                            int bytesPerPixel) {
    return p + static_cast<int64_t>(r.roiTop) * step +
           static_cast<int64_t>(r.roiLeft) * bytesPerPixel;
}

}  // namespace qx
