#include "keepcut/keep_cut_original.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include "runtime/progress.h"
#include "image/img.h"
#include "keepcut/keep_cut.h"
#include "keepcut/window_pyramid.h"

namespace qx {
namespace {

// The working window in image coordinates, and the frame widths inside it.
struct Window {
    int x, y, width, height;
    int left, top, right, bottom;
};

// The region grown by a frame of regionMode pixels on each side, cut at the image's edges.
Window framedRegion(const KeepCutRequest& r) {
    Window w{};
    const int m = r.regionMode;
    if (m >= 1) {
        w.left = std::min(m, r.roiX);
        w.top = std::min(m, r.roiY);
        w.right = int64_t(r.roiX) + r.roiWidth + m > r.fullWidth
                      ? r.fullWidth - r.roiWidth - r.roiX
                      : m;
        w.bottom = int64_t(r.roiY) + r.roiHeight + m > r.fullHeight
                       ? r.fullHeight - r.roiHeight - r.roiY
                       : m;
    }
    w.x = r.roiX - w.left;
    w.y = r.roiY - w.top;
    w.width = w.left + r.roiWidth + w.right;
    w.height = w.top + r.roiHeight + w.bottom;
    return w;
}

unsigned char* alphaAt(const KeepCutRequest& r, int x, int y) {
    return r.alphaPlane + int64_t(y) * r.alphaStep + x;
}

}  // namespace

int qxKeepCutToAlphaOriginal(KeepCutRequest* request, int memUnits) {
    KeepCutRequest& r = *request;
    setProgProc(r.progProc, r.progParam, 10000, 1);

    Window win = framedRegion(r);
    if (win.left == 0 && win.top == 0 && win.right == 0 && win.bottom == 0) {
        // No frame to hold the solution: cut the work down to the pixels that are neither a
        // full keep (255) nor a full cut (1), and check that both kinds of stroke are there.
        int bx = 0, bw = 0, by = 0, bh = 0, keep = 0, cut = 0;
        qxMaskBBox(0, alphaAt(r, r.roiX, r.roiY), r.alphaStep, r.roiWidth, r.roiHeight, &bx, &bw,
                   &by, &bh, &keep, &cut, 0, 255, 1);
        int status = 0;
        if (bw == 0 || bh == 0) status = -5;
        else if (int64_t(bw) * bh - keep - cut < 3) status = 1;
        else if (cut == 0 || keep == 0) status = -5;
        if (status != 0) {
            recoverBrushInfo(request);
            return status;
        }
        win = Window{r.roiX + bx, r.roiY + by, bw, bh, 0, 0, 0, 0};
    }
    const int w = win.width, h = win.height;
    const int innerRight = win.left + (w - win.left - win.right);
    const int innerBottom = win.top + (h - win.top - win.bottom);

    GIMG<unsigned char> work(w, h, alphaAt(r, win.x, win.y), r.alphaStep);
    GIMG<unsigned char> known(w, h);
    GIMG<unsigned char> saved(w, h);
    Copy(work, saved);
    {
        std::unique_ptr<GIMG<unsigned char>> planes[3];
        const unsigned char* src = r.srcImage + int64_t(win.y) * r.srcStep + int64_t(win.x) * 4;
        for (int c = 0; c < 3; ++c) {
            planes[c] = std::make_unique<GIMG<unsigned char>>(w, h);
            planes[c]->status = prim::extractChannel_8u_C4C1(src + (2 - c), r.srcStep,
                                                              planes[c]->data, planes[c]->step,
                                                              {w, h});
        }

        // Known: the frame and the painted pixels. Then cut strokes read as 0, and unpainted
        // zeros as 2.
#pragma omp parallel for schedule(static)
        for (int y = 0; y < h; ++y) {
            unsigned char* k = known.row(y);
            unsigned char* a = work.row(y);
            const bool frameRow = y < win.top || y >= innerBottom;
            for (int x = 0; x < w; ++x) {
                const bool isKnown =
                    frameRow || x < win.left || x >= innerRight || (a[x] & 1) != 0;
                k[x] = isKnown ? 255 : 0;
                if (a[x] == 1 && isKnown) a[x] = 0;
                else if (a[x] == 0 && !isKnown) a[x] = 2;
            }
        }

        GIMG<unsigned char>* list[3] = {planes[0].get(), planes[1].get(), planes[2].get()};
        qxMapAlphaProc(list, &known, &work, memUnits);
    }

    // Computed pixels lose the paint flag; painted pixels and the frame get their input back.
    work.status = prim::andC_8u_C1I(0xFE, work.data, work.step, work.size());
    work.status = prim::copyMasked_8u_C1(saved.data, saved.step, work.data, work.step,
                                         work.size(), known.data, known.step);
    return 1;
}

}  // namespace qx
