#include "flows/unknown_unknown.h"

#include <algorithm>
#include <cmath>
#include <utility>

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

    // One-sided links, then each pair's two directions added: row i gathers its own links and
    // the links that name it.
    std::vector<float> w(size_t(n) * k, 0.0f);
#pragma omp parallel for schedule(static)
    for (int i = 0; i < n; ++i) {
        const float* a = f.data() + int64_t(i) * kFeatureDims;
        for (int j = 0; j < k; ++j) {
            const int q = found[size_t(i) * k + j];
            if (q < 0) continue;
            const float* b = f.data() + int64_t(q) * kFeatureDims;
            float d = 0.0f;
            for (int c = 0; c < kFeatureDims; ++c) d += std::abs(a[c] - b[c]);
            w[size_t(i) * k + j] = std::max(1.0f - d, 0.0f);
        }
    }
    std::vector<int> count(size_t(n) + 1, 0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < k; ++j) {
            const int q = found[size_t(i) * k + j];
            if (q < 0 || w[size_t(i) * k + j] <= 0.0f) continue;
            ++count[size_t(i) + 1];
            ++count[size_t(q) + 1];
        }
    for (int i = 0; i < n; ++i) count[size_t(i) + 1] += count[size_t(i)];
    std::vector<std::pair<int, float>> links(static_cast<size_t>(count[size_t(n)]));
    std::vector<int> fill(count.begin(), count.end() - 1);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < k; ++j) {
            const int q = found[size_t(i) * k + j];
            const float v = w[size_t(i) * k + j];
            if (q < 0 || v <= 0.0f) continue;
            links[size_t(fill[size_t(i)]++)] = {q, v};
            links[size_t(fill[size_t(q)]++)] = {i, v};
        }
    // Each row sorted by column, equal columns merged (a pair that found each other).
    out.cols.reserve(links.size());
    out.weights.reserve(links.size());
    for (int i = 0; i < n; ++i) {
        auto first = links.begin() + count[size_t(i)], last = links.begin() + count[size_t(i) + 1];
        std::sort(first, last, [](const auto& a, const auto& b) { return a.first < b.first; });
        for (auto it = first; it != last; ++it) {
            if (out.cols.size() > size_t(out.start[size_t(i)]) && out.cols.back() == it->first)
                out.weights.back() += it->second;
            else {
                out.cols.push_back(it->first);
                out.weights.push_back(it->second);
            }
        }
        out.start[size_t(i) + 1] = static_cast<int>(out.cols.size());
    }
    return out;
}

}  // namespace qx::flows
