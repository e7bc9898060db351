// Composites for the flows' tests: I = a F + (1 - a) B with a known alpha, where background seen
// through holes deep inside the undecided band is what a local solve alone gets wrong.
#pragma once

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "flows/flow_image.h"

namespace flowtest {

using qx::flows::FlowImage;

// A composite with its truth: three colour planes, tri-map and alpha on 0..1.
struct Scene {
    int width = 0, height = 0;
    std::vector<unsigned char> planes[3];
    std::vector<unsigned char> tri;
    std::vector<double> alpha;
    std::vector<unsigned char> holes;  // 1 where background shows through a hole

    FlowImage image() const {
        FlowImage f;
        f.width = width;
        f.height = height;
        for (int c = 0; c < 3; ++c) f.planes[c] = planes[c].data();
        f.planeStep = width;
        f.tri = tri.data();
        f.triStep = width;
        return f;
    }
};

// Background: dark colours that spread in all three directions (red across, green down, blue in
// 6-pixel checks); foreground: a square of light colours in 4-pixel checks, its red growing
// downwards, with a soft rim 3 pixels wide. Each layer spans the colour space, so no one affine
// function of the colour is 1 on the one and 0 on the other. Holes (discs of radius 3 where alpha is 0, the background
// showing) sit 7 pixels inside the square's edge, in the undecided band (`band` pixels either
// side of the edge) but surrounded by foreground: no decided pixel is near them.
inline Scene holesScene(int size = 96, int band = 12, bool withHoles = true) {
    Scene s;
    s.width = s.height = size;
    const int n = size * size;
    for (auto& p : s.planes) p.resize(size_t(n));
    s.tri.resize(size_t(n));
    s.alpha.resize(size_t(n));
    s.holes.assign(size_t(n), 0);
    const int lo = size / 4, hi = size - size / 4;  // the square [lo, hi)
    const int depth = 7;
    std::vector<std::pair<int, int>> centres;
    if (withHoles)
        for (int t = lo + 10; t < hi - 10; t += 12) {
            centres.push_back({t, lo + depth});
            centres.push_back({lo + depth, t});
            centres.push_back({t, hi - 1 - depth});
            centres.push_back({hi - 1 - depth, t});
        }
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) {
            const int p = y * size + x;
            // Distance to the square's edge, inside positive.
            const int inside = std::min({x - lo, hi - 1 - x, y - lo, hi - 1 - y});
            double a = std::clamp((inside + 1.5) / 3.0, 0.0, 1.0);
            for (const auto& c : centres)
                if (std::hypot(x - c.first, y - c.second) <= 3.0) {
                    a = 0.0;
                    s.holes[size_t(p)] = 1;
                }
            s.alpha[size_t(p)] = a;
            const bool fCheck = ((x / 4) + (y / 4)) % 2 == 0;
            const bool bCheck = ((x / 6) + (y / 6)) % 2 == 0;
            const double F[3] = {(fCheck ? 200.0 : 230.0) + 20.0 * y / size,
                                 fCheck ? 220.0 : 190.0, fCheck ? 180.0 : 215.0};
            const double B[3] = {40.0 + 60.0 * x / size, 40.0 + 60.0 * y / size,
                                 bCheck ? 40.0 : 100.0};
            for (int c = 0; c < 3; ++c)
                s.planes[c][size_t(p)] =
                    static_cast<unsigned char>(std::lround(a * F[c] + (1 - a) * B[c]));
            s.tri[size_t(p)] = std::abs(inside) <= band ? 128 : inside > 0 ? 255 : 0;
        }
    return s;
}

// Mean |alpha - truth| over the pixels where `where` is 1 (or all undecided pixels when empty).
inline double meanError(const Scene& s, const std::vector<unsigned char>& out,
                 const std::vector<unsigned char>& where = {}) {
    double sum = 0.0;
    int count = 0;
    for (int p = 0; p < s.width * s.height; ++p) {
        if (where.empty() ? s.tri[size_t(p)] != 128 : where[size_t(p)] == 0) continue;
        sum += std::abs(out[size_t(p)] / 255.0 - s.alpha[size_t(p)]);
        ++count;
    }
    return count ? sum / count : 0.0;
}

}  // namespace flowtest
