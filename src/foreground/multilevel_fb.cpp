#include "foreground/multilevel_fb.h"

#include <algorithm>
#include <cmath>

namespace qx {

// Levels smaller than this run on one thread: a parallel loop's start costs more there.
constexpr int kParallelPixels = 1 << 16;

FbLevel fbHalve(const FbLevel& f) {
    FbLevel c;
    c.w = (f.w + 1) / 2;
    c.h = (f.h + 1) / 2;
    c.I.assign(size_t(c.w) * c.h * 3, 0.f);
    c.A.assign(size_t(c.w) * c.h, 0.f);
#pragma omp parallel for schedule(static) if (c.w * c.h >= kParallelPixels)
    for (int y = 0; y < c.h; ++y) {
        const int ya = 2 * y, yb = std::min(f.h - 1, 2 * y + 1);
        for (int x = 0; x < c.w; ++x) {
            const int xa = 2 * x, xb = std::min(f.w - 1, 2 * x + 1);
            const size_t q[4] = {size_t(ya) * f.w + xa, size_t(ya) * f.w + xb,
                                 size_t(yb) * f.w + xa, size_t(yb) * f.w + xb};
            const size_t p = size_t(y) * c.w + x;
            c.A[p] = 0.25f * (f.A[q[0]] + f.A[q[1]] + f.A[q[2]] + f.A[q[3]]);
            for (int k = 0; k < 3; ++k)
                c.I[3 * p + k] = 0.25f * (f.I[3 * q[0] + k] + f.I[3 * q[1] + k] +
                                          f.I[3 * q[2] + k] + f.I[3 * q[3] + k]);
        }
    }
    return c;
}

void fbStartFrom(FbLevel& f, const FbLevel& c) {
    f.F.resize(size_t(f.w) * f.h * 3);
    f.B.resize(f.F.size());
#pragma omp parallel for schedule(static) if (f.w * f.h >= kParallelPixels)
    for (int y = 0; y < f.h; ++y) {
        const int cy = std::min(c.h - 1, (f.y0 + y) / 2);
        for (int x = 0; x < f.w; ++x) {
            const int cx = std::min(c.w - 1, (f.x0 + x) / 2);
            const size_t p = 3 * (size_t(y) * f.w + x), q = 3 * (size_t(cy) * c.w + cx);
            for (int k = 0; k < 3; ++k) {
                f.F[p + k] = c.F[q + k];
                f.B[p + k] = c.B[q + k];
            }
        }
    }
}

namespace {

// Smoothing weight between two neighbours.
inline float weight(float a, float b) {
    const float g = std::fabs(a - b);
    return kFbEpsilon + g * std::sqrt(g);
}

// What a relaxation reads besides F and B, worked out once a level: which pixels are solved,
// and the weights to the right and lower neighbours (0 past the border).
struct Links {
    std::vector<uint8_t> solved;
    std::vector<float> right, down;
};

// Pixels of alpha 0 or 1 with the same alpha on all four sides take the image as their F
// (alpha 1) or B (alpha 0) once and are not solved.
Links prepare(FbLevel& L) {
    const int w = L.w, h = L.h;
    Links k;
    k.solved.assign(size_t(w) * h, 0);
    k.right.assign(size_t(w) * h, 0.f);
    k.down.assign(size_t(w) * h, 0.f);
    const float* A = L.A.data();
#pragma omp parallel for schedule(static) if (w * h >= kParallelPixels)
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t p = size_t(y) * w + x;
            const float a0 = A[p];
            if (x + 1 < w) k.right[p] = weight(a0, A[p + 1]);
            if (y + 1 < h) k.down[p] = weight(a0, A[p + w]);
            bool flat = a0 <= 0.f || a0 >= 1.f;
            if (flat && x > 0) flat = A[p - 1] == a0;
            if (flat && x + 1 < w) flat = A[p + 1] == a0;
            if (flat && y > 0) flat = A[p - w] == a0;
            if (flat && y + 1 < h) flat = A[p + w] == a0;
            k.solved[p] = !flat;
            if (flat) {
                float* known = a0 >= 1.f ? L.F.data() : L.B.data();
                for (int c = 0; c < 3; ++c) known[3 * p + c] = L.I[3 * p + c];
            }
        }
    }
    return k;
}

// One half-sweep: the solved pixels whose global x + y has the parity `colour`.
void halfSweep(FbLevel& L, const Links& k, int colour) {
    const int w = L.w, h = L.h;
    const float* A = L.A.data();
    const float* I = L.I.data();
    float* F = L.F.data();
    float* B = L.B.data();
#pragma omp parallel for schedule(dynamic, 8) if (w * h >= kParallelPixels)
    for (int y = 0; y < h; ++y) {
        const int first = ((colour - L.x0 - L.y0 - y) % 2 + 2) % 2;
        const size_t row = size_t(y) * w;
        for (int x = first; x < w; x += 2) {
            const size_t p = row + x;
            if (!k.solved[p]) continue;
            const float a0 = A[p], a1 = 1.f - a0;
            size_t nb[4];
            float wt[4];
            int n = 0;
            if (x > 0) nb[n] = p - 1, wt[n++] = k.right[p - 1];
            if (x + 1 < w) nb[n] = p + 1, wt[n++] = k.right[p];
            if (y > 0) nb[n] = p - w, wt[n++] = k.down[p - w];
            if (y + 1 < h) nb[n] = p + w, wt[n++] = k.down[p];
            float m00 = a0 * a0, m11 = a1 * a1;
            const float m01 = a0 * a1;
            float f[3], b[3];
            for (int c = 0; c < 3; ++c) {
                f[c] = a0 * I[3 * p + c];
                b[c] = a1 * I[3 * p + c];
            }
            for (int i = 0; i < n; ++i) {
                const size_t q = nb[i];
                const float d = wt[i];
                m00 += d;
                m11 += d;
                for (int c = 0; c < 3; ++c) {
                    f[c] += d * F[3 * q + c];
                    b[c] += d * B[3 * q + c];
                }
            }
            // A pixel without neighbours (a one-pixel image or level) has a singular system: its
            // partial alpha says nothing of how to split the colour, and F and B stay as started.
            const float det = m00 * m11 - m01 * m01;
            if (!(det > 1e-20f)) continue;
            const float inv = 1.f / det;
            for (int c = 0; c < 3; ++c) {
                const float fs = inv * (m11 * f[c] - m01 * b[c]);
                const float bs = inv * (m00 * b[c] - m01 * f[c]);
                float& fo = F[3 * p + c];
                float& bo = B[3 * p + c];
                fo = std::clamp(fo + kFbOmega * (fs - fo), 0.f, 1.f);
                bo = std::clamp(bo + kFbOmega * (bs - bo), 0.f, 1.f);
            }
        }
    }
}

}  // namespace

void fbRelax(FbLevel& L, const std::function<void()>& tick) {
    const Links links = prepare(L);
    for (int it = 0; it < kFbIterations; ++it) {
        halfSweep(L, links, 0);
        halfSweep(L, links, 1);
        if (tick) tick();
    }
}

}  // namespace qx
