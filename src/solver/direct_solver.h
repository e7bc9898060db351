// The direct sparse solver: Cholesky factorisation (CHOLMOD, supernodal) of one symmetric system
// per call, in the four phases analysis, numeric factorisation, solve and release, with a
// progress kick after each of the first three.
//
// All forms take the same arguments:
//   n        order of the system
//   a,ia,ja  the upper triangle, one-based compressed rows (solver/sparse.h), float values;
//            read only
//   b        nrhs right-hand sides of n floats each, one after the other
//   x        nrhs columns of n floats for the forms that write the solution there
//   nrhs     number of right-hand sides, at least 1
//   mtype    2 (symmetric positive definite) or -2 (symmetric indefinite); anything else is
//            refused like a malformed matrix
//
// Failures are thrown as plain ints: 121 analysis (including malformed arguments), 122 numeric
// factorisation, 123 solve. The matting forms return 0 instead of throwing when memory ran out
// (or the factor would overflow 32-bit indices), after releasing everything they held.
//
// Matting systems are positive semi-definite: a pixel that belongs to no window has a zero row,
// and an undecided region that touches no constraint has the constant vector in its null space.
// When the factorisation meets a pivot that isn't positive, it is repeated on A + s*I with a tiny
// shift s, growing by 100 from 1e-8 to 1e-4 of the largest entry, and the solution is then
// improved by up to two steps of iterative refinement against the unshifted A (kept only while
// they lower the residual). A system that no shift makes positive definite is genuinely
// indefinite; it is factorised once more as LDL' without supernodes before 122 is thrown.
#pragma once

#include <cstddef>

namespace qx {

// Matting form: the solution comes back in b; x is not written (it may be null). Returns 1 on
// success, 0 when memory ran out.
int pardisoSolverIC(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                    int nrhs, int mtype);

// The logical negation of pardisoSolverIC: 0 on success, 1 when memory ran out.
int pardisoSolver(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                  int nrhs, int mtype);

// Plain form: the solution goes to x and b is left alone. Every failure throws, memory included,
// and the analysis isn't followed by a progress kick (two kicks in all). Returns 1.
int pardisoSolverICPlain(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                         int nrhs, int mtype);

// The form for systems near the memory limit. Same contract as the matting form. The factor stays
// in core; what changes is that the ordering is always nested dissection and supernodes aren't
// padded with explicit zeros, which gives the smallest factor at some cost in speed.
int pardisoSolverOOC(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                     int nrhs, int mtype);

namespace detail {

enum class Ordering { Amd, Metis, Nesdis };

struct DirectSolveOptions {
    // On matting-like grids (5 x 5 coupling, 100k and 300k unknowns) AMD orders in 0.06 s and
    // 0.2 s, METIS and CHOLMOD's nested dissection in 0.9 s and 3.2-3.4 s, for a factor at most 6%
    // smaller and 7-17% fewer flops: the whole solve is 1.4-1.6 times faster with AMD.
    Ordering ordering = Ordering::Amd;
    bool supernodal = true;
    bool compactSupernodes = false;  // no relaxed amalgamation: smaller factor, slower
    bool memoryPath = true;          // return 0 on out-of-memory instead of throwing
    bool kickAfterAnalysis = true;
    bool solutionInB = true;         // false: write x, leave b
    int blasThreads = 1;             // OpenMP threads for the BLAS during the solve; 0: as set
};

struct DirectSolveStats {
    double shift = 0.0;           // absolute diagonal shift of the factorisation, 0 if none
    int refinementSteps = 0;      // refinement steps kept
    bool ldlFallback = false;     // factorised as LDL' after the shifts failed
    double factorEntries = 0.0;   // entries of the factor
    double factorFlops = 0.0;     // flops of the factorisation as analysed
    size_t peakBytes = 0;         // peak memory of the solver
    double analysisSeconds = 0.0; // wall time of each phase
    double factorSeconds = 0.0;
    double solveSeconds = 0.0;
};

// The driver behind all forms; stats may be null.
int directSolve(const DirectSolveOptions& options, int n, const float* a, const int* ia,
                const int* ja, float* b, float* x, int nrhs, int mtype, DirectSolveStats* stats);

}  // namespace detail
}  // namespace qx
