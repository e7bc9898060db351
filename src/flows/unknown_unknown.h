// Intra-unknown flow: each undecided pixel links to its K nearest undecided pixels in a feature
// space where the place counts little, with the weight max(1 - |f_p - f_q|_1, 0); the links are
// made symmetric (W + W^T) and enter the solve through their graph Laplacian D - (W + W^T), so
// that alpha spreads between undecided pixels of one colour wherever they lie.
#pragma once

#include <vector>

#include "flows/colour_mixture.h"
#include "flows/flow_image.h"

namespace qx::flows {

struct UnknownUnknownOptions {
    int neighbours = 5;              // K
    float spatialWeight = 0.05f;     // of the place coordinates
    // Points compared a search before it settles for the nearest found (0: exact search,
    // which can take a hundred times as long where many points lie at nearly one distance).
    int maxChecks = 64;
    Poll poll;  // between slices of the search
};

// Rows in the order of sets.unknown, columns numbers of undecided pixels (not box pixels): the
// symmetric weights W + W^T, each row's columns ascending, no diagonal.
WeightRows unknownUnknownWeights(const FlowImage& image, const PixelSets& sets,
                                 const UnknownUnknownOptions& options);

}  // namespace qx::flows
