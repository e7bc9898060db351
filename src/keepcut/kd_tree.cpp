#include "runtime/fault.h"
#include "keepcut/kd_tree.h"

#include <algorithm>
#include <memory>

#include <omp.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "runtime/progress.h"
#include "keepcut/solve_alpha_window.h"
#include "resample/mask_pyr.h"

namespace qx {

namespace {

// Boxes from this many pixels up are scanned by all threads. The sums are of integers and exact
// in double precision, so the split of the rows doesn't change them.
constexpr int64_t kParallelArea = int64_t(1) << 18;

int64_t boxArea(const KDNode* n) {
    return static_cast<int64_t>(n->x1 - n->x0 + 1) * (n->y1 - n->y0 + 1);
}

// Tiles from this many pixels up are solved with all threads.
constexpr int64_t kParallelTileArea = int64_t(1) << 18;

// Runs the scope on one OpenMP thread when `size` is below `limit`, and puts the caller's
// thread count back at the end.
class SerialBelow {
public:
    SerialBelow(int64_t size, int64_t limit) : saved_(omp_get_max_threads()), active_(size < limit) {
        if (active_) omp_set_num_threads(1);
    }
    ~SerialBelow() {
        if (active_) omp_set_num_threads(saved_);
    }
    SerialBelow(const SerialBelow&) = delete;
    SerialBelow& operator=(const SerialBelow&) = delete;

private:
    int saved_;
    bool active_;
};

// Square of a 32-bit difference as a 32-bit product: past 46340 it wraps, as the integer
// arithmetic it stands for does.
int64_t square32(int d) {
    return static_cast<int32_t>(static_cast<uint32_t>(d) * static_cast<uint32_t>(d));
}

// Number of pixels of the box that are 0 in `known`.
double unknownInBox(const KDNode* n, int knownStep) {
    const int bw = n->x1 - n->x0 + 1, bh = n->y1 - n->y0 + 1;
    int64_t count = 0;
#pragma omp parallel for schedule(static) reduction(+ : count) if (boxArea(n) >= kParallelArea)
    for (int r = 0; r < bh; ++r) {
        const unsigned char* k = n->known + static_cast<int64_t>(r) * knownStep;
        int c = 0;
        for (int i = 0; i < bw; ++i) c += k[i] == 0;
        count += c;
    }
    return static_cast<double>(count);
}

}  // namespace

KDTree::KDTree(unsigned char* knownMap, int knownMapStep, unsigned char* const* planes,
               int planesStep, unsigned char* alphaPlane, int alphaPlaneStep,
               unsigned char* colourImage, int colourImageStep, int w, int h, CFMatt* cfmatt)
    : known(knownMap),
      knownStep(knownMapStep),
      alpha(alphaPlane),
      alphaStep(alphaPlaneStep),
      plane{planes[0], planes[1], planes[2]},
      planeStep(planesStep),
      colour(colourImage),
      colourStep(colourImageStep),
      width(w),
      height(h),
      matt(cfmatt) {
    root = new KDNode;
    root->x0 = 0;
    root->x1 = width - 1;
    root->y0 = 0;
    root->y1 = height - 1;
    setNodePointers(root);
}

KDTree::~KDTree() {
    destroyTree(root);
    root = nullptr;
    scratch.release();
}

void KDTree::destroyTree(KDNode* node) {
    if (node == nullptr) return;
    destroyTree(node->left);
    destroyTree(node->right);
    delete node;
}

void KDTree::setNodePointers(KDNode* node) const {
    for (int c = 0; c < 3; ++c) node->plane[c] = pixelAt(plane[c], planeStep, node->x0, node->y0, 1);
    node->colour = pixelAt(colour, colourStep, node->x0, node->y0, 4);
    node->known = pixelAt(known, knownStep, node->x0, node->y0, 1);
    node->alpha = pixelAt(alpha, alphaStep, node->x0, node->y0, 1);
}

double KDTree::getMedianPt(KDNode* node) {
    const int bw = node->x1 - node->x0 + 1, bh = node->y1 - node->y0 + 1;
    const int x0 = node->x0, y0 = node->y0;
    double sumX = 0.0, sumY = 0.0, count = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : sumX, sumY, count) \
    if (boxArea(node) >= kParallelArea)
    for (int r = 0; r < bh; ++r) {
        const unsigned char* k = node->known + static_cast<int64_t>(r) * knownStep;
        int64_t sx = 0, c = 0;
        for (int i = 0; i < bw; ++i) {
            const int z = k[i] == 0;
            sx += z * i;
            c += z;
        }
        sumX += static_cast<double>(sx + c * x0);
        sumY += static_cast<double>(c * (y0 + r));
        count += static_cast<double>(c);
    }
    if (count == 0.0) return 0.0;
    node->medianX = static_cast<int>(sumX / count);
    node->medianY = static_cast<int>(sumY / count);
    return count;
}

