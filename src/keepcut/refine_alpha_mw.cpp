#include "keepcut/refine_alpha_mw.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>

#include "runtime/memory.h"
#include "runtime/progress.h"
#include "keepcut/solve_alpha_window.h"
#include "resample/cblf.h"

namespace qx {
namespace {

constexpr int kSideCap = 768;
constexpr int kMargin = 4;
constexpr int kMinUnknown = 6;  // a window with 5 or fewer unknown pixels is skipped

// A double to int as the processor's truncating conversion gives it: a value outside the int
// range (or not a number) becomes INT_MIN.
int truncToInt(double v) {
    if (!(v > -2147483649.0 && v < 2147483648.0)) return INT_MIN;
    return static_cast<int>(v);
}

// Windows across one axis of `size` pixels: count, size and step.
void planAxis(int size, int side, int* count, int* win, int* step) {
    int n = truncToInt(size / (side / 1.1) + 0.75);
    if (n < 2) n = 1;
    int w = truncToInt(size * 1.1 / n);
    int s = size / n - truncToInt(w * 0.1 / n);
    if (size <= side || size <= w) {
        w = size;
        s = size;
    }
    *count = n;
    *win = std::max(w, 1);
    *step = std::max(s, 1);
}

// Pixels of a window with bit 0 clear in the known map.
int64_t unknownIn(const GIMG<unsigned char>& known, int x, int y, int w, int h) {
    int64_t painted = 0;
    for (int r = 0; r < h; ++r) {
        const unsigned char* p = known.ptr(x, y + r);
        for (int c = 0; c < w; ++c) painted += p[c] & 1;
    }
    return static_cast<int64_t>(w) * h - painted;
}

void setStrip(GIMG<unsigned char>& img, int x, int y, int w, int h) {
    img.status = prim::set_8u_C1(255, img.ptr(x, y), img.step, {w, h});
}

}  // namespace

MWGrid planMWGrid(int W, int H, int units) {
    MWGrid g{};
    g.side = truncToInt(std::sqrt(units * 1000.0 / 1940.0));
    if (g.side > kSideCap - 1) g.side = kSideCap;
    planAxis(W, g.side, &g.nx, &g.winW, &g.stepX);
    planAxis(H, g.side, &g.ny, &g.winH, &g.stepY);
    return g;
}

int refineAlphaMW(GIMG<unsigned char>** planes, GIMG<unsigned char>* known,
                  GIMG<unsigned char>* alpha, int memUnits) {
    const int W = alpha->width, H = alpha->height;
    const MWGrid g = planMWGrid(W, H, memUnits);
    GIMG<unsigned char> tmpAlpha(g.winW, g.winH);
    GIMG<unsigned char> tmpKnown(g.winW, g.winH);
    const int planeStep = planes[0]->step;

    walkMWGrid(g, W, H, [&](const MWWindow& w) {
        if (unknownIn(*known, w.x, w.y, g.winW, g.winH) < kMinUnknown) return;
        const prim::Size size{g.winW, g.winH};
        prim::copy_8u_C1(alpha->ptr(w.x, w.y), alpha->step, tmpAlpha.data, tmpAlpha.step, size);
        prim::copy_8u_C1(known->ptr(w.x, w.y), known->step, tmpKnown.data, tmpKnown.step, size);
        // The margins hold alpha solved before (or upsampled): as constraints they join this
        // window's solution to its neighbours without a seam. Strips are cut to the window.
        const int l = std::min(w.left, g.winW), r = std::min(w.right, g.winW);
        const int t = std::min(w.top, g.winH), b = std::min(w.bottom, g.winH);
        if (l > 0) setStrip(tmpKnown, 0, 0, l, g.winH);
        if (r > 0) setStrip(tmpKnown, g.winW - r, 0, r, g.winH);
        if (t > 0) setStrip(tmpKnown, 0, 0, g.winW, t);
        if (b > 0) setStrip(tmpKnown, 0, g.winH - b, g.winW, b);

        unsigned char* at[3] = {planes[0]->ptr(w.x, w.y), planes[1]->ptr(w.x, w.y),
                                planes[2]->ptr(w.x, w.y)};
        CFMatt matt;
        solveAlphaWindow(matt, at, planeStep, g.winW, g.winH, tmpKnown.data, tmpKnown.step,
                         tmpAlpha.data, tmpAlpha.step);
        unsigned char* filtered[1] = {tmpAlpha.data};
        CBLFRGB(g.winW, g.winH, filtered, tmpAlpha.step, 1, at, planeStep, 3, 1, 15.0f, 0.825f,
                1e-6f);
        progressKick();
        // Known pixels lose what the filter did; the rest of the window takes the result.
        prim::copyMasked_8u_C1(alpha->ptr(w.x, w.y), alpha->step, tmpAlpha.data, tmpAlpha.step,
                               size, known->ptr(w.x, w.y), known->step);
        prim::copy_8u_C1(tmpAlpha.data, tmpAlpha.step, alpha->ptr(w.x, w.y), alpha->step, size);
    });
    return 0;
}

}  // namespace qx
