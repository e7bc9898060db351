// The library's requests over host buffers, without GoogleTest (the fuzz targets use them too).
#pragma once

#include <vector>

#include "qxiveilon31.h"

namespace qxtest {

using Bytes = std::vector<unsigned char>;

// The tri-map job's request over three colour planes and a tri-map that becomes the alpha, all
// `w` bytes a row.
inline MaskRequest maskRequest(unsigned char** planes, unsigned char* mask, int w, int h) {
    MaskRequest r{};
    r.planes = planes;
    r.planeStep = r.maskStep = w;
    r.mask = mask;
    r.width = w;
    r.height = h;
    return r;
}

// The same over the colour planes of a BGR image, owned here.
struct MaskJob {
    Bytes planes[3];
    unsigned char* ptrs[3];
    MaskRequest req;
    MaskJob(const Bytes& bgr, Bytes& mask, int w, int h, qxProgressProc proc = nullptr,
            void* param = nullptr) {
        for (int c = 0; c < 3; ++c) {
            planes[c].resize(size_t(w) * h);
            for (size_t i = 0; i < planes[c].size(); ++i) planes[c][i] = bgr[i * 3 + c];
            ptrs[c] = planes[c].data();
        }
        req = maskRequest(ptrs, mask.data(), w, h);
        req.progProc = proc;
        req.progParam = param;
    }
};

// The full-resolution colour recovery's request: BGR image, alpha, BGR colours out.
inline ForegroundRequest foregroundRequest(const Bytes& bgr, const Bytes& alpha, Bytes& colours,
                                           int w, int h, qxProgressProc proc = nullptr,
                                           void* param = nullptr) {
    ForegroundRequest r{};
    r.image = bgr.data();
    r.imageStep = r.coloursStep = w * 3;
    r.imageChannels = r.coloursChannels = 3;
    r.alpha = alpha.data();
    r.alphaStep = w;
    r.colours = colours.data();
    r.width = w;
    r.height = h;
    r.progProc = proc;
    r.progParam = param;
    return r;
}

// The stroke engine's request: BGR image, strokes in the library's coding, alpha out.
inline StrokeMatteRequest strokeRequest(const Bytes& bgr, const Bytes& coded, Bytes& alpha, int w,
                                        int h) {
    StrokeMatteRequest r{};
    r.image = bgr.data();
    r.imageStep = 3 * w;
    r.imageChannels = 3;
    r.strokes = coded.data();
    r.strokesStep = r.alphaStep = w;
    r.width = w;
    r.height = h;
    r.alpha = alpha.data();
    return r;
}

// The keep-cut request over a whole image: source and result four bytes a pixel, the coded
// alpha plane and the host's record of the strokes.
inline KeepCutRequest keepCutRequest(Bytes& src, Bytes& alpha, Bytes& dst, Bytes& aux, int w,
                                     int h) {
    KeepCutRequest r{};
    r.srcImage = src.data();
    r.srcStep = r.dstStep = w * 4;
    r.alphaPlane = alpha.data();
    r.alphaStep = r.auxStep = w;
    r.dstImage = dst.data();
    r.auxPlane = aux.data();
    r.fullWidth = r.roiWidth = w;
    r.fullHeight = r.roiHeight = h;
    return r;
}

}  // namespace qxtest
