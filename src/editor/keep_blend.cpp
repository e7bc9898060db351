// qxShowKeepBlend: cross-fade of the display image towards a second image, for the keep-cut
// preview. The opacity byte is left as the host had it.
#include <cstdint>

#include "editor/pixel_cast.h"
#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "qxiveilon31.h"

extern "C" QX_API void qxShowKeepBlend(unsigned char* image, int imageStep, int width, int height,
                                       const unsigned char* keep, int keepStep, int64_t, int64_t,
                                       float weight) {
    if (!qx::validPlane(image, imageStep, width, height, 4) ||
        !qx::validPlane(keep, keepStep, width, height, 4))
        return;
    qx::guardedCall(
        [&] {
            const float rest = 1.0f - weight;
#pragma omp parallel for schedule(static, 1)
            for (int y = 0; y < height; ++y) {
                uint8_t* p = image + static_cast<int64_t>(y) * imageStep;
                const uint8_t* k = keep + static_cast<int64_t>(y) * keepStep;
                for (int x = 0; x < width; ++x, p += 4, k += 4)
                    for (int i = 0; i < 3; ++i) p[i] = qx::truncToByte(k[i] * weight + p[i] * rest);
            }
            return 1;
        },
        0);
}
