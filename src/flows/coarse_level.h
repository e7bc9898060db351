// The coarse level of the flows' two-level preconditioner. The undecided pixels are grouped by
// their place in the box into aggregates of size x size pixels (the aggregate of a pixel at
// (x, y) is the cell (x / size, y / size); empty cells have none), P is the piecewise-constant
// prolongation, one column an aggregate, and the coarse matrix Ac = P^T A P is formed once and
// factorised once. The conjugate gradients then take
//
//   z = D^-1 r + P Ac^-1 P^T r
//
// as their preconditioned residual: the diagonal takes the pixel-scale error down, the coarse
// solve the smooth error across the band that a diagonal alone removes one pixel a step.
//
// The mixture's part of Ac, sCM P^T M^T M P, is formed as (M P)^T (M P) from M P, which has a
// column an aggregate and at most as many entries a row as M. Ac is factorised by CHOLMOD as a
// simplicial LL' (AMD ordering), solved with our own two triangular passes: no BLAS, the same
// bits whatever the thread count. A pivot that is not positive (P^T A P is only semi-definite
// where a group of pixels reaches no decided pixel and no confident estimate) is met by a small
// shift of the diagonal, tried larger until the factorisation goes through.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "flows/flow_system.h"

namespace qx::flows {

struct CoarseOptions {
    // Pixels a side of an aggregate; 0 leaves the coarse level out (diagonal preconditioner
    // alone). 4 took the fewest iterations on the benchmark photos (6 and 8 a tenth and a fifth
    // more) for a factor still small beside the job (bench/README.md, "The flows' solve").
    int aggregate = 4;
    // Fewer aggregates than this: the coarse level is left out (it would hold too little of the
    // error to pay for its pass a step).
    int minUnknowns = 256;
    // The factor's bytes an undecided pixel at most (the tri-map job budgets 1920 for a pixel of
    // the solve: the factor keeps to a tenth of that); a larger one is not made.
    double factorBytesPerUnknown = 192.0;
    // Links of Ac weaker than this part of the geometric mean of their ends' diagonals are
    // moved onto the diagonals before the factorisation (0 keeps them all). The mixture's
    // long links make Ac's factor nearly dense (2.6 million entries for 5,561 aggregates of
    // 6 x 6 on GT04); 0.01 leaves 98,000 for the same iterations.
    double dropTolerance = 0.01;
};

class CoarseLevel {
public:
    // The coarse level of `system`, whose unknown i is the box pixel pixelOf[i] (raster order in
    // a box `width` wide). nullptr when it is left out: no aggregate size, too few aggregates, a
    // factor over its memory bound, or a factorisation that fails even shifted. Memory failures
    // are thrown (std::bad_alloc).
    static std::unique_ptr<CoarseLevel> build(const FlowSystem& system, const int* pixelOf,
                                              int width, const CoarseOptions& options);

    int unknowns() const { return count_; }
    // The aggregate of each fine unknown.
    const std::vector<int>& aggregateOf() const { return aggregate_; }
    // The factor's entries.
    size_t factorEntries() const { return values_.size(); }
    // The diagonal shift the factorisation needed (0 when none).
    double shift() const { return shift_; }

    // rc = P^T r (each aggregate's members summed in their order, aggregates in parallel).
    void restrictResidual(const double* r, double* rc) const;
    // rc = Ac^-1 rc, in place (sequential; `work` is resized to the coarse size).
    void solve(double* rc, std::vector<double>& work) const;
    // z += P Ac^-1 P^T r: the coarse part of the preconditioner, whole.
    void correct(const double* r, double* z, std::vector<double>& work) const;

private:
    CoarseLevel() = default;

    int n_ = 0, count_ = 0;
    std::vector<int> aggregate_;                 // fine unknown -> aggregate
    std::vector<int> memberStart_, members_;     // aggregate -> its fine unknowns, in order
    // L of Ac(perm, perm) = L L^T in compressed columns, the diagonal first in each column.
    std::vector<int> perm_, colStart_, rows_;
    std::vector<double> values_;
    double shift_ = 0.0;
};

}  // namespace qx::flows
