#include "resample/cblf.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "image/img.h"
#include "resample/owned_images.h"

namespace qx {

int CBLFRGB(int width, int height, unsigned char* const* planes, int planeStep, int planeCount,
            unsigned char* const* refPlanes, int refStep, int refCount, int radius,
            float sigmaRange, float sigmaSpace, float epsilon) {
    if (radius < 1 || radius > 3) return 0;
    const int cw = width - 2 * radius;
    const int ch = height - 2 * radius;
    if (cw < 2 || ch < 2) return 0;
    if (planes == nullptr || refPlanes == nullptr || planeCount < 1 || refCount < 1) return 0;
    if (planeStep < width || refStep < width) return 0;
    for (int p = 0; p < planeCount; ++p)
        if (planes[p] == nullptr) return 0;
    for (int r = 0; r < refCount; ++r)
        if (refPlanes[r] == nullptr) return 0;

    const prim::Size roi{cw, ch};
    const int64_t centre = static_cast<int64_t>(radius);
    auto planeAt = [&](int p, int dx, int dy) {
        return planes[p] + (centre + dy) * planeStep + (centre + dx);
    };
    auto refAt = [&](int r, int dx, int dy) {
        return refPlanes[r] + (centre + dy) * refStep + (centre + dx);
    };

    detail::OwnedImages<float> floats;
    detail::OwnedImages<unsigned char> bytes;

    // The centre pixel takes part with this tiny weight only: its offset is skipped below.
    const float centreWeight = static_cast<float>(epsilon * 255.0);
    GIMG<float>* weightSum = floats.add(cw, ch);
    Set(centreWeight, *weightSum);
    std::vector<GIMG<float>*> sums(planeCount);
    for (int p = 0; p < planeCount; ++p) {
        sums[p] = floats.add(cw, ch);
        prim::convert_8u32f_C1(planeAt(p, 0, 0), planeStep, sums[p]->data, sums[p]->step, roi);
        prim::mulC_32f_C1I(centreWeight, sums[p]->data, sums[p]->step, roi);
    }

    uint8_t rangeTable[256];
#pragma omp parallel for schedule(static)
    for (int i = 0; i < 256; ++i) {
        const double d = i / static_cast<double>(sigmaRange);
        const double v = std::exp(-3.0 * (d * d)) * 255.0;
        rangeTable[i] = (v >= 0.0 && v <= 255.0) ? static_cast<uint8_t>(v) : 0;
    }

    // Scratch of each thread of the window loop, made here so that no allocation (and no
    // throw) happens inside the parallel region: a distance plane, one weight plane for each
    // offset of a window row, and a float plane.
    const int rows = 2 * radius + 1;
    const int threads = std::max(1, std::min(omp_get_max_threads(), rows));
    std::vector<GIMG<unsigned char>*> diffs(threads), weights(static_cast<size_t>(threads) * rows);
    std::vector<GIMG<float>*> weightFloats(threads);
    for (int t = 0; t < threads; ++t) {
        diffs[t] = bytes.add(cw, ch);
        for (int k = 0; k < rows; ++k) weights[static_cast<size_t>(t) * rows + k] = bytes.add(cw, ch);
        weightFloats[t] = floats.add(cw, ch);
    }

    // Window rows compute their weights in parallel and add them to the shared sums one row
    // after the other, in row order: the sums are formed in the same order whatever the number
    // of threads, so the result does not depend on the scheduling.
#pragma omp parallel for schedule(static) ordered num_threads(threads)
    for (int dy = -radius; dy <= radius; ++dy) {
        const int t = omp_get_thread_num();
        GIMG<unsigned char>& diff = *diffs[t];
        GIMG<unsigned char>* const* rowWeights = &weights[static_cast<size_t>(t) * rows];
        GIMG<float>& weightF = *weightFloats[t];
        for (int dx = -radius; dx <= radius; ++dx) {
            if (dx == 0 && dy == 0) continue;
            GIMG<unsigned char>& weight = *rowWeights[dx + radius];
            const float s = std::exp(-static_cast<float>(dx * dx + dy * dy) /
                                     (2.0f * sigmaSpace * sigmaSpace));
            const double fixed = s * 128.0;
            const uint8_t spatial =
                (fixed >= 0.0 && fixed <= 255.0) ? static_cast<uint8_t>(fixed) : 0;

            // Saturated sum of the colour distances; `weight` holds each further distance.
            prim::absDiff_8u_C1(refAt(0, dx, dy), refStep, refAt(0, 0, 0), refStep, diff.data,
                                diff.step, roi);
            for (int r = 1; r < refCount; ++r) {
                prim::absDiff_8u_C1(refAt(r, dx, dy), refStep, refAt(r, 0, 0), refStep,
                                    weight.data, weight.step, roi);
                prim::add_8u_C1IS(weight.data, weight.step, diff.data, diff.step, roi, 0);
            }
            prim::lut_8u_C1(diff.data, diff.step, weight.data, weight.step, roi, rangeTable);
            // Range times spatial weight in 8-bit fixed point, 128 standing for 1.0.
            prim::mulC_8u_C1IS(spatial, weight.data, weight.step, roi, 7);
        }
#pragma omp ordered
        for (int dx = -radius; dx <= radius; ++dx) {
            if (dx == 0 && dy == 0) continue;
            const GIMG<unsigned char>& weight = *rowWeights[dx + radius];
            for (int p = 0; p < planeCount; ++p)
                prim::addProduct_8u32f_C1I(weight.data, weight.step, planeAt(p, dx, dy),
                                           planeStep, sums[p]->data, sums[p]->step, roi);
            prim::convert_8u32f_C1(weight.data, weight.step, weightF.data, weightF.step, roi);
            prim::add_32f_C1I(weightF.data, weightF.step, weightSum->data, weightSum->step, roi);
        }
    }

    GIMG<float>* reciprocal = floats.add(cw, ch);
    Set(1.0f, *reciprocal);
    Div(*weightSum, *reciprocal);

#pragma omp parallel for schedule(static)
    for (int p = 0; p < planeCount; ++p) {
        prim::mul_32f_C1I(reciprocal->data, reciprocal->step, sums[p]->data, sums[p]->step, roi);
        prim::convert_32f8u_C1(sums[p]->data, sums[p]->step, planeAt(p, 0, 0), planeStep, roi);
    }
    return 1;
}

}  // namespace qx
