// Host-side planes for the GrabCut tests (the editor's padded planes: the pad must never be
// written), a request over them and a scene of two colours.
#pragma once

#include <cstdint>
#include "editor/padded_plane.h"
#include "qxiveilon31.h"

namespace qx::test {

struct Rect {
    int x, y, w, h;
    bool contains(int px, int py) const { return px >= x && px < x + w && py >= y && py < y + h; }
};

using HostPlane = qxtest::PaddedPlane;

// A request over the whole of the host's planes; image and result may be null.
inline GrabCutRequest requestOver(HostPlane* image, HostPlane& mask, HostPlane* result) {
    GrabCutRequest r{};
    if (image != nullptr) {
        r.image = image->data();
        r.imageStep = image->step;
    }
    r.mask = mask.data();
    r.maskStep = mask.step;
    if (result != nullptr) {
        r.result = result->data();
        r.resultStep = result->step;
    }
    r.width = r.roiWidth = mask.width;
    r.height = r.roiHeight = mask.height;
    return r;
}

// A scene of two flat colours: `subject` inside the rectangle, `ground` elsewhere (bytes 0..2
// of each pixel; byte 3 holds noise that must not matter).
struct TwoColourScene {
    HostPlane image, mask, result;
    Rect subject;
    TwoColourScene(int w, int h, Rect s, unsigned char code = 126)
        : image(w, h, 4, 0), mask(w, h, 1, code), result(w, h, 1, 77), subject(s) {
        const unsigned char in[3] = {40, 200, 60}, out[3] = {210, 60, 170};
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const unsigned char* c = s.contains(x, y) ? in : out;
                for (int b = 0; b < 3; ++b) image.at(x, y, b) = c[b];
                image.at(x, y, 3) = static_cast<unsigned char>(x * 7 + y * 13);
            }
    }
    GrabCutRequest request() { return requestOver(&image, mask, &result); }
};

}  // namespace qx::test
