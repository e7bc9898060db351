// Quick diagnostic views of a 3-byte image for the host's screen: luma alone, chroma alone, one
// chroma channel, or the image brightened. The point is to make faint structure visible, so
// the gains are crude: integer steps of 1/8, saturating, and every pass a whole-plane
// primitive.
#include "editor/auto_level.h"

#include <algorithm>

#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "image/img.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

constexpr uint8_t kNeutral = 128;

// Mean of (plane - 128) saturated at 0, with `work` as scratch of the plane's size.
double meanAbove(const uint8_t* plane, int step, GIMG<uint8_t>& work) {
    double mean = 0.0;
    work.status = prim::subC_8u_C1S(plane, step, kNeutral, work.data, work.step, work.size(), 0);
    prim::mean_8u_C1(work.data, work.step, work.size(), &mean);
    return mean;
}

// Mean of (128 - plane) saturated at 0.
double meanBelow(const uint8_t* plane, int step, GIMG<uint8_t>& work) {
    double mean = 0.0;
    Set(kNeutral, work);
    work.status = prim::sub_8u_C1IS(plane, step, work.data, work.step, work.size(), 0);
    prim::mean_8u_C1(work.data, work.step, work.size(), &mean);
    return mean;
}

// The stretch factor k (gain k/8) for a ratio of target to measured excursion; 0 when the gain
// would be 1.12 or less, since small gains are not worth the banding.
int chromaFactor(int level, double excursion) {
    const double ratio = level / (excursion + 1.0);
    if (!(ratio > 1.12)) return 0;
    return static_cast<int>(std::min(ratio * 8.0, 120.0));
}

// (plane - shift) * k / 8 with shift = 128 - 1024/k: neutral stays 128 up to the integer
// division, and excursions grow by k/8.
void stretchAboutNeutral(uint8_t* plane, int step, prim::Size size, int k) {
    const int shift = 128 - 1024 / k;
    prim::subC_8u_C1IS(static_cast<uint8_t>(shift), plane, step, size, 0);
    prim::mulC_8u_C1IS(static_cast<uint8_t>(k), plane, step, size, 3);
}

int previewAutoLevel(uint8_t* image, int step, int width, int height, float level) {
    const prim::Size size{width, height};
    double mean[3] = {0.0, 0.0, 0.0};
    prim::mean_8u_C3(image, step, size, mean);
    const double gain = level / (std::max({mean[0], mean[1], mean[2]}) + 0.0001);
    if (!(gain > 1.0)) return 1;  // never darkens
    const uint8_t factor = static_cast<uint8_t>(std::min(gain * 8.0, 250.0));
    const uint8_t factors[3] = {factor, factor, factor};
    prim::mulC_8u_C3IS(factors, image, step, size, 3);
    return 1;
}

// One plane into bytes 0, 1 and 2 of every pixel: a grey picture of it.
void showPlaneGrey(const GIMG<uint8_t>& plane, uint8_t* image, int step) {
    for (int i = 0; i < 3; ++i)
        prim::insertChannel_8u_C1C3(plane.data, plane.step, image + i, step, plane.size());
}

int ycbcrView(uint8_t* image, int step, int width, int height, int view, int level) {
    GIMG<uint8_t> y(width, height), cb(width, height), cr(width, height);
    uint8_t* const planes[3] = {y.data, cb.data, cr.data};
    const int planeStep = y.step;  // equal widths: one step for all three
    const prim::Size size{width, height};
    prim::rgbToYCbCr_8u_C3P3(image, step, planes, planeStep, size);
    const bool stretch = level > 1;
    switch (view) {
        case 1:
            showPlaneGrey(y, image, step);
            if (stretch) previewAutoLevel(image, step, width, height, static_cast<float>(level));
            break;
        case 2: {
            Set(kNeutral, y);
            if (stretch) autoStretchC2(cb.data, cr.data, planeStep, size, level);
            const uint8_t* const src[3] = {y.data, cb.data, cr.data};
            prim::yCbCrToRgb_8u_P3C3(src, planeStep, image, step, size);
            break;
        }
        default: {  // 3 Cb, 4 Cr
            GIMG<uint8_t>& c = view == 3 ? cb : cr;
            if (stretch) autoStretchC1(c.data, c.step, size, level);
            showPlaneGrey(c, image, step);
            break;
        }
    }
    return 1;
}

}  // namespace

int autoStretchC1(uint8_t* plane, int step, prim::Size size, int level) {
    if (level <= 0) return 0;
    GIMG<uint8_t> work(size.width, size.height);
    const double up = meanAbove(plane, step, work);
    const double down = meanBelow(plane, step, work);
    const int k = chromaFactor(level, std::max(up, down));
    if (k > 0) stretchAboutNeutral(plane, step, size, k);
    return 1;
}

int autoStretchC2(uint8_t* planeA, uint8_t* planeB, int step, prim::Size size, int level) {
    if (level <= 0) return 0;
    GIMG<uint8_t> work(size.width, size.height);
    const double upA = meanAbove(planeA, step, work);
    const double upB = meanAbove(planeB, step, work);
    const int k = chromaFactor(level, std::max(upA, upB));
    if (k > 0) {
        stretchAboutNeutral(planeA, step, size, k);
        stretchAboutNeutral(planeB, step, size, k);
    }
    return 1;
}

}  // namespace qx

extern "C" QX_API int qxPreviewAutoLevel(unsigned char* image, int step, int width, int height,
                                         float level) {
    if (!qx::validPlane(image, step, width, height, 3)) return 0;
    return qx::guardedCall([&] { return qx::previewAutoLevel(image, step, width, height, level); },
                           0);
}

extern "C" QX_API int qxRGB2YCbCrAutoLevel(unsigned char* image, int step, int width, int height,
                                           int view, int level) {
    if (!qx::validPlane(image, step, width, height, 3) || view < 0 || view > 4) return 0;
    return qx::guardedCall(
        [&] {
            if (view == 0) {
                if (level > 1)
                    qx::previewAutoLevel(image, step, width, height, static_cast<float>(level));
                return 1;
            }
            return qx::ycbcrView(image, step, width, height, view, level);
        },
        0);
}
