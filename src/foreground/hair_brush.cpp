// The hair brush: under a stroke, alpha by projecting each colour onto the line between a
// foreground and a background colour, and the local extremes of that alpha written back as
// painted pixels (low bit set), constraints for the next run of the alpha engines.
#include <algorithm>
#include <cstdint>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "editor/brush.h"
#include "foreground/shared_sample.h"
#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "qxiveilon31.h"

namespace qx {

int FBSeperationSharedSample::CompAlphaMapHair(const uint8_t* image, int imageStep, int width,
                                               int height, const uint8_t* mask, int maskStep,
                                               uint8_t* alpha, int alphaStep,
                                               const uint8_t* foreColor,
                                               const uint8_t* backColor) {
    if (!validPlane(image, imageStep, width, height, 3) || !foreColor || !backColor) return 0;
    if ((mask && !validPlane(mask, maskStep, width, height, 1)) ||
        (alpha && !validPlane(alpha, alphaStep, width, height, 1)))
        return 0;
    // A missing plane is a fresh zero one: no pixel to compute, or an alpha nobody reads.
    IMG<unsigned char, 1> maskView(width, height, const_cast<uint8_t*>(mask), maskStep);
    IMG<unsigned char, 1> alphaView(width, height, alpha, alphaStep);
    if (!mask) Set(static_cast<unsigned char>(0), maskView);
    if (!alpha) Set(static_cast<unsigned char>(0), alphaView);

    const prim::Size size{width, height};
    IMG<float, 1> alphaF(width, height);
    IMG<float, 3> colour(width, height);
    prim::scale_8u32f_C1(alphaView.data, alphaView.step, alphaF.data, alphaF.step, size, 0.0f, 1.0f);
    prim::scale_8u32f_C3(image, imageStep, colour.data, colour.step, size, 0.0f, 1.0f);

    float f[3], b[3], d[3];
    for (int i = 0; i < 3; ++i) {
        f[i] = foreColor[i] / 255.0f;
        b[i] = backColor[i] / 255.0f;
        d[i] = f[i] - b[i];
    }
    const float norm = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
    for (int y = 0; y < height; ++y) {
        const uint8_t* m = maskView.row(y);
        const float* c = colour.row(y);
        float* a = alphaF.row(y);
        for (int x = 0; x < width; ++x, c += 3) {
            if (m[x] == 0) continue;
            // The colours are in reverse byte order: colour byte 0 goes with channel 2.
            const float v =
                ((c[2] - b[0]) * d[0] + (c[1] - b[1]) * d[1] + (c[0] - b[2]) * d[2]) / norm;
            a[x] = std::min(std::max(v, 0.0f), 1.0f);
        }
    }
    prim::scale_32f8u_C1(alphaF.data, alphaF.step, alphaView.data, alphaView.step, size, 0.0f, 1.0f);
    return 0;
}

namespace {

// The box of the stroke, the projection under the brush dot, and the local extremes written
// back. Arguments are checked by the caller.
void hairSelect(const KeepCutRequest& r, int x1, int y1, int x2, int y2, int radius) {
    const int minX = std::min(x1, x2), maxX = std::max(x1, x2);
    const int minY = std::min(y1, y2), maxY = std::max(y1, y2);
    const int left = std::max(minX - radius, 0), right = std::min(r.fullWidth - 1, maxX + radius);
    const int top = std::max(minY - radius, 0), bottom = std::min(r.fullHeight - 1, maxY + radius);
    const int w = right - left + 1, h = bottom - top + 1;

    // The second point is measured from the far edges of the box: away from the image's edge
    // both points are (radius, radius), one brush dot at the box's upper left, however long the
    // stroke. That is the shape this brush draws.
    cv::Mat stroke(h, w, CV_8UC1, cv::Scalar(0));
    drawBrushSegment(stroke, cv::Point(minX - left, minY - top),
                     cv::Point(right - maxX, bottom - maxY), radius, 255);

    const cv::Mat src(h, w, CV_8UC4, r.srcImage + static_cast<int64_t>(top) * r.srcStep + 4 * left,
                      static_cast<size_t>(r.srcStep));
    cv::Mat patch;
    cv::cvtColor(src, patch, cv::COLOR_BGRA2BGR);  // drops byte 3, keeps the order of 0..2
    uint8_t* plane = r.alphaPlane + static_cast<int64_t>(top) * r.alphaStep + left;
    cv::Mat alphaCopy =
        cv::Mat(h, w, CV_8UC1, plane, static_cast<size_t>(r.alphaStep)).clone();

    FBSeperationSharedSample().CompAlphaMapHair(
        patch.data, static_cast<int>(patch.step), w, h, stroke.data, static_cast<int>(stroke.step),
        alphaCopy.data, static_cast<int>(alphaCopy.step),
        static_cast<const uint8_t*>(r.foreColor), static_cast<const uint8_t*>(r.backColor));

    // A pixel whose new alpha is the least or the greatest of the seven neighbours
    // (-1,-1) (0,-1) (1,-1) (-1,0) (0,0) (-2,1) (-1,1) is written with its low bit set. The
    // neighbourhood is read as it stands: nothing to the right or below, and at column 1 the
    // offset (-2, 1) reads the continuous copy's previous byte, the last pixel of the same row.
    const uint8_t* a = alphaCopy.data;  // continuous: pixel (x, y) at y * w + x
    const int64_t W = w;
    static const int kOffsets[7][2] = {{-1, -1}, {0, -1}, {1, -1}, {-1, 0},
                                       {0, 0},   {-2, 1}, {-1, 1}};
    // A brush-sized box is not worth waking the thread team for.
#pragma omp parallel for schedule(static) if (W * h > 16384)
    for (int y = 1; y < h - 1; ++y) {
        const uint8_t* s = stroke.ptr<uint8_t>(y);
        uint8_t* out = plane + static_cast<int64_t>(y) * r.alphaStep;
        for (int x = 1; x < w - 1; ++x) {
            if (s[x] == 0) continue;
            uint8_t lo = 255, hi = 0;
            for (const auto& o : kOffsets) {
                const uint8_t v = a[(y + o[1]) * W + x + o[0]];
                lo = std::min(lo, v);
                hi = std::max(hi, v);
            }
            const uint8_t centre = a[y * W + x];
            if (centre == lo || centre == hi) out[x] = centre | 1;
        }
    }
}

}  // namespace
}  // namespace qx

extern "C" QX_API int64_t qxHairSelect(KeepCutRequest* request, int x1, int y1, int x2, int y2,
                                       unsigned radius) {
    const KeepCutRequest* r = request;
    if (r == nullptr || r->foreColor == nullptr || r->backColor == nullptr) return 1;
    if (x1 < 0 || y1 < 0 || x2 < 0 || y2 < 0 || x1 >= r->fullWidth || x2 >= r->fullWidth ||
        y1 >= r->fullHeight || y2 >= r->fullHeight)
        return 1;
    if (!qx::validPlane(r->srcImage, r->srcStep, r->fullWidth, r->fullHeight, 4) ||
        !qx::validPlane(r->alphaPlane, r->alphaStep, r->fullWidth, r->fullHeight, 1) ||
        radius > static_cast<unsigned>(qx::kMaxBrushRadius))
        return 1;
    qx::guardedCall(
        [&] {
            qx::hairSelect(*r, x1, y1, x2, y2, static_cast<int>(radius));
            return 1;
        },
        1);
    return 1;
}
