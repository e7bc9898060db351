// The direct sparse solver: one symmetric system per call, in the four phases analysis, numeric
// factorisation, solve and release, with a progress kick after each of the first three.
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
// factorisation, 123 solve. The matting forms return 0 instead of throwing when memory ran out,
// after releasing everything they held.
//
// The factorisation is MUMPS's multifrontal LDL' in single precision (sequential, threshold
// pivoting that matting systems never need), followed by iterative refinement in double against the
// caller's own values: each step solves for the residual b - A*x, computed in double, and is kept
// only while it lowers that residual; refinement stops at a backward error of 1e-13 (two steps on
// matting systems) or after two steps (five for the OOC form). Matting systems are positive
// semi-definite: a pixel that belongs to no window has a zero row, and an undecided region that
// touches no constraint has the constant vector in its null space. A pivot that is exactly zero (a
// zero row, or exact cancellation) is a null pivot and its unknown is fixed at 0; pivots that
// cancel only to rounding stay, and as such unknowns have a zero right-hand side in a matting
// system, they come out 0 as well. A small pivot that is real (a region held by weak couplings) is
// kept. A system that the single-precision factor can't solve to a small backward error (a singular
// factor, a solution that isn't finite, refinement that doesn't converge) is solved again by the
// double-precision path: CHOLMOD's Cholesky factorisation of A+s*I with a tiny shift s where a
// pivot isn't positive (growing by 100 from 1e-8 to 1e-4 of the largest entry), refined the same
// way, and as LDL' without supernodes for a genuinely indefinite system.
//
// MUMPS's memory errors take the memory path, after one retry of the factorisation with a larger
// workspace when the one estimated by the analysis was too small. The solve runs on the calling
// thread alone: idle OpenMP workers are released for its length (not left spinning) and the BLAS
// runs single-threaded, its thread count put back afterwards; OpenMP settings and the environment
// aren't touched. (CHOLMOD, on the fallback path, may still open OpenMP regions of its own.)
#pragma once

#include <cstddef>
#include <memory>

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

// In-line form of foreground recovery, for its normal equations: the plain form's contract (the
// solution in x, every failure thrown, two kicks) on CHOLMOD's simplicial LDL' in double instead
// of MUMPS. Those systems are nearly diagonal: a 2x2 block per pixel, coupled to the neighbours
// only in the thin band where alpha changes; 50,000 to 70,000 unknowns, a factor of 1e5 to 3e7
// flops. A multifrontal or supernodal code spends its time there on tens of thousands of tiny
// fronts: MUMPS took 0.1-0.2 s a solve, mostly set-up, supernodal CHOLMOD 0.1-0.15 s, the
// simplicial factorisation 0.01-0.08 s for three right sides. The blocks of pixels that no
// gradient reaches (a cell's left column, where alpha is between 0.3 and 0.7) are singular up to
// the rounding of their float entries: in float MUMPS finds them exactly singular, fixes them as
// null pivots, and then can't refine the rest to the double system, so the system went to the
// shifted CHOLMOD path; LL' in double sees half of them as tiny negative pivots and shifts. LDL'
// takes those pivots as they are: their unknowns (never read) come out large, everything coupled
// is solved to double accuracy. An exactly zero pivot still takes the shift-and-refine path, each
// right-hand side refined on its own terms. Columns come out the same as when each is solved by
// itself.
int pardisoSolverInLine(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                        int nrhs, int mtype);

// The form for systems near the memory limit. Same contract as the matting form. The factor stays
// in core; what changes is that the ordering is nested dissection (SCOTCH; CHOLMOD's NESDIS with
// unpadded supernodes on the fallback path), which gives a smaller factor for a much longer
// analysis, and refinement may take up to five steps.
int pardisoSolverOOC(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                     int nrhs, int mtype);

