// The subject's own colours under an alpha, at full resolution and any size
// (qxRecoverForegroundFull).
//
// The coarse levels of the pyramid (half size and below) are solved whole; the full-size level
// is solved in one piece when it fits the memory budget, else in square pieces grown by
// fbHalo() on each side, which give the same bytes as one piece. Where alpha is 0 or 255 the
// image's colour stands. The host's colour plane is written only at the end.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

#include "foreground/multilevel_fb.h"
#include "foreground/recovery.h"
#include "runtime/args.h"
#include "runtime/fault.h"
#include "runtime/memory.h"
#include "runtime/progress.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

constexpr int kLargestPiece = 1024;

// Seconds an image pixel of the job's three stages, for laying out its progress (only their
// ratios matter; measured on 2 cores at 12 MP): making the coarse levels, relaxing them, and
// relaxing the full-size level piece by piece.
constexpr double kMakeSeconds = 5e-8;
constexpr double kCoarseSeconds = 5e-8;
constexpr double kFullSeconds = 4e-7;

// The kicks of a stage's sweeps; for the progress listener each sweep also moves the stage by
// its level's share of the stage's pixels.
class Sweeps {
public:
    explicit Sweeps(double pixels) : total_(pixels * kFbIterations) {}
    // What fbRelax calls after each sweep of a level of `pixels` pixels.
    std::function<void()> of(double pixels) {
        return [this, pixels] {
            progressKick();
            done_ += pixels;
            progressWithin(total_ > 0.0 ? done_ / total_ : 1.0);
        };
    }

private:
    double total_, done_ = 0.0;
};

const unsigned char* rangeEnd(const unsigned char* p, int step, int width, int height, int bpp) {
    return p + int64_t(height - 1) * step + int64_t(width) * bpp;
}

bool overlaps(const unsigned char* a, const unsigned char* aEnd, const unsigned char* b,
              const unsigned char* bEnd) {
    return a < bEnd && b < aEnd;
}

bool validRequest(const ForegroundRequest* r) {
    if (!r || !r->image || !r->alpha || !r->colours || r->memoryBudgetMB < 0) return false;
    if (r->imageChannels != 3 && r->imageChannels != 4) return false;
    if (r->coloursChannels != 3 && r->coloursChannels != 4) return false;
    if (!validPlane(r->image, r->imageStep, r->width, r->height, r->imageChannels) ||
        !validPlane(r->alpha, r->alphaStep, r->width, r->height, 1) ||
        !validPlane(r->colours, r->coloursStep, r->width, r->height, r->coloursChannels))
        return false;
    // The colours are written while the image and alpha are still read.
    const unsigned char* out = r->colours;
    const unsigned char* outEnd =
        rangeEnd(out, r->coloursStep, r->width, r->height, r->coloursChannels);
    return !overlaps(out, outEnd, r->image,
                     rangeEnd(r->image, r->imageStep, r->width, r->height, r->imageChannels)) &&
           !overlaps(out, outEnd, r->alpha,
                     rangeEnd(r->alpha, r->alphaStep, r->width, r->height, 1));
}

// A w x h piece of the full-size level at (x, y), from the host's bytes.
FbLevel pieceFromBytes(const ForegroundRequest& r, int x, int y, int w, int h) {
    FbLevel L;
    L.w = w;
    L.h = h;
    L.x0 = x;
    L.y0 = y;
    L.I.resize(size_t(w) * h * 3);
    L.A.resize(size_t(w) * h);
    for (int j = 0; j < h; ++j) {
        const unsigned char* px = r.image + int64_t(y + j) * r.imageStep + int64_t(x) * r.imageChannels;
        const unsigned char* al = r.alpha + int64_t(y + j) * r.alphaStep + x;
        for (int i = 0; i < w; ++i, px += r.imageChannels) {
            const size_t p = size_t(j) * w + i;
            L.A[p] = al[i] * (1.f / 255.f);
            for (int k = 0; k < 3; ++k) L.I[3 * p + k] = px[k] * (1.f / 255.f);
        }
    }
    return L;
}

// The half-size level, made from strips of the host's image so that the full-size level is
// never held whole.
FbLevel halfLevel(const ForegroundRequest& r) {
    FbLevel half;
    half.w = (r.width + 1) / 2;
    half.h = (r.height + 1) / 2;
    half.I.resize(size_t(half.w) * half.h * 3);
    half.A.resize(size_t(half.w) * half.h);
    constexpr int kStrip = 64;  // rows, even
    for (int y = 0; y < r.height; y += kStrip) {
        const FbLevel strip = fbHalve(pieceFromBytes(r, 0, y, r.width, std::min(kStrip, r.height - y)));
        std::copy(strip.I.begin(), strip.I.end(), half.I.begin() + size_t(y / 2) * half.w * 3);
        std::copy(strip.A.begin(), strip.A.end(), half.A.begin() + size_t(y / 2) * half.w);
        progressWithin(double(y + kStrip) / r.height);
    }
    return half;
}

}  // namespace

