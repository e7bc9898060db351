#include "keepcut/window_pyramid.h"

#include <algorithm>
#include <cstdint>

#include "runtime/memory.h"
#include "runtime/progress.h"
#include "keepcut/refine_alpha_mw.h"
#include "keepcut/solve_alpha_window.h"
#include "resample/cblf.h"
#include "resample/mask_pyr.h"

namespace qx {
namespace {

int64_t countPainted(const GIMG<unsigned char>& known) {
    int64_t n = 0;
    for (int y = 0; y < known.height; ++y) {
        const unsigned char* p = known.row(y);
        for (int x = 0; x < known.width; ++x) n += p[x] & 1;
    }
    return n;
}

}  // namespace

MapAlphaPlan planMapAlpha(int width, int height, int64_t unknown, int units) {
    // The pixel count is a 32-bit product, as the budget rule has always taken it.
    const auto pixels = static_cast<int32_t>(static_cast<uint32_t>(width) *
                                             static_cast<uint32_t>(height));
    const double need = std::max(pixels * 1200.0, static_cast<double>(unknown) * 1944.0);
    MapAlphaPlan plan{need / (units * 1000.0), 0, 1428};
    if (plan.ratio <= 1.0) return plan;
    plan.progressStep = 1;
    plan.levels = plan.ratio <= 4.0 ? 1 : plan.ratio <= 8.0 ? 2 : 3;
    return plan;
}

int qxMapAlphaProc(GIMG<unsigned char>** planes, GIMG<unsigned char>* known,
                   GIMG<unsigned char>* alpha, int memUnits) {
    const int64_t unknown = static_cast<int64_t>(known->width) * known->height - countPainted(*known);
    const MapAlphaPlan plan = planMapAlpha(planes[0]->width, planes[0]->height, unknown,
                                           memUnits);
    setProgRange(10000, plan.progressStep);

    CMaskPyr pyr;
    int levels = plan.levels;
    // A small window cannot be halved as often as the budget asks: build what it allows.
    while (pyr.build(planes, known, alpha, levels) != 0 && levels > 0) --levels;
    if (pyr.getLevels() != levels) return 1;  // refused even at level 0: nothing to solve

    GIMG<unsigned char>* coarseKnown = pyr.getKnown(levels);
    GIMG<unsigned char>* coarseAlpha = pyr.getAlpha(levels);
    const int w = coarseAlpha->width, h = coarseAlpha->height;
    const int64_t painted = countPainted(*coarseKnown);
    if (static_cast<int64_t>(w) * h - painted < 3) return 1;
    if (painted == 0) return -5;

    unsigned char* coarse[3] = {pyr.getPlane(0, levels)->data, pyr.getPlane(1, levels)->data,
                                pyr.getPlane(2, levels)->data};
    const int planeStep = pyr.getPlane(0, levels)->step;
    {
        CFMatt matt;
        solveAlphaWindow(matt, coarse, planeStep, w, h, coarseKnown->data, coarseKnown->step,
                         coarseAlpha->data, coarseAlpha->step);
        unsigned char* filtered[1] = {coarseAlpha->data};
        CBLFRGB(w, h, filtered, coarseAlpha->step, 1, coarse, planeStep, 3, 1, 15.0f, 0.825f,
                1e-6f);
    }

    if (levels == 1) {
        pyr.upSamplingOneLevel(1);
        refineAlphaMW(planes, known, alpha, memUnits);
    } else if (levels >= 2) {
        for (int l = levels; l >= 2; --l) pyr.upSamplingOneLevel(l);
        GIMG<unsigned char>* level1[3] = {pyr.getPlane(0, 1), pyr.getPlane(1, 1),
                                          pyr.getPlane(2, 1)};
        refineAlphaMW(level1, pyr.getKnown(1), pyr.getAlpha(1), memUnits);
        pyr.upSamplingOneLevel(1);
    }
    return 1;
}

}  // namespace qx
