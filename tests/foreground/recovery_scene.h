// Synthetic composites with a known foreground for the recovery tests: smooth foreground and
// background colours, an alpha with a wide soft edge, and the composite rounded to bytes.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace fgtest {

struct Scene {
    int w = 0, h = 0;
    std::vector<uint8_t> alpha;      // w x h
    std::vector<uint8_t> fg, bg;     // w x h x 3, the truth
    std::vector<uint8_t> composite;  // w x h x 4, byte 3 = 77
};

inline uint8_t toByte(double v) { return uint8_t(std::lround(std::clamp(v, 0.0, 255.0))); }

// Foreground and background vary slowly and differ strongly from each other.
inline double fgColour(int c, int x, int y, int w, int h) {
    const double u = double(x) / w, v = double(y) / h;
    const double base[3] = {200, 60, 40};
    return base[c] + 40 * (c == 1 ? u : v) - 20 * (c == 2 ? u : 0);
}
inline double bgColour(int c, int x, int y, int w, int h) {
    const double u = double(x) / w, v = double(y) / h;
    const double base[3] = {30, 170, 220};
    return base[c] - 30 * (c == 0 ? v : u);
}

// A disc of foreground whose edge is `soft` pixels wide (alpha falls linearly over it).
inline Scene discScene(int w, int h, double radius, double soft) {
    Scene s;
    s.w = w;
    s.h = h;
    s.alpha.resize(size_t(w) * h);
    s.fg.resize(size_t(w) * h * 3);
    s.bg.resize(size_t(w) * h * 3);
    s.composite.resize(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const size_t i = size_t(y) * w + x;
            const double d = std::hypot(x - w / 2.0, y - h / 2.0);
            const double a = std::clamp((radius + soft / 2 - d) / soft, 0.0, 1.0);
            s.alpha[i] = toByte(255 * a);
            const double ab = s.alpha[i] / 255.0;
            for (int c = 0; c < 3; ++c) {
                s.fg[3 * i + c] = toByte(fgColour(c, x, y, w, h));
                s.bg[3 * i + c] = toByte(bgColour(c, x, y, w, h));
                s.composite[4 * i + c] = toByte(ab * s.fg[3 * i + c] + (1 - ab) * s.bg[3 * i + c]);
            }
            s.composite[4 * i + 3] = 77;
        }
    return s;
}

// The benchmark's measure: over 0 < a < 1, a * (|dR| + |dG| + |dB|) on the 0..1 scale.
// `est` has `channels` bytes a pixel and rows of w * channels bytes; `inset` leaves out a frame.
inline double fgError(const Scene& s, const uint8_t* est, int channels, int inset = 0) {
    double e = 0;
    for (int y = inset; y < s.h - inset; ++y)
        for (int x = inset; x < s.w - inset; ++x) {
            const size_t i = size_t(y) * s.w + x;
            const int a = s.alpha[i];
            if (a == 0 || a == 255) continue;
            double d = 0;
            for (int c = 0; c < 3; ++c)
                d += std::abs(int(est[channels * i + c]) - int(s.fg[3 * i + c])) / 255.0;
            e += a / 255.0 * d;
        }
    return e;
}

// Progress reports of one job.
struct Reports {
    std::vector<int> current, total;
    static int proc(int current, int total, void* self) {
        static_cast<Reports*>(self)->current.push_back(current);
        static_cast<Reports*>(self)->total.push_back(total);
        return 1;
    }
};

}  // namespace fgtest
