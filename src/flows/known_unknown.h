// Known-to-unknown flow: each undecided pixel takes its K nearest foreground pixels and its K
// nearest background pixels in the feature space, and the mixture weights (sum one) that rebuild
// its colour from all 2K of them. The foreground's share of the weights estimates its alpha;
// the squared distance between the foreground and background colours the weights mix (each
// side's mixture over its own share; over 3, colours on 0..1) says how far the estimate can be
// trusted: two sides of one colour explain nothing.
// The estimate enters the solve as a data term, confidence times (alpha - estimate)^2.
#pragma once

#include <vector>

#include "flows/flow_image.h"

namespace qx::flows {

struct KnownUnknownOptions {
    int neighbours = 7;           // K on each side
    float spatialWeight = 1.0f;   // of the place coordinates in the search
    double regularisation = 1e-3;
    // Search among the decided pixels within this many pixels of the undecided region
    // (Chebyshev); below 0, among every decided pixel of the box.
    int searchRadius = -1;
    // Points compared a search before it settles for the nearest found (0: exact search,
    // which can take a hundred times as long where many points lie at nearly one distance).
    int maxChecks = 64;
    Poll poll;  // between slices of the search
};

struct KnownUnknownEstimate {
    std::vector<float> alpha;       // the foreground's share, clamped to 0..1, one a unknown
    std::vector<float> confidence;  // 0..1, one a unknown
};

// For the undecided pixels in the order of sets.unknown. With no foreground or no background
// pixel in the box, every estimate is 0 or 1 by the side that exists, with confidence 0.
KnownUnknownEstimate knownUnknownFlow(const FlowImage& image, const PixelSets& sets,
                                      const KnownUnknownOptions& options);

}  // namespace qx::flows
