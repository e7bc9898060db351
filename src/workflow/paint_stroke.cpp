// A straight brush stroke into a stroke plane, with the library's clipped rasteriser: any
// coordinates are safe, only what touches the plane is drawn, and the time is bounded by the
// plane's size (a stroke far larger than the plane is filled as its capsule).
#include "image/base_tools.h"
#include "qxworkflow.h"

extern "C" QX_API int qxwPaintStroke(unsigned char* plane, int stride, int width, int height,
                                     int x0, int y0, int x1, int y1, int radius,
                                     unsigned char value) {
    if (!plane || width < 1 || height < 1 || stride < width || radius < 0) return 0;
    qx::drawStroke(plane, stride, width, height, x0, y0, x1, y1, radius, value);
    return 1;
}
