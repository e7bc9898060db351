#include "runtime/fault.h"
#include "foreground/recovery.h"

#include <algorithm>
#include <cstring>
#include <new>

#include <opencv2/imgproc.hpp>

#include "foreground/fb_solve.h"
#include "runtime/args.h"
#include "runtime/memory.h"
#include "runtime/progress.h"
#include "image/img.h"
#include "image/primitives.h"

namespace qx {
namespace {

using Byte = unsigned char;

// A host plane at the region's origin.
template <typename T>
T* atRegion(T* base, int step, int bytesPerPixel, int x, int y) {
    return base + int64_t(bytesPerPixel) * x + int64_t(step) * y;
}

Byte saturate(int v) { return Byte(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Truncation toward zero of a value that may lie outside 0..255 (a window weight of Lanczos
// can overshoot a little), then saturation.
Byte truncSaturate(float v) {
    if (!(v > 0.0f)) return 0;
    if (v >= 255.0f) return 255;
    return Byte(int(v));
}

bool cellNeedsSolve(const IMG<Byte, 1>& alpha, RecoveryParams::CellTest test) {
    for (int y = 0; y < alpha.height; ++y) {
        const Byte* row = alpha.row(y);
        for (int x = 0; x < alpha.width; ++x) {
            const Byte v = row[x];
            if (test == RecoveryParams::CellTest::Mixed) {
                if (v > 10 && v < 250) return true;
            } else if ((v & 1) == 0 && v >= 6 && v < 250) {
                return true;
            }
        }
    }
    return false;
}

int progressIncrement(const RecoveryParams& p, const CellGrid& g, int qw, int qh) {
    if (p.increment == RecoveryParams::Increment::Area) {
        const double v = 10000.0 / ((double(int64_t(qw) * qh)) / (2.25 * g.cellW * g.cellH));
        if (!(v > 0.0)) return 0;
        return v >= 2147483647.0 ? 2147483647 : int(v);
    }
    const int nx = g.singleX ? 1 : g.nx, ny = g.singleY ? 1 : g.ny;
    const int64_t cells = int64_t(nx) * ny;
    const int v = int(0.065 * double(20000 / cells));
    return v > 0 ? v : 20;
}

// The reduced foreground (4 bytes a pixel, qw x qh), solved cell by cell. It starts as the
// reduced source, which is what a skipped cell leaves.
void solveCells(const RecoveryParams& p, const std::vector<Byte>& reducedSrc,
                std::vector<Byte>& reducedAlpha, std::vector<Byte>& fg, int qw, int qh) {
    fg = reducedSrc;
    const CellGrid grid = deriveCellGrid(qw, qh, p.grid, p.memUnits);
    setProgRange(20000, progressIncrement(p, grid, qw, qh));

    std::vector<Byte> planes[3];
    for (int c = 0; c < 3; ++c) {
        planes[c].resize(size_t(qw) * qh);
        for (size_t i = 0; i < planes[c].size(); ++i) planes[c][i] = reducedSrc[4 * i + size_t(c)];
    }
    IMG<Byte, 1> cell0(grid.cellW, grid.cellH), cell1(grid.cellW, grid.cellH),
        cell2(grid.cellW, grid.cellH);
    IMG<Byte, 1>* const cellPlanes[3] = {&cell0, &cell1, &cell2};
    const int inset = p.ownedInset;

    // The walk visits the first cell of an image one cell wide twice, the second time as the
    // last of its row. A cell's solve reads only the reduced planes and alpha, so the second
    // visit takes the result the first one left in the cell planes, and replays the progress
    // reports the solve made: the host sees the same reports as for two solves.
    struct {
        bool solved = false;
        int x = -1, y = -1;
        int64_t kicks = 0;
    } last;
    walkCells(grid, qw, qh, [&](const CellPos& pos) {
        progressKick();
        IMG<Byte, 1> alpha(grid.cellW, grid.cellH,
                           reducedAlpha.data() + int64_t(pos.y) * qw + pos.x, qw);
        if (!cellNeedsSolve(alpha, p.cellTest)) {
            last.solved = false;
            return;
        }
        if (last.solved && last.x == pos.x && last.y == pos.y) {
            for (int64_t k = 0; k < last.kicks; ++k) progressKick();
        } else {
            for (int c = 0; c < 3; ++c)
                for (int y = 0; y < grid.cellH; ++y)
                    std::memcpy(cellPlanes[c]->row(y),
                                planes[c].data() + int64_t(pos.y + y) * qw + pos.x,
                                size_t(grid.cellW));
            void* unused[9] = {};
            const int64_t kicksBefore = progressKickCount();
            last.solved = false;  // a throw leaves nothing to take again
            solveForegroundBackground(unused, cellPlanes, 0, alpha);  // a failed product (10):
                                                                      // the cell stands as it is
            last = {true, pos.x, pos.y, progressKickCount() - kicksBefore};
        }
        const int left = (pos.x == 0 ? 0 : grid.trimX) + inset;
        const int right = (pos.lastColumn ? 0 : grid.trimX) + inset;
        const int top = (pos.y == 0 ? 0 : grid.trimY) + inset;
        const int bottom = (pos.lastRow ? 0 : grid.trimY) + inset;
        for (int y = top; y < grid.cellH - bottom; ++y) {
            Byte* out = fg.data() + (int64_t(pos.y + y) * qw + pos.x) * 4;
            for (int c = 0; c < 3; ++c) {
                const Byte* in = cellPlanes[c]->row(y);
                for (int x = left; x < grid.cellW - right; ++x) out[4 * x + c] = in[x];
            }
        }
    });
}

}  // namespace

bool validRecoveryRequest(const KeepCutRequest* r, bool needAux) {
    if (r == nullptr) return false;
    const int fw = r->fullWidth, fh = r->fullHeight;
    if (!validPlane(r->srcImage, r->srcStep, fw, fh, 4)) return false;
    if (!validPlane(r->alphaPlane, r->alphaStep, fw, fh, 1)) return false;
    if (!validPlane(r->dstImage, r->dstStep, fw, fh, 4)) return false;
    if (needAux && !validPlane(r->auxPlane, r->auxStep, fw, fh, 1)) return false;
    if (r->roiWidth < 1 || r->roiHeight < 1 || r->roiX < 0 || r->roiY < 0) return false;
    if (int64_t(r->roiX) + r->roiWidth > fw || int64_t(r->roiY) + r->roiHeight > fh) return false;
    return true;
}

std::vector<float> featherRamp(int w, int h) {
    std::vector<float> r(size_t(w) * h);
    auto ramp = [](int v, int n) {
        if (v < 64) return float(v) / 64.0f;
        if (v > n - 64) return float(n - v) / 64.0f;
        return 1.0f;
    };
#pragma omp parallel for schedule(static)
    for (int y = 0; y < h; ++y) {
        const float ry = ramp(y, h);
        for (int x = 0; x < w; ++x) r[size_t(y) * w + x] = ramp(x, w) * ry;
    }
    return r;
}

std::vector<float> featherWindow(int w, int h) {
    // Upper left quarter; the table mirrors it left to right and top to bottom.
    static const float kQuarter[7][7] = {
        {0, 0, 0, 0, 0, 0, 0},
        {0, 0, 0.001f, 0.003f, 0.005f, 0.009f, 0.01f},
        {0, 0, 0.0108f, 0.0292f, 0.0592f, 0.0904f, 0.1041f},
        {0, 0, 0.0292f, 0.0785f, 0.1592f, 0.2432f, 0.2802f},
        {0, 0, 0.0592f, 0.1592f, 0.3227f, 0.4932f, 0.5681f},
        {0, 0, 0.0904f, 0.2432f, 0.4932f, 0.7537f, 0.8682f},
        {0, 0, 0.1041f, 0.2802f, 0.5681f, 0.8682f, 1.0f},
    };
    cv::Mat table(13, 13, CV_32F);
    for (int i = 0; i < 13; ++i)
        for (int j = 0; j < 13; ++j) table.at<float>(i, j) = kQuarter[std::min(i, 12 - i)][std::min(j, 12 - j)];
    std::vector<float> r(size_t(w) * h);
    cv::Mat out(h, w, CV_32F, r.data());
    cv::resize(table, out, out.size(), 0, 0, cv::INTER_LANCZOS4);
    return r;
}

void recoverForegroundRegion(const KeepCutRequest& req, const RecoveryParams& p) {
    using prim::Rect;
    using prim::Size;
    const int W = req.roiWidth, H = req.roiHeight;
    const Byte* src = atRegion<const Byte>(req.srcImage, req.srcStep, 4, req.roiX, req.roiY);
    const Byte* alpha = atRegion<const Byte>(req.alphaPlane, req.alphaStep, 1, req.roiX, req.roiY);
    Byte* dst = atRegion<Byte>(req.dstImage, req.dstStep, 4, req.roiX, req.roiY);
    const int srcStep = req.srcStep, alphaStep = req.alphaStep, dstStep = req.dstStep;

    if (p.increment == RecoveryParams::Increment::CellCount) {
        setProgProc(req.progProc, req.progParam, 20000, 0);
        progressKick();
    }

    const int qw = int(float(W) * p.scale), qh = int(float(H) * p.scale);
    const bool reduced = qw >= 1 && qh >= 1;  // a region of a few pixels has no reduced image
    const double up = double(1.0f / p.scale);

    // 1-3: reduce, solve the cells, bring the foreground back to the region's size.
    std::vector<Byte> result(size_t(W) * H * 4);
    if (reduced) {
        std::vector<Byte> reducedSrc(size_t(qw) * qh * 4), reducedAlpha(size_t(qw) * qh), fg;
        prim::resizeCubic_8u_C4(src, Size{W, H}, srcStep, Rect{0, 0, W, H}, reducedSrc.data(),
                                qw * 4, Size{qw, qh}, p.scale, p.scale);
        prim::resizeCubic_8u_C1(alpha, Size{W, H}, alphaStep, Rect{0, 0, W, H},
                                reducedAlpha.data(), qw, Size{qw, qh}, p.scale, p.scale);
        solveCells(p, reducedSrc, reducedAlpha, fg, qw, qh);
        prim::resizeCubic_8u_C4(fg.data(), Size{qw, qh}, qw * 4, Rect{0, 0, qw, qh},
                                result.data(), W * 4, Size{W, H}, up, up);
    } else {
        setProgRange(20000, 0);
        prim::copy_8u_C4(src, srcStep, result.data(), W * 4, Size{W, H});
    }

    // 4: detail from colour byte 1, where alpha is mixed.
    if (reduced) {
        std::vector<Byte> green(size_t(W) * H), small(size_t(qw) * qh), back(size_t(W) * H);
        prim::extractChannel_8u_C4C1(src + 1, srcStep, green.data(), W, Size{W, H});
        prim::resizeCubic_8u_C1(green.data(), Size{W, H}, W, Rect{0, 0, W, H}, small.data(), qw,
                                Size{qw, qh}, p.scale, p.scale);
        prim::resizeCubic_8u_C1(small.data(), Size{qw, qh}, qw, Rect{0, 0, qw, qh}, back.data(),
                                W, Size{W, H}, up, up);
#pragma omp parallel for schedule(static)
        for (int y = 0; y < H; ++y) {
            const Byte* a = alpha + int64_t(alphaStep) * y;
            Byte* out = result.data() + size_t(y) * W * 4;
            for (int x = 0; x < W; ++x) {
                if (a[x] < 11 || a[x] > 249) continue;
                const size_t i = size_t(y) * W + x;
                const int d = int(green[i]) - int(back[i]);
                for (int c = 0; c < 3; ++c)
                    out[4 * x + c] = saturate(int(double(out[4 * x + c]) + 0.618 * d));
            }
        }
    }

    // 5: the source where alpha is decided.
#pragma omp parallel for schedule(static)
    for (int y = 0; y < H; ++y) {
        const Byte* a = alpha + int64_t(alphaStep) * y;
        const Byte* s = src + int64_t(srcStep) * y;
        Byte* out = result.data() + size_t(y) * W * 4;
        for (int x = 0; x < W; ++x)
            if (a[x] >= p.keepHigh || a[x] <= 4) std::memcpy(out + 4 * x, s + 4 * x, 4);
    }

    // 6: feathering into the destination's present colours.
    if (p.feather != RecoveryParams::Feather::None) {
        const std::vector<float> r = p.feather == RecoveryParams::Feather::Ramp
                                         ? featherRamp(W, H)
                                         : featherWindow(W, H);
#pragma omp parallel for schedule(static)
        for (int y = 0; y < H; ++y) {
            const Byte* d = dst + int64_t(dstStep) * y;
            Byte* out = result.data() + size_t(y) * W * 4;
            const float* ry = r.data() + size_t(y) * W;
            for (int x = 0; x < W; ++x)
                for (int c = 0; c < 3; ++c)
                    out[4 * x + c] = truncSaturate(float(out[4 * x + c]) * ry[x] +
                                                   (1.0f - ry[x]) * float(d[4 * x + c]));
        }
    }

    // 7: the region less its frame; byte 3 stays.
    const int f = p.frame;
    if (W - 2 * f >= 1 && H - 2 * f >= 1)
        prim::copy_8u_AC4(result.data() + (size_t(f) * W + f) * 4, W * 4,
                          dst + int64_t(dstStep) * f + 4 * f, dstStep, Size{W - 2 * f, H - 2 * f});
}

int64_t recoverForegroundGuarded(KeepCutRequest* request, bool needAux,
                                 const RecoveryParams& params, int64_t success) {
    if (!validRecoveryRequest(request, needAux)) return kRecoveryRefused;
    return guardedExport(Export::ForegroundRecovery, [&]() -> int {
        recoverForegroundRegion(*request, params);
        return int(success);
    });
}

}  // namespace qx
