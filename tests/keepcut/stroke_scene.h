// A keep-cut job on a synthetic composite whose alpha is known: the source image (four bytes a
// pixel), the stroke-coded alpha plane, the host's stroke record and a result image, each with
// padded rows, and the request that points at them.
#pragma once

#include <cstdint>
#include <vector>

#include "matting/matting_fixtures.h"
#include "qxiveilon31.h"

namespace qxtest {

// A whole-image request over the given buffers (source and result four bytes a pixel).
inline KeepCutRequest requestOver(PaddedPlane& src, PaddedPlane& alpha, PaddedPlane& aux,
                                  PaddedPlane& dst) {
    KeepCutRequest req{};
    req.srcImage = src.data();
    req.srcStep = src.step;
    req.alphaPlane = alpha.data();
    req.alphaStep = alpha.step;
    req.dstImage = dst.data();
    req.dstStep = dst.step;
    req.auxPlane = aux.data();
    req.auxStep = aux.step;
    req.fullWidth = req.roiWidth = alpha.width;
    req.fullHeight = req.roiHeight = alpha.height;
    return req;
}

struct StrokeScene {
    Composite comp;
    PaddedPlane src;    // 4 bytes a pixel
    PaddedPlane alpha;  // stroke coding
    PaddedPlane aux;
    PaddedPlane dst;    // 4 bytes a pixel
    KeepCutRequest req{};

    // Keep strokes (255) inside the tri-map's foreground, cut strokes (1) in its background,
    // the band unpainted with `bandValue` (even).
    StrokeScene(int w, int h, double r0, double r1, int band, unsigned char bandValue = 0)
        : comp(w, h, r0, r1, band, 0.0),
          src(4 * w, h, 1, 0, 8),
          alpha(w, h, 1, 0, 3),
          aux(w, h, 1, 0, 6),
          dst(4 * w, h, 1, 0, 4) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                for (int c = 0; c < 3; ++c) src.at(4 * x + c, y) = comp.planes[c].at(x, y);
                src.at(4 * x + 3, y) = 255;
                const unsigned char t = comp.trimap.at(x, y);
                alpha.at(x, y) = t == 255 ? 255 : t == 0 ? 1 : bandValue;
            }
        syncAux();
        req = requestOver(src, alpha, aux, dst);
    }

    // The host's record: bit 0 of every alpha byte.
    void syncAux() {
        for (int y = 0; y < comp.height; ++y)
            for (int x = 0; x < comp.width; ++x) aux.at(x, y) = alpha.at(x, y) & 1;
    }
    void setRegion(int x, int y, int w, int h, int regionMode) {
        req.roiX = x;
        req.roiY = y;
        req.roiWidth = w;
        req.roiHeight = h;
        req.regionMode = regionMode;
    }
    // Mean absolute error (0..1 scale) of the alpha plane over the unpainted pixels of the
    // given rectangle.
    double meanError(int x0, int y0, int w, int h) const {
        double sum = 0;
        int n = 0;
        for (int y = y0; y < y0 + h; ++y)
            for (int x = x0; x < x0 + w; ++x)
                if ((alpha.at(x, y) & 1) == 0) {
                    sum += std::fabs(alpha.at(x, y) / 255.0 -
                                      comp.alpha[static_cast<size_t>(y) * comp.width + x]);
                    ++n;
                }
        return n ? sum / n : 0.0;
    }
};

}  // namespace qxtest