int recoverJob(const ForegroundRequest& r, double budgetBytes) {
    const int W = r.width, H = r.height;
    const double budget = budgetBytes > 0.0        ? budgetBytes
                          : r.memoryBudgetMB > 0 ? r.memoryBudgetMB * 1e6
                                                 : usableMemoryBytes();
    const double pixels = double(W) * H;
    ProgressParts parts({kMakeSeconds * pixels, kCoarseSeconds * pixels, kFullSeconds * pixels},
                        true);

    // The coarse levels, finest first.
    std::vector<FbLevel> coarse;
    double coarseBytes = 0;
    if (std::max(W, H) > kFbCoarsest) {
        coarse.push_back(halfLevel(r));
        while (std::max(coarse.back().w, coarse.back().h) > kFbCoarsest)
            coarse.push_back(fbHalve(coarse.back()));
        for (const FbLevel& L : coarse) coarseBytes += FbLevel::bytesFor(L.w, L.h);
    }
    const double outBytes = 3.0 * W * H;

    // The pieces of the full-size level: one, or the largest squares that fit.
    // Pieces of at most kLargestPiece on a side even when the budget would take the whole:
    // they stay in the caches, and take less memory, for a halo's worth of extra work.
    int tile = std::max(W, H), halo = 0;
    if (tile > kLargestPiece || coarseBytes + outBytes + FbLevel::bytesFor(W, H) > budget) {
        halo = fbHalo();
        const double left = budget - coarseBytes - outBytes;
        const int side = left > 0 ? int(std::sqrt(left / FbLevel::bytesFor(1, 1))) : 0;
        tile = std::min(kLargestPiece, side - 2 * halo);
        if (tile < 64) return -1;
    }
    const int tilesX = (W + tile - 1) / tile, tilesY = (H + tile - 1) / tile;

    const int kicks = int(coarse.size() + size_t(tilesX) * tilesY) * kFbIterations;
    setProgProc(r.progProc, r.progParam, kicks + 1, 1);
    parts.next();

    double coarsePixels = 0.0;
    for (const FbLevel& L : coarse) coarsePixels += double(L.w) * L.h;
    Sweeps coarseSweeps(coarsePixels);
    for (size_t k = coarse.size(); k-- > 0;) {
        FbLevel& L = coarse[k];
        if (k + 1 == coarse.size()) {
            L.F = L.I;
            L.B = L.I;
        } else {
            fbStartFrom(L, coarse[k + 1]);
            coarse[k + 1] = FbLevel();  // only the level just below is needed from here on
        }
        fbRelax(L, coarseSweeps.of(double(L.w) * L.h));
        L.I = std::vector<float>();
        L.A = std::vector<float>();
    }

    parts.next();

    // A piece's pixels with its halo.
    auto extent = [&](int start, int size, int end) {
        return double(std::min(end, start + size + halo) - std::max(0, start - halo));
    };
    double piecePixels = 0.0;
    for (int ty = 0; ty < tilesY; ++ty)
        for (int tx = 0; tx < tilesX; ++tx)
            piecePixels += extent(tx * tile, std::min(tile, W - tx * tile), W) *
                           extent(ty * tile, std::min(tile, H - ty * tile), H);
    Sweeps pieceSweeps(piecePixels);
    std::vector<unsigned char> out(size_t(W) * H * 3);
    for (int ty = 0; ty < tilesY; ++ty)
        for (int tx = 0; tx < tilesX; ++tx) {
            const int cx = tx * tile, cy = ty * tile;
            const int cw = std::min(tile, W - cx), ch = std::min(tile, H - cy);
            const int ex = std::max(0, cx - halo), ey = std::max(0, cy - halo);
            const int ew = std::min(W, cx + cw + halo) - ex, eh = std::min(H, cy + ch + halo) - ey;
            FbLevel piece = pieceFromBytes(r, ex, ey, ew, eh);
            if (coarse.empty()) {
                piece.F = piece.I;
                piece.B = piece.I;
            } else {
                fbStartFrom(piece, coarse.front());
            }
            fbRelax(piece, pieceSweeps.of(double(ew) * eh));
            for (int y = cy; y < cy + ch; ++y) {
                const unsigned char* al = r.alpha + int64_t(y) * r.alphaStep;
                const unsigned char* px = r.image + int64_t(y) * r.imageStep;
                unsigned char* o = out.data() + size_t(y) * W * 3;
                for (int x = cx; x < cx + cw; ++x) {
                    const size_t p = 3 * (size_t(y - ey) * ew + (x - ex));
                    for (int k = 0; k < 3; ++k)
                        o[3 * x + k] = al[x] == 0 || al[x] == 255
                                           ? px[int64_t(x) * r.imageChannels + k]
                                           : static_cast<unsigned char>(piece.F[p + k] * 255.f + 0.5f);
                }
            }
        }

    for (int y = 0; y < H; ++y) {
        const unsigned char* o = out.data() + size_t(y) * W * 3;
        unsigned char* d = r.colours + int64_t(y) * r.coloursStep;
        for (int x = 0; x < W; ++x, d += r.coloursChannels)
            std::copy_n(o + 3 * x, 3, d);
    }
    return 1;
}

}  // namespace qx

extern "C" QX_API int qxRecoverForegroundFull(const ForegroundRequest* request) {
    if (!qx::validRequest(request)) return -2;
    return qx::guardedExport(qx::Export::ForegroundFull,
                             [&] { return qx::recoverJob(*request); });
}
