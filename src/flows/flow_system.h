// The combined linear system of the flows over the undecided pixels, the decided ones fixed at
// their alpha (0 or 1) and moved to the right-hand side:
//
//   E(a) = sCM |(I - W_CM) a|^2 + sL a^T L_local a + sUU a^T L_UU a
//          + sKU sum_p conf_p (a_p - est_p)^2
//
// Its minimiser over the undecided alphas solves A x = b with
//   A = sCM M^T M + sL L_local,UU + sUU L_UU + sKU diag(conf),
// where M is (I - W_CM) restricted to the undecided rows and columns. A is symmetric positive
// semi-definite, and definite as soon as every undecided pixel reaches a decided one or a
// confident estimate through its links. M^T M is never formed (with K = 20 it would hold
// hundreds of entries a row): products go through M and its transpose.
#pragma once

#include <vector>

#include "flows/colour_mixture.h"
#include "flows/flow_image.h"
#include "flows/known_unknown.h"

namespace qx::flows {

// The weights of the terms (0 leaves a term out). The defaults are the workflows': against the
// published ones (1, 1, 0.01, 0.05) the colour mixture at half and the two other flows at 40%
// beside the local Laplacian gave a mean SAD 6% lower on the benchmark photos' tri-maps
// (bench_matting_peers).
struct FlowWeights {
    double colourMixture = 0.5;
    double local = 1.0;
    double unknownUnknown = 0.005;
    double knownUnknown = 0.02;
};

// Compressed rows over the undecided pixels, 0-based. Values are kept in single precision (the
// products, bound by memory traffic, read half as much) and summed in double.
struct SparseRows {
    std::vector<int> start{0};
    std::vector<int> cols;
    std::vector<float> values;
};

struct FlowSystem {
    int n = 0;
    SparseRows explicitPart;     // sL L_local,UU + sUU L_UU + sKU diag(conf), symmetric, full rows
    SparseRows mixture;          // M, one row a undecided pixel
    SparseRows mixtureT;         // M^T
    double mixtureWeight = 0.0;  // sCM
    std::vector<double> rhs;
    std::vector<double> diagonal;  // of A

    // y = A x, parallel over rows; returns x.y, summed as blockSum sums (flows/block_sum.h). The
    // same bits whatever the thread count. scratch and partial are working room.
    double apply(const double* x, double* y, std::vector<double>& scratch,
                 std::vector<double>& partial) const;
};

// The terms as the caller computed them; an empty one is left out whatever its weight.
struct FlowTerms {
    const WeightRows* mixture = nullptr;        // colourMixtureWeights: columns box pixels
    const WeightRows* local = nullptr;          // localLaplacianRows: columns box pixels
    const WeightRows* unknownUnknown = nullptr; // unknownUnknownWeights: columns unknowns
    const KnownUnknownEstimate* knownUnknown = nullptr;
};

FlowSystem assembleFlowSystem(const PixelSets& sets, const FlowTerms& terms,
                              const FlowWeights& weights);

}  // namespace qx::flows
