#include "flows/colour_mixture.h"

#include <algorithm>
#include <cmath>

#include "flows/feature_space.h"

namespace qx::flows {
namespace {

// Solves G w = 1 for the symmetric positive definite k x k matrix G (row-major, overwritten by
// its Cholesky factor). Returns false when a pivot is not positive.
bool choleskySolveOnes(double* G, int k, double* w) {
    for (int j = 0; j < k; ++j) {
        double d = G[j * k + j];
        for (int t = 0; t < j; ++t) d -= G[j * k + t] * G[j * k + t];
        if (!(d > 0.0)) return false;
        const double l = std::sqrt(d);
        G[j * k + j] = l;
        for (int i = j + 1; i < k; ++i) {
            double s = G[i * k + j];
            for (int t = 0; t < j; ++t) s -= G[i * k + t] * G[j * k + t];
            G[i * k + j] = s / l;
        }
    }
    for (int i = 0; i < k; ++i) {  // L y = 1
        double s = 1.0;
        for (int t = 0; t < i; ++t) s -= G[i * k + t] * w[t];
        w[i] = s / G[i * k + i];
    }
    for (int i = k - 1; i >= 0; --i) {  // L^T w = y
        double s = w[i];
        for (int t = i + 1; t < k; ++t) s -= G[t * k + i] * w[t];
        w[i] = s / G[i * k + i];
    }
    return true;
}

}  // namespace

void mixtureWeights(const float* target, const float* neighbours, int k, int dims,
                    double regularisation, double* weights) {
    double G[kMaxNeighbours * kMaxNeighbours];
    double diff[kMaxNeighbours * 8];
    for (int j = 0; j < k; ++j)
        for (int d = 0; d < dims; ++d)
            diff[j * dims + d] = double(neighbours[j * dims + d]) - double(target[d]);
    double trace = 0.0;
    for (int i = 0; i < k; ++i)
        for (int j = 0; j <= i; ++j) {
            double s = 0.0;
            for (int d = 0; d < dims; ++d) s += diff[i * dims + d] * diff[j * dims + d];
            G[i * k + j] = G[j * k + i] = s;
            if (i == j) trace += s;
        }
    const double shift = regularisation * trace + 1e-12;
    for (int i = 0; i < k; ++i) G[i * k + i] += shift;
    double sum = 0.0;
    if (choleskySolveOnes(G, k, weights))
        for (int i = 0; i < k; ++i) sum += weights[i];
    if (!(std::abs(sum) > 1e-300) || !std::isfinite(sum)) {
        for (int i = 0; i < k; ++i) weights[i] = 1.0 / k;
        return;
    }
    for (int i = 0; i < k; ++i) weights[i] /= sum;
}

WeightRows colourMixtureWeights(const FlowImage& image, const PixelSets& sets,
                                const ColourMixtureOptions& options) {
    const std::vector<int> all = [&] {
        if (options.searchRadius >= 0) return pixelsNearUnknown(image, sets, options.searchRadius);
        std::vector<int> v(size_t(image.pixels()));
        for (int p = 0; p < image.pixels(); ++p) v[size_t(p)] = p;
        return v;
    }();
    const std::vector<float> points = pixelFeatures(image, all, options.spatialWeight);
    KdTree tree;
    options.poll();
    tree.build(points.data(), static_cast<int>(all.size()), all);
    options.poll();

    const int n = static_cast<int>(sets.unknown.size());
    const int k = std::clamp(options.neighbours, 1, std::min(kMaxNeighbours,
                                                             std::max(1, tree.size() - 1)));
    const std::vector<float> queries = pixelFeatures(image, sets.unknown, options.spatialWeight);
    const std::vector<int> found = nearestAll(tree, queries.data(), n, k, sets.unknown, options.maxChecks,
                                               options.poll);

    WeightRows rows;
    rows.start.resize(size_t(n) + 1);
    rows.cols.resize(size_t(n) * k);
    rows.weights.resize(size_t(n) * k);
    const int dims = options.rebuildDims == 5 ? kFeatureDims : 3;
#pragma omp parallel for schedule(static)
    for (int r = 0; r < n; ++r) {
        const int* names = found.data() + int64_t(r) * k;
        float nb[kMaxNeighbours * kFeatureDims];
        float target[kFeatureDims];
        double w[kMaxNeighbours];
        const float* q = queries.data() + int64_t(r) * kFeatureDims;
        std::copy(q, q + dims, target);
        int held = 0;
        for (int j = 0; j < k; ++j) {
            if (names[j] < 0) break;
            const int x = names[j] % image.width, y = names[j] / image.width;
            float f[kFeatureDims];
            for (int c = 0; c < 3; ++c) f[c] = image.colour(c, names[j]) * (1.0f / 255.0f);
            // The place, scaled as the features were (only used when the place is rebuilt).
            const int refW = image.referenceWidth > 0 ? image.referenceWidth : image.width;
            const int refH = image.referenceHeight > 0 ? image.referenceHeight : image.height;
            f[3] = x * (options.spatialWeight / refW);
            f[4] = y * (options.spatialWeight / refH);
            std::copy(f, f + dims, nb + held * dims);
            ++held;
        }
        mixtureWeights(target, nb, held, dims, options.regularisation, w);
        for (int j = 0; j < k; ++j) {
            rows.cols[size_t(r) * k + j] = j < held ? names[j] : sets.unknown[size_t(r)];
            rows.weights[size_t(r) * k + j] = j < held ? static_cast<float>(w[j]) : 0.0f;
        }
    }
    for (int r = 0; r <= n; ++r) rows.start[size_t(r)] = r * k;
    return rows;
}

}  // namespace qx::flows
