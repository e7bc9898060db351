#include "matting/tight_trimap.h"

#include <algorithm>
#include <cstdint>

namespace qx {

void tightTrimap(const unsigned char* alpha, int alphaStep, const unsigned char* given,
                 int givenStep, int fgCode, int bgCode, int width, int height, unsigned char* out,
                 int outStep, TightLevels levels) {
    const int low = levels.low, high = levels.high;
    auto row = [](auto* base, int step, int y) { return base + int64_t(y) * step; };
    for (int y = 0; y < height; ++y) {
        const unsigned char* a = row(alpha, alphaStep, y);
        unsigned char* o = row(out, outStep, y);
        for (int x = 0; x < width; ++x)
            o[x] = a[x] <= low ? 0 : a[x] >= high ? 255 : 128;
    }
    // Grown row by row: a pixel is undecided when any pixel of its disc was undecided in the
    // first solve (read from the alpha, which the growth does not touch).
    const int r = std::max(levels.grow, 0);
    for (int y = 0; y < height; ++y) {
        unsigned char* o = row(out, outStep, y);
        for (int dy = -r; dy <= r; ++dy) {
            const int yy = y + dy;
            if (yy < 0 || yy >= height) continue;
            const unsigned char* a = row(alpha, alphaStep, yy);
            int reach = 0;
            while ((reach + 1) * (reach + 1) + dy * dy <= r * r) ++reach;
            for (int x = 0; x < width; ++x) {
                if (a[x] <= low || a[x] >= high) continue;
                const int from = std::max(0, x - reach), to = std::min(width - 1, x + reach);
                std::fill(o + from, o + to + 1, static_cast<unsigned char>(128));
            }
        }
        const unsigned char* g = row(given, givenStep, y);
        for (int x = 0; x < width; ++x) {
            if (g[x] >= fgCode) o[x] = 255;
            else if (g[x] <= bgCode) o[x] = 0;
        }
    }
}

}  // namespace qx
