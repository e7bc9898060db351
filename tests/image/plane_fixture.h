// Test planes with padded rows and a readable frame: the region sits `frame` pixels in from
// every side, each row carries pad bytes after the frame, and one spare row follows the last.
// Everything outside the region is filled with a byte pattern, so a test can check that an
// operation wrote its region and nothing else.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "image/primitives.h"

namespace qx::test {

template <typename T>
class Plane {
public:
    Plane(int width, int height, int channels = 1, int frame = 0, int padElements = 5)
        : width_(width), height_(height), channels_(channels), frame_(frame) {
        const int rowElements = (width + 2 * frame) * channels + padElements;
        step_ = rowElements * static_cast<int>(sizeof(T));
        rows_ = height + 2 * frame + 1;
        bytes_.resize(static_cast<size_t>(step_) * rows_ + sizeof(T));
        // Each plane gets its own pattern, so a stray copy from another plane's pads shows.
        static uint32_t planes = 0;
        const uint32_t salt = ++planes * 2654435761u;
        for (size_t i = 0; i < bytes_.size(); ++i)
            bytes_[i] = static_cast<uint8_t>((salt >> 13) ^ (i * 7));
        snapshot();
    }

    T* data() { return at(0, 0); }
    const T* data() const { return const_cast<Plane*>(this)->at(0, 0); }
    int step() const { return step_; }
    prim::Size size() const { return {width_, height_}; }
    int width() const { return width_; }
    int height() const { return height_; }

    // Element c of pixel (x, y) of the region; x and y may reach into the frame.
    T* at(int x, int y, int c = 0) {
        auto* base = reinterpret_cast<T*>(bytes_.data() + static_cast<size_t>(step_) * (y + frame_));
        return base + (x + frame_) * channels_ + c;
    }
    T& operator()(int x, int y, int c = 0) { return *at(x, y, c); }
    T operator()(int x, int y, int c = 0) const { return *const_cast<Plane*>(this)->at(x, y, c); }

    // Fills region and frame (not the pads) from a generator of (x, y, c).
    template <class F>
    void fill(F f) {
        for (int y = -frame_; y < height_ + frame_; ++y)
            for (int x = -frame_; x < width_ + frame_; ++x)
                for (int c = 0; c < channels_; ++c) (*this)(x, y, c) = static_cast<T>(f(x, y, c));
        snapshot();
    }
    void fillRandom(uint32_t seed, int lo, int hi) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> d(lo, hi);
        fill([&](int, int, int) { return d(rng); });
    }

    // Records the current bytes as the state the outside must keep.
    void snapshot() { before_ = bytes_; }
    // True when every byte outside the region is as at the last snapshot.
    bool outsideUnchanged() const {
        const size_t regionStart = static_cast<size_t>(frame_ * channels_) * sizeof(T);
        const size_t regionBytes = static_cast<size_t>(width_ * channels_) * sizeof(T);
        for (size_t i = 0; i < bytes_.size(); ++i) {
            const size_t row = i / step_, col = i % step_;
            const bool inRegion = row >= static_cast<size_t>(frame_) &&
                                  row < static_cast<size_t>(frame_ + height_) &&
                                  col >= regionStart && col < regionStart + regionBytes;
            if (!inRegion && bytes_[i] != before_[i]) return false;
        }
        return true;
    }
    // True when nothing at all changed since the snapshot.
    bool unchanged() const { return bytes_ == before_; }

private:
    int width_, height_, channels_, frame_;
    int step_ = 0, rows_ = 0;
    std::vector<uint8_t> bytes_, before_;
};

}  // namespace qx::test