int KDTree::checkTermination(KDNode* child) {
    const int bw = child->x1 - child->x0 + 1, bh = child->y1 - child->y0 + 1;
    if (std::min(bw, bh) < kMinSide) return 4;
    int64_t keep = 0, cut = 0;
#pragma omp parallel for schedule(static) reduction(+ : keep, cut) \
    if (boxArea(child) >= kParallelArea)
    for (int r = 0; r < bh; ++r) {
        const unsigned char* k = child->known + static_cast<int64_t>(r) * knownStep;
        const unsigned char* a = child->alpha + static_cast<int64_t>(r) * alphaStep;
        int kp = 0, ct = 0;
        for (int i = 0; i < bw; ++i) {
            const int constraint = k[i] != 0;
            const int low = a[i] < 6;
            ct += constraint & low;
            kp += constraint & (1 - low);
        }
        keep += kp;
        cut += ct;
    }
    if (keep == 0) return 2;
    if (cut == 0) return 1;
    return 0;
}

KDNode* KDTree::constructTree(KDNode* node) {
    // A box without unknown pixels has no mean to cut at. It can only arise as a child full of
    // strokes of both kinds; as a first-pass leaf it is simply marked solved by the walk.
    if (getMedianPt(node) == 0.0) {
        node->solveFirst = 1;
        ++leafCount;
        return root;
    }

    const int bw = node->x1 - node->x0 + 1, bh = node->y1 - node->y0 + 1;
    const int mx = node->medianX, my = node->medianY;
    const int x0 = node->x0, y0 = node->y0;
    double sx = 0.0, sy = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : sx, sy) if (boxArea(node) >= kParallelArea)
    for (int r = 0; r < bh; ++r) {
        const unsigned char* k = node->known + static_cast<int64_t>(r) * knownStep;
        int64_t rowSx = 0, c = 0;
        for (int i = 0; i < bw; ++i) {
            if (k[i] != 0) continue;
            rowSx += square32(x0 + i - mx);
            ++c;
        }
        sx += static_cast<double>(rowSx);
        sy += static_cast<double>(c * square32(y0 + r - my));
    }
    node->splitAxis = sx > sy ? 0 : 1;

    auto left = std::make_unique<KDNode>();
    auto right = std::make_unique<KDNode>();
    left->x0 = right->x0 = node->x0;
    left->x1 = right->x1 = node->x1;
    left->y0 = right->y0 = node->y0;
    left->y1 = right->y1 = node->y1;
    if (node->splitAxis == 1) {
        left->y1 = my;
        right->y0 = my;
    } else {
        left->x1 = mx;
        right->x0 = mx;
    }
    setNodePointers(left.get());
    setNodePointers(right.get());

    const int vl = checkTermination(left.get());
    const int vr = checkTermination(right.get());
    if (vl == 4 || vr == 4 || vl + vr == 3) {
        // A child too thin, or a cut that would part keep from cut: this box is solved whole,
        // in the first pass.
        node->solveFirst = 1;
        ++leafCount;
        return root;
    }
    node->left = left.release();
    node->right = right.release();
    if (vl == 0) constructTree(node->left);
    else ++leafCount;
    if (vr == 0) constructTree(node->right);
    else ++leafCount;
    return root;
}

