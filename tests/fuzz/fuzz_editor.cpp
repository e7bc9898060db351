// The mask editor's tools on one document: a code plane, a 4-byte image and an alpha plane,
// worked on by a sequence of brush strokes, flood fills, colour-range strokes, desaturation and
// filters chosen by the fuzzer, each call checked against the host's buffers.
#include <cstddef>
#include <cstdint>

#include "fuzz_host.h"

using namespace qxfuzz;

namespace {

bool validRadius(int r) { return r >= 0 && r <= 16383; }

void drawLineChecked(Input& in, HostPlane& mask, int w, int h) {
    const std::vector<uint8_t> before = mask.pixels();
    const int x0 = in.wideInt(-8, w + 8), y0 = in.wideInt(-8, h + 8);
    const int x1 = in.wideInt(-8, w + 8), y1 = in.wideInt(-8, h + 8);
    const int radius = in.wideInt(0, 6);
    const uint8_t mode = in.range<uint8_t>(0, 4), value = in.byte();
    const uint8_t codes[5] = {1, 255, 126, uint8_t((value & 254) + 1), 0};
    int step = mask.step();
    if (step == w && in.flag()) step = 0;
    mask.snapshot();
    const int rc = qxDrawLine8u(mask.data(), step, w, h, x0, y0, x1, y1, radius, mode, value);
    const char* call = "qxDrawLine8u";
    if (refused(!validRadius(radius), rc, 0, call, mask)) return;
    expect(rc == 1, "status other than 1", call);
    mask.checkWritable(call);
    mask.eachPixel(before, [&](int, int, uint8_t was, uint8_t now) {
        if (was != now) expect(now == codes[mode], "a stroke wrote a byte other than its code", call);
    });
}

void floodFill(Input& in, HostPlane& mask, int w, int h) {
    const int sx = in.wideInt(-2, w + 1), sy = in.wideInt(-2, h + 1);
    const uint8_t mode = in.range<uint8_t>(0, 3);
    HostPlane rect(4, 1, sizeof(int), 4 * sizeof(int));
    rect.fillValue(0x5A);
    mask.snapshot();
    const int rc = qxFloodFillAlpha(mask.data(), mask.step(), w, h, sx, sy, 0, 0, mode, 0,
                                    reinterpret_cast<int*>(rect.data()));
    const char* call = "qxFloodFillAlpha";
    rect.checkWritable(call);
    const bool outside = sx < 0 || sy < 0 || sx >= w || sy >= h;
    int r[4];
    std::memcpy(r, rect.data(), sizeof r);
    expect(outside == (rc == -3), "seed outside not refused, or inside refused", call);
    if (rc == -3) {
        mask.checkUntouched(call);
        expect(r[0] == 0 && r[1] == 0 && r[2] == 0 && r[3] == 0, "rect not zeroed", call);
        return;
    }
    if (rc == -1) return mask.checkWritable(call);
    expect(rc == 1, "unknown status", call);
    mask.checkWritable(call);
    expect(r[0] >= 0 && r[1] >= 0 && r[2] >= 0 && r[3] >= 0 && int64_t(r[0]) + r[2] <= w &&
               int64_t(r[1]) + r[3] <= h,
           "changed rectangle outside the plane", call);
    expect(mask.unchangedOutside(r[0], r[1], r[2], r[3]), "change outside the reported rect",
           call);
}

void colourRange(Input& in, HostPlane& image, HostPlane& mask, int w, int h) {
    GrabCutRequest req{.image = image.data(), .imageStep = image.step(), .mask = mask.data(),
                       .maskStep = mask.step(), .width = w, .height = h};
    // Fields the brush does not read: a host may leave anything in them.
    req.roiLeft = in.wideInt(0, w);
    req.roiTop = in.wideInt(0, h);
    req.roiWidth = in.wideInt(0, w);
    req.roiHeight = in.wideInt(0, h);
    const int x0 = in.wideInt(-8, w + 8), y0 = in.wideInt(-8, h + 8);
    const int x1 = in.wideInt(-8, w + 8), y1 = in.wideInt(-8, h + 8);
    const int radius = in.wideInt(0, 6);
    uint8_t colour[3] = {in.byte(), in.byte(), in.byte()};
    const unsigned tolerance =
        in.flag() ? in.range<unsigned>(0, 200) : in.range<unsigned>(0, 0xFFFFFFFFu);
    const uint8_t fg = in.range<uint8_t>(0, 2);
    const std::vector<uint8_t> before = mask.pixels();
    snapshotAll(image, mask);
    const int rc = qxColorRangeSelect(&req, x0, y0, x1, y1, radius, colour, tolerance, fg);
    const char* call = "qxColorRangeSelect";
    image.checkUntouched(call);
    if (refused(!validRadius(radius), rc, 0, call, mask)) return;
    expect(rc == 1, "status other than 1", call);
    mask.checkWritable(call);
    mask.eachPixel(before, [&](int, int, uint8_t was, uint8_t now) {
        if (was == now) return;
        expect((was & 1) == 0, "a fixed pixel was overwritten", call);
        expect(now == (fg ? 255 : 1), "a byte other than the brush's code", call);
    });
}

void desaturate(Input& in, HostPlane& image, HostPlane& alpha, int w, int h) {
    const float strength = in.wideFloat(0.0f, 1.0f);
    snapshotAll(image, alpha);
    const int rc = qxDesaturation(image.data(), image.step(), w, h, alpha.data(), alpha.step(),
                                  strength);
    const char* call = "qxDesaturation";
    expect(rc == 1, "status other than 1", call);
    alpha.checkUntouched(call);
    image.checkWritable(call);
}

void filter(Input& in, HostPlane& plane, int w, int h) {
    const int mode = in.wideInt(-1, 2);
    plane.snapshot();
    const int rc = qxfilterIm8u(plane.data(), plane.step(), w, h, mode);
    const char* call = "qxfilterIm8u";
    expect(rc == 1, "status other than 1", call);
    if (mode == 0 || mode == 1) plane.checkWritable(call);
    else plane.checkUntouched(call);
}

// Every tool with a plane the fuzzer may have made invalid: all must refuse and write nothing.
void refusals(Input& in) {
    const PlaneShape s = shapeFor(in, 24, 24, 1);
    const PlaneShape t = shapeFor(in, 24, 24, 4);
    // The tools take one width and height for both planes.
    const int w = s.width, h = s.height;
    const bool maskOk = validShape(w, h, s.step, 1), imageOk = validShape(w, h, t.step, 4);
    if (maskOk && imageOk) return;
    HostPlane mask(w, h, 1, s.step), image(w, h, 4, t.step), alpha(w, h, 1, s.step);
    for (HostPlane* p : {&mask, &image, &alpha}) p->fill(in, p == &mask);
    if (!maskOk && s.step != 0)
        refused(true, qxDrawLine8u(mask.data(), s.step, w, h, 1, 1, 3, 3, 1, 1, 0), 0,
                "qxDrawLine8u", mask);
    if (!maskOk) {
        int rect[4] = {7, 7, 7, 7};
        refused(true, qxFloodFillAlpha(mask.data(), s.step, w, h, 0, 0, 0, 0, 1, 0, rect), 0,
                "qxFloodFillAlpha", mask);
        expect(rect[0] == 7 && rect[3] == 7, "rect written on refusal", "qxFloodFillAlpha");
        refused(true, qxfilterIm8u(mask.data(), s.step, w, h, 1), 0, "qxfilterIm8u", mask);
    }
    GrabCutRequest req{.image = image.data(), .imageStep = t.step, .mask = mask.data(),
                       .maskStep = s.step, .width = w, .height = h};
    const uint8_t colour[3] = {1, 2, 3};
    refused(true, qxColorRangeSelect(&req, 0, 0, 2, 2, 1, colour, 1000, 1), 0,
            "qxColorRangeSelect", mask, image);
    refused(true, qxDesaturation(image.data(), t.step, w, h, alpha.data(), s.step, 1.0f), 0,
            "qxDesaturation", image, alpha);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    if (in.range<int>(0, 7) == 0) {
        refusals(in);
        return 0;
    }
    const int w = in.range<int>(1, 40), h = in.range<int>(1, 40);
    HostPlane mask(w, h, 1, w + in.pad());
    HostPlane image(w, h, 4, w * 4 + in.pad());
    HostPlane alpha(w, h, 1, w + in.pad());
    for (HostPlane* p : {&mask, &image, &alpha}) p->fill(in, p == &mask);
    const int ops = in.range<int>(1, 6);
    for (int i = 0; i < ops && in.remaining() > 0; ++i) {
        switch (in.range<int>(0, 5)) {
        case 0: drawLineChecked(in, mask, w, h); break;
        case 1: floodFill(in, mask, w, h); break;
        case 2: colourRange(in, image, mask, w, h); break;
        case 3: desaturate(in, image, alpha, w, h); break;
        case 4: filter(in, in.flag() ? mask : alpha, w, h); break;
        default: drawLineChecked(in, mask, w, h), floodFill(in, mask, w, h);
        }
    }
    return 0;
}
