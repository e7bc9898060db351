// A host-side pixel buffer for the C interface tests: rows are a few bytes longer than the
// pixels need, and those pad bytes hold a marker that the library must never write.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace qxtest {

class PaddedPlane {
public:
    static constexpr uint8_t kPad = 0xA7;

    PaddedPlane(int width, int height, int bytesPerPixel = 1, uint8_t fill = 0, int pad = 5)
        : width(width),
          height(height),
          bpp(bytesPerPixel),
          step(width * bytesPerPixel + pad),
          buf(static_cast<size_t>(step) * height, kPad) {
        setAll(fill);
    }
    PaddedPlane() : PaddedPlane(0, 0) {}

    uint8_t* data() { return buf.data(); }
    uint8_t& at(int x, int y, int c = 0) { return buf[size_t(y) * step + size_t(x) * bpp + c]; }
    uint8_t at(int x, int y, int c = 0) const {
        return buf[size_t(y) * step + size_t(x) * bpp + c];
    }
    void setAll(uint8_t v) {
        for (int y = 0; y < height; ++y)
            for (int i = 0; i < width * bpp; ++i) buf[size_t(y) * step + i] = v;
    }
    // Sets every pixel to the same bytes.
    void setPixels(std::initializer_list<uint8_t> bytes) {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                int c = 0;
                for (uint8_t b : bytes) at(x, y, c++) = b;
            }
    }
    bool padsIntact() const {
        for (int y = 0; y < height; ++y)
            for (int i = width * bpp; i < step; ++i)
                if (buf[size_t(y) * step + i] != kPad) return false;
        return true;
    }

    int width, height, bpp, step;
    std::vector<uint8_t> buf;
};

}  // namespace qxtest
