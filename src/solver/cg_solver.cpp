#include "solver/cg_solver.h"

#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "runtime/progress.h"
#include "solver/sparse.h"

namespace qx {
namespace {

// Below this size a parallel region costs more than it saves.
constexpr int kParallelRows = 16384;
// Dot products are summed in blocks of a fixed length, then the block sums in order, so that the
// result doesn't depend on how many threads ran.
constexpr int kDotBlock = 4096;
// The progress kick comes once the iteration counter passes this value.
constexpr int kKickEvery = 20;

// y = A*x for the symmetric matrix stored as its upper triangle. Row i needs its own entries
// (columns >= i) and the entries of column i in the rows above it; the latter are gathered once
// into a compressed copy of the strictly lower triangle, so that each row of y is summed by one
// thread in a fixed order, with no atomics and no per-thread copies of y.
class SymmetricUpperProduct {
public:
    bool build(int n, const double* a, const int* ia, const int* ja) {
        n_ = n;
        a_ = a;
        ia_ = ia;
        ja_ = ja;
        try {
            lowerStart_.assign(size_t(n) + 1, 0);
            for (int i = 0; i < n; ++i)
                for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p)
                    if (ja[p] - 1 > i) ++lowerStart_[size_t(ja[p])];
            for (int i = 0; i < n; ++i) lowerStart_[size_t(i) + 1] += lowerStart_[size_t(i)];
            const size_t count = size_t(lowerStart_[size_t(n)]);
            lowerCol_.resize(count);
            lowerVal_.resize(count);
            std::vector<int64_t> fill(lowerStart_.begin(), lowerStart_.end() - 1);
            for (int i = 0; i < n; ++i)
                for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p) {
                    const int j = ja[p] - 1;
                    if (j > i) {
                        const int64_t q = fill[size_t(j)]++;
                        lowerCol_[size_t(q)] = i;
                        lowerVal_[size_t(q)] = a[p];
                    }
                }
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }

