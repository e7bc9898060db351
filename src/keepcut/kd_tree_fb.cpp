// Foreground recovery over the leaves of a KD-tree: each leaf's box, grown by half its size on
// every side, is handed to the cell-wise recovery as a request of its own.
#include <algorithm>
#include <cstring>

#include "foreground/recovery.h"
#include "runtime/progress.h"
#include "keepcut/kd_tree.h"

namespace qx {

void KDTree::traverseTreeFBRecovery(KDNode* node, int pass) {
    if (node->left != nullptr) {
        traverseTreeFBRecovery(node->left, pass);
        traverseTreeFBRecovery(node->right, pass);
        return;
    }
    if (!leafTaken(node, pass)) return;

    const int mx = static_cast<int>(0.5 * (node->x1 - node->x0 + 1));
    const int my = static_cast<int>(0.5 * (node->y1 - node->y0 + 1));
    const int gx0 = std::max(node->x0 - mx, 0);
    const int gx1 = std::min(node->x1 + mx, width - 1);
    const int gy0 = std::max(node->y0 - my, 0);
    const int gy1 = std::min(node->y1 + my, height - 1);
    const int gw = gx1 - gx0 + 1, gh = gy1 - gy0 + 1;
    const int dx = node->x0 - gx0, dy = node->y0 - gy0;

    // The node's addresses moved back to the grown box's corner; a view over a null address
    // allocates a plane of its own.
    auto back = [&](unsigned char* p, int step, int pixelBytes) -> unsigned char* {
        return p == nullptr ? nullptr : pixelAt(p, step, -dx, -dy, pixelBytes);
    };
    GIMG<unsigned char> p0(gw, gh, back(node->plane[0], planeStep, 1), planeStep);
    GIMG<unsigned char> p1(gw, gh, back(node->plane[1], planeStep, 1), planeStep);
    GIMG<unsigned char> p2(gw, gh, back(node->plane[2], planeStep, 1), planeStep);
    GIMG<unsigned char> knownView(gw, gh, back(node->known, knownStep, 1), knownStep);
    GIMG<unsigned char> alphaView(gw, gh, back(node->alpha, alphaStep, 1), alphaStep);
    for (GIMG<unsigned char>* v : {&p0, &p1, &p2, &knownView, &alphaView})
        if (!v->wrapped) Set(0, *v);

    IMG<unsigned char, 4> source(gw, gh);
    const GIMG<unsigned char>* channels[4] = {&p0, &p1, &p2, &knownView};
    for (int c = 0; c < 4; ++c)
        prim::insertChannel_8u_C1C4(channels[c]->data, channels[c]->step, source.data + c,
                                    source.step, {gw, gh});

    KeepCutRequest request;
    std::memset(&request, 0, sizeof request);
    request.srcImage = source.data;
    request.srcStep = source.step;
    request.alphaPlane = alphaView.data;
    request.alphaStep = alphaView.step;
    request.dstImage = back(node->colour, colourStep, 4);
    request.dstStep = colourStep;
    request.fullWidth = gw;
    request.fullHeight = gh;
    request.roiX = 0;
    request.roiY = 0;
    request.roiWidth = gw;
    request.roiHeight = gh;
    request.regionMode = 0;
    recoverForegroundCellJob(&request, memUnits);
    progressKick();
}

}  // namespace qx
