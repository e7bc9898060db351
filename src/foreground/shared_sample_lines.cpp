// The rays of the shared-sample separation: the slope table and the walk that gathers samples.
#include <cmath>
#include <cstdlib>
#include <new>

#include "runtime/fault.h"
#include "foreground/shared_sample.h"

namespace qx {

namespace {

constexpr float kPi = 3.14159265358979f;  // the single-precision constant the angles use

}  // namespace

SampleSet::SampleSet(int64_t pixels) {
    try {
        fg.assign(static_cast<size_t>(4 * pixels), SharedSample{});
        bg.assign(static_cast<size_t>(4 * pixels), SharedSample{});
        fgCount.assign(static_cast<size_t>(pixels), 0);
        bgCount.assign(static_cast<size_t>(pixels), 0);
    } catch (const std::bad_alloc&) {
        fail(Fault::ArrayMemory);
    }
}

LineSet::LineSet(int w, int h) : tangent45(std::tan(0.25f * kPi)), width(w), height(h) {
#pragma omp parallel for
    for (int r = 0; r < 3; ++r)
        for (int q = 0; q < 4; ++q)
            for (int c = 0; c < 9; ++c)
                slopes[q][r][c] =
                    std::tan(q * kPi / 2.0f + r * kPi / 6.0f + c * kPi / 18.0f);
}

void LineSet::searchLine(int x, int y, int i, const uint8_t* known, int knownStep,
                         const uint8_t* alpha, int alphaStep, const IMG<float, 3>& image,
                         SampleSet& samples) const {
    uint8_t& nf = samples.fgCount[i];
    uint8_t& nb = samples.bgCount[i];
    for (int q = 0; q < 4; ++q) {
        const float m = slopes[q][y % 3][x % 9];
        const float b = static_cast<float>(y) - static_cast<float>(x) * m;
        bool foundF = false, foundB = false;
        // Looks at one pixel of the ray; true when the ray has found both kinds.
        auto visit = [&](int col, int row) {
            if (known[static_cast<int64_t>(row) * knownStep + col] == 0) return false;
            const uint8_t a = alpha[static_cast<int64_t>(row) * alphaStep + col];
            SharedSample* slot = nullptr;
            if (a == 255 && !foundF) {
                foundF = true;
                slot = &samples.fg[4 * static_cast<int64_t>(i) + nf++];
            } else if (a == 1 && !foundB) {
                foundB = true;
                slot = &samples.bg[4 * static_cast<int64_t>(i) + nb++];
            }
            if (slot) {
                const float* c = image.ptr(col, row);
                slot->colour[0] = c[0];
                slot->colour[1] = c[1];
                slot->colour[2] = c[2];
                slot->x = static_cast<int16_t>(col);
                slot->y = static_cast<int16_t>(row);
            }
            return foundF && foundB;
        };
        // The axis comes from the first records of the arrays, whatever they hold now.
        const SharedSample& f0 = samples.fg[0];
        const SharedSample& b0 = samples.bg[0];
        const bool alongRows = std::abs(f0.y - b0.y) >= std::abs(f0.x - b0.x);
        // Positions are truncated towards zero, so (-1, 0) still lands on 0; anything beyond
        // the image (a slope of 0 or a vertical ray gives infinities or NaN here) ends the ray.
        if (alongRows) {
            const int dir = q <= 1 ? -1 : 1, end = q <= 1 ? -1 : height;
            for (int row = y; row != end; row += dir) {
                const double v = static_cast<double>((static_cast<float>(row) - b) / m) + 0.5;
                if (!(v > -1.0 && v < width)) break;
                if (visit(static_cast<int>(v), row)) break;
            }
        } else {
            const int dir = (q == 1 || q == 2) ? -1 : 1, end = dir < 0 ? -1 : width;
            for (int col = x; col != end; col += dir) {
                const double v = static_cast<double>(static_cast<float>(col) * m + b) + 0.5;
                if (!(v > -1.0 && v < height)) break;
                if (visit(col, static_cast<int>(v))) break;
            }
        }
    }
}

}  // namespace qx
