// qxScaleAlpha and the stretch it shares with the alpha previews.
#include "editor/scale_alpha.h"

#include <algorithm>
#include <optional>

#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "image/primitives.h"
#include "qxiveilon31.h"

namespace qx {

void scaleAlpha(IMG<uint8_t, 1>& alpha, uint8_t high, uint8_t low, bool keepFixed) {
    const int range = high - low;
    if (range == 255) return;
    // Fixed point with 5 fraction bits: 8160 = 255 * 32. A reversed pair (high < low) gives a
    // negative gain, which reaches the multiplier as its low byte, as it always has.
    const int gain = std::min(8160 / range, 255);

    std::optional<GIMG<uint8_t>> saved;
    if (keepFixed) {
        saved.emplace(alpha.width, alpha.height);
        Copy(alpha, *saved);
    }

    alpha.status = prim::subC_8u_C1IS(low, alpha.data, alpha.step, alpha.size(), 0);
    alpha.status =
        prim::mulC_8u_C1IS(static_cast<uint8_t>(gain), alpha.data, alpha.step, alpha.size(), 5);

    if (!keepFixed) return;
    const int width = alpha.width;
#pragma omp parallel for schedule(static, 1)
    for (int y = 0; y < alpha.height; ++y) {
        const uint8_t* s = saved->row(y);
        uint8_t* a = alpha.row(y);
        for (int x = 0; x < width; ++x) a[x] = (s[x] & 1) ? s[x] : static_cast<uint8_t>(a[x] & 254);
    }
}

}  // namespace qx

extern "C" QX_API int qxScaleAlpha(unsigned char* alpha, int step, int width, int height,
                                   unsigned char high, unsigned char low, int keepFixed) {
    if (!qx::validPlane(alpha, step, width, height, 1) || high == low) return 0;
    return qx::guardedCall(
        [&] {
            qx::GIMG<uint8_t> plane(width, height, alpha, step);
            qx::scaleAlpha(plane, high, low, keepFixed != 0);
            return 1;
        },
        0);
}
