// Tri-map matting: the mask box on 8- and 16-bit tri-maps, and the closed-form alpha job on
// small images, with codes, levels, budgets and planes chosen by the fuzzer.
#include <cstddef>
#include <cstdint>

#include "fuzz_host.h"

using namespace qxfuzz;

namespace {

void maskBox(Input& in) {
    const int is16 = in.range<int>(0, 2);  // any non-zero value is a 16-bit plane
    const int bpp = is16 ? 2 : 1;
    const PlaneShape s = shapeFor(in, 64, 64, bpp);
    HostPlane plane(s.width, s.height, bpp, s.step);
    plane.fill(in, true);
    HostPlane out(6, 1, sizeof(int), 6 * sizeof(int));
    out.fillValue(0x3C);
    const int fgCode = in.wideInt(0, 255), bgCode = in.wideInt(0, 255);
    const int missing = in.range<int>(0, 15);  // a null output now and then
    int* o = reinterpret_cast<int*>(out.data());
    int* outs[6] = {o, o + 1, o + 2, o + 3, o + 4, o + 5};
    if (missing < 6) outs[missing] = nullptr;
    const bool refuse = !validShape(s.width, s.height, s.step, bpp) || missing < 4;
    const int rc = qxMaskBBox(is16, plane.data(), s.step, s.width, s.height, outs[0], outs[1],
                              outs[2], outs[3], outs[4], outs[5], 0, fgCode, bgCode);
    const char* call = "qxMaskBBox";
    plane.checkUntouched(call);
    out.checkWritable(call);
    if (refused(refuse, rc, 0, call, out)) return;
    expect(rc == 1, "status other than 1", call);
    int v[6];
    std::memcpy(v, out.data(), sizeof v);
    const int left = v[0], width = v[1], top = v[2], height = v[3];
    if (width == 0 && height == 0) {
        expect(left == 0 && top == 0, "empty box not at 0,0", call);
        for (int i = 4; i < 6; ++i)
            if (outs[i]) expect(v[i] == -1, "empty box without counts -1", call);
        return;
    }
    expect(left >= 0 && top >= 0 && width >= 1 && height >= 24 &&
               int64_t(left) + width <= s.width && int64_t(top) + height <= s.height,
           "box outside the plane or under 24 rows", call);
    if (outs[4] && outs[5]) {
        const int64_t area = int64_t(width) * height;
        // A pixel may count twice (equal codes, or overlapping 16-bit ranges).
        expect(v[4] >= 0 && v[5] >= 0 && v[4] <= area && v[5] <= area, "counts beyond the box",
               call);
    } else {
        for (int i = 4; i < 6; ++i)
            if (outs[i]) expect(v[i] == 0x3C3C3C3C, "a count written without its pair", call);
    }
}

void maskAlpha(Input& in) {
    const PlaneShape s = shapeFor(in, 40, 40, 1);
    const int planeStep = stepFor(in, std::max(s.width, 0), 1);
    HostPlane r(s.width, s.height, 1, planeStep), g(s.width, s.height, 1, planeStep),
        b(s.width, s.height, 1, planeStep), mask(s.width, s.height, 1, s.step);
    for (HostPlane* p : {&r, &g, &b, &mask}) p->fill(in, p == &mask);
    HostPlane planes(3, 1, sizeof(void*), 3 * sizeof(void*));
    unsigned char* p[3] = {r.data(), g.data(), b.data()};
    std::memcpy(planes.data(), p, sizeof p);
    planes.snapshot();
    const bool nullPlanes = in.range<int>(0, 15) == 0;
    int calls = 0;
    MaskRequest req{.planes = nullPlanes ? nullptr : reinterpret_cast<unsigned char**>(planes.data()),
                    .planeStep = planeStep, .mask = mask.data(), .maskStep = s.step,
                    .width = s.width, .height = s.height};
    if (in.flag()) {
        req.progProc = progressProbe;
        req.progParam = &calls;
    }
    const float unknown = in.wideFloat(0.0f, float(s.width * s.height));
    const int fgCode = in.wideInt(128, 255), bgCode = in.wideInt(0, 127);
    const int levelHigh = in.wideInt(128, 255), levelLow = in.wideInt(0, 127);
    const bool refuse = nullPlanes || !validShape(s.width, s.height, s.step, 1) ||
                        !validShape(s.width, s.height, planeStep, 1);
    const int rc = qxMaskAlpha(&req, 0, unknown, fgCode, bgCode, levelHigh, levelLow);
    const char* call = "qxMaskAlpha";
    untouched(call, planes, r, g, b);
    if (refused(refuse, rc, -1000, call, mask)) return;
    mask.checkWritable(call);
    expect(rc == 1 || (rc <= -870 && rc >= -1001), "status outside the documented set", call);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    if (in.flag()) maskBox(in);
    else maskAlpha(in);
    return 0;
}