void KDTree::checkMemoryUsage(KDNode* node) {
    if (node->left != nullptr) {
        checkMemoryUsage(node->left);
        checkMemoryUsage(node->right);
        return;
    }
    if (unknownInBox(node, knownStep) > kMaxLeafUnknown) fail(Fault::SizeLimit);
}

bool KDTree::leafTaken(const KDNode* node, int pass) const {
    return node->x0 >= 0 && node->x1 >= 0 && node->y0 >= 0 && node->y1 >= 0 && node->x0 < width &&
           node->x1 < width && node->y0 < height && node->y1 < height && node->solveFirst == pass;
}

void KDTree::traverseTree(KDNode* node, int pass) {
    if (node->left != nullptr) {
        traverseTree(node->left, pass);
        traverseTree(node->right, pass);
        return;
    }
    if (!leafTaken(node, pass)) return;

    const int tx0 = std::max(node->x0 - kTileMargin, 0);
    const int tx1 = std::min(node->x1 + kTileMargin, width - 1);
    const int ty0 = std::max(node->y0 - kTileMargin, 0);
    const int ty1 = std::min(node->y1 + kTileMargin, height - 1);
    const int tw = tx1 - tx0 + 1, th = ty1 - ty0 + 1;

    GIMG<unsigned char> p0(tw, th, pixelAt(plane[0], planeStep, tx0, ty0, 1), planeStep);
    GIMG<unsigned char> p1(tw, th, pixelAt(plane[1], planeStep, tx0, ty0, 1), planeStep);
    GIMG<unsigned char> p2(tw, th, pixelAt(plane[2], planeStep, tx0, ty0, 1), planeStep);
    GIMG<unsigned char> knownView(tw, th, pixelAt(known, knownStep, tx0, ty0, 1), knownStep);
    GIMG<unsigned char> alphaView(tw, th, pixelAt(alpha, alphaStep, tx0, ty0, 1), alphaStep);
    GIMG<unsigned char>* planeViews[3] = {&p0, &p1, &p2};

    compAlphaKDTree(planeViews, &knownView, &alphaView, 1);
    progressKick();
    // The whole tile, margin included, is now a constraint for every later tile.
    Set(255, knownView);
    progressKick();
}

int compAlphaKDTree(GIMG<unsigned char>** planeViews, GIMG<unsigned char>* knownView,
                    GIMG<unsigned char>* alphaView, int keepResolution) {
    const int w = knownView->width, h = knownView->height;
    int64_t painted = 0;
    for (int y = 0; y < h; ++y) {
        const unsigned char* k = knownView->row(y);
        int c = 0;
        for (int x = 0; x < w; ++x) c += k[x] & 1;
        painted += c;
    }
    if (static_cast<int64_t>(w) * h - painted < 3) return -5;

    // The solve's parallel loops only pay off on large tiles; a small one runs on the calling
    // thread alone (the solve's result doesn't depend on the number of threads).
    SerialBelow serial(static_cast<int64_t>(w) * h, kParallelTileArea);
    CMaskPyr pyramid;
    pyramid.build(planeViews, knownView, alphaView, 0);
    {
        CFMatt matt;
        unsigned char* planes[3] = {planeViews[0]->data, planeViews[1]->data, planeViews[2]->data};
        solveAlphaWindow(matt, planes, planeViews[0]->step, w, h, knownView->data, knownView->step,
                         alphaView->data, alphaView->step);
    }
    if (keepResolution == 0) pyramid.upSampling();
    pyramid.cleanUp();
    return 1;
}

}  // namespace qx
