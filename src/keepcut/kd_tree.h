// The KD-tree of the keep-cut engine: it cuts an image into boxes that can be solved one after
// the other, so that the closed-form solve never sees more than one box (plus a margin) at once.
//
// A box is cut at the mean of its unknown pixels, across the axis in which they spread most,
// for as long as both halves still hold keep and cut constraints. It stops being cut when a half
// would be thinner than 12 pixels, or when the cut would part the keep strokes from the cut
// strokes. Leaves that hold both kinds of constraint are solved first (solveFirst 1); the others
// take the missing kind from their solved neighbours in a second pass.
//
// The tree owns only its nodes: the images belong to the driver that makes it. Calling order:
// constructor, constructTree(root), checkMemoryUsage(root), traverseTree(root, 1),
// traverseTree(root, 0), destructor.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

#include "matting/cfmatt.h"
#include "qxiveilon31.h"

namespace qx {

struct KDNode {
    // Addresses of pixel (x0, y0) in the tree's images (null where the tree's image is null).
    unsigned char* plane[3] = {nullptr, nullptr, nullptr};
    unsigned char* colour = nullptr;  // four bytes a pixel
    unsigned char* known = nullptr;
    unsigned char* alpha = nullptr;
    int medianX = -1;    // the cut point (mean of the unknown pixels, truncated)
    int medianY = -1;
    int splitAxis = -1;  // 0: cut at column medianX; 1: cut at row medianY
    int x0 = -1;         // the box, all four bounds inclusive
    int x1 = -1;
    int y0 = -1;
    int y1 = -1;
    KDNode* left = nullptr;   // the part with the smaller coordinates; both children or none
    KDNode* right = nullptr;
    int solveFirst = 0;       // 1: a leaf of the first pass
};

// The leaf solve of a tile given as views: three colour planes with one common step, the known
// map and the alpha plane, both written through. Returns 1, or -5 when fewer than 3 pixels of
// the tile are unknown (nothing is solved then). keepResolution 0 would bring a reduced solve
// back up; the tree always passes 1.
int compAlphaKDTree(GIMG<unsigned char>** planeViews, GIMG<unsigned char>* knownView,
                    GIMG<unsigned char>* alphaView, int keepResolution);

class KDTree {
public:
    // Borrows all images; allocates the root over the whole width x height.
    KDTree(unsigned char* known, int knownStep, unsigned char* const* planes, int planeStep,
           unsigned char* alpha, int alphaStep, unsigned char* colour, int colourStep, int width,
           int height, CFMatt* matt);
    // Frees every node.
    ~KDTree();
    KDTree(const KDTree&) = delete;
    KDTree& operator=(const KDTree&) = delete;

    // Cuts `node` recursively (called once, with the root); returns the root.
    KDNode* constructTree(KDNode* node);
    // Sets medianX and medianY to the truncated mean of the box's unknown pixels, in image
    // coordinates. Returns the number of unknown pixels; with none, both stay as they were.
    double getMedianPt(KDNode* node);
    // Verdict on a new child: 4 thinner than 12 pixels, 2 no keep constraint, 1 keep
    // constraints only, 0 both kinds (cut further).
    int checkTermination(KDNode* child);
    // Fails with Fault::SizeLimit if a leaf below `node` has more than 2,000,000 unknown pixels.
    void checkMemoryUsage(KDNode* node);
    // Frees `node` and everything below it.
    void destroyTree(KDNode* node);

    // Solves the leaves whose solveFirst equals `pass`, depth first, smaller coordinates first.
    void traverseTree(KDNode* node, int pass);
    // Foreground recovery leaf by leaf, over each leaf's box grown by half its size.
    void traverseTreeFBRecovery(KDNode* node, int pass);

    unsigned char* known;
    int knownStep;
    unsigned char* alpha;
    int alphaStep;
    unsigned char* plane[3];
    int planeStep;
    unsigned char* colour;
    int colourStep;
    int width;
    int height;
    cv::Mat scratch;
    KDNode* root = nullptr;
    CFMatt* matt;
    int leafCount = 0;

    // The job's memory budget (1000-byte units), for the leaves' colour recovery.
    int memUnits = 0;

    // Pixels of a leaf's box that may be unknown before the call fails.
    static constexpr double kMaxLeafUnknown = 2000000.0;
    // Margin of a leaf's tile in the solve walk.
    static constexpr int kTileMargin = 10;
    // A child thinner than this ends the cutting.
    static constexpr int kMinSide = 12;

private:
    // Points the node's image addresses at its (x0, y0).
    void setNodePointers(KDNode* node) const;
    // A leaf that a walk of this pass takes: a box inside the image, solveFirst equal to pass.
    bool leafTaken(const KDNode* node, int pass) const;
};

// Address of pixel (x, y) of an image with `pixelBytes` bytes a pixel; null for a null image.
inline unsigned char* pixelAt(unsigned char* base, int step, int x, int y, int pixelBytes) {
    if (base == nullptr) return nullptr;
    return base + static_cast<int64_t>(y) * step + static_cast<int64_t>(x) * pixelBytes;
}

}  // namespace qx
