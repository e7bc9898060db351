// Internals of the direct solver shared by its two factorisation backends (MUMPS in single
// precision, CHOLMOD in double) and the driver that chooses between them.
#pragma once

#include <cstddef>

#include "solver/direct_solver.h"

namespace qx {
namespace detail {

constexpr int kAnalysisFailed = 121;
constexpr int kFactorisationFailed = 122;
constexpr int kSolveFailed = 123;

// Thrown inside a backend when memory ran out in the given phase; the entry decides between the
// memory path and the phase's integer.
struct OutOfMemory {
    int phase;
};

// The progress kicks of one solve: one after each of the three phases (the first only when the
// form asks for it), each made once even when a solve moves to the other backend halfway.
class PhaseKicks {
public:
    explicit PhaseKicks(bool afterAnalysis) : afterAnalysis_(afterAnalysis) {}
    // Phase 1 analysis, 2 factorisation, 3 solve.
    void reached(int phase);

private:
    bool afterAnalysis_;
    int done_ = 0;
};

// The BLAS (OpenBLAS) runs on the calling thread alone for the life of this object: its own worker
// threads are not woken, so none of them spins between the many small calls of a factorisation.
// The library's thread count is read at construction and put back at destruction; nothing else of
// the process (environment, OpenMP settings) is touched.
class SingleThreadedBlas {
public:
    SingleThreadedBlas();
    ~SingleThreadedBlas();
    SingleThreadedBlas(const SingleThreadedBlas&) = delete;
    SingleThreadedBlas& operator=(const SingleThreadedBlas&) = delete;

private:
    int saved_ = 0;
};

// r = b - A*x in double for the upper-triangle matrix (entries below the diagonal ignored, repeated
// entries added), nrhs columns; returns the largest |r|.
double symmetricResidual(int n, const float* a, const int* ia, const int* ja, const double* b,
                         const double* x, double* r, int nrhs);

// The largest |a| over the entries the solver uses (column at or above the row); 121 if one isn't
// finite.
double largestEntry(int n, const float* a, const int* ia, const int* ja);

// What a backend did with a system.
enum class Outcome {
    Solved,    // the solution is written
    GiveBack,  // numerical trouble: nothing written, the caller may try the other backend
};

// Each backend writes the solution to `out` (n * nrhs floats) on success, reports its phases
// through `kicks` and fills `stats`; errors are thrown as the phase's integer or OutOfMemory.
Outcome mumpsSolve(const DirectSolveOptions& o, int n, const float* a, const int* ia,
                   const int* ja, const float* b, float* out, int nrhs, DirectSolveStats& stats,
                   PhaseKicks& kicks);
Outcome cholmodSolve(const DirectSolveOptions& o, int n, const float* a, const int* ia,
                     const int* ja, const float* b, float* out, int nrhs, DirectSolveStats& stats,
                     PhaseKicks& kicks);

}  // namespace detail
}  // namespace qx
