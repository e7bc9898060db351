// qxFloodFillAlpha: the mask editor's bucket tool. It paints the 8-connected region around the
// clicked pixel in the host's code plane. Regions are found on a label image that only knows
// three classes (fixed background, fixed foreground, everything else), so a click fills across
// all undecided levels at once, as the user sees them.
#include <cstdint>
#include <memory>

#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "image/img.h"
#include "image/primitives.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

constexpr uint8_t kLabelBackground = 0;  // code 1
constexpr uint8_t kLabelForeground = 1;  // code 255
constexpr uint8_t kLabelOther = 2;       // every other code
// Mode 2 fills with a value of its own: it has to tell the reached pixels of the "other" label
// from the unreached ones.
constexpr uint8_t kLabelReached = 127;

// The seed already holds what the mode paints: nothing to do.
bool alreadyPainted(uint8_t code, unsigned char mode) {
    return (mode == 0 && code == 1) || (mode == 1 && code == 255) || (mode == 2 && code == 126);
}

struct AlignedDeleter {
    void operator()(uint8_t* p) const { prim::freeAligned(p); }
};

int floodFillCodes(uint8_t* mask, int step, int width, int height, int seedX, int seedY,
                   unsigned char mode, int* rect) {
    const auto codeRow = [&](int y) { return mask + static_cast<int64_t>(y) * step; };
    if (alreadyPainted(codeRow(seedY)[seedX], mode)) return 1;

    GIMG<uint8_t> labels(width, height);
#pragma omp parallel for schedule(static, 1)
    for (int y = 0; y < height; ++y) {
        const uint8_t* c = codeRow(y);
        uint8_t* l = labels.row(y);
        for (int x = 0; x < width; ++x)
            l[x] = c[x] == 1 ? kLabelBackground : c[x] == 255 ? kLabelForeground : kLabelOther;
    }

    const prim::Size size{width, height};
    int scratchBytes = 0;
    prim::floodFillBufferSize(size, &scratchBytes);
    std::unique_ptr<uint8_t, AlignedDeleter> scratch(
        static_cast<uint8_t*>(prim::allocBlock(scratchBytes > 0 ? scratchBytes : 1)));
    if (!scratch) return -1;

    // Tolerance 0 both ways: exactly the pixels connected to the seed through its own label.
    const uint8_t newValue = mode == 2 ? kLabelReached : mode;
    prim::ConnectedComp region{};
    prim::floodFill8_8u_C1I({seedX, seedY}, newValue, 0, 0, labels.data, labels.step, size,
                            &region, scratch.get());
    scratch.reset();

    int x = region.rect.x < 0 ? 0 : region.rect.x;
    int y = region.rect.y < 0 ? 0 : region.rect.y;
    int w = region.rect.width < 0 ? 0 : region.rect.width;
    int h = region.rect.height < 0 ? 0 : region.rect.height;
    if (static_cast<int64_t>(x) + w > width) {
        x = 0;
        w = width;
    }
    if (static_cast<int64_t>(y) + h > height) {
        y = 0;
        h = height;
    }

    if (mode == 0 || mode == 1) {
        // Testing the label alone also rewrites unreached pixels of that label inside the
        // rectangle; they already hold the code that is written.
        const uint8_t label = mode == 1 ? kLabelForeground : kLabelBackground;
        const uint8_t code = mode == 1 ? 255 : 1;
        for (int yy = y; yy < y + h; ++yy) {
            const uint8_t* l = labels.row(yy);
            uint8_t* c = codeRow(yy);
            for (int xx = x; xx < x + w; ++xx)
                if (l[xx] == label) c[xx] = code;
        }
    } else if (mode == 2) {
        // Only reached pixels change; every other pixel keeps its code. The host is told that
        // the whole plane may have changed.
        for (int yy = 0; yy < height; ++yy) {
            const uint8_t* l = labels.row(yy);
            uint8_t* c = codeRow(yy);
            for (int xx = 0; xx < width; ++xx)
                if (l[xx] == kLabelReached) c[xx] = 126;
        }
        x = 0;
        y = 0;
        w = width;
        h = height;
    }
    rect[0] = x;
    rect[1] = y;
    rect[2] = w;
    rect[3] = h;
    return 1;
}

}  // namespace
}  // namespace qx

extern "C" QX_API int qxFloodFillAlpha(unsigned char* mask, int step, int width, int height,
                                       int seedX, int seedY, int64_t, int64_t, unsigned char mode,
                                       int64_t, int* rect) {
    if (!qx::validPlane(mask, step, width, height, 1) || rect == nullptr) return 0;
    rect[0] = rect[1] = rect[2] = rect[3] = 0;
    // Negative coordinates are outside the plane as well.
    if (seedX < 0 || seedY < 0 || seedX >= width || seedY >= height) return -3;
    return qx::guardedCall(
        [&] { return qx::floodFillCodes(mask, step, width, height, seedX, seedY, mode, rect); },
        -1);
}
