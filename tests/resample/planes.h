// Test planes with padded rows: the row step is larger than the row, and the pad bytes hold a
// marker so that a test can check that nothing was written past the end of a row.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "image/img.h"

namespace qx::test {

template <typename T>
class PaddedPlane {
public:
    static constexpr int kPad = 5;  // elements of padding behind every row
    PaddedPlane(int w, int h, T fill = T(0))
        : width_(w), height_(h), stride_(w + kPad), buf_(static_cast<size_t>(stride_) * h) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < stride_; ++x) buf_[idx(x, y)] = x < w ? fill : marker();
    }
    int width() const { return width_; }
    int height() const { return height_; }
    int stepBytes() const { return stride_ * static_cast<int>(sizeof(T)); }
    T* data() { return buf_.data(); }
    T& at(int x, int y) { return buf_[idx(x, y)]; }
    T at(int x, int y) const { return buf_[idx(x, y)]; }
    // A non-owning image over the whole plane.
    GIMG<T> view() { return GIMG<T>(width_, height_, buf_.data(), stepBytes()); }
    bool padIntact() const {
        for (int y = 0; y < height_; ++y)
            for (int x = width_; x < stride_; ++x)
                if (std::memcmp(&buf_[idx(x, y)], &kMarkerBytes, sizeof(T)) != 0) return false;
        return true;
    }
    void fillRandom(std::mt19937& rng, int lo, int hi) {
        std::uniform_int_distribution<int> d(lo, hi);
        for (int y = 0; y < height_; ++y)
            for (int x = 0; x < width_; ++x) at(x, y) = static_cast<T>(d(rng));
    }

private:
    static constexpr uint32_t kMarkerBytes = 0xA5A5A5A5u;
    static T marker() {
        T v;
        std::memcpy(&v, &kMarkerBytes, sizeof(T));
        return v;
    }
    size_t idx(int x, int y) const { return static_cast<size_t>(y) * stride_ + x; }
    int width_;
    int height_;
    int stride_;
    std::vector<T> buf_;
};

using Plane8 = PaddedPlane<uint8_t>;
using Plane32f = PaddedPlane<float>;

// Same size and same pixels (pads are not compared).
template <typename T>
bool samePixels(const PaddedPlane<T>& a, const PaddedPlane<T>& b) {
    if (a.width() != b.width() || a.height() != b.height()) return false;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            if (a.at(x, y) != b.at(x, y)) return false;
    return true;
}

}  // namespace qx::test