namespace detail {

enum class Backend { Mumps, Cholmod };
enum class Ordering { Amd, Metis, Nesdis, Scotch, Pord, Amf };

struct DirectSolveStats;

struct DirectSolveOptions {
    Backend backend = Backend::Mumps;
    // Measured on matting-like grids (5 x 5 coupling): AMD orders a 100k system in 0.06 s and a
    // 300k one in 0.2 s; the nested dissections (METIS, CHOLMOD's NESDIS, SCOTCH) save 7-18% of the
    // flops but take several times as long to order, so AMD gives the fastest whole solve there.
    // Nesdis means SCOTCH for MUMPS; Scotch, Pord and Amf (approximate minimum fill) are MUMPS's
    // own and mean AMD for CHOLMOD.
    Ordering ordering = Ordering::Amd;
    int refinementSteps = 2;         // at most this many refinement steps
    bool fallback = true;            // MUMPS's numerical failures go to the CHOLMOD path
    bool supernodal = true;          // CHOLMOD only
    bool compactSupernodes = false;  // CHOLMOD only: no relaxed amalgamation, smaller factor
    bool memoryPath = true;          // return 0 on out-of-memory instead of throwing
    bool kickAfterAnalysis = true;
    bool solutionInB = true;         // false: write x, leave b
    bool quietThreads = true;        // no OpenMP worker or BLAS thread runs during the solve
    int workspacePercent = 0;        // MUMPS ICNTL(14); 0: MUMPS's own default
    int maxWorkMB = 0;               // MUMPS ICNTL(23), the cap on its working memory; 0: none
    // Where the phase kicks go; null: progressKick() on the calling thread.
    void (*kick)(void* param) = nullptr;
    void* kickParam = nullptr;
    // Told on the solving thread as each phase (1 analysis, 2 factorisation, 3 solve) ends,
    // before its kick, with the statistics so far (after the analysis: its estimates of the
    // factor's flops and entries); null: nobody. Its parameter is kickParam.
    void (*reached)(void* param, int phase, const DirectSolveStats& sofar) = nullptr;
};

struct DirectSolveStats {
    Backend backend = Backend::Mumps;  // the backend whose solution came back
    bool fellBack = false;        // MUMPS gave the system back to CHOLMOD
    int nullPivots = 0;           // null pivots MUMPS detected
    int workspaceRetries = 0;     // factorisations repeated on a larger workspace
    double shift = 0.0;           // CHOLMOD: absolute diagonal shift of the factorisation
    int refinementSteps = 0;      // refinement steps kept
    double backwardError = 0.0;   // max|b - A*x| / (max|A| * max|x| + max|b|) at the end
    bool ldlFallback = false;     // CHOLMOD: factorised as LDL' after the shifts failed
    double factorEntries = 0.0;   // entries of the factor (after the analysis: its estimate)
    double factorFlops = 0.0;     // flops of the factorisation (the same)
    size_t peakBytes = 0;         // peak memory of the solver
    double analysisSeconds = 0.0; // wall time of each phase
    double factorSeconds = 0.0;
    double solveSeconds = 0.0;    // solve and refinement
};

// Totals over every solve since the last reset, for the benchmarks: where a job's time goes.
struct DirectSolveTotals {
    int solves = 0;
    int fallbacks = 0;
    double analysisSeconds = 0.0, factorSeconds = 0.0, solveSeconds = 0.0;
    double factorFlops = 0.0;
    size_t peakBytes = 0;  // the largest of the solves
};
DirectSolveTotals directSolveTotals();
void resetDirectSolveTotals();

// The options of pardisoSolverInLine.
DirectSolveOptions inLineOptions();

// The driver behind all forms; stats may be null.
int directSolve(const DirectSolveOptions& options, int n, const float* a, const int* ia,
                const int* ja, float* b, float* x, int nrhs, int mtype, DirectSolveStats* stats);

// A system's arrays, allocated with malloc and freed with free by whoever holds them last.
struct SystemArrays {
    float* a = nullptr;
    int* ia = nullptr;
    int* ja = nullptr;
    SystemArrays() = default;
    ~SystemArrays();
    SystemArrays(const SystemArrays&) = delete;
    SystemArrays& operator=(const SystemArrays&) = delete;
};

// directSolve on arrays that the solve may keep after its caller has gone. While the calling
// thread has a cancel flag installed (runtime/progress.h), or a progress listener and a system
// large enough to keep it waiting, the solve runs on a thread of its own and the caller waits
// for it, making the phase kicks itself, telling the listener how far the phase in hand has got
// (its elapsed time against an estimate) and looking at the flag every few milliseconds: once
// the flag is set the call throws Fault::Cancelled at once, and the solve,
// which can't be stopped inside a factorisation, finishes on its own thread and frees what it
// holds (the arrays, its copies of b and x). Nothing of the caller's is touched after the call
// returns. A direct solve started later waits for it (one MUMPS instance runs at a time). The
// library's unloading waits for such solves. Otherwise the solve runs on the calling thread as
// directSolve does. Either way the results are the same bits.
int directSolveOwned(const DirectSolveOptions& options, int n,
                     std::shared_ptr<const SystemArrays> system, float* b, float* x, int nrhs,
                     int mtype, DirectSolveStats* stats);

// Solves running on threads of their own, waited for or left behind by cancelled jobs (for tests).
int runningDetachedSolves();

}  // namespace detail
}  // namespace qx
