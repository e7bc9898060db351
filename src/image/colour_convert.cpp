// Colour conversions between planar float images: grey, the YCbCr twists and HLS. The twists
// and the HLS model are the primitives'; here they meet three separate IMG planes.
#include <initializer_list>

#include "image/base_tools.h"

namespace qx {

namespace {

// The three planes exist and are at least as large as the first.
bool validPlanes(IMG<float, 1>* const planes[3]) {
    if (planes == nullptr || !planes[0] || !planes[1] || !planes[2]) return false;
    const int w = planes[0]->width, h = planes[0]->height;
    if (w < 1 || h < 1) return false;
    for (int i = 1; i < 3; ++i)
        if (planes[i]->width < w || planes[i]->height < h) return false;
    return true;
}

// The twist runs over one common step: planes of different steps go through a packed copy.
int twist(IMG<float, 1>* const planes[3], const float table[3][4]) {
    if (!validPlanes(planes)) return 1;
    const prim::Size size = planes[0]->size();
    if (planes[1]->step == planes[0]->step && planes[2]->step == planes[0]->step) {
        float* const p[3] = {planes[0]->data, planes[1]->data, planes[2]->data};
        prim::colorTwist_32f_P3I(p, planes[0]->step, size, table);
        return 1;
    }
    IMG<float, 1> a(size.width, size.height), b(size.width, size.height),
        c(size.width, size.height);
    IMG<float, 1>* copies[3] = {&a, &b, &c};
    for (int i = 0; i < 3; ++i)
        prim::copy_32f_C1(planes[i]->data, planes[i]->step, copies[i]->data, copies[i]->step, size);
    float* const p[3] = {a.data, b.data, c.data};
    prim::colorTwist_32f_P3I(p, a.step, size, table);
    for (int i = 0; i < 3; ++i)
        prim::copy_32f_C1(copies[i]->data, copies[i]->step, planes[i]->data, planes[i]->step, size);
    return 1;
}

// Interleaves the planes, converts, and splits the result back. clampFirst limits every channel
// to 0..1 before converting.
template <typename Convert>
int throughInterleaved(IMG<float, 1>* const planes[3], bool clampFirst, Convert convert) {
    if (!validPlanes(planes)) return 1;
    const prim::Size size = planes[0]->size();
    IMG<float, 3> in(size.width, size.height), out(size.width, size.height);
    for (int i = 0; i < 3; ++i)
        prim::insertChannel_32f_C1C3(planes[i]->data, planes[i]->step, in.data + i, in.step, size);
    if (clampFirst) {
        const float lo[3] = {0.0f, 0.0f, 0.0f}, hi[3] = {1.0f, 1.0f, 1.0f};
        prim::clampBelow_32f_C3I(in.data, in.step, size, lo);
        prim::clampAbove_32f_C3I(in.data, in.step, size, hi);
    }
    convert(in.data, in.step, out.data, out.step, size);
    for (int i = 0; i < 3; ++i)
        prim::extractChannel_32f_C3C1(out.data + i, out.step, planes[i]->data, planes[i]->step,
                                      size);
    return 1;
}

}  // namespace

void RGB2Gray(IMG<float, 1>& r, IMG<float, 1>& g, IMG<float, 1>& b, IMG<float, 1>& gray) {
    const int w = gray.width, h = gray.height;
    if (w < 1 || h < 1) return;
    for (const IMG<float, 1>* p : {&r, &g, &b})
        if (p->width < w || p->height < h) return;
    IMG<float, 1> scaled(w, h);
    prim::mulC_32f_C1(r.data, r.step, 0.299f, gray.data, gray.step, {w, h});
    prim::mulC_32f_C1(g.data, g.step, 0.587f, scaled.data, scaled.step, {w, h});
    prim::add_32f_C1I(scaled.data, scaled.step, gray.data, gray.step, {w, h});
    prim::mulC_32f_C1(b.data, b.step, 0.114f, scaled.data, scaled.step, {w, h});
    prim::add_32f_C1I(scaled.data, scaled.step, gray.data, gray.step, {w, h});
}

void RGB2Gray(IMG<float, 1>* const planes[3], IMG<float, 1>& gray) {
    if (planes == nullptr || !planes[0] || !planes[1] || !planes[2]) return;
    RGB2Gray(*planes[0], *planes[1], *planes[2], gray);
}

int RGB2YCbCr(IMG<float, 1>* const planes[3], bool noOffset) {
    static const float kOffset[3][4] = {{0.299f, 0.587f, 0.114f, 0.0f},
                                        {-0.13062f, -0.25644f, 0.38706f, 0.61176f},
                                        {0.37288f, -0.31224f, -0.060639f, 0.53725f}};
    static const float kNoOffset[3][4] = {{0.299f, 0.587f, 0.114f, 0.0f},
                                          {-0.1306f, -0.2564f, 0.3871f, 0.0f},
                                          {0.3729f, -0.3122f, -0.0606f, 0.0f}};
    return twist(planes, noOffset ? kNoOffset : kOffset);
}

int YCbCr2RGB(IMG<float, 1>* const planes[3], bool noOffset) {
    static const float kOffset[3][4] = {{1.0f, 0.0f, 1.88f, -1.01003f},
                                        {1.0f, -0.4446f, -0.9576f, 0.786429f},
                                        {1.0f, 2.289f, 0.0f, -1.400319f}};
    static const float kNoOffset[3][4] = {{1.0f, 0.0f, 1.88f, 0.0f},
                                          {1.0f, -0.4446f, -0.9576f, 0.0f},
                                          {1.0f, 2.289f, 0.0f, 0.0f}};
    return twist(planes, noOffset ? kNoOffset : kOffset);
}

int RGB2HLS(IMG<float, 1>* const planes[3]) {
    return throughInterleaved(planes, false, prim::rgbToHls_32f_C3);
}

int HLS2RGB(IMG<float, 1>* const planes[3]) {
    return throughInterleaved(planes, true, prim::hlsToRgb_32f_C3);
}

}  // namespace qx
