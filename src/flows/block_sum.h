// Sums over the rows of the flows' systems that come out the same whatever the thread count, and
// the size below which their loops stay on one thread.
#pragma once

#include <algorithm>
#include <vector>

namespace qx::flows {

// Rows a block of the sums.
constexpr int kSumBlock = 4096;
// Below this many unknowns a parallel region costs more than it saves.
constexpr int kParallelRows = 16384;

// Sums term(i) over 0..n in fixed blocks (each in order, then the blocks in order).
template <typename Term>
inline double blockSum(int n, std::vector<double>& partial, Term term) {
    const int blocks = (n + kSumBlock - 1) / kSumBlock;
    partial.assign(size_t(blocks), 0.0);
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
    for (int b = 0; b < blocks; ++b) {
        const int end = std::min(n, (b + 1) * kSumBlock);
        double s = 0.0;
        for (int i = b * kSumBlock; i < end; ++i) s += term(i);
        partial[size_t(b)] = s;
    }
    double s = 0.0;
    for (double v : partial) s += v;
    return s;
}

// Two sums at once: the first returned, the second (what term sets in its second argument) in
// `second`, each summed as blockSum sums.
template <typename Term>
inline double blockSum2(int n, std::vector<double>& partial, double& second, Term term) {
    const int blocks = (n + kSumBlock - 1) / kSumBlock;
    partial.assign(size_t(blocks) * 2, 0.0);
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
    for (int b = 0; b < blocks; ++b) {
        const int end = std::min(n, (b + 1) * kSumBlock);
        double s = 0.0, t = 0.0;
        for (int i = b * kSumBlock; i < end; ++i) {
            double u = 0.0;
            s += term(i, u);
            t += u;
        }
        partial[size_t(b) * 2] = s;
        partial[size_t(b) * 2 + 1] = t;
    }
    double s = 0.0, t = 0.0;
    for (int b = 0; b < blocks; ++b) {
        s += partial[size_t(b) * 2];
        t += partial[size_t(b) * 2 + 1];
    }
    second = t;
    return s;
}

}  // namespace qx::flows
