#include "resample/upsample2x.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "resample/owned_images.h"

namespace qx {

namespace {

// Below this many pixels a phase copy costs less than waking the threads of a parallel loop.
constexpr int64_t kParallelPixels = 1 << 15;

// Whether `count` phase samples x0, x0 + 2, ... along one axis stay inside `extent` pixels.
bool phaseFits(int x0, int count, int extent) {
    if (count <= 0) return true;
    return static_cast<int64_t>(x0) + 2 * (static_cast<int64_t>(count) - 1) < extent;
}

template <typename T>
int getHalf(const GIMG<T>& src, int x0, int y0, GIMG<T>& dst) {
    if (src.data == nullptr || dst.data == nullptr || x0 < 0 || y0 < 0) return 0;
    const int w = std::min(src.width / 2, dst.width);
    const int h = std::min(src.height / 2, dst.height);
    if (w <= 0 || h <= 0) return 1;
    if (!phaseFits(x0, w, src.width) || !phaseFits(y0, h, src.height)) return 0;
#pragma omp parallel for schedule(static) if (static_cast<int64_t>(w) * h >= kParallelPixels)
    for (int y = 0; y < h; ++y) {
        const T* s = src.ptr(x0, y0 + 2 * y);
        T* d = dst.row(y);
        for (int x = 0; x < w; ++x) d[x] = s[2 * x];
    }
    return 1;
}

template <typename T>
int putHalf(const GIMG<T>& src, GIMG<T>& dst, int x0, int y0) {
    if (src.data == nullptr || dst.data == nullptr || x0 < 0 || y0 < 0) return 0;
    const int w = std::min(dst.width / 2, src.width);
    const int h = std::min(dst.height / 2, src.height);
    if (w <= 0 || h <= 0) return 1;
    if (!phaseFits(x0, w, dst.width) || !phaseFits(y0, h, dst.height)) return 0;
#pragma omp parallel for schedule(static) if (static_cast<int64_t>(w) * h >= kParallelPixels)
    for (int y = 0; y < h; ++y) {
        const T* s = src.row(y);
        T* d = dst.ptr(x0, y0 + 2 * y);
        for (int x = 0; x < w; ++x) d[2 * x] = s[x];
    }
    return 1;
}

// One neighbour of an estimate: a phase of the guide half images at an offset, and the value
// planes (small or the centres of stage A) at the same offset.
struct Neighbour {
    int phase;  // py * 2 + px
    int dx;
    int dy;
    bool fromSmall;  // values from `small`, else from the stage A result
};

// Working state of CUpSampleQX2X; every image is hw x hh with its region narrowed to
// (hw - 1) x (hh - 1) where the stages run.
struct UpsampleWork {
    prim::Size roi;
    int planeCount;
    int guideCount;
    const uint8_t* table;
    GIMG<unsigned char>* const* small;
    GIMG<unsigned char>* phases[4][4];  // [guide][phase]
    GIMG<float>* sumW;
    GIMG<float>* recip;
    GIMG<unsigned char>* diff;
    GIMG<unsigned char>* diffSum;
    GIMG<float>** acc;
    GIMG<unsigned char>** centres;  // stage A result per plane
    GIMG<unsigned char>** gaps;     // stage B, then stage C result per plane
};

// One estimate: out[p] = sum_n w_n * value_n / sum_n w_n over the four neighbours, with
// w_n = table[saturated sum over guides of |R - guide_n|], R being the reference phase at
// (rx, ry).
void estimate(UpsampleWork& k, int refPhase, int rx, int ry, const Neighbour (&nb)[4],
              GIMG<unsigned char>** out) {
    const prim::Size roi = k.roi;
    prim::set_32f_C1(0.0f, k.sumW->data, k.sumW->step, roi);
    for (int p = 0; p < k.planeCount; ++p) prim::set_32f_C1(0.0f, k.acc[p]->data, k.acc[p]->step, roi);

    for (const Neighbour& n : nb) {
        prim::set_8u_C1(0, k.diffSum->data, k.diffSum->step, roi);
        for (int g = 0; g < k.guideCount; ++g) {
            const GIMG<unsigned char>& ref = *k.phases[g][refPhase];
            const GIMG<unsigned char>& other = *k.phases[g][n.phase];
            prim::absDiff_8u_C1(ref.ptr(rx, ry), ref.step, other.ptr(n.dx, n.dy), other.step,
                                k.diff->data, k.diff->step, roi);
            prim::add_8u_C1IS(k.diff->data, k.diff->step, k.diffSum->data, k.diffSum->step, roi,
                              0);
        }
        // The weight w goes into `diff`; `recip` serves as its float copy until the end.
        GIMG<unsigned char>& w = *k.diff;
        prim::lut_8u_C1(k.diffSum->data, k.diffSum->step, w.data, w.step, roi, k.table);
        prim::convert_8u32f_C1(w.data, w.step, k.recip->data, k.recip->step, roi);
        prim::add_32f_C1I(k.recip->data, k.recip->step, k.sumW->data, k.sumW->step, roi);
        for (int p = 0; p < k.planeCount; ++p) {
            const GIMG<unsigned char>& values = n.fromSmall ? *k.small[p] : *k.centres[p];
            prim::addProduct_8u32f_C1I(w.data, w.step, values.ptr(n.dx, n.dy), values.step,
                                       k.acc[p]->data, k.acc[p]->step, roi);
        }
    }

    prim::set_32f_C1(1.0f, k.recip->data, k.recip->step, roi);
    prim::div_32f_C1I(k.sumW->data, k.sumW->step, k.recip->data, k.recip->step, roi);
    for (int p = 0; p < k.planeCount; ++p) {
        prim::mul_32f_C1I(k.recip->data, k.recip->step, k.acc[p]->data, k.acc[p]->step, roi);
        prim::convert_32f8u_C1(k.acc[p]->data, k.acc[p]->step, out[p]->data, out[p]->step, roi);
    }
}

// Phase indices.
constexpr int kEvenEven = 0;  // (0, 0)
constexpr int kOddEven = 1;   // (1, 0): odd x, even y
constexpr int kEvenOdd = 2;   // (0, 1)
constexpr int kOddOdd = 3;    // (1, 1)

}  // namespace

int getHalfImage(const GIMG<unsigned char>& src, int x0, int y0, GIMG<unsigned char>& dst) {
    return getHalf(src, x0, y0, dst);
}
int getHalfImage(const GIMG<float>& src, int x0, int y0, GIMG<float>& dst) {
    return getHalf(src, x0, y0, dst);
}
int putHalfImage(const GIMG<unsigned char>& src, GIMG<unsigned char>& dst, int x0, int y0) {
    return putHalf(src, dst, x0, y0);
}
int putHalfImage(const GIMG<float>& src, GIMG<float>& dst, int x0, int y0) {
    return putHalf(src, dst, x0, y0);
}

int CDnsampleQX2X(GIMG<unsigned char>& src, GIMG<unsigned char>& dst, int filter) {
    if (src.data == nullptr || dst.data == nullptr) return 0;
    if (filter == 0) return getHalfImage(src, 0, 0, dst);

    const int w = src.width;
    const int h = src.height;
    if (std::min(w / 2, dst.width) <= 0 || std::min(h / 2, dst.height) <= 0) return 1;

    GIMG<unsigned char> tmp(w, h);
    // Interior: the 3x3 Gaussian reads one pixel around its region.
    if (w > 2 && h > 2)
        tmp.status = prim::filterGauss_8u_C1(src.ptr(1, 1), src.step, tmp.ptr(1, 1), tmp.step,
                                             {w - 2, h - 2}, 33);
    // Outer frame as it is: top row, bottom row, left column, right column.
    prim::copy_8u_C1(src.row(0), src.step, tmp.row(0), tmp.step, {w, 1});
    prim::copy_8u_C1(src.row(h - 1), src.step, tmp.row(h - 1), tmp.step, {w, 1});
    prim::copy_8u_C1(src.ptr(0, 0), src.step, tmp.ptr(0, 0), tmp.step, {1, h});
    prim::copy_8u_C1(src.ptr(w - 1, 0), src.step, tmp.ptr(w - 1, 0), tmp.step, {1, h});
    return getHalfImage(tmp, 0, 0, dst);
}

void makeUpsampleWeightTable(float sigma, uint8_t table[256]) {
#pragma omp parallel for schedule(static)
    for (int i = 0; i < 256; ++i) {
        double v = 255.0 * std::exp(-0.5 * (i / static_cast<double>(sigma)));
        if (!(v >= 1.4)) v = 1.0;  // also catches a NaN from a zero sigma at i = 0
        table[i] = static_cast<uint8_t>(v);
    }
}

int CUpSampleQX2X(GIMG<unsigned char>** small, GIMG<unsigned char>** big, int planeCount,
                  GIMG<unsigned char>** guide, int guideCount, float sigma) {
    if (guideCount > 4 || guideCount < 0 || planeCount < 0) return 0;
    if (planeCount == 0) return 1;
    if (small == nullptr || big == nullptr || (guideCount > 0 && guide == nullptr)) return 0;

    int hw = INT32_MAX;
    int hh = INT32_MAX;
    for (int p = 0; p < planeCount; ++p) {
        if (small[p] == nullptr || big[p] == nullptr || small[p]->data == nullptr ||
            big[p]->data == nullptr)
            return 0;
        hw = std::min({hw, big[p]->width / 2, small[p]->width});
        hh = std::min({hh, big[p]->height / 2, small[p]->height});
    }
    for (int g = 0; g < guideCount; ++g) {
        if (guide[g] == nullptr || guide[g]->data == nullptr) return 0;
        if (hw > 0 && hh > 0 && (guide[g]->width / 2 < hw || guide[g]->height / 2 < hh))
            return 0;
    }

    if (hw < 2 || hh < 2) {  // no centre to estimate: only the even pixels
        for (int p = 0; p < planeCount; ++p) putHalfImage(*small[p], *big[p], 0, 0);
        return 1;
    }

    uint8_t table[256];
    makeUpsampleWeightTable(sigma, table);

    detail::OwnedImages<unsigned char> bytes;
    detail::OwnedImages<float> floats;
    UpsampleWork k{};
    k.roi = {hw - 1, hh - 1};
    k.planeCount = planeCount;
    k.guideCount = guideCount;
    k.table = table;
    k.small = small;
    k.sumW = floats.add(hw, hh);
    k.recip = floats.add(hw, hh);
    k.diff = bytes.add(hw, hh);
    k.diffSum = bytes.add(hw, hh);
    std::vector<GIMG<float>*> acc(planeCount);
    std::vector<GIMG<unsigned char>*> centres(planeCount);
    std::vector<GIMG<unsigned char>*> gaps(planeCount);
    for (int p = 0; p < planeCount; ++p) {
        acc[p] = floats.add(hw, hh);
        centres[p] = bytes.add(hw, hh);
        gaps[p] = bytes.add(hw, hh);
        // The stage A result has no estimate in its last row and column, and stages B and C
        // read them as neighbours of their last row and column: give them a defined value.
        Set(static_cast<unsigned char>(0), *centres[p]);
    }
    k.acc = acc.data();
    k.centres = centres.data();
    k.gaps = gaps.data();
    for (int g = 0; g < guideCount; ++g) {
        for (int ph = 0; ph < 4; ++ph) {
            k.phases[g][ph] = bytes.add(hw, hh);
            getHalfImage(*guide[g], ph & 1, ph >> 1, *k.phases[g][ph]);
        }
    }

    // Every working image exists now; a failed allocation above has left big untouched.
    for (int p = 0; p < planeCount; ++p) putHalfImage(*small[p], *big[p], 0, 0);

    // The result images are written back over the stage region only.
    auto narrow = [&](std::vector<GIMG<unsigned char>*>& imgs) {
        for (GIMG<unsigned char>* img : imgs) {
            img->width = hw - 1;
            img->height = hh - 1;
        }
    };
    auto widen = [&](std::vector<GIMG<unsigned char>*>& imgs) {
        for (GIMG<unsigned char>* img : imgs) img->restoreRect();
    };

    // Stage A, the centres (2x+1, 2y+1): the four even pixels around them.
    {
        const Neighbour nb[4] = {{kEvenEven, 0, 0, true},
                                 {kEvenEven, 1, 0, true},
                                 {kEvenEven, 0, 1, true},
                                 {kEvenEven, 1, 1, true}};
        estimate(k, kOddOdd, 0, 0, nb, centres.data());
        narrow(centres);
        for (int p = 0; p < planeCount; ++p) putHalfImage(*centres[p], *big[p], 1, 1);
        widen(centres);
    }
    // Stage B, the horizontal gaps (2x+1, 2y+2): even pixels left and right, centres above and
    // below.
    {
        const Neighbour nb[4] = {{kEvenEven, 0, 1, true},
                                 {kEvenEven, 1, 1, true},
                                 {kOddOdd, 0, 0, false},
                                 {kOddOdd, 0, 1, false}};
        estimate(k, kOddEven, 0, 1, nb, gaps.data());
        narrow(gaps);
        for (int p = 0; p < planeCount; ++p) putHalfImage(*gaps[p], *big[p], 1, 2);
        widen(gaps);
    }
    // Stage C, the vertical gaps (2x+2, 2y+1): centres left and right, even pixels above and
    // below.
    {
        const Neighbour nb[4] = {{kOddOdd, 0, 0, false},
                                 {kOddOdd, 1, 0, false},
                                 {kEvenEven, 1, 0, true},
                                 {kEvenEven, 1, 1, true}};
        estimate(k, kEvenOdd, 1, 0, nb, gaps.data());
        narrow(gaps);
        for (int p = 0; p < planeCount; ++p) putHalfImage(*gaps[p], *big[p], 2, 1);
        widen(gaps);
    }
    return 1;
}

}  // namespace qx
