// Shared-sample separation: gathering candidate pairs along rays, choosing one per pixel by an
// energy, sharing the choices of the neighbours, and the foreground that comes out of it.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "runtime/fault.h"
#include "foreground/shared_sample.h"
#include "runtime/args.h"

namespace qx {

namespace {

constexpr float kFloatMax = 3.4028235e38f;

template <typename T>
void allocate(std::vector<T>& v, int64_t n, const T& value) {
    try {
        v.assign(static_cast<size_t>(n), value);
    } catch (const std::bad_alloc&) {
        fail(Fault::ArrayMemory);
    }
}

inline float dot3(const float* a, const float* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// |I - a F - (1 - a) B|, Euclidean over the three channels.
inline float fitError(const float* I, float a, const float* F, const float* B) {
    float s = 0.0f;
    for (int c = 0; c < 3; ++c) {
        const float d = I[c] - a * F[c] - (1.0f - a) * B[c];
        s += d * d;
    }
    return std::sqrt(s);
}

// ((I - B).(F - B)) / |F - B|^2, without guard or clamp.
inline float projectAlpha(const float* I, const float* F, const float* B) {
    const float ib[3] = {I[0] - B[0], I[1] - B[1], I[2] - B[2]};
    const float fb[3] = {F[0] - B[0], F[1] - B[1], F[2] - B[2]};
    return dot3(ib, fb) / dot3(fb, fb);
}

inline float squaredDistance(const float* a, const float* b) {
    const float d[3] = {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
    return dot3(d, d);
}

inline void copy3(float* d, const float* s) {
    d[0] = s[0];
    d[1] = s[1];
    d[2] = s[2];
}

// One candidate pair of a pixel.
struct Pair {
    float N, Df, Db, a;
    int32_t fx, fy, bx, by;
};

// Sum of |I(q) - centre|^2 over columns x0..x1-1 and rows y0..y1-1.
float windowSpread(const IMG<float, 3>& image, const float* centre, int x0, int x1, int y0,
                   int y1) {
    float s = 0.0f;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x) s += squaredDistance(image.ptr(x, y), centre);
    return s;
}

}  // namespace

float FBSeperationSharedSample::Eps(const IMG<float, 3>& gx, const IMG<float, 3>& gy, int px,
                                    int py, int sx, int sy) const {
    const float ddx = static_cast<float>(sx - px), ddy = static_cast<float>(sy - py);
    const float len = std::sqrt(ddx * ddx + ddy * ddy);
    const float dx = ddx / len, dy = ddy / len;
    // Steps of two pixels along the major axis while the minor coordinate grows by one slope
    // unit a step: the path covers half the way across on the minor axis. c is the colour's
    // change along the path, per channel: the major axis' difference plus the minor one's
    // times the slope, and |c|^2 is weighted by the signed major component of d.
    const bool alongX = std::fabs(dx) > std::fabs(dy);
    const float dMajor = alongX ? dx : dy, dMinor = alongX ? dy : dx;
    const int pMajor = alongX ? px : py, sMajor = alongX ? sx : sy;
    const int step = dMajor > 0 ? 2 : -2;
    const float inc = dMinor / std::fabs(dMajor), ratio = dMinor / dMajor;
    float minor = static_cast<float>(alongX ? py : px);
    float sum = 0.0f;
    for (int m = pMajor; step > 0 ? m < sMajor : m > sMajor; m += step, minor += inc) {
        const int n = static_cast<int>(minor + 0.5f);
        const float* along = alongX ? gx.ptr(m, n) : gy.ptr(n, m);
        const float* across = alongX ? gy.ptr(m, n) : gx.ptr(n, m);
        float c2 = 0.0f;
        for (int c = 0; c < 3; ++c) {
            const float v = across[c] * ratio + along[c];
            c2 += v * v;
        }
        sum += c2 * dMajor;
    }
    return sum * sum;
}

void FBSeperationSharedSample::sampleGathering(const IMG<float, 3>& image,
                                               const IMG<float, 1>& alphaF, const uint8_t* known,
                                               int knownStep, const uint8_t* alpha, int alphaStep,
                                               const std::vector<PixelPos>& unknown,
                                               IMG<float, 3>& Fs, IMG<float, 3>& Bs,
                                               IMG<float, 1>& varF, IMG<float, 1>& varB) {
    const int w = image.width, h = image.height;
    const int64_t count = static_cast<int64_t>(unknown.size());
    if (count == 0) return;

    // 1. Rays, in list order: each walk may read what the ones before stored.
    const LineSet lines(w, h);
    SampleSet samples(count);
    for (int64_t i = 0; i < count; ++i)
        lines.searchLine(unknown[i].x, unknown[i].y, static_cast<int>(i), known, knownStep, alpha,
                         alphaStep, image, samples);

    // 2. Every pair of a pixel with samples of both kinds, backgrounds outside. From here on
    // each pixel reads only what earlier stages finished and writes only its own entries, so
    // the loops over the list run in parallel with the same results; only the ray walk above
    // depends on the order.
    std::vector<Pair> pairs;
    allocate(pairs, 16 * count, Pair{});
#pragma omp parallel for schedule(dynamic, 256)
    for (int64_t i = 0; i < count; ++i) {
        const int nf = samples.fgCount[i], nb = samples.bgCount[i];
        if (nf == 0 || nb == 0) continue;
        const int px = unknown[i].x, py = unknown[i].y;
        const float* I = image.ptr(px, py);
        int n = 0;
        for (int bi = 0; bi < nb; ++bi) {
            const SharedSample& bs = samples.bg[4 * i + bi];
            for (int fi = 0; fi < nf; ++fi, ++n) {
                const SharedSample& fs = samples.fg[4 * i + fi];
                Pair& pr = pairs[16 * i + n];
                pr.Db = std::sqrt(float((bs.x - px) * (bs.x - px) + (bs.y - py) * (bs.y - py)));
                pr.Df = std::sqrt(float((fs.x - px) * (fs.x - px) + (fs.y - py) * (fs.y - py)));
                float N = 0.0f;  // the alpha of each neighbour q, not the pair's
                for (int qy = std::max(py - 1, 0); qy <= std::min(py + 1, h - 1); ++qy)
                    for (int qx = std::max(px - 1, 0); qx <= std::min(px + 1, w - 1); ++qx)
                        N += fitError(image.ptr(qx, qy), *alphaF.ptr(qx, qy), fs.colour, bs.colour);
                pr.N = N;
                pr.a = projectAlpha(I, fs.colour, bs.colour);
                pr.fx = fs.x;
                pr.fy = fs.y;
                pr.bx = bs.x;
                pr.by = bs.y;
            }
        }
    }

    // 3. Central differences of the colour, kernel (-0.5, 0, 0.5) anchored at its middle, over
    // the columns (rows) that have both neighbours; the outer ones stay 0.
    IMG<float, 3> gx(w, h), gy(w, h);
    const float zero[3] = {0.0f, 0.0f, 0.0f};
    Set(zero, gx);
    Set(zero, gy);
    const float diff[3] = {-0.5f, 0.0f, 0.5f};
    if (w > 2)
        prim::filterRow_32f_C3(image.ptr(1, 0), image.step, gx.ptr(1, 0), gx.step, {w - 2, h},
                               diff, 3, 1);
    if (h > 2)
        prim::filterColumn_32f_C3(image.ptr(0, 1), image.step, gy.ptr(0, 1), gy.step, {w, h - 2},
                                  diff, 3, 1);

    // 4. and 5. The foreground probability from the path energies, then the pair of least
    // g = N^3 A^2 Df Db^4 (strictly less: the first of equals wins; pair 0 when none is below
    // the float maximum).
#pragma omp parallel for schedule(dynamic, 256)
    for (int64_t i = 0; i < count; ++i) {
        const int nf = samples.fgCount[i], nb = samples.bgCount[i];
        if (nf == 0 || nb == 0) continue;
        const int px = unknown[i].x, py = unknown[i].y;
        float minF = kFloatMax, minB = kFloatMax;
        for (int k = 0; k < nf; ++k)
            minF = std::min(minF, Eps(gx, gy, px, py, samples.fg[4 * i + k].x, samples.fg[4 * i + k].y));
        for (int k = 0; k < nb; ++k)
            minB = std::min(minB, Eps(gx, gy, px, py, samples.bg[4 * i + k].x, samples.bg[4 * i + k].y));
        const float PF = minB / std::max(minF + minB, 1e-8f);
        float best = kFloatMax;
        int bestPair = 0;
        for (int n = 0; n < nf * nb; ++n) {
            const Pair& pr = pairs[16 * i + n];
            const float A = PF + pr.a * (1.0f - 2.0f * PF);
            const float g = pr.N * pr.N * pr.N * A * A * pr.Df * pr.Db * pr.Db * pr.Db * pr.Db;
            if (g < best) {
                best = g;
                bestPair = n;
            }
        }
        const Pair& pr = pairs[16 * i + bestPair];
        copy3(Fs.ptr(px, py), image.ptr(pr.fx, pr.fy));
        copy3(Bs.ptr(px, py), image.ptr(pr.bx, pr.by));

        // 6. Colour spread around the chosen samples: 4 x 4 around the foreground (offsets -2 up
        // to but not including +2), 5 x 5 around the background (-2..+2), one factor for both.
        const float* fsp = Fs.ptr(px, py);
        const float* bsp = Bs.ptr(px, py);
        *varF.ptr(px, py) =
            0.04f * windowSpread(image, fsp, std::max(pr.fx - 2, 0), pr.fx + std::min(2, w - 1 - pr.fx),
                                 std::max(pr.fy - 2, 0), pr.fy + std::min(2, h - 1 - pr.fy));
        *varB.ptr(px, py) =
            0.04f * windowSpread(image, bsp, std::max(pr.bx - 2, 0), pr.bx + std::min(2, w - 1 - pr.bx) + 1,
                                 std::max(pr.by - 2, 0), pr.by + std::min(2, h - 1 - pr.by) + 1);
    }
}

void FBSeperationSharedSample::sampleRefining(const IMG<float, 3>& image,
                                              const IMG<float, 1>& alphaF,
                                              const std::vector<PixelPos>& unknown,
                                              const IMG<float, 3>& Fs, const IMG<float, 3>& Bs,
                                              const IMG<float, 1>& varF, const IMG<float, 1>& varB,
                                              IMG<float, 3>& F, IMG<float, 3>& B,
                                              IMG<float, 1>* alphaOut) {
    const int w = image.width, h = image.height;
    const int64_t count = static_cast<int64_t>(unknown.size());
    struct Mean {
        float F[3], B[3], varF, varB;
    };
    std::vector<Mean> means;
    allocate(means, count, Mean{});

    // 1. and 2. The three best-fitting chosen pairs of the 15 x 15 window, their mean.
#pragma omp parallel for schedule(dynamic, 256)
    for (int64_t i = 0; i < count; ++i) {
        const int px = unknown[i].x, py = unknown[i].y;
        const float* I = image.ptr(px, py);
        struct Slot {
            float cost;
            int16_t x, y;
        } slot[3] = {{1e30f, 0, 0}, {1e30f, 0, 0}, {1e30f, 0, 0}};
        int counted = 0;
        for (int qy = std::max(py - 7, 0); qy <= std::min(py + 7, h - 1); ++qy)
            for (int qx = std::max(px - 7, 0); qx <= std::min(px + 7, w - 1); ++qx) {
                const float* fq = Fs.ptr(qx, qy);
                const float* bq = Bs.ptr(qx, qy);
                if (squaredDistance(fq, bq) < 1e-30f) continue;
                Slot cand{fitError(I, *alphaF.ptr(qx, qy), fq, bq), static_cast<int16_t>(qx),
                          static_cast<int16_t>(qy)};
                ++counted;
                for (Slot& s : slot)  // the loser of each strict comparison moves on
                    if (cand.cost < s.cost) std::swap(cand, s);
            }
        Mean& m = means[i];
        const int used = std::min(counted, 3);
        if (used == 0) continue;  // all zero
        const float factor = used == 1 ? 1.0f : used == 2 ? 0.5f : 0.33333334f;
        for (int k = 0; k < used; ++k) {
            const float* f = Fs.ptr(slot[k].x, slot[k].y);
            const float* b = Bs.ptr(slot[k].x, slot[k].y);
            for (int c = 0; c < 3; ++c) {
                m.F[c] += f[c];
                m.B[c] += b[c];
            }
            m.varF += *varF.ptr(slot[k].x, slot[k].y);
            m.varB += *varB.ptr(slot[k].x, slot[k].y);
        }
        if (used > 1) {
            for (int c = 0; c < 3; ++c) {
                m.F[c] *= factor;
                m.B[c] *= factor;
            }
            m.varF *= factor;
            m.varB *= factor;
        }
    }

    // 3. The pixel keeps its own colour where the mean lies within the spread, and the
    // separation's alpha follows from the two colours.
#pragma omp parallel for schedule(dynamic, 256)
    for (int64_t i = 0; i < count; ++i) {
        const int px = unknown[i].x, py = unknown[i].y;
        const float* I = image.ptr(px, py);
        const Mean& m = means[i];
        float* f = F.ptr(px, py);
        float* b = B.ptr(px, py);
        copy3(f, m.varF >= squaredDistance(I, m.F) ? I : m.F);
        copy3(b, m.varB >= squaredDistance(I, m.B) ? I : m.B);
        if (alphaOut) *alphaOut->ptr(px, py) = projectAlpha(I, f, b);
    }
}

void FBSeperationSharedSample::separate(const IMG<float, 3>& image, const IMG<float, 1>& alphaF,
                                        const uint8_t* known, int knownStep, const uint8_t* alpha,
                                        int alphaStep, IMG<float, 3>& F, IMG<float, 3>& B,
                                        IMG<float, 1>* alphaOut) {
    const int w = image.width, h = image.height;
    std::vector<PixelPos> unknown;
    try {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                if (known[static_cast<int64_t>(y) * knownStep + x] == 0) unknown.push_back({x, y});
    } catch (const std::bad_alloc&) {
        fail(Fault::ArrayMemory);
    }
    IMG<float, 3> Fs(w, h), Bs(w, h);
    IMG<float, 1> varF(w, h), varB(w, h);
    Copy(image, Fs);
    Copy(image, Bs);
    Set(0.0f, varF);
    Set(0.0f, varB);
    sampleGathering(image, alphaF, known, knownStep, alpha, alphaStep, unknown, Fs, Bs, varF, varB);
    Copy(image, F);
    Copy(image, B);
    sampleRefining(image, alphaF, unknown, Fs, Bs, varF, varB, F, B, alphaOut);
}

int FBSeperationSharedSample::extractF_SharedSample(uint8_t* image, int imageStep, int width,
                                                    int height, const uint8_t* known,
                                                    int knownStep, const uint8_t* alpha,
                                                    int alphaStep) {
    if (!validPlane(image, imageStep, width, height, 3) ||
        !validPlane(known, knownStep, width, height, 1) ||
        !validPlane(alpha, alphaStep, width, height, 1) || width > kMaxSampleSide ||
        height > kMaxSampleSide)
        return 0;
    IMG<float, 1> alphaF(width, height);
    IMG<float, 3> imageF(width, height), F(width, height), B(width, height);
    prim::scale_8u32f_C1(alpha, alphaStep, alphaF.data, alphaF.step, {width, height}, 0.0f, 1.0f);
    prim::scale_8u32f_C3(image, imageStep, imageF.data, imageF.step, {width, height}, 0.0f, 1.0f);
    separate(imageF, alphaF, known, knownStep, alpha, alphaStep, F, B, nullptr);
    prim::scale_32f8u_C3(F.data, F.step, image, imageStep, {width, height}, 0.0f, 1.0f);
    return 0;
}

int recoverForegroundBySampling(const uint8_t* image, int imageStep, int channels, int width,
                                int height, const uint8_t* alpha, int alphaStep,
                                uint8_t* foreground, int foregroundStep) {
    if ((channels != 3 && channels != 4) || !validPlane(image, imageStep, width, height, channels) ||
        !validPlane(alpha, alphaStep, width, height, 1) ||
        !validPlane(foreground, foregroundStep, width, height, channels) ||
        width > kMaxSampleSide || height > kMaxSampleSide)
        return 0;
    // The separation's codes: undecided where 0 < alpha < 255, background coded 1.
    IMG<unsigned char, 1> known(width, height), codes(width, height);
    IMG<unsigned char, 3> colour(width, height);
    for (int y = 0; y < height; ++y) {
        const uint8_t* a = alpha + static_cast<int64_t>(y) * alphaStep;
        uint8_t* k = known.row(y);
        uint8_t* c = codes.row(y);
        for (int x = 0; x < width; ++x) {
            k[x] = (a[x] == 0 || a[x] == 255) ? 255 : 0;
            c[x] = a[x] == 0 ? 1 : a[x];
        }
    }
    const prim::Size size{width, height};
    if (channels == 3)
        prim::copy_8u_C3(image, imageStep, colour.data, colour.step, size);
    else
        for (int y = 0; y < height; ++y) {
            const uint8_t* s = image + static_cast<int64_t>(y) * imageStep;
            uint8_t* d = colour.row(y);
            for (int x = 0; x < width; ++x) std::memcpy(d + 3 * x, s + 4 * x, 3);
        }
    FBSeperationSharedSample().extractF_SharedSample(colour.data, colour.step, width, height,
                                                     known.data, known.step, codes.data,
                                                     codes.step);
    for (int y = 0; y < height; ++y) {
        const uint8_t* s = colour.row(y);
        const uint8_t* src = image + static_cast<int64_t>(y) * imageStep;
        uint8_t* d = foreground + static_cast<int64_t>(y) * foregroundStep;
        for (int x = 0; x < width; ++x) {
            std::memcpy(d + channels * x, s + 3 * x, 3);
            if (channels == 4) d[4 * x + 3] = src[4 * x + 3];
        }
    }
    return 1;
}

}  // namespace qx
