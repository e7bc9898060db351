// Conjugate gradients on the flows' system from the caller's first guess, preconditioned by its
// diagonal (Jacobi) or, given a coarse level, by the diagonal plus the coarse correction
// (z = D^-1 r + P Ac^-1 P^T r, flows/coarse_level.h). Stops when |b - A x| <= tolerance |b| or at
// the iteration limit; dot products are summed in fixed blocks, so the result does not depend on
// the number of threads. Every 4th iteration the part done is reported (runtime/progress.h) and
// `poll` is called (it looks at the calling thread's cancel flag, which throws Fault::Cancelled,
// then calls the caller's function).
#pragma once

#include "flows/coarse_level.h"
#include "flows/flow_system.h"

namespace qx::flows {

struct PcgResult {
    int iterations = 0;
    double relativeResidual = 0.0;
};

PcgResult solveFlowPcg(const FlowSystem& system, double* x, double tolerance, int maxIterations,
                       const Poll& poll = {}, const CoarseLevel* coarse = nullptr);

}  // namespace qx::flows
