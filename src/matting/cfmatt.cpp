#include "matting/cfmatt.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace qx {
namespace {

template <typename T>
void freeAndNull(T*& p) {
    std::free(p);
    p = nullptr;
}

}  // namespace

double SolveSeconds::solver(double n) { return 3.3e-6 * n + 4.5e-9 * std::pow(n, 1.5); }

void CFMatt::cleanMemAll() {
    freeAndNull(lapVals);
    freeAndNull(lapDiag);
    freeAndNull(reservedArray);
    freeAndNull(unknownIndex);
    freeAndNull(knownBytes);
    freeAndNull(maskBytes);
    freeAndNull(alpha);
}

void CFMatt::freeLaplacian() {
    freeAndNull(lapDiag);
    freeAndNull(unknownIndex);
    freeAndNull(lapVals);
}

void CFMatt::compMap(int applyLevels, Plane8& tri, Plane8& known, Plane8& fgMap) {
    const prim::Size size = tri.size();
    if (applyLevels) {
        int range = static_cast<int>(fgCode) - static_cast<int>(bgCode);
        if (range < 255) {
            // Codes that coincide or are swapped leave no range to stretch: treated as the
            // narrowest one, which maps everything above bgCode to 255.
            if (range < 1) range = 1;
            const int gain = std::min(16320 / range, 255);
            tri.status = prim::subC_8u_C1IS(bgCode, tri.data, tri.step, size, 0);
            tri.status = prim::mulC_8u_C1IS(static_cast<uint8_t>(gain), tri.data, tri.step, size, 6);
        }
        known.status = prim::compareC_8u_C1(tri.data, tri.step, 0, known.data, known.step, size,
                                            prim::kCmpLessEq);
        fgMap.status = prim::compareC_8u_C1(tri.data, tri.step, 255, fgMap.data, fgMap.step,
                                            size, prim::kCmpGreaterEq);
    } else {
        known.status = prim::compareC_8u_C1(tri.data, tri.step, bgCode, known.data, known.step,
                                            size, prim::kCmpLessEq);
        fgMap.status = prim::compareC_8u_C1(tri.data, tri.step, fgCode, fgMap.data, fgMap.step,
                                            size, prim::kCmpGreaterEq);
    }
    known.status = prim::or_8u_C1I(fgMap.data, fgMap.step, known.data, known.step, size);
}

void ErodeMap3x3(Plane8& map) {
    const int w = map.width, h = map.height;
    Plane8 work(w + 2, h + 2);
    prim::copy_8u_C1(map.data, map.step, work.ptr(1, 1), work.step, map.size());
    // Replicate the edges, rows first, then columns over the full height.
    prim::copy_8u_C1(work.ptr(0, 1), work.step, work.ptr(0, 0), work.step, {w + 2, 1});
    prim::copy_8u_C1(work.ptr(0, h), work.step, work.ptr(0, h + 1), work.step, {w + 2, 1});
    for (int y = 0; y < h + 2; ++y) {
        unsigned char* row = work.row(y);
        row[0] = row[1];
        row[w + 1] = row[w];
    }
    map.status = prim::erode3x3_8u_C1(work.ptr(1, 1), work.step, map.data, map.step, map.size());
}

void winIdx(int x, int y, int width, int out[9]) {
    const int c = x + y * width;
    out[0] = c - width - 1;
    out[1] = c - width;
    out[2] = c - width + 1;
    out[3] = c - 1;
    out[4] = c;
    out[5] = c + 1;
    out[6] = c + width - 1;
    out[7] = c + width;
    out[8] = c + width + 1;
}

namespace {

constexpr double kByteScale = 0.00392156862745098;  // 1/255

template <typename T, typename Out, typename Convert>
void copyWindow(const T* p, int step, Out* out, Convert convert) {
    for (int dy = -1; dy <= 1; ++dy) {
        const T* row = reinterpret_cast<const T*>(reinterpret_cast<const unsigned char*>(p) +
                                                  static_cast<int64_t>(dy) * step);
        for (int dx = -1; dx <= 1; ++dx) *out++ = convert(row[dx]);
    }
}

}  // namespace

void copy3x3(const unsigned char* p, int step, double out[9]) {
    copyWindow(p, step, out, [](unsigned char v) { return v * kByteScale; });
}

void copy3x3(const float* p, int step, double out[9]) {
    copyWindow(p, step, out, [](float v) { return static_cast<double>(v); });
}

void copy3x3(const int* p, int step, int out[9]) {
    copyWindow(p, step, out, [](int v) { return v; });
}

void copy3x3C3(const unsigned char* p, int step, double out[27]) {
    for (int c = 0; c < 3; ++c) {
        int k = 0;
        for (int dy = -1; dy <= 1; ++dy) {
            const unsigned char* row = p + static_cast<int64_t>(dy) * step;
            for (int dx = -1; dx <= 1; ++dx) out[9 * c + k++] = row[3 * dx + c] * kByteScale;
        }
    }
}

void outAlpha(const float* alpha, int width, int height, Plane8& known, Plane8& core,
              Plane8& mask) {
    const float* cursor = alpha;
    for (int y = 0; y < height; ++y) {
        const unsigned char* c = core.row(y);
        const unsigned char* k = known.row(y);
        unsigned char* m = mask.row(y);
        for (int x = 0; x < width; ++x) {
            if (c[x] != 0) continue;
            if (k[x] == 0) m[x] = static_cast<unsigned char>(static_cast<int>(*cursor));
            ++cursor;
        }
    }
}

}  // namespace qx
