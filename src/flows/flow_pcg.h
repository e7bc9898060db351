// Conjugate gradients on the flows' system, preconditioned by its diagonal (Jacobi), from the
// caller's first guess. Stops when |b - A x| <= tolerance |b| or at the iteration limit; dot
// products are summed in fixed blocks, so the result does not depend on the number of threads.
// Between iterations (every 16th) the calling thread's cancel flag is checked
// (frame/progress.h: checkCancel throws Fault::Cancelled) and `poll`, when given, is called.
#pragma once

#include "flows/flow_system.h"

namespace qx::flows {

struct PcgResult {
    int iterations = 0;
    double relativeResidual = 0.0;
};

PcgResult solveFlowPcg(const FlowSystem& system, double* x, double tolerance, int maxIterations,
                       void (*poll)(void*) = nullptr, void* pollParam = nullptr);

}  // namespace qx::flows
