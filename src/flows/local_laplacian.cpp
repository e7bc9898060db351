#include "flows/local_laplacian.h"

#include <bit>
#include <cstdint>
#include <vector>

#include "flows/compressed_rows.h"
#include "matting/cfmatt.h"

namespace qx::flows {
namespace {

// For the pixel at place a of a 3x3 window and the window's pixel at place b (raster order):
// where the pair's value sits in the window's packed upper triangle (45 values, row by row), and
// b's place in the 5x5 neighbourhood of a's pixel.
struct Pair {
    unsigned char packed, slot;
};
struct PairTable {
    Pair of[9][9];
    unsigned slots[9];  // the neighbourhood slots a window covers where the pixel is at place a
    constexpr PairTable() : of{}, slots{} {
        for (int a = 0; a < 9; ++a)
            for (int b = 0; b < 9; ++b) {
                const int lo = a < b ? a : b, hi = a < b ? b : a;
                of[a][b].packed = static_cast<unsigned char>(9 * lo - lo * (lo - 1) / 2 + hi - lo);
                const int dy = b / 3 - a / 3, dx = b % 3 - a % 3;
                of[a][b].slot = static_cast<unsigned char>((dy + 2) * 5 + (dx + 2));
                slots[a] |= 1u << of[a][b].slot;
            }
    }
};
constexpr PairTable kPairs;

}  // namespace

WeightRows localLaplacianRows(const FlowImage& image, const PixelSets& sets, double epsilon) {
    const int w = image.width, h = image.height;
    const int n = static_cast<int>(sets.unknown.size());
    WeightRows out;
    out.start.assign(size_t(n) + 1, 0);
    if (n == 0 || w < 3 || h < 3) return out;

    // Window centres: the decided map eroded once leaves 0 wherever a window holds an undecided
    // pixel (the matting job's `core`).
    Plane8 core(w, h);
    for (int y = 0; y < h; ++y) {
        unsigned char* c = core.row(y);
        for (int x = 0; x < w; ++x)
            c[x] = sets.kind[size_t(y) * w + x] == PixelKind::Unknown ? 0 : 255;
    }
    ErodeMap3x3(core);
    CFMatt matt;
    matt.epsilon = epsilon;
    matt.stableAffinities = true;
    unsigned char* planes[3] = {const_cast<unsigned char*>(image.planes[0]),
                                const_cast<unsigned char*>(image.planes[1]),
                                const_cast<unsigned char*>(image.planes[2])};
    int count = 0;
    if (matt.compMatLap(core, planes, image.planeStep, &count) != 0) return out;

    std::vector<int> windowAt(size_t(w) * h, -1);
    int windows = 0;
    for (int y = 1; y < h - 1; ++y) {
        const unsigned char* c = core.row(y);
        for (int x = 1; x < w - 1; ++x)
            if (c[x] == 0) windowAt[size_t(y) * w + x] = windows++;
    }

    // A row holds the slots of its 5x5 neighbourhood (raster order) that its windows cover:
    // counted first, then written in place.
    const float* vals = matt.lapVals;
    const float* diag = matt.lapDiag;
    const auto eachWindow = [&](int p, auto&& use) {
        const int px = p % w, py = p / w;
        for (int cy = py - 1; cy <= py + 1; ++cy) {
            if (cy < 1 || cy > h - 2) continue;
            for (int cx = px - 1; cx <= px + 1; ++cx) {
                if (cx < 1 || cx > w - 2) continue;
                const int win = windowAt[size_t(cy) * w + cx];
                if (win >= 0) use(win, (py - cy + 1) * 3 + (px - cx + 1));
            }
        }
    };
    const auto coveredSlots = [&](int p) {
        unsigned covered = 0;
        eachWindow(p, [&](int, int a) { covered |= kPairs.slots[a]; });
        return covered;
    };
    rowsInTwoPasses(
        n, out.start, out.cols, out.weights,
        [&](int r) { return std::popcount(coveredSlots(sets.unknown[size_t(r)])); },
        [&](int r, int* cols, float* weights) {
            const int p = sets.unknown[size_t(r)];
            const int px = p % w, py = p / w;
            double sum[25] = {};
            double self = 0.0;
            unsigned covered = 0;
            eachWindow(p, [&](int win, int a) {
                const float* t = vals + 45 * int64_t(win);
                const Pair* pairs = kPairs.of[a];
                for (int b = 0; b < 9; ++b) {
                    const double v = t[pairs[b].packed];
                    if (b == a) self += v;
                    sum[pairs[b].slot] -= v;
                }
                covered |= kPairs.slots[a];
            });
            int m = 0;
            for (int slot = 0; slot < 25; ++slot) {
                if (!(covered >> slot & 1u)) continue;
                cols[m] = (py + slot / 5 - 2) * w + (px + slot % 5 - 2);
                weights[m] = static_cast<float>(slot == 12 ? diag[p] - self : sum[slot]);
                ++m;
            }
        });
    return out;
}

}  // namespace qx::flows
