// Colour-mixture flow: every undecided pixel is written as an affine mixture of its K nearest
// neighbours in the feature space (locally linear embedding: the weights that rebuild its colour
// best, summing to one), and its alpha is asked to be the same mixture of theirs. With W the
// weight rows and I the identity, the energy is |(I - W) alpha|^2, i.e. the Laplacian
// (I - W)^T (I - W).
#pragma once

#include <vector>

#include "flows/flow_image.h"

namespace qx::flows {

// Weight rows over box pixels: row r holds cols[start[r] .. start[r + 1]) with their weights.
struct WeightRows {
    std::vector<int> start{0};
    std::vector<int> cols;
    std::vector<float> weights;
    int rows() const { return static_cast<int>(start.size()) - 1; }
};

// The mixture weights that rebuild `target` (dims values) from the k points at `neighbours`
// (k rows of dims values): minimise |target - sum_j w_j n_j|^2 subject to sum_j w_j = 1, with
// the local Gram matrix regularised by `regularisation` times its trace (plus a floor, so that
// neighbours equal to the target give equal weights). Writes k weights summing to one.
void mixtureWeights(const float* target, const float* neighbours, int k, int dims,
                    double regularisation, double* weights);

struct ColourMixtureOptions {
    // K. Ten give the same error as twenty on the benchmark photos (within 0.5%) in 25% less time.
    int neighbours = 10;
    float spatialWeight = 1.0f;   // of the place coordinates in the search
    // Rebuild the colour only (3) or the whole feature, place included (5).
    int rebuildDims = 3;
    double regularisation = 1e-3;
    // Search among the undecided pixels and the decided ones within this many pixels of them
    // (Chebyshev distance); below 0, among every pixel of the box.
    int searchRadius = -1;
    // Points compared a search before it settles for the nearest found (0: exact search,
    // which can take a hundred times as long where many points lie at nearly one distance).
    // Each search starts from the previous pixel's neighbours, so 32 find as good a mixture
    // as 64 did without that start (mean SAD on the benchmark photos' two tri-map sets within
    // 0.5%, bench_matting_peers).
    int maxChecks = 32;
    Poll poll;  // between slices of the search
};

// One row a undecided pixel (in the order of sets.unknown), columns box pixels.
WeightRows colourMixtureWeights(const FlowImage& image, const PixelSets& sets,
                                const ColourMixtureOptions& options);

}  // namespace qx::flows
