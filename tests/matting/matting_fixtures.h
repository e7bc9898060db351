// Synthetic composites whose alpha is known, over padded planes (editor/padded_plane.h), for
// the matting and keep-cut tests.
#pragma once

#include <cmath>
#include <cstdint>
#include <algorithm>
#include <random>
#include <vector>

#include "editor/padded_plane.h"
#include "image/img.h"

namespace qxtest {

// A composite I = a F + (1 - a) B over three planes, with a soft disc as alpha: 1 inside
// radius r0, 0 outside r1, linear in between. F and B are constant colours plus an optional
// small texture of the background, so that the colour-line model holds in every window.
struct Composite {
    int width, height;
    PaddedPlane planes[3];
    PaddedPlane trimap;
    std::vector<double> alpha;  // ground truth, 0..1

    Composite(int w, int h, double r0, double r1, int band, double texture = 0.0,
              unsigned seed = 1)
        : width(w), height(h), alpha(static_cast<size_t>(w) * h) {
        const double fg[3] = {220, 60, 40}, bgBase[3] = {30, 90, 200};
        std::mt19937 rng(seed);
        std::uniform_real_distribution<double> noise(-1.0, 1.0);
        for (auto& p : planes) p = PaddedPlane(w, h, 1, 0, 5);
        trimap = PaddedPlane(w, h, 1, 0, 3);
        const double cx = w / 2.0, cy = h / 2.0;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const double d = std::hypot(x + 0.5 - cx, y + 0.5 - cy);
                const double a = d <= r0 ? 1.0 : d >= r1 ? 0.0 : (r1 - d) / (r1 - r0);
                alpha[static_cast<size_t>(y) * w + x] = a;
                const double t = texture * noise(rng);
                for (int c = 0; c < 3; ++c) {
                    const double v = a * fg[c] + (1 - a) * (bgBase[c] + t);
                    planes[c].at(x, y) = static_cast<unsigned char>(std::lround(std::clamp(v, 0.0, 255.0)));
                }
                // Undecided within `band` pixels of the soft edge.
                trimap.at(x, y) = d < r0 - band ? 255 : d > r1 + band ? 0 : 128;
            }
        }
    }
    unsigned char* planePtrs[3];
    unsigned char** planeArray() {
        for (int c = 0; c < 3; ++c) planePtrs[c] = planes[c].data();
        return planePtrs;
    }
    // Mean absolute error over the undecided pixels of the tri-map, on the 0..1 scale.
    double meanError(const PaddedPlane& result) const {
        double sum = 0;
        int n = 0;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                if (trimap.at(x, y) == 128) {
                    sum += std::fabs(result.at(x, y) / 255.0 - alpha[static_cast<size_t>(y) * width + x]);
                    ++n;
                }
        return n ? sum / n : 0.0;
    }
    int unknownCount() const {
        return int(std::count(trimap.buf.begin(), trimap.buf.end(), 128));
    }
};

}  // namespace qxtest
