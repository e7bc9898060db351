// qxColorRangeSelect: a brush that fixes only the pixels under the stroke whose colour lies near
// a picked colour. Pixels the user has already fixed (low bit set) are never repainted.
#include <algorithm>
#include <cstdint>

#include "editor/brush.h"
#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

void colourRangeSelect(const GrabCutRequest& r, int x0, int y0, int x1, int y1, int radius,
                       const uint8_t* colour, unsigned tolerance, bool foreground) {
    // The stroke's box with its brush, cut to the plane. 64-bit so that strokes far outside
    // the plane cannot overflow.
    const int64_t left = std::max<int64_t>(int64_t(std::min(x0, x1)) - radius, 0);
    const int64_t top = std::max<int64_t>(int64_t(std::min(y0, y1)) - radius, 0);
    const int64_t boxWidth =
        std::min<int64_t>(r.width - 1, int64_t(std::max(x0, x1)) + radius) - left + 1;
    const int64_t boxHeight =
        std::min<int64_t>(r.height - 1, int64_t(std::max(y0, y1)) + radius) - top + 1;
    if (boxWidth < 1 || boxHeight < 1) return;

    // The brush drawn as zeros on a box of 255. left <= min(x0, x1) whenever it is above 0, so
    // the shifted end points fit an int.
    cv::Mat box(static_cast<int>(boxHeight), static_cast<int>(boxWidth), CV_8UC1,
                cv::Scalar(255));
    drawBrushSegment(box, cv::Point(static_cast<int>(x0 - left), static_cast<int>(y0 - top)),
                     cv::Point(static_cast<int>(x1 - left), static_cast<int>(y1 - top)), radius,
                     0);

    const uint8_t code = foreground ? 255 : 1;
    // Unsigned 32-bit, as the tolerance comes: a tolerance of 65536 or more wraps.
    const unsigned limit = tolerance * tolerance;
    for (int by = 0; by < boxHeight; ++by) {
        const uint8_t* b = box.ptr<uint8_t>(by);
        const int64_t y = top + by;
        uint8_t* m = r.mask + y * r.maskStep + left;
        const uint8_t* p = r.image + y * r.imageStep + left * 4;
        for (int bx = 0; bx < boxWidth; ++bx, p += 4) {
            if (b[bx] != 0 || (m[bx] & 1) != 0) continue;
            // The picked colour comes in reverse pixel order: colour[2] goes with byte 0.
            const int d0 = p[0] - colour[2];
            const int d1 = p[1] - colour[1];
            const int d2 = p[2] - colour[0];
            const unsigned distance = static_cast<unsigned>(d1 * d1 + d0 * d0 + d2 * d2);
            if (distance < limit) m[bx] = code;
        }
    }
}

}  // namespace
}  // namespace qx

extern "C" QX_API int qxColorRangeSelect(GrabCutRequest* request, int x0, int y0, int x1, int y1,
                                         int radius, const unsigned char* colour,
                                         unsigned tolerance, unsigned char foreground) {
    if (request == nullptr || colour == nullptr || !qx::validBrushRadius(radius) ||
        !qx::validPlane(request->image, request->imageStep, request->width, request->height, 4) ||
        !qx::validPlane(request->mask, request->maskStep, request->width, request->height, 1))
        return 0;
    const GrabCutRequest r = *request;
    return qx::guardedCall(
        [&] {
            qx::colourRangeSelect(r, x0, y0, x1, y1, radius, colour, tolerance, foreground != 0);
            return 1;
        },
        0);
}