    void apply(const double* x, double* y) const {
        const int n = n_;
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
        for (int i = 0; i < n; ++i) {
            double s = 0.0;
            for (int p = ia_[i] - 1; p < ia_[i + 1] - 1; ++p) {
                const int j = ja_[p] - 1;
                if (j >= i) s += a_[p] * x[j];
            }
            for (int64_t q = lowerStart_[size_t(i)]; q < lowerStart_[size_t(i) + 1]; ++q)
                s += lowerVal_[size_t(q)] * x[lowerCol_[size_t(q)]];
            y[i] = s;
        }
    }

private:
    int n_ = 0;
    const double* a_ = nullptr;
    const int* ia_ = nullptr;
    const int* ja_ = nullptr;
    std::vector<int64_t> lowerStart_;
    std::vector<int> lowerCol_;
    std::vector<double> lowerVal_;
};

// Sums partial[0..blocks) in order.
double sumBlocks(const std::vector<double>& partial) {
    double s = 0.0;
    for (double v : partial) s += v;
    return s;
}

int blockCount(int n) { return int((int64_t(n) + kDotBlock - 1) / kDotBlock); }

int blockEnd(int blk, int n) {
    const int64_t end = int64_t(blk) * kDotBlock + kDotBlock;
    return end < n ? int(end) : n;
}

// Sums term(i) over 0..n in fixed blocks, each block in order and the blocks in order, so the
// result is the same whatever the thread count. term may also update the vectors at i.
template <typename Term>
double blockSum(int n, std::vector<double>& partial, Term term) {
    const int blocks = blockCount(n);
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
    for (int blk = 0; blk < blocks; ++blk) {
        const int end = blockEnd(blk, n);
        double s = 0.0;
        for (int i = blk * kDotBlock; i < end; ++i) s += term(i);
        partial[size_t(blk)] = s;
    }
    return sumBlocks(partial);
}

double dot(const double* u, const double* v, int n, std::vector<double>& partial) {
    return blockSum(n, partial, [=](int i) { return u[i] * v[i]; });
}

// x += alpha*p, r -= alpha*q; returns r'r.
double updateAndNorm(double alpha, const double* p, const double* q, double* x, double* r, int n,
                     std::vector<double>& partial) {
    return blockSum(n, partial, [=](int i) {
        x[i] += alpha * p[i];
        r[i] -= alpha * q[i];
        return r[i] * r[i];
    });
}

// z = r scaled by invDiag (or copied when there is none); returns r'z.
double precondition(const double* invDiag, const double* r, double* z, int n,
                    std::vector<double>& partial) {
    return blockSum(n, partial, [=](int i) {
        z[i] = invDiag ? r[i] * invDiag[i] : r[i];
        return r[i] * z[i];
    });
}

int runCg(int n, const double* a, const int* ia, const int* ja, const double* b, double* x,
          double* tmp, int limit, double tolerance, bool jacobi) {
    SymmetricUpperProduct A;
    std::vector<double> partial;
    std::vector<double> invDiag;
    if (!A.build(n, a, ia, ja)) return -1;
    try {
        partial.resize(size_t(blockCount(n)));
        if (jacobi) {
            invDiag.resize(size_t(n));
            for (int i = 0; i < n; ++i) {
                const double d = csrUpperDiagonal(i, a, ia, ja);
                invDiag[size_t(i)] = d != 0.0 ? 1.0 / d : 1.0;
            }
        }
    } catch (const std::bad_alloc&) {
        return -1;
    }
    const double* M = jacobi ? invDiag.data() : nullptr;

    double* p = tmp;
    double* q = tmp + n;
    double* r = tmp + 2 * size_t(n);
    double* z = tmp + 3 * size_t(n);

    A.apply(x, q);
    for (int i = 0; i < n; ++i) r[i] = b[i] - q[i];
    const double r0 = std::sqrt(dot(r, r, n, partial));
    const double stop = tolerance * r0;
    if (r0 == 0.0 || limit == 0) return 0;

    double rz = precondition(M, r, z, n, partial);
    for (int i = 0; i < n; ++i) p[i] = z[i];

    int counter = 0;
    for (int k = 1; k <= limit; ++k) {
        A.apply(p, q);
        const double pq = dot(p, q, n, partial);
        if (!(pq > 0.0) || !std::isfinite(pq)) return k - 1;
        const double alpha = rz / pq;
        const double rr = updateAndNorm(alpha, p, q, x, r, n, partial);
        if (jacobi && ++counter > kKickEvery) {
            progressKick();
            counter = 0;
        }
        if (std::sqrt(rr) <= stop || k == limit) return k;
        const double rzNext = precondition(M, r, z, n, partial);
        const double beta = rzNext / rz;
        rz = rzNext;
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
        for (int i = 0; i < n; ++i) p[i] = z[i] + beta * p[i];
    }
    return limit;
}

bool argumentsOk(int n, const double* a, const int* ia, const int* ja, const double* b,
                 const double* x, const double* tmp, int maxIterations, double tolerance) {
    if (a == nullptr || b == nullptr || x == nullptr || tmp == nullptr) return false;
    if (maxIterations < 0 || !(tolerance >= 0.0)) return false;
    return csrUpperEntries(n, ia, ja) >= 0;
}

}  // namespace

int cgSolver(int n, const double* a, const int* ia, const int* ja, const double* b, double* x,
             double* tmp, int maxIterations, double tolerance) {
    if (!argumentsOk(n, a, ia, ja, b, x, tmp, maxIterations, tolerance)) return -1;
    const int limit = maxIterations < n ? maxIterations : n;
    return runCg(n, a, ia, ja, b, x, tmp, limit, tolerance, false);
}

int cgSolver_jacobi(int n, const double* a, const int* ia, const int* ja, const double* b,
                    double* x, double* tmp, int maxIterations, double tolerance) {
    if (!argumentsOk(n, a, ia, ja, b, x, tmp, maxIterations, tolerance)) return -1;
    return runCg(n, a, ia, ja, b, x, tmp, maxIterations, tolerance, true);
}

}  // namespace qx
