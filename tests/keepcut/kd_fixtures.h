// Fixtures of the KD-tree tests: stroke layouts drawn box by box for the tree, and keep-cut
// scenes (a region inside a larger host image, with a composite whose alpha is known) for the
// drivers.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "keepcut/kd_tree.h"
#include "matting/matting_fixtures.h"
#include "qxiveilon31.h"

namespace kdtest {

using qxtest::PaddedPlane;

// A known map, an alpha plane and three colour planes for a tree; everything starts as a cut
// constraint (known 255, alpha 0) over a mid-grey image with a little texture.
struct TreeImages {
    int width, height;
    PaddedPlane known, alpha, planes[3];
    unsigned char* planePtrs[3];
    TreeImages(int w, int h, unsigned seed = 7)
        : width(w), height(h), known(w, h, 3, 255), alpha(w, h, 5, 0) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> noise(-20, 20);
        for (int c = 0; c < 3; ++c) {
            planes[c] = PaddedPlane(w, h, 9);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    planes[c].at(x, y) = static_cast<unsigned char>(100 + 30 * c + noise(rng));
            planePtrs[c] = planes[c].data();
        }
    }
    // Inclusive rectangles.
    void unknownRect(int x0, int y0, int x1, int y1) {
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x) known.at(x, y) = 0;
    }
    void strokeRect(int x0, int y0, int x1, int y1, unsigned char value) {
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x) {
                known.at(x, y) = 255;
                alpha.at(x, y) = value;
            }
    }
    std::unique_ptr<qx::KDTree> makeTree(unsigned char* colour = nullptr, int colourStep = 0) {
        return std::make_unique<qx::KDTree>(known.data(), known.step, planePtrs, planes[0].step,
                                            alpha.data(), alpha.step, colour, colourStep, width,
                                            height, nullptr);
    }
};

struct Box {
    int x0, y0, x1, y1;
    int solveFirst;
    bool operator==(const Box& o) const {
        return x0 == o.x0 && y0 == o.y0 && x1 == o.x1 && y1 == o.y1 && solveFirst == o.solveFirst;
    }
};

// The leaves of a tree in walk order (depth first, left first).
inline void collectLeaves(const qx::KDNode* n, std::vector<Box>& out) {
    if (n->left) {
        collectLeaves(n->left, out);
        collectLeaves(n->right, out);
        return;
    }
    out.push_back({n->x0, n->y0, n->x1, n->y1, n->solveFirst});
}

// A keep-cut job: a region of w x h at (roiX, roiY) inside a host image of fullW x fullH, with
// padded rows everywhere. The source holds a composite I = a F + (1 - a) B of a soft disc
// centred in the region (ground truth in `truth`); byte 3 of each source pixel is a marker.
// dstImage starts as 0x5A everywhere, the alpha and aux planes as 0 (unpainted).
struct Scene {
    int fullW, fullH, roiX, roiY, w, h;
    int srcStep, alphaStep, dstStep, auxStep;
    std::vector<unsigned char> src, alpha, dst, aux;
    std::vector<double> truth;

    Scene(int fw, int fh, int rx, int ry, int rw, int rh)
        : fullW(fw), fullH(fh), roiX(rx), roiY(ry), w(rw), h(rh),
          srcStep(4 * fw + 12), alphaStep(fw + 5), dstStep(4 * fw + 8), auxStep(fw + 3),
          src(static_cast<size_t>(srcStep) * fh, 0), alpha(static_cast<size_t>(alphaStep) * fh, 0),
          dst(static_cast<size_t>(dstStep) * fh, 0x5A), aux(static_cast<size_t>(auxStep) * fh, 0),
          truth(static_cast<size_t>(rw) * rh, 0.0) {
        for (int y = 0; y < fh; ++y)
            for (int x = 0; x < fw; ++x) {
                unsigned char* p = &src[static_cast<size_t>(y) * srcStep + 4 * x];
                p[0] = 40;
                p[1] = 90;
                p[2] = 190;
                p[3] = static_cast<unsigned char>(200 + (x + 3 * y) % 50);
            }
    }
    // Region coordinates.
    unsigned char& a(int x, int y) {
        return alpha[static_cast<size_t>(roiY + y) * alphaStep + roiX + x];
    }
    unsigned char& auxAt(int x, int y) {
        return aux[static_cast<size_t>(roiY + y) * auxStep + roiX + x];
    }
    unsigned char* srcPx(int x, int y) {
        return &src[static_cast<size_t>(roiY + y) * srcStep + 4 * (roiX + x)];
    }
    unsigned char* dstPx(int x, int y) {
        return &dst[static_cast<size_t>(roiY + y) * dstStep + 4 * (roiX + x)];
    }
    double truthAt(int x, int y) const { return truth[static_cast<size_t>(y) * w + x]; }

    void fillAlpha(unsigned char v) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) a(x, y) = v;
    }
    void fillColour(unsigned char c0, unsigned char c1, unsigned char c2) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                unsigned char* p = srcPx(x, y);
                p[0] = c0;
                p[1] = c1;
                p[2] = c2;
            }
    }

    // A disc of alpha 1 inside radius r0, 0 outside r1, linear in between, over a textured
    // background; strokes: keep inside r0 - band, cut outside r1 + band, the rest unpainted.
    void paintDisc(double r0, double r1, int band, double texture = 12.0, unsigned seed = 3) {
        const double fg[3] = {210, 70, 50}, bg[3] = {30, 100, 190};
        std::mt19937 rng(seed);
        std::uniform_real_distribution<double> noise(-1.0, 1.0);
        const double cx = w / 2.0, cy = h / 2.0;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const double d = std::hypot(x + 0.5 - cx, y + 0.5 - cy);
                const double t = d <= r0 ? 1.0 : d >= r1 ? 0.0 : (r1 - d) / (r1 - r0);
                truth[static_cast<size_t>(y) * w + x] = t;
                const double tex = texture * noise(rng);
                unsigned char* p = srcPx(x, y);
                for (int c = 0; c < 3; ++c)
                    p[c] = static_cast<unsigned char>(
                        std::lround(std::clamp(t * fg[c] + (1 - t) * (bg[c] + tex), 0.0, 255.0)));
                a(x, y) = d < r0 - band ? 255 : d > r1 + band ? 1 : 0;
            }
    }

    KeepCutRequest request() {
        KeepCutRequest r;
        std::memset(&r, 0, sizeof r);
        r.srcImage = src.data();
        r.srcStep = srcStep;
        r.alphaPlane = alpha.data();
        r.alphaStep = alphaStep;
        r.dstImage = dst.data();
        r.dstStep = dstStep;
        r.auxPlane = aux.data();
        r.auxStep = auxStep;
        r.fullWidth = fullW;
        r.fullHeight = fullH;
        r.roiX = roiX;
        r.roiY = roiY;
        r.roiWidth = w;
        r.roiHeight = h;
        return r;
    }

    // Mean absolute error of the result against the truth over the unpainted pixels (0..1).
    double meanError() {
        double sum = 0;
        int n = 0;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                if ((a(x, y) & 1) == 0) {
                    sum += std::fabs(a(x, y) / 255.0 - truthAt(x, y));
                    ++n;
                }
        return n ? sum / n : 0.0;
    }
};

}  // namespace kdtest
