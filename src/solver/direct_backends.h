// Internals of the direct solver shared by its two factorisation backends (MUMPS in single
// precision, CHOLMOD in double) and the driver that chooses between them.
#pragma once

#include <cstddef>
#include <mutex>

#include "runtime/fault.h"
#include "solver/direct_solver.h"

namespace qx {
namespace detail {

constexpr int kAnalysisFailed = int(Fault::SolverAnalysis);
constexpr int kFactorisationFailed = int(Fault::SolverFactorisation);
constexpr int kSolveFailed = int(Fault::SolverSolve);

// Thrown inside a backend when memory ran out in the given phase; the entry decides between the
// memory path and the phase's integer.
struct OutOfMemory {
    int phase;
};

// The progress kicks of one solve: one after each of the three phases (the first only when the
// form asks for it), each made once even when a solve moves to the other backend halfway; before
// each kick the options' `reached` hears the phase and the statistics so far.
class PhaseKicks {
public:
    PhaseKicks(const DirectSolveOptions& o, const DirectSolveStats& stats)
        : options_(o), stats_(stats) {}
    // Phase 1 analysis, 2 factorisation, 3 solve.
    void reached(int phase);

private:
    const DirectSolveOptions& options_;
    const DirectSolveStats& stats_;
    int done_ = 0;
};

// For tests: while the returned lock is held, no MUMPS solve gets past its start.
std::unique_lock<std::mutex> holdMumps();

// For the life of this object no other thread works or spins for the solve. The idle OpenMP
// workers that the caller's last parallel region left spinning (for some milliseconds by default,
// for ever under OMP_WAIT_POLICY=active) are released with omp_pause_resource_all, and the next
// parallel region starts them again; OpenMP's settings (ICVs) are not changed. The BLAS (OpenBLAS)
// runs on the calling thread alone, so its own worker threads aren't woken and don't spin between
// the many small calls of a factorisation; its thread count is read at construction and put back
// at destruction. The environment isn't touched.
class QuietThreads {
public:
    QuietThreads();
    ~QuietThreads();
    QuietThreads(const QuietThreads&) = delete;
    QuietThreads& operator=(const QuietThreads&) = delete;

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
