#include "runtime/fault.h"
#include "grabcut/pyramid_cut.h"

#include <algorithm>
#include <cmath>

#include "runtime/progress.h"
#include "grabcut/comp_alpha_map.h"
#include "resample/mask_pyr.h"

namespace qx {
namespace {

// Halvings a region can take: 2^31 pixels come below 3200 in 20.
constexpr int kMaxOuter = 24;
constexpr int kMaxPyramidLevels = 3;

int halved(int n) { return (n + 1) / 2; }

// The mask pyramid halves a level only when it is at least 2 pixels in each direction.
bool canHalve(int w, int h) { return w >= 2 && h >= 2; }

}  // namespace

int grabCutLevels(int longSide) {
    const int levels = static_cast<int>(std::log(longSide / 400.0) / std::log(2.0)) + 1;
    return std::min(levels, 5);
}

GrabCutPlan planGrabCut(int width, int height) {
    GrabCutPlan p;
    int w = width, h = height;
    while (grabCutLevels(std::max(w, h)) > kMaxPyramidLevels && canHalve(w, h) &&
           p.outer < kMaxOuter) {
        w = halved(w);
        h = halved(h);
        ++p.outer;
    }
    const int wanted = std::clamp(grabCutLevels(std::max(w, h)), 0, kMaxPyramidLevels);
    while (p.levels < wanted && canHalve(w, h)) {
        w = halved(w);
        h = halved(h);
        ++p.levels;
    }
    p.width = w;
    p.height = h;
    return p;
}

bool grabCutControlFits(const void* p, int width, int height) {
    if (!isLiveGrabCutControl(p)) return false;
    const auto* c = static_cast<const GrabCutControl*>(p);
    const GrabCutPlan plan = planGrabCut(width, height);
    return c->width == plan.width && c->height == plan.height && c->mask != nullptr &&
           c->mask->cols == plan.width && c->mask->rows == plan.height &&
           c->bgdModel != nullptr && c->fgdModel != nullptr;
}

int qxMapAlphaProcGrabCut(GIMG<unsigned char>** planes, GIMG<unsigned char>* flags,
                          GIMG<unsigned char>* mask, GrabCutControl** control, int mode, bool) {
    // `mode` chose between two code paths that walk the same levels; both are this one.
    (void)mode;
    const GrabCutPlan plan = planGrabCut(mask->width, mask->height);
    if (*control != nullptr && !grabCutControlFits(*control, mask->width, mask->height))
        return 0;
    setProgRange(10000, 0);

    // Halvings above the pyramid's range, each a one-level pyramid on the one before.
    CMaskPyr outer[kMaxOuter];
    GIMG<unsigned char>* levelPlanes[3] = {planes[0], planes[1], planes[2]};
    GIMG<unsigned char>* levelFlags = flags;
    GIMG<unsigned char>* levelMask = mask;
    auto descend = [&](CMaskPyr& pyr, int levels) {
        if (pyr.build(levelPlanes, levelFlags, levelMask, levels) != 0) fail(Fault::ImageMemory);
        for (int i = 0; i < 3; ++i) levelPlanes[i] = pyr.getPlane(i, levels);
        levelFlags = pyr.getKnown(levels);
        levelMask = pyr.getAlpha(levels);
    };
    for (int i = 0; i < plan.outer; ++i) descend(outer[i], 1);
    CMaskPyr pyr;
    descend(pyr, plan.levels);

    if (*control == nullptr) {
        *control = grabcutCreateBuf(plan.width, plan.height);
        if (!grabCutControlFits(*control, mask->width, mask->height)) fail(Fault::ImageMemory);
    }

    {
        IMG3<unsigned char> packed(plan.width, plan.height);
        for (int y = 0; y < plan.height; ++y) {
            const unsigned char* p0 = levelPlanes[0]->row(y);
            const unsigned char* p1 = levelPlanes[1]->row(y);
            const unsigned char* p2 = levelPlanes[2]->row(y);
            unsigned char* d = packed.row(y);
            for (int x = 0; x < plan.width; ++x, d += 3) {
                d[0] = p0[x];
                d[1] = p1[x];
                d[2] = p2[x];
            }
        }
        CompAlphaMapGrabCut(packed.data, packed.step, plan.width, plan.height, levelMask->data,
                            levelMask->step, levelFlags->data, levelFlags->step, *control);
        progressKick();
    }

    pyr.upSampling();
    for (int i = plan.outer - 1; i >= 0; --i) outer[i].upSampling();
    pyr.cleanUp();
    for (int i = plan.outer - 1; i >= 0; --i) outer[i].cleanUp();
    return 1;
}

}  // namespace qx
