// qxDrawLine8u: one brush segment of the mask editor, written in place into the host's code
// plane.
#include "editor/brush.h"
#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

// The code a tool mode paints: 1 fixed background, 255 fixed foreground, 126 undecided again,
// mode 3 the caller's level made odd (fixed), and 0 for any other mode.
int brushLevel(unsigned char mode, unsigned char value) {
    switch (mode) {
        case 0: return 1;
        case 1: return 255;
        case 2: return 126;
        case 3: return (value & 254) + 1;
        default: return 0;
    }
}

}  // namespace
}  // namespace qx

extern "C" QX_API int qxDrawLine8u(unsigned char* mask, int step, int width, int height, int x0,
                                   int y0, int x1, int y1, int radius, unsigned char mode,
                                   unsigned char value) {
    const int rowStep = step == 0 ? width : step;  // 0: packed rows
    if (!qx::validPlane(mask, rowStep, width, height, 1) || !qx::validBrushRadius(radius))
        return 0;
    return qx::guardedCall(
        [&] {
            cv::Mat plane(height, width, CV_8UC1, mask, static_cast<size_t>(rowStep));
            qx::drawBrushSegment(plane, cv::Point(x0, y0), cv::Point(x1, y1), radius,
                                 qx::brushLevel(mode, value));
            return 1;
        },
        0);
}
