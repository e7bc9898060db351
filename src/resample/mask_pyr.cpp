#include "resample/mask_pyr.h"

#include <exception>

#include "resample/upsample2x.h"

namespace qx {

namespace {

// Halves `src` into a new owned image of (w + 1) / 2 x (h + 1) / 2. The reduction writes
// w / 2 x h / 2 pixels; an odd height repeats the last written row, then an odd width the
// last written column, so the corner takes its upper-left neighbour.
void reduceInto(GIMG<unsigned char>*& slot, GIMG<unsigned char>& src, int w, int h, int filter) {
    const int nw = (w + 1) / 2;
    const int nh = (h + 1) / 2;
    slot = new GIMG<unsigned char>(nw, nh);
    GIMG<unsigned char>& dst = *slot;
    CDnsampleQX2X(src, dst, filter);
    if (h & 1)
        prim::copy_8u_C1(dst.row(nh - 2), dst.step, dst.row(nh - 1), dst.step, {nw, 1});
    if (w & 1)
        prim::copy_8u_C1(dst.ptr(nw - 2, 0), dst.step, dst.ptr(nw - 1, 0), dst.step, {1, nh});
}

bool atLeast(const GIMG<unsigned char>* img, int w, int h) {
    return img != nullptr && img->data != nullptr && img->width >= w && img->height >= h;
}

}  // namespace

CMaskPyr::CMaskPyr() : levels(-1) {
    for (int l = 0; l < 4; ++l) {
        plane0[l] = plane1[l] = plane2[l] = known[l] = alpha[l] = nullptr;
    }
}

CMaskPyr::~CMaskPyr() noexcept(false) {
    const int err = releaseLevels();
    if (err != 0 && std::uncaught_exceptions() == 0) fail(Fault(err));
}

int CMaskPyr::releaseLevels() {
    int first = 0;
    GIMG<unsigned char>** arrays[5] = {plane0, plane1, plane2, known, alpha};
    for (GIMG<unsigned char>** a : arrays) {
        a[0] = nullptr;
        for (int l = 1; l < 4; ++l) {
            GIMG<unsigned char>* img = a[l];
            a[l] = nullptr;
            try {
                delete img;
            } catch (const Failure& e) {
                if (first == 0) first = e.value();
            }
        }
    }
    return first;
}

void CMaskPyr::cleanUp() {
    const int err = releaseLevels();
    if (err != 0) fail(Fault(err));
}

int CMaskPyr::build(GIMG<unsigned char>** planes, GIMG<unsigned char>* knownMap,
                    GIMG<unsigned char>* alphaMap, int levelCount) {
    if (levelCount < 0 || levelCount >= 4) return 1;
    if (planes == nullptr || alphaMap == nullptr || alphaMap->data == nullptr) return 1;
    const int w0 = alphaMap->width;
    const int h0 = alphaMap->height;
    if (!atLeast(planes[0], w0, h0) || !atLeast(planes[1], w0, h0) ||
        !atLeast(planes[2], w0, h0) || !atLeast(knownMap, w0, h0))
        return 1;
    // Every level that is halved needs two pixels in each direction.
    for (int l = 0, w = w0, h = h0; l < levelCount; ++l, w = (w + 1) / 2, h = (h + 1) / 2)
        if (w < 2 || h < 2) return 1;

    levels = levelCount;
    cleanUp();
    plane0[0] = planes[0];
    plane1[0] = planes[1];
    plane2[0] = planes[2];
    known[0] = knownMap;
    alpha[0] = alphaMap;

    for (int l = 1; l <= levelCount; ++l) {
        const int w = alpha[l - 1]->width;
        const int h = alpha[l - 1]->height;
        reduceInto(plane0[l], *plane0[l - 1], w, h, 1);
        reduceInto(plane1[l], *plane1[l - 1], w, h, 1);
        reduceInto(plane2[l], *plane2[l - 1], w, h, 1);
        reduceInto(known[l], *known[l - 1], w, h, 0);
        reduceInto(alpha[l], *alpha[l - 1], w, h, 0);
    }
    return 0;
}

int CMaskPyr::upSamplingOneLevel(int level) {
    if (level < 1 || level > levels) return 0;
    GIMG<unsigned char>* src[2] = {alpha[level], nullptr};
    GIMG<unsigned char>* dst[2] = {alpha[level - 1], nullptr};
    GIMG<unsigned char>* guide[3] = {plane0[level - 1], plane1[level - 1], plane2[level - 1]};
    return CUpSampleQX2X(src, dst, 1, guide, 3, 9.0f);
}

int CMaskPyr::upSampling() {
    for (int l = levels; l >= 1; --l) upSamplingOneLevel(l);
    return 1;
}

GIMG<unsigned char>* CMaskPyr::getPlane(int index, int level) const {
    if (level < 0 || level > levels || level > 3) return nullptr;
    switch (index) {
        case 0: return plane0[level];
        case 1: return plane1[level];
        case 2: return plane2[level];
        default: return nullptr;
    }
}
GIMG<unsigned char>* CMaskPyr::getKnown(int level) const {
    return (level < 0 || level > levels || level > 3) ? nullptr : known[level];
}
GIMG<unsigned char>* CMaskPyr::getAlpha(int level) const {
    return (level < 0 || level > levels || level > 3) ? nullptr : alpha[level];
}

}  // namespace qx
