#include "flows/unknown_unknown.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "flows/compressed_rows.h"
#include "flows/feature_space.h"

namespace qx::flows {

WeightRows unknownUnknownWeights(const FlowImage& image, const PixelSets& sets,
                                 const UnknownUnknownOptions& options) {
    const int n = static_cast<int>(sets.unknown.size());
    WeightRows out;
    out.start.assign(size_t(n) + 1, 0);
    if (n < 2) return out;
    const std::vector<float> f = pixelFeatures(image, sets.unknown, options.spatialWeight);
    std::vector<int> self(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) self[size_t(i)] = i;
    KdTree tree;
    options.poll();
    tree.build(f.data(), n, self);
    options.poll();
    const int k = std::clamp(options.neighbours, 1, n - 1);
    const std::vector<int> found = nearestAll(tree, f.data(), n, k, self, options.maxChecks, options.poll);

    // One-sided links (each row's own, by column), then each pair's two directions added: row i
    // merges its own links with the links that name it (the own rows' transpose, whose rows come
    // ordered by column). A pair found from both ends has the same weight both ways (the distance
    // is symmetric), so the sum does not depend on which is taken first.
    WeightRows own;
    std::vector<int> ownCount(size_t(n), 0);
    own.cols.resize(size_t(n) * k);
    own.weights.resize(size_t(n) * k);
#pragma omp parallel for schedule(static)
    for (int i = 0; i < n; ++i) {
        const float* a = f.data() + int64_t(i) * kFeatureDims;
        int* cols = own.cols.data() + size_t(i) * k;
        float* weights = own.weights.data() + size_t(i) * k;
        int m = 0;
        for (int j = 0; j < k; ++j) {
            const int q = found[size_t(i) * k + j];
            if (q < 0) continue;
            const float* b = f.data() + int64_t(q) * kFeatureDims;
            float d = 0.0f;
            for (int c = 0; c < kFeatureDims; ++c) d += std::abs(a[c] - b[c]);
            const float v = std::max(1.0f - d, 0.0f);
            if (v <= 0.0f) continue;
            // Kept in column order as they come (a handful a row).
            int at = m++;
            for (; at > 0 && cols[at - 1] > q; --at) {
                cols[at] = cols[at - 1];
                weights[at] = weights[at - 1];
            }
            cols[at] = q;
            weights[at] = v;
        }
        ownCount[size_t(i)] = m;
    }
    packRows(n, k, ownCount, own.start, own.cols, own.weights);
    WeightRows named;
    transposeRows(n, own.start, own.cols, own.weights, named.start, named.cols, named.weights);

    // Merged twice over: the lengths first, then the entries in place.
    const auto merge = [&](int i, int* cols, float* weights) {
        int e = own.start[size_t(i)], eEnd = own.start[size_t(i) + 1];
        int t = named.start[size_t(i)], tEnd = named.start[size_t(i) + 1];
        int m = 0;
        while (e < eEnd || t < tEnd) {
            const int ce = e < eEnd ? own.cols[size_t(e)] : n;
            const int ct = t < tEnd ? named.cols[size_t(t)] : n;
            const int c = std::min(ce, ct);
            float v = 0.0f;  // 0 + w is w: a one-way link keeps its weight exactly
            if (ce == c) v += own.weights[size_t(e++)];
            if (ct == c) v += named.weights[size_t(t++)];
            if (cols) {
                cols[m] = c;
                weights[m] = v;
            }
            ++m;
        }
        return m;
    };
    rowsInTwoPasses(
        n, out.start, out.cols, out.weights, [&](int i) { return merge(i, nullptr, nullptr); },
        merge);
    return out;
}

}  // namespace qx::flows
