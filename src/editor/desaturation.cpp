// qxDesaturation: takes colour out of the soft edge of a cut-out, where colour fringes show.
// The saturation of an unfixed pixel is scaled by strength * t^4 + (1 - strength), t its alpha
// over 255: full alpha keeps its colour, low alpha keeps only 1 - strength of it, and the
// fourth power confines the effect to the low and middle alphas.
#include <cstdint>

#include <opencv2/core.hpp>

#include "editor/pixel_cast.h"
#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "image/primitives.h"
#include "qxiveilon31.h"

extern "C" QX_API int qxDesaturation(unsigned char* image, int imageStep, int width, int height,
                                     const unsigned char* alpha, int alphaStep, float strength) {
    if (!qx::validPlane(image, imageStep, width, height, 4) ||
        !qx::validPlane(alpha, alphaStep, width, height, 1))
        return 0;
    return qx::guardedCall(
        [&] {
            const qx::prim::Size size{width, height};
            cv::Mat hls(height, width, CV_8UC4);
            const int hlsStep = static_cast<int>(hls.step);
            qx::prim::rgbToHls_8u_C4(image, imageStep, hls.data, hlsStep, size);
            const float rest = 1.0f - strength;
#pragma omp parallel for schedule(static, 1)
            for (int y = 0; y < height; ++y) {
                uint8_t* h = hls.ptr<uint8_t>(y);
                const uint8_t* a = alpha + static_cast<int64_t>(y) * alphaStep;
                for (int x = 0; x < width; ++x) {
                    if (a[x] & 1) continue;  // fixed pixels keep their saturation
                    const float t = a[x] / 255.0f;
                    uint8_t& s = h[4 * x + 2];
                    s = qx::truncToByte(s * (strength * t * t * t * t + rest));
                }
            }
            qx::prim::hlsToRgb_8u_C4(hls.data, hlsStep, image, imageStep, size);
            return 1;
        },
        0);
}
