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
    const int x0 = in.wideInt(-8, w + 8);
    const int y0 = in.wideInt(-8, h + 8);
    const int x1 = in.wideInt(-8, w + 8);
    const int y1 = in.wideInt(-8, h + 8);
    const int radius = in.wideInt(0, 6);
    const uint8_t mode = in.range<uint8_t>(0, 4), value = in.byte();
    int step = mask.step();
    if (step == w && in.flag()) step = 0;
    mask.snapshot();
    trace("qxDrawLine8u %dx%d step %d (%d,%d)-(%d,%d) radius %d mode %d value %d\n", w, h, step,
          x0, y0, x1, y1, radius, mode, value);
    const int rc = qxDrawLine8u(mask.data(), step, w, h, x0, y0, x1, y1, radius, mode, value);
    const char* call = "qxDrawLine8u";
    if (refused(!validRadius(radius), rc, 0, call, mask)) return;
    expect(rc == 1, "status other than 1", call);
    mask.checkWritable(call);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t was = before[size_t(y) * w + x], now = mask.at(x, y);
            if (was == now) continue;
            uint8_t code = 0;
            switch (mode) {
            case 0: code = 1; break;
            case 1: code = 255; break;
            case 2: code = 126; break;
            case 3: code = uint8_t((value & 254) + 1); break;
            default: code = 0;
            }
            expect(now == code, "a stroke wrote a byte other than its mode's code", call);
        }
}

void floodFill(Input& in, HostPlane& mask, int w, int h) {
    const int sx = in.wideInt(-2, w + 1), sy = in.wideInt(-2, h + 1);
    const uint8_t mode = in.range<uint8_t>(0, 3);
    HostPlane rect(4, 1, sizeof(int), 4 * sizeof(int));
    rect.fillValue(0x5A);
    mask.snapshot();
    trace("qxFloodFillAlpha %dx%d seed (%d,%d) mode %d\n", w, h, sx, sy, mode);
    const int rc = qxFloodFillAlpha(mask.data(), mask.step(), w, h, sx, sy, 0, 0, mode, 0,
                                    reinterpret_cast<int*>(rect.data()));
    const char* call = "qxFloodFillAlpha";
    rect.checkWritable(call);
    if (rc == -3) {
        expect(sx < 0 || sy < 0 || sx >= w || sy >= h, "seed inside reported outside", call);
        mask.checkUntouched(call);
        int r[4];
        std::memcpy(r, rect.data(), sizeof r);
        expect(r[0] == 0 && r[1] == 0 && r[2] == 0 && r[3] == 0, "rect not zeroed", call);
        return;
    }
    expect(!(sx < 0 || sy < 0 || sx >= w || sy >= h), "seed outside not refused", call);
    if (rc == -1) {
        mask.checkWritable(call);
        return;
    }
    expect(rc == 1, "unknown status", call);
    mask.checkWritable(call);
    int r[4];
    std::memcpy(r, rect.data(), sizeof r);
    expect(r[0] >= 0 && r[1] >= 0 && r[2] >= 0 && r[3] >= 0 && int64_t(r[0]) + r[2] <= w &&
               int64_t(r[1]) + r[3] <= h,
           "changed rectangle outside the plane", call);
    expect(mask.unchangedOutside(r[0], r[1], r[2], r[3]), "change outside the reported rect",
           call);
}

