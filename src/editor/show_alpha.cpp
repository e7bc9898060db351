// qxShowImageAlpha: previews of an alpha plane painted onto the host's 4-byte display image.
//
// Styles 1 and 2 show the editor's codes as they stand; styles 3 to 6 show alpha stretched
// between the host's two levels (the same stretch as qxScaleAlpha, on a private copy).
#include <cstdint>

#include "editor/scale_alpha.h"
#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "image/img.h"
#include "image/primitives.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

inline uint8_t addSat(uint8_t a, int b) {
    const int v = a + b;
    return static_cast<uint8_t>(v > 255 ? 255 : v);
}

// Calls paint(pixel, code) for every 4-byte pixel with its alpha code, rows in parallel.
template <typename Paint>
void forEachCodedPixel(uint8_t* image, int imageStep, int width, int height,
                       const uint8_t* alpha, int alphaStep, Paint paint) {
#pragma omp parallel for schedule(static, 1)
    for (int y = 0; y < height; ++y) {
        uint8_t* p = image + static_cast<int64_t>(y) * imageStep;
        const uint8_t* a = alpha + static_cast<int64_t>(y) * alphaStep;
        for (int x = 0; x < width; ++x, p += 4) paint(p, a[x]);
    }
}

// Style 1: the image dimmed to 7/8, then tinted by code: even (working values) raise byte 0,
// fixed background (1) byte 2, fixed foreground (255) byte 1, other fixed levels bytes 1 and 2.
void showCodeTint(uint8_t* image, int imageStep, int width, int height, const uint8_t* alpha,
                  int alphaStep) {
    const uint8_t sevenEighths[4] = {7, 7, 7, 7};
    prim::mulC_8u_C4IS(sevenEighths, image, imageStep, {width, height}, 3);
    forEachCodedPixel(image, imageStep, width, height, alpha, alphaStep, [](uint8_t* p, uint8_t c) {
        if ((c & 1) == 0) {
            p[0] = addSat(p[0], 85);
        } else if (c == 1) {
            p[2] = addSat(p[2], 85);
        } else if (c == 255) {
            p[1] = addSat(p[1], 85);
        } else {
            p[2] = addSat(p[2], 85);
            p[1] = addSat(p[1], 85);
        }
    });
}

// Style 2: a flat map, opaque: 0 in byte 2, 255 in byte 1, everything between in byte 0.
void showCodeMap(uint8_t* image, int imageStep, int width, int height, const uint8_t* alpha,
                 int alphaStep) {
    forEachCodedPixel(image, imageStep, width, height, alpha, alphaStep, [](uint8_t* p, uint8_t c) {
        p[0] = (c != 0 && c != 255) ? 255 : 0;
        p[1] = c == 255 ? 255 : 0;
        p[2] = c == 0 ? 255 : 0;
        p[3] = 255;
    });
}

// Byte 3 of every pixel becomes 255; `work` is a scratch plane of the image's size.
void makeOpaque(uint8_t* image, int imageStep, GIMG<uint8_t>& work) {
    Set(255, work);
    prim::insertChannel_8u_C1C4(work.data, work.step, image + 3, imageStep, work.size());
}

// Styles 3 to 6 on the stretched alpha `a`.
void showScaled(uint8_t* image, int imageStep, GIMG<uint8_t>& a, int style,
                const uint8_t* colour) {
    const prim::Size size = a.size();
    GIMG<uint8_t> work(size.width, size.height);
    if (style == 5) {  // grey alpha
        for (int i = 0; i < 3; ++i)
            prim::insertChannel_8u_C1C4(a.data, a.step, image + i, imageStep, size);
        makeOpaque(image, imageStep, work);
        return;
    }
    // Colour blended in where the alpha is low (3, 6) or high (4).
    GIMG<uint8_t> n(size.width, size.height);
    Set(255, n);
    Sub(a, n);  // n = 255 - a
    const GIMG<uint8_t>& colourWeight = style == 4 ? a : n;
    const GIMG<uint8_t>& imageWeight = style == 4 ? n : a;
    GIMG<uint8_t> channel(size.width, size.height);
    for (int i = 0; i < 3; ++i) {
        Set(colour[2 - i], work);  // the colour's bytes come in reverse pixel order
        channel.status =
            prim::extractChannel_8u_C4C1(image + i, imageStep, channel.data, channel.step, size);
        Mul(colourWeight, work, 8);
        Mul(imageWeight, channel, 8);
        Add(work, channel);
        prim::insertChannel_8u_C1C4(channel.data, channel.step, image + i, imageStep, size);
    }
    makeOpaque(image, imageStep, work);
}

}  // namespace
}  // namespace qx

extern "C" QX_API int qxShowImageAlpha(unsigned char* image, int imageStep, int width, int height,
                                       const unsigned char* alpha, int alphaStep,
                                       unsigned char high, unsigned char low, int style,
                                       const unsigned char* colour) {
    const bool scaled = style >= 3 && style <= 6;
    const bool coloured = style == 3 || style == 4 || style == 6;
    if (!qx::validPlane(image, imageStep, width, height, 4) ||
        !qx::validPlane(alpha, alphaStep, width, height, 1) || (coloured && colour == nullptr) ||
        (scaled && high == low))
        return 0;
    return qx::guardedCall(
        [&] {
            if (style == 1) {
                qx::showCodeTint(image, imageStep, width, height, alpha, alphaStep);
            } else if (style == 2) {
                qx::showCodeMap(image, imageStep, width, height, alpha, alphaStep);
            } else if (scaled) {
                qx::GIMG<uint8_t> a(width, height);
                a.status = qx::prim::copy_8u_C1(alpha, alphaStep, a.data, a.step, a.size());
                qx::scaleAlpha(a, high, low, false);
                qx::showScaled(image, imageStep, a, style, colour);
            }
            return 1;
        },
        0);
}
