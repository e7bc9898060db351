// The flows' tri-map solve on one box: the box's pixels sorted by the tri-map, the chosen terms
// (colour mixture, known-to-unknown, intra-unknown, local closed-form Laplacian), the combined
// system over the undecided pixels, conjugate gradients from the known-to-unknown estimate, and
// alpha out as 8 bits. It takes what the workflows' tri-map job takes for its box (colour
// planes, tri-map, codes) and writes alpha over the whole box: decided pixels 0 or 255.
#pragma once

#include "flows/coarse_level.h"
#include "flows/colour_mixture.h"
#include "flows/flow_image.h"
#include "flows/flow_system.h"
#include "flows/known_unknown.h"
#include "flows/unknown_unknown.h"

namespace qx::flows {

struct FlowOptions {
    FlowWeights weights;
    ColourMixtureOptions mixture;
    KnownUnknownOptions known;
    UnknownUnknownOptions intra;
    // The local Laplacian's colour model regularisation (the workflows' plain solve takes 1e-8).
    double localEpsilon = 1e-8;
    // The conjugate gradients' preconditioner: the diagonal, with a coarse level of aggregates
    // when coarse.aggregate > 0 (flows/coarse_level.h; left out for small systems).
    CoarseOptions coarse;
    double tolerance = 1e-4;
    int maxIterations = 2000;
    // First guess: the known-to-unknown estimate (true) or 0.5 everywhere.
    bool startFromEstimate = true;
    // The mask job's rule: a undecided pixel never comes back as exactly 0 or 255.
    bool hardValueRule = false;
    // Called between pieces of work, between slices of the searches and every 4th iteration;
    // the cancel flag is looked at there too. Progress goes to the calling thread's innermost
    // span (runtime/progress.h): seven stages (the four terms, the system, its coarse level, the
    // iterations), the searches by slice, the iterations by their residual.
    Poll poll;
};

// Where the time went, and what the solve did.
struct FlowStats {
    int unknowns = 0;
    int iterations = 0;
    double relativeResidual = 0.0;
    int coarseUnknowns = 0;         // 0: the diagonal preconditioner alone
    size_t coarseFactorEntries = 0;
    double coarseSeconds = 0.0;     // forming and factorising Ac (within seconds[4])
    double meanConfidence = 0.0;  // of the known-to-unknown estimates (when made)
    double seconds[5] = {};  // mixture, known-unknown, intra-unknown, local, system + solve
};

// Writes the box's alpha into `alpha` (width x height bytes, row step alphaStep). The calling
// thread's cancel flag is checked between the pieces and during the iterations (throws
// Fault::Cancelled); memory failures are thrown as std::bad_alloc or the matting job's faults.
void flowAlpha(const FlowImage& image, const FlowOptions& options, unsigned char* alpha,
               int alphaStep, FlowStats* stats = nullptr);

}  // namespace qx::flows
