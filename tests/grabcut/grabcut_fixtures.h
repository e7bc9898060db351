// Host-side planes for the GrabCut tests: a 4-byte colour image, a code plane and a result
// plane with padded rows (the pad must never be written), and a request over them.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "qxiveilon31.h"

namespace qx::test {

struct Rect {
    int x, y, w, h;
    bool contains(int px, int py) const { return px >= x && px < x + w && py >= y && py < y + h; }
};

class HostPlane {
public:
    static constexpr int kPad = 3;
    static constexpr unsigned char kPadByte = 0xA7;
    HostPlane(int w, int h, int bytesPerPixel, unsigned char fill)
        : w_(w), h_(h), bpp_(bytesPerPixel), step_(w * bytesPerPixel + kPad),
          buf_(static_cast<size_t>(step_) * h, kPadByte) {
        for (int y = 0; y < h; ++y) std::memset(row(y), fill, static_cast<size_t>(w) * bpp_);
    }
    unsigned char* data() { return buf_.data(); }
    int step() const { return step_; }
    unsigned char* row(int y) { return buf_.data() + static_cast<size_t>(y) * step_; }
    unsigned char& at(int x, int y, int byte = 0) { return row(y)[x * bpp_ + byte]; }
    bool padIntact() const {
        for (int y = 0; y < h_; ++y)
            for (int i = w_ * bpp_; i < step_; ++i)
                if (buf_[static_cast<size_t>(y) * step_ + i] != kPadByte) return false;
        return true;
    }
    bool operator==(const HostPlane& o) const { return buf_ == o.buf_; }
    int width() const { return w_; }
    int height() const { return h_; }

private:
    int w_, h_, bpp_, step_;
    std::vector<unsigned char> buf_;
};

// A request over the whole of the host's planes; image and result may be null.
inline GrabCutRequest requestOver(HostPlane* image, HostPlane& mask, HostPlane* result) {
    GrabCutRequest r{};
    if (image != nullptr) {
        r.image = image->data();
        r.imageStep = image->step();
    }
    r.mask = mask.data();
    r.maskStep = mask.step();
    if (result != nullptr) {
        r.result = result->data();
        r.resultStep = result->step();
    }
    r.width = r.roiWidth = mask.width();
    r.height = r.roiHeight = mask.height();
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