void colourRange(Input& in, HostPlane& image, HostPlane& mask, int w, int h) {
    GrabCutRequest req{};
    req.image = image.data();
    req.imageStep = image.step();
    req.mask = mask.data();
    req.maskStep = mask.step();
    req.width = w;
    req.height = h;
    // Fields the brush does not read: a host may leave anything in them.
    req.roiLeft = in.wideInt(0, w);
    req.roiTop = in.wideInt(0, h);
    req.roiWidth = in.wideInt(0, w);
    req.roiHeight = in.wideInt(0, h);
    const int x0 = in.wideInt(-8, w + 8);
    const int y0 = in.wideInt(-8, h + 8);
    const int x1 = in.wideInt(-8, w + 8);
    const int y1 = in.wideInt(-8, h + 8);
    const int radius = in.wideInt(0, 6);
    uint8_t colour[3] = {in.byte(), in.byte(), in.byte()};
    const unsigned tolerance =
        in.flag() ? in.range<unsigned>(0, 200) : in.range<unsigned>(0, 0xFFFFFFFFu);
    const uint8_t fg = in.range<uint8_t>(0, 2);
    const std::vector<uint8_t> before = mask.pixels();
    image.snapshot();
    mask.snapshot();
    trace("qxColorRangeSelect %dx%d (%d,%d)-(%d,%d) radius %d tolerance %u fg %d\n", w, h, x0, y0,
          x1, y1, radius, tolerance, fg);
    const int rc = qxColorRangeSelect(&req, x0, y0, x1, y1, radius, colour, tolerance, fg);
    const char* call = "qxColorRangeSelect";
    image.checkUntouched(call);
    if (refused(!validRadius(radius), rc, 0, call, mask)) return;
    expect(rc == 1, "status other than 1", call);
    mask.checkWritable(call);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t was = before[size_t(y) * w + x], now = mask.at(x, y);
            if (was == now) continue;
            expect((was & 1) == 0, "a fixed pixel was overwritten", call);
            expect(now == (fg ? 255 : 1), "a byte other than the brush's code", call);
        }
}

void desaturate(Input& in, HostPlane& image, HostPlane& alpha, int w, int h) {
    const float strength = in.wideFloat(0.0f, 1.0f);
    image.snapshot();
    alpha.snapshot();
    trace("qxDesaturation %dx%d strength %g\n", w, h, double(strength));
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
    trace("qxfilterIm8u %dx%d mode %d\n", w, h, mode);
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
    mask.fill(in, true);
    image.fill(in, false);
    alpha.fill(in, false);
    int rc;
    if (!maskOk && s.step != 0) {
        rc = qxDrawLine8u(mask.data(), s.step, w, h, 1, 1, 3, 3, 1, 1, 0);
        expect(rc == 0, "invalid plane not refused", "qxDrawLine8u");
        mask.checkUntouched("qxDrawLine8u");
    }
    if (!maskOk) {
        int rect[4] = {7, 7, 7, 7};
        rc = qxFloodFillAlpha(mask.data(), s.step, w, h, 0, 0, 0, 0, 1, 0, rect);
        expect(rc == 0 && rect[0] == 7 && rect[3] == 7, "invalid plane not refused",
               "qxFloodFillAlpha");
        mask.checkUntouched("qxFloodFillAlpha");
        rc = qxfilterIm8u(mask.data(), s.step, w, h, 1);
        expect(rc == 0, "invalid plane not refused", "qxfilterIm8u");
        mask.checkUntouched("qxfilterIm8u");
    }
    GrabCutRequest req{};
    req.image = image.data();
    req.imageStep = t.step;
    req.mask = mask.data();
    req.maskStep = s.step;
    req.width = w;
    req.height = h;
    const uint8_t colour[3] = {1, 2, 3};
    rc = qxColorRangeSelect(&req, 0, 0, 2, 2, 1, colour, 1000, 1);
    expect(rc == 0, "invalid plane not refused", "qxColorRangeSelect");
    mask.checkUntouched("qxColorRangeSelect");
    image.checkUntouched("qxColorRangeSelect");
    rc = qxDesaturation(image.data(), t.step, w, h, alpha.data(), s.step, 1.0f);
    expect(rc == 0, "invalid plane not refused", "qxDesaturation");
    image.checkUntouched("qxDesaturation");
    alpha.checkUntouched("qxDesaturation");
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
    mask.fill(in, true);
    image.fill(in, false);
    alpha.fill(in, false);
    const int ops = in.range<int>(1, 6);
    for (int i = 0; i < ops && in.remaining() > 0; ++i) {
        switch (in.range<int>(0, 5)) {
        case 0: drawLineChecked(in, mask, w, h); break;
        case 1: floodFill(in, mask, w, h); break;
        case 2: colourRange(in, image, mask, w, h); break;
        case 3: desaturate(in, image, alpha, w, h); break;
        case 4: filter(in, in.flag() ? mask : alpha, w, h); break;
        default: {
            // A brush stroke on the colour-range plane too, then a fill from its end.
            drawLineChecked(in, mask, w, h);
            floodFill(in, mask, w, h);
        }
        }
    }
    return 0;
}
