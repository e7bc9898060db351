#include "flows/known_unknown.h"

#include <algorithm>
#include <cmath>

#include "flows/colour_mixture.h"
#include "flows/feature_space.h"

namespace qx::flows {
namespace {

constexpr int kMaxSide = 32;
// Below this share of the weights a side's mixed colour is not divided out.
constexpr double kLeastShare = 0.05;

// The decided pixels of one side, all or only those near the undecided region.
std::vector<int> sidePixels(const std::vector<int>& side, const std::vector<int>& near,
                            const PixelSets& sets, PixelKind kind, bool restrict) {
    if (!restrict) return side;
    std::vector<int> out;
    for (int p : near)
        if (sets.kind[size_t(p)] == kind) out.push_back(p);
    return out;
}

// The estimate at q from its nf foreground and nb background neighbours (names, in that
// order): the foreground's share of the mixture weights that rebuild q's colour from theirs, and
// a confidence that grows with how far apart the two sides' mixed colours lie.
void mixSides(const FlowImage& image, const float* q, const int* names, int nf, int nb,
              double regularisation, float& alpha, float& confidence) {
    const int m = nf + nb;
    float colours[2 * kMaxSide * 3];
    for (int j = 0; j < m; ++j)
        for (int c = 0; c < 3; ++c) colours[3 * j + c] = image.colour(c, names[j]) / 255.0f;
    double w[2 * kMaxSide];
    mixtureWeights(q, colours, m, 3, regularisation, w);
    // The two sides' colours as the weights mix them, each over its own share; a side whose
    // share is near 0 (a pixel the other side explains) takes its neighbours' plain mean.
    double share[2] = {0.0, 0.0}, mix[2][3] = {{0, 0, 0}, {0, 0, 0}}, mean[2][3] = {};
    for (int j = 0; j < m; ++j) {
        const int side = j < nf ? 0 : 1;
        share[side] += w[j];
        for (int c = 0; c < 3; ++c) {
            mix[side][c] += w[j] * colours[3 * j + c];
            mean[side][c] += colours[3 * j + c] / (side == 0 ? nf : nb);
        }
    }
    double d2 = 0.0;
    for (int c = 0; c < 3; ++c) {
        const double f = std::abs(share[0]) > kLeastShare ? mix[0][c] / share[0] : mean[0][c];
        const double b = std::abs(share[1]) > kLeastShare ? mix[1][c] / share[1] : mean[1][c];
        d2 += (f - b) * (f - b);
    }
    const double fgShare = share[0];
    alpha = static_cast<float>(std::clamp(fgShare, 0.0, 1.0));
    confidence = static_cast<float>(std::min(d2 / 3.0, 1.0));
}

}  // namespace

KnownUnknownEstimate knownUnknownFlow(const FlowImage& image, const PixelSets& sets,
                                      const KnownUnknownOptions& options) {
    const int n = static_cast<int>(sets.unknown.size());
    KnownUnknownEstimate e;
    e.alpha.assign(size_t(n), 0.0f);
    e.confidence.assign(size_t(n), 0.0f);
    if (n == 0) return e;

    const bool restrict = options.searchRadius >= 0;
    const std::vector<int> near =
        restrict ? pixelsNearUnknown(image, sets, options.searchRadius) : std::vector<int>{};
    const std::vector<int> fg =
        sidePixels(sets.foreground, near, sets, PixelKind::Foreground, restrict);
    const std::vector<int> bg =
        sidePixels(sets.background, near, sets, PixelKind::Background, restrict);
    if (fg.empty() || bg.empty()) {
        std::fill(e.alpha.begin(), e.alpha.end(), fg.empty() ? 0.0f : 1.0f);
        return e;
    }

    const float s = options.spatialWeight;
    const std::vector<float> fgPoints = pixelFeatures(image, fg, s);
    const std::vector<float> bgPoints = pixelFeatures(image, bg, s);
    KdTree fgTree, bgTree;
    options.poll();
    fgTree.build(fgPoints.data(), static_cast<int>(fg.size()), fg, KdTree::Split::OnDemand);
    options.poll();
    bgTree.build(bgPoints.data(), static_cast<int>(bg.size()), bg, KdTree::Split::OnDemand);
    options.poll();
    const std::vector<float> queries = pixelFeatures(image, sets.unknown, s);
    const int k = std::clamp(options.neighbours, 1, kMaxSide);

    forSlices(n, options.poll, [&](int first, int last) {
        // Each side's search starts from the previous pixel's neighbours on that side.
        SearchHint fgHint, bgHint;
        for (int r = first; r < last; ++r) {
            const float* q = queries.data() + int64_t(r) * kFeatureDims;
            int names[2 * kMaxSide];
            const int nf = fgTree.nearest(q, k, -1, names, nullptr, options.maxChecks, &fgHint);
            const int nb =
                bgTree.nearest(q, k, -1, names + nf, nullptr, options.maxChecks, &bgHint);
            mixSides(image, q, names, nf, nb, options.regularisation, e.alpha[size_t(r)],
                     e.confidence[size_t(r)]);
        }
    });
    return e;
}

}  // namespace qx::flows
