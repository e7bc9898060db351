#include "flows/colour_mixture.h"

#include <algorithm>
#include <cmath>

#include "flows/feature_space.h"

namespace qx::flows {
namespace {

// Solves H z = u for the symmetric positive definite d x d matrix H (row-major, overwritten by
// its Cholesky factor). Returns false when a pivot is not positive.
bool choleskySolve(double* H, int d, const double* u, double* z) {
    for (int j = 0; j < d; ++j) {
        double p = H[j * d + j];
        for (int t = 0; t < j; ++t) p -= H[j * d + t] * H[j * d + t];
        if (!(p > 0.0)) return false;
        const double l = std::sqrt(p);
        H[j * d + j] = l;
        for (int i = j + 1; i < d; ++i) {
            double v = H[i * d + j];
            for (int t = 0; t < j; ++t) v -= H[i * d + t] * H[j * d + t];
            H[i * d + j] = v / l;
        }
    }
    for (int i = 0; i < d; ++i) {  // L y = u
        double v = u[i];
        for (int t = 0; t < i; ++t) v -= H[i * d + t] * z[t];
        z[i] = v / H[i * d + i];
    }
    for (int i = d - 1; i >= 0; --i) {  // L^T z = y
        double v = z[i];
        for (int t = i + 1; t < d; ++t) v -= H[t * d + i] * z[t];
        z[i] = v / H[i * d + i];
    }
    return true;
}

}  // namespace

// With D the k x dims differences (neighbour minus target), the weights solve
// (D D^T + s I) w = 1, then are scaled to sum one. D D^T has rank dims at most, so the k x k
// system is solved through the dims x dims one: (D D^T + s I)^-1 1 = (1 - D z) / s with
// (D^T D + s I) z = D^T 1; the 1 / s goes with the scaling.
void mixtureWeights(const float* target, const float* neighbours, int k, int dims,
                    double regularisation, double* weights) {
    constexpr int kMaxDims = 8;
    double diff[kMaxNeighbours * kMaxDims];
    double H[kMaxDims * kMaxDims] = {}, u[kMaxDims] = {}, z[kMaxDims];
    for (int j = 0; j < k; ++j)
        for (int d = 0; d < dims; ++d) {
            const double v = double(neighbours[j * dims + d]) - double(target[d]);
            diff[j * dims + d] = v;
            u[d] += v;
        }
    for (int a = 0; a < dims; ++a)
        for (int b = 0; b <= a; ++b) {
            double s = 0.0;
            for (int j = 0; j < k; ++j) s += diff[j * dims + a] * diff[j * dims + b];
            H[a * dims + b] = H[b * dims + a] = s;
        }
    double trace = 0.0;
    for (int d = 0; d < dims; ++d) trace += H[d * dims + d];
    const double shift = regularisation * trace + 1e-12;
    for (int d = 0; d < dims; ++d) H[d * dims + d] += shift;
    double sum = 0.0;
    if (choleskySolve(H, dims, u, z))
        for (int j = 0; j < k; ++j) {
            double w = 1.0;
            for (int d = 0; d < dims; ++d) w -= diff[j * dims + d] * z[d];
            weights[j] = w;
            sum += w;
        }
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
    tree.build(points.data(), static_cast<int>(all.size()), all, KdTree::Split::OnDemand);
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
