#include "flows/flow_pcg.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "flows/block_sum.h"
#include "runtime/progress.h"


namespace qx::flows {
namespace {

constexpr int kCheckEvery = 4;

}  // namespace

PcgResult solveFlowPcg(const FlowSystem& system, double* x, double tolerance, int maxIterations,
                       const Poll& poll, const CoarseLevel* coarse) {
    const int n = system.n;
    PcgResult result;
    if (n == 0) return result;
    if (coarse && static_cast<int>(coarse->aggregateOf().size()) != n) coarse = nullptr;
    const size_t count = static_cast<size_t>(n);
    std::vector<double> r(count), p(count), q(count), inv(count);
    std::vector<double> scratch, partial, rc, restricted, work;
    for (int i = 0; i < n; ++i) {
        const double d = system.diagonal[size_t(i)];
        inv[size_t(i)] = d > 0.0 ? 1.0 / d : 1.0;
    }
    const int* agg = coarse ? coarse->aggregateOf().data() : nullptr;
    if (coarse) {
        rc.resize(size_t(coarse->unknowns()));
        restricted.resize(rc.size());
    }
    // The coarse part of r.z: z's coarse part is P ec with ec = Ac^-1 P^T r, so r.(P ec) = rc.ec
    // over the aggregates (summed in their order). rc is left holding ec.
    auto coarseCorrection = [&]() {
        coarse->restrictResidual(r.data(), restricted.data());
        rc = restricted;
        coarse->solve(rc.data(), work);
        double s = 0.0;
        for (size_t a = 0; a < rc.size(); ++a) s += restricted[a] * rc[a];
        return s;
    };
    const double* b = system.rhs.data();
    const double bNorm = std::sqrt(blockSum(n, partial, [&](int i) { return b[i] * b[i]; }));
    system.apply(x, q.data(), scratch, partial);
    double rr = blockSum(n, partial, [&](int i) {
        r[size_t(i)] = b[i] - q[size_t(i)];
        return r[size_t(i)] * r[size_t(i)];
    });
    const double goal = tolerance * (bNorm > 0.0 ? bNorm : 1.0);
    double rz = blockSum(n, partial, [&](int i) {
        return r[size_t(i)] * (inv[size_t(i)] * r[size_t(i)]);
    });
    if (coarse) rz += coarseCorrection();
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
    for (int i = 0; i < n; ++i)
        p[size_t(i)] = inv[size_t(i)] * r[size_t(i)] + (agg ? rc[size_t(agg[i])] : 0.0);
    const double firstResidual = std::sqrt(rr);
    int it = 0;
    while (std::sqrt(rr) > goal && it < maxIterations) {
        const double pq = system.apply(p.data(), q.data(), scratch, partial);
        if (!(pq > 0.0)) break;  // no curvature left along p: a singular direction
        const double alpha = rz / pq;
        double rzNew = 0.0;
        rr = blockSum2(n, partial, rzNew, [&](int i, double& rzi) {
            x[i] += alpha * p[size_t(i)];
            r[size_t(i)] -= alpha * q[size_t(i)];
            rzi = r[size_t(i)] * (inv[size_t(i)] * r[size_t(i)]);
            return r[size_t(i)] * r[size_t(i)];
        });
        if (coarse) rzNew += coarseCorrection();
        const double beta = rzNew / rz;
        rz = rzNew;
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
        for (int i = 0; i < n; ++i)
            p[size_t(i)] = inv[size_t(i)] * r[size_t(i)] + (agg ? rc[size_t(agg[i])] : 0.0) +
                           beta * p[size_t(i)];
        ++it;
        if (it % kCheckEvery == 0) {
            // The part done: how far the residual has come down the orders of magnitude between
            // its start and the goal.
            if (rr > 0.0 && firstResidual > goal)
                progressWithin(std::log(firstResidual / std::sqrt(rr)) /
                               std::log(firstResidual / goal));
            poll();
        }
    }
    result.iterations = it;
    result.relativeResidual = std::sqrt(rr) / (bNorm > 0.0 ? bNorm : 1.0);
    return result;
}

}  // namespace qx::flows
