// The display functions: alpha previews, level stretching, the keep blend and the auto-level
// previews, on planes, styles, levels and weights chosen by the fuzzer.
#include <cstddef>
#include <cstdint>

#include "fuzz_host.h"

using namespace qxfuzz;

namespace {

void showAlpha(Input& in, const PlaneShape& s) {
    const int alphaStep = stepFor(in, std::max(s.width, 0), 1);
    HostPlane image(s.width, s.height, 4, s.step), alpha(s.width, s.height, 1, alphaStep);
    HostPlane colour(3, 1, 1, 3);
    for (HostPlane* p : {&image, &alpha, &colour}) p->fill(in, p == &alpha);
    const uint8_t high = in.byte(), low = in.flag() ? high : in.byte();
    const int style = in.wideInt(0, 7);
    const bool noColour = in.range<int>(0, 7) == 0;
    const bool needsColour = style == 3 || style == 4 || style == 6;
    const bool refuse = !validShape(s.width, s.height, s.step, 4) ||
                        !validShape(s.width, s.height, alphaStep, 1) ||
                        (needsColour && noColour) || (style >= 3 && style <= 6 && high == low);
    const int rc = qxShowImageAlpha(image.data(), s.step, s.width, s.height, alpha.data(),
                                    alphaStep, high, low, style,
                                    noColour ? nullptr : colour.data());
    const char* call = "qxShowImageAlpha";
    untouched(call, alpha, colour);
    if (refused(refuse, rc, 0, call, image)) return;
    expect(rc == 1, "status other than 1", call);
    if (style < 1 || style > 6) image.checkUntouched(call);
    else image.checkWritable(call);
}

void scale(Input& in, const PlaneShape& s) {
    HostPlane alpha(s.width, s.height, 1, s.step);
    alpha.fill(in, true);
    const uint8_t high = in.byte(), low = in.flag() ? high : in.byte();
    const int keepFixed = in.range<int>(0, 2);
    const bool refuse = !validShape(s.width, s.height, s.step, 1) || high == low;
    const std::vector<uint8_t> before = alpha.pixels();
    const int rc = qxScaleAlpha(alpha.data(), s.step, s.width, s.height, high, low, keepFixed);
    const char* call = "qxScaleAlpha";
    if (refused(refuse, rc, 0, call, alpha)) return;
    expect(rc == 1, "status other than 1", call);
    alpha.checkWritable(call);
    if (!keepFixed) return;
    // Fixed (odd) codes stay; everything else comes out even.
    alpha.eachPixel(before, [&](int, int, uint8_t was, uint8_t now) {
        if (was & 1) expect(now == was, "a fixed code changed", call);
        else expect((now & 1) == 0, "a computed value came out odd", call);
    });
}

void keepBlend(Input& in, const PlaneShape& s) {
    const int keepStep = stepFor(in, std::max(s.width, 0), 4);
    HostPlane image(s.width, s.height, 4, s.step), keep(s.width, s.height, 4, keepStep);
    for (HostPlane* p : {&image, &keep}) p->fill(in, false);
    const float weight = in.wideFloat(0.0f, 1.0f);
    const bool refuse = !validShape(s.width, s.height, s.step, 4) ||
                        !validShape(s.width, s.height, keepStep, 4);
    const std::vector<uint8_t> byte3 = refuse ? std::vector<uint8_t>() : image.channel(3);
    qxShowKeepBlend(image.data(), s.step, s.width, s.height, keep.data(), keepStep, 0, 0, weight);
    const char* call = "qxShowKeepBlend";
    keep.checkUntouched(call);
    if (refuse) return image.checkUntouched(call);
    image.checkWritable(call);
    expect(image.channel(3) == byte3, "byte 3 of a pixel changed", call);
}

void ycbcr(Input& in, const PlaneShape& s) {
    HostPlane image(s.width, s.height, 3, s.step);
    image.fill(in, false);
    const int view = in.wideInt(-1, 5), level = in.wideInt(-2, 300);
    const int rc = qxRGB2YCbCrAutoLevel(image.data(), s.step, s.width, s.height, view, level);
    const char* call = "qxRGB2YCbCrAutoLevel";
    const bool refuse = !validShape(s.width, s.height, s.step, 3) || view < 0 || view > 4;
    if (refused(refuse, rc, 0, call, image)) return;
    expect(rc == 1, "status other than 1", call);
    image.checkWritable(call);
}

void previewLevel(Input& in, const PlaneShape& s) {
    HostPlane image(s.width, s.height, 3, s.step);
    image.fill(in, false);
    const float level = in.wideFloat(0.0f, 300.0f);
    const bool refuse = !validShape(s.width, s.height, s.step, 3);
    const std::vector<uint8_t> before = image.pixels();
    const int rc = qxPreviewAutoLevel(image.data(), s.step, s.width, s.height, level);
    const char* call = "qxPreviewAutoLevel";
    if (refused(refuse, rc, 0, call, image)) return;
    expect(rc == 1, "status other than 1", call);
    image.checkWritable(call);
    size_t k = 0;
    for (int y = 0; y < s.height; ++y)
        for (int i = 0; i < s.width * 3; ++i, ++k)
            expect(image.at(i, y) >= before[k], "the preview darkened a byte", call);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const int which = in.range<int>(0, 4);
    const int bpp = which == 0 || which == 2 ? 4 : which == 1 ? 1 : 3;
    const PlaneShape s = shapeFor(in, 48, 48, bpp);
    switch (which) {
    case 0: showAlpha(in, s); break;
    case 1: scale(in, s); break;
    case 2: keepBlend(in, s); break;
    case 3: ycbcr(in, s); break;
    default: previewLevel(in, s);
    }
    return 0;
}
