#include "solver/direct_solver.h"

#include <algorithm>
#include <chrono>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include <cholmod.h>
#include <dlfcn.h>
#include <omp.h>

#include "runtime/progress.h"
#include "solver/cholmod_session.h"
#include "solver/direct_backends.h"
#include "solver/sparse.h"

namespace qx {
namespace detail {
namespace {

// Diagonal shifts tried after a failed factorisation, relative to the largest entry. The first
// one is far above the rounding noise of a factorisation in double (about 1e-16 of the largest
// entry times a small growth factor), so an exactly singular block factors at once; the later
// ones cover float matrices whose Laplacian row sums cancel only to float precision, which leaves
// eigenvalues a little below zero. The top is small enough that refinement still recovers the
// constrained part of the solution.
constexpr double kFirstShift = 1e-8;
constexpr double kLastShift = 1e-4;
constexpr double kShiftGrowth = 100.0;

// Everything one solve holds: the session's matrix and factor and the dense blocks, the dense
// ones released first.
struct Session : CholmodSession {
    cholmod_dense* B = nullptr;
    cholmod_dense* X = nullptr;
    cholmod_dense* Y = nullptr;  // solve workspace
    cholmod_dense* E = nullptr;

    ~Session() {
        freeDense(&E);
        freeDense(&Y);
        freeDense(&X);
        freeDense(&B);
    }

    void freeDense(cholmod_dense** d) {
        if (*d) cholmod_free_dense(d, &c);
    }

    // A failed CHOLMOD call in the given phase.
    [[noreturn]] void fail(int phase) const {
        if (memoryFailure()) throw OutOfMemory{phase};
        qx::fail(Fault(phase));
    }
};

int cholmodOrdering(Ordering o) {
    switch (o) {
    case Ordering::Amd: return CHOLMOD_AMD;
    case Ordering::Metis: return CHOLMOD_METIS;
    case Ordering::Nesdis: return CHOLMOD_NESDIS;
    case Ordering::Scotch:
    case Ordering::Pord:
    case Ordering::Amf: return CHOLMOD_AMD;
    }
    return CHOLMOD_AMD;
}

// Sorts one column's entries by row and adds up repeated rows; returns the new count.
int sortAndMerge(int* rows, double* vals, int count) {
    std::vector<std::pair<int, double>> e(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) e[size_t(i)] = {rows[i], vals[i]};
    std::stable_sort(e.begin(), e.end(),
                     [](const auto& l, const auto& r) { return l.first < r.first; });
    int w = 0;
    for (int i = 0; i < count; ++i) {
        if (w > 0 && rows[w - 1] == e[size_t(i)].first) {
            vals[w - 1] += e[size_t(i)].second;
        } else {
            rows[w] = e[size_t(i)].first;
            vals[w] = e[size_t(i)].second;
            ++w;
        }
    }
    return w;
}

// The one-based upper triangle in compressed rows is, read by columns, the lower triangle in
// compressed columns: row k's columns are column k's rows. So CHOLMOD gets the same arrays with
// one subtracted from the indices and the values in double. The caller's arrays are read-only
// (they are const, and a caller may solve the same matrix again), so the zero-based indices go to
// CHOLMOD's own matrix next to the double values it needs anyway: 4 bytes an entry on top of 8,
// small beside the factor. Allocating through CHOLMOD also puts a failure on the memory path.
// A value that isn't finite is refused as a malformed matrix (121). Entries below the diagonal are
// dropped; a column whose rows don't strictly ascend is sorted and its repeats added up, which
// only the settled quirk of the last row should ever need.
double buildMatrix(Session& s, int n, const float* a, const int* ia, const int* ja) {
    const size_t entries = size_t(ia[n] - 1);
    s.A = cholmod_allocate_sparse(size_t(n), size_t(n), entries > 0 ? entries : 1, 1, 1, -1,
                                  CHOLMOD_REAL, &s.c);
    if (!s.A) s.fail(kAnalysisFailed);
    int* Ap = static_cast<int*>(s.A->p);
    int* Ai = static_cast<int*>(s.A->i);
    double* Ax = static_cast<double*>(s.A->x);
    double largest = 0.0;
    int pos = 0;
    Ap[0] = 0;
    for (int k = 0; k < n; ++k) {
        const int start = pos;
        bool ascending = true;
        for (int q = ia[k] - 1; q < ia[k + 1] - 1; ++q) {
            const int row = ja[q] - 1;
            if (row < k) continue;
            if (pos > start && row <= Ai[pos - 1]) ascending = false;
            if (!std::isfinite(a[q])) qx::fail(Fault(kAnalysisFailed));
            Ai[pos] = row;
            Ax[pos] = double(a[q]);
            largest = std::max(largest, std::fabs(Ax[pos]));
            ++pos;
        }
        if (!ascending) pos = start + sortAndMerge(Ai + start, Ax + start, pos - start);
        Ap[k + 1] = pos;
    }
    return largest;
}

bool factorOk(const Session& s) {
    return s.c.status >= CHOLMOD_OK && s.L->minor == s.L->n;
}

// Factorises A + shift*I; throws on errors other than a non-positive pivot.
bool factorise(Session& s, double shift) {
    double beta[2] = {shift, 0.0};
    if (!cholmod_factorize_p(s.A, beta, nullptr, 0, s.L, &s.c) && s.c.status < CHOLMOD_OK)
        s.fail(kFactorisationFailed);
    if (s.c.status < CHOLMOD_OK) s.fail(kFactorisationFailed);
    return factorOk(s);
}

void analyse(Session& s, int phase) {
    s.L = cholmod_analyze(s.A, &s.c);
    if (!s.L) s.fail(phase);
}

// A dense block for the solve, allocated here so that a failure is seen at once.
cholmod_dense* allocate(Session& s, size_t rows, size_t cols, size_t lead) {
    cholmod_dense* d = cholmod_allocate_dense(rows, cols, lead, CHOLMOD_REAL, &s.c);
    if (!d) s.fail(kSolveFailed);
    return d;
}

// *X = A \ R through the factor. cholmod_solve2 would allocate its result and workspace itself
// when they are missing or of another shape, but after a failed allocation of the first workspace
// block a successful second one clears the status and the solve goes on with a null block. So
// every block is allocated here, in the shape the solve asks for, and it never allocates.
void solveInto(Session& s, cholmod_dense* R, cholmod_dense** X) {
    const size_t n = R->nrow, nrhs = R->ncol;
    if (!*X) *X = allocate(s, n, nrhs, n);
    if (s.L->is_super) {
        if (!s.Y) s.Y = allocate(s, n, nrhs, n);
        if (!s.E) s.E = allocate(s, nrhs, s.L->maxesize, nrhs);
    } else if (!s.Y) {
        const size_t rows = nrhs > 4 ? nrhs : 4;
        s.Y = allocate(s, rows, n, rows);
    }
    if (!cholmod_solve2(CHOLMOD_A, s.L, R, nullptr, X, nullptr, &s.Y, &s.E, &s.c))
        s.fail(kSolveFailed);
}

// R = B - A*X, left in R; the squared norm of each column goes to norms.
void residual(Session& s, const cholmod_dense* X, cholmod_dense* R, std::vector<double>& norms) {
    std::memcpy(R->x, s.B->x, sizeof(double) * R->nrow * R->ncol);
    double minusOne[2] = {-1.0, 0.0}, one[2] = {1.0, 0.0};
    if (!cholmod_sdmult(s.A, 0, minusOne, one, const_cast<cholmod_dense*>(X), R, &s.c))
        s.fail(kSolveFailed);
    const double* r = static_cast<const double*>(R->x);
    for (size_t j = 0; j < R->ncol; ++j) {
        double sum = 0.0;
        for (size_t i = 0; i < R->nrow; ++i) sum += r[j * R->nrow + i] * r[j * R->nrow + i];
        norms[j] = sum;
    }
}

// After a shifted factorisation: X += A_shifted \ (B - A*X) while that lowers the residual. Each
// right-hand side is refined on its own terms (a column stops at the first step that doesn't
// lower its own residual), so that a column comes out the same whether it is solved alone or
// with others. Returns the most steps a column kept.
int refine(Session& s, int steps) {
    struct Blocks {
        Session& s;
        cholmod_dense* R = nullptr;
        cholmod_dense* D = nullptr;
        ~Blocks() {
            s.freeDense(&D);
            s.freeDense(&R);
        }
    } w{s};
    const size_t n = s.B->nrow, nrhs = s.B->ncol;
    w.R = allocate(s, n, nrhs, n);
    std::vector<double> norm(nrhs), next(nrhs);
    std::vector<char> active(nrhs);
    std::vector<int> kept(nrhs, 0);
    residual(s, s.X, w.R, norm);
    for (size_t j = 0; j < nrhs; ++j) active[j] = norm[j] > 0.0;
    for (int step = 0; step < steps; ++step) {
        if (std::none_of(active.begin(), active.end(), [](char a) { return a != 0; })) break;
        double* r = static_cast<double*>(w.R->x);
        for (size_t j = 0; j < nrhs; ++j)  // a settled column's correction is not wanted
            if (!active[j]) std::fill(r + j * n, r + (j + 1) * n, 0.0);
        solveInto(s, w.R, &w.D);
        double* d = static_cast<double*>(w.D->x);
        double* x = static_cast<double*>(s.X->x);
        for (size_t i = 0; i < n * nrhs; ++i) d[i] += x[i];
        residual(s, w.D, w.R, next);
        for (size_t j = 0; j < nrhs; ++j) {
            if (!active[j]) continue;
            if (!(next[j] < norm[j])) {
                active[j] = 0;
                continue;
            }
            std::copy(d + j * n, d + (j + 1) * n, x + j * n);
            norm[j] = next[j];
            ++kept[j];
            active[j] = norm[j] > 0.0;
        }
        // R now holds the residual of every kept column; the others are settled.
    }
    return *std::max_element(kept.begin(), kept.end());
}

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

Outcome cholmodSolve(const DirectSolveOptions& o, int n, const float* a, const int* ia,
                     const int* ja, const float* b, float* out, int nrhs, DirectSolveStats& st,
                     PhaseKicks& kicks) {
    DirectSolveStats* stats = &st;
    Session s;
    if (!s.started) throw OutOfMemory{kAnalysisFailed};
    s.c.print = 0;  // the library prints nothing
    s.c.error_handler = nullptr;
    s.c.nmethods = 1;
    s.c.method[0].ordering = cholmodOrdering(o.ordering);
    s.c.postorder = 1;
    s.c.supernodal = o.supernodal ? CHOLMOD_SUPERNODAL : CHOLMOD_SIMPLICIAL;
    s.c.quick_return_if_not_posdef = 1;
    if (o.compactSupernodes) {
        // Merge supernodes only where that adds no zero entries.
        s.c.nrelax[0] = s.c.nrelax[1] = s.c.nrelax[2] = 0;
        s.c.zrelax[0] = s.c.zrelax[1] = s.c.zrelax[2] = 0.0;
    }

    // Phase 1: analysis.
    auto t0 = std::chrono::steady_clock::now();
    const double largest = buildMatrix(s, n, a, ia, ja);
    analyse(s, kAnalysisFailed);
    if (stats) {
        stats->factorEntries = s.c.lnz;
        stats->factorFlops = s.c.fl;
        stats->analysisSeconds = secondsSince(t0);
    }
    kicks.reached(1);

    // Phase 2: numeric factorisation, shifted if a pivot isn't positive.
    t0 = std::chrono::steady_clock::now();
    const double scale = largest > 0.0 ? largest : 1.0;
    double shift = 0.0;
    bool ok = factorise(s, 0.0);
    for (double rel = kFirstShift; !ok && rel <= kLastShift * 1.000001; rel *= kShiftGrowth) {
        shift = rel * scale;
        ok = factorise(s, shift);
    }
    bool ldl = false;
    if (!ok) {
        // Not semi-definite: LDL' without pivoting takes negative pivots that LL' refuses.
        cholmod_free_factor(&s.L, &s.c);
        s.freeDense(&s.E);
        s.c.supernodal = CHOLMOD_SIMPLICIAL;
        s.c.final_ll = 0;
        analyse(s, kFactorisationFailed);
        shift = kFirstShift * scale;
        ok = factorise(s, shift);
        ldl = true;
        if (!ok) qx::fail(Fault(kFactorisationFailed));
    }
    if (stats) stats->factorSeconds = secondsSince(t0);
    kicks.reached(2);
    t0 = std::chrono::steady_clock::now();

    // Phase 3: solve.
    s.B = cholmod_allocate_dense(size_t(n), size_t(nrhs), size_t(n), CHOLMOD_REAL, &s.c);
    if (!s.B) s.fail(kSolveFailed);
    double* bx = static_cast<double*>(s.B->x);
    const size_t values = size_t(n) * size_t(nrhs);
    for (size_t i = 0; i < values; ++i) bx[i] = double(b[i]);
    solveInto(s, s.B, &s.X);
    const int refined = shift > 0.0 ? refine(s, o.refinementSteps) : 0;
    const double* xx = static_cast<const double*>(s.X->x);
    // A solution that isn't finite, or doesn't fit a float, is a failed solve.
    for (size_t i = 0; i < values; ++i)
        if (!(std::fabs(xx[i]) <= double(FLT_MAX))) qx::fail(Fault(kSolveFailed));
    for (size_t i = 0; i < values; ++i) out[i] = float(xx[i]);
    {
        // The same measure of accuracy as the single-precision path reports.
        s.freeDense(&s.Y);
        s.freeDense(&s.E);
        std::vector<double> r(values);
        const double norm = symmetricResidual(n, a, ia, ja, bx, xx, r.data(), nrhs);
        double xMax = 0.0, bMax = 0.0;
        for (size_t i = 0; i < values; ++i)
            xMax = std::max(xMax, std::fabs(xx[i])), bMax = std::max(bMax, std::fabs(bx[i]));
        const double scale = largest * xMax + bMax;
        st.backwardError = scale > 0.0 ? norm / scale : 0.0;
    }
    kicks.reached(3);

    if (stats) {
        stats->shift = shift;
        stats->refinementSteps = refined;
        stats->ldlFallback = ldl;
        stats->peakBytes = s.c.memory_usage;
        stats->solveSeconds = secondsSince(t0);
        stats->backend = Backend::Cholmod;
    }
    // Phase 4: release, by the session's destructor.
    return Outcome::Solved;
}

namespace {

// Jobs don't overlap, but the totals are only for benchmarks and must never be a data race.
std::mutex totalsLock;
DirectSolveTotals totals;

int runBackends(const DirectSolveOptions& o, int n, const float* a, const int* ia,
                const int* ja, float* b, float* x, int nrhs, DirectSolveStats& stats) {
    std::optional<QuietThreads> quiet;
    if (o.quietThreads) quiet.emplace();
    PhaseKicks kicks(o, stats);
    // The solution goes to a separate array first when it replaces b: a backend reads b to the end.
    std::vector<float> solution;
    float* out = x;
    if (o.solutionInB) {
        try {
            solution.resize(size_t(n) * size_t(nrhs));
        } catch (const std::bad_alloc&) {
            throw OutOfMemory{kAnalysisFailed};
        }
        out = solution.data();
    }
    Outcome done = Outcome::GiveBack;
    if (o.backend == Backend::Mumps) {
        done = mumpsSolve(o, n, a, ia, ja, b, out, nrhs, stats, kicks);
        if (done == Outcome::GiveBack && !o.fallback) qx::fail(Fault(kFactorisationFailed));
        stats.fellBack = done == Outcome::GiveBack;
    }
    if (done == Outcome::GiveBack) {
        const double analysed = stats.analysisSeconds, factored = stats.factorSeconds;
        cholmodSolve(o, n, a, ia, ja, b, out, nrhs, stats, kicks);
        stats.analysisSeconds += analysed;
        stats.factorSeconds += factored;
    }
    if (o.solutionInB) std::copy(solution.begin(), solution.end(), b);
    return 1;
}

}  // namespace

void PhaseKicks::reached(int phase) {
    for (; done_ < phase; ++done_) {
        if (options_.reached) options_.reached(options_.kickParam, done_ + 1, stats_);
        if (done_ > 0 || options_.kickAfterAnalysis) {
            if (options_.kick)
                options_.kick(options_.kickParam);
            else
                progressKick();
        }
    }
}

// OpenBLAS's thread count is set through its own entry points, looked up at run time so that the
// library works the same with a BLAS that has none.
namespace {
using SetThreads = void (*)(int);
using GetThreads = int (*)();
struct OpenBlasThreads {
    SetThreads set = reinterpret_cast<SetThreads>(dlsym(RTLD_DEFAULT, "openblas_set_num_threads"));
    GetThreads get = reinterpret_cast<GetThreads>(dlsym(RTLD_DEFAULT, "openblas_get_num_threads"));
};
const OpenBlasThreads& openBlas() {
    static const OpenBlasThreads entries;
    return entries;
}
}  // namespace

QuietThreads::QuietThreads() {
    // Only the calling thread's own pool is released; inside a parallel region there is none to
    // release (and the call would be refused).
    if (!omp_in_parallel()) omp_pause_resource_all(omp_pause_soft);
    const OpenBlasThreads& e = openBlas();
    if (!e.set || !e.get) return;
    saved_ = e.get();
    if (saved_ != 1) e.set(1);
}

QuietThreads::~QuietThreads() {
    const OpenBlasThreads& e = openBlas();
    if (e.set && saved_ > 1) e.set(saved_);
}

double symmetricResidual(int n, const float* a, const int* ia, const int* ja, const double* b,
                         const double* x, double* r, int nrhs) {
    double largest = 0.0;
    for (int c = 0; c < nrhs; ++c) {
        const size_t off = size_t(c) * size_t(n);
        const double* xc = x + off;
        double* rc = r + off;
        std::copy(b + off, b + off + size_t(n), rc);
        for (int k = 0; k < n; ++k) {
            double sum = 0.0;
            const double xk = xc[k];
            for (int q = ia[k] - 1; q < ia[k + 1] - 1; ++q) {
                const int j = ja[q] - 1;
                if (j < k) continue;
                const double v = double(a[q]);
                sum += v * xc[j];
                if (j != k) rc[j] -= v * xk;
            }
            rc[k] -= sum;
        }
        for (int k = 0; k < n; ++k) largest = std::max(largest, std::fabs(rc[k]));
    }
    return largest;
}

double largestEntry(int n, const float* a, const int* ia, const int* ja) {
    double largest = 0.0;
    for (int k = 0; k < n; ++k)
        for (int q = ia[k] - 1; q < ia[k + 1] - 1; ++q) {
            if (ja[q] - 1 < k) continue;
            if (!std::isfinite(a[q])) qx::fail(Fault(kAnalysisFailed));
            largest = std::max(largest, double(std::fabs(a[q])));
        }
    return largest;
}

DirectSolveOptions inLineOptions() {
    DirectSolveOptions o;
    o.backend = Backend::Cholmod;
    o.supernodal = false;  // simplicial, which factorises LDL' (CHOLMOD's final_ll stays 0)
    o.memoryPath = false;
    o.kickAfterAnalysis = false;
    o.solutionInB = false;
    return o;
}

DirectSolveTotals directSolveTotals() {
    std::lock_guard<std::mutex> lock(totalsLock);
    return totals;
}
void resetDirectSolveTotals() {
    std::lock_guard<std::mutex> lock(totalsLock);
    totals = DirectSolveTotals{};
}

int directSolve(const DirectSolveOptions& options, int n, const float* a, const int* ia,
                const int* ja, float* b, float* x, int nrhs, int mtype, DirectSolveStats* stats) {
    if (a == nullptr || b == nullptr || nrhs < 1 || (mtype != 2 && mtype != -2) ||
        (!options.solutionInB && x == nullptr) || csrUpperEntries(n, ia, ja) < 0)
        qx::fail(Fault(kAnalysisFailed));
    DirectSolveStats local;
    DirectSolveStats& st = stats ? *stats : local;
    st = DirectSolveStats{};
    int result = 0;
    try {
        result = runBackends(options, n, a, ia, ja, b, x, nrhs, st);
    } catch (const OutOfMemory& oom) {
        if (!options.memoryPath) qx::fail(Fault(oom.phase));
        result = 0;
    } catch (const std::bad_alloc&) {
        // Only the sorting of a malformed column allocates outside the solvers, during analysis.
        if (!options.memoryPath) qx::fail(Fault(kAnalysisFailed));
        result = 0;
    }
    if (result == 1) {
        std::lock_guard<std::mutex> lock(totalsLock);
        ++totals.solves;
        totals.fallbacks += st.fellBack;
        totals.analysisSeconds += st.analysisSeconds;
        totals.factorSeconds += st.factorSeconds;
        totals.solveSeconds += st.solveSeconds;
        totals.factorFlops += st.factorFlops;
        totals.peakBytes = std::max(totals.peakBytes, st.peakBytes);
    }
    return result;
}

}  // namespace detail

int pardisoSolverIC(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                    int nrhs, int mtype) {
    return detail::directSolve(detail::DirectSolveOptions{}, n, a, ia, ja, b, x, nrhs, mtype,
                               nullptr);
}

int pardisoSolver(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                  int nrhs, int mtype) {
    return !pardisoSolverIC(n, a, ia, ja, b, x, nrhs, mtype);
}

int pardisoSolverICPlain(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                         int nrhs, int mtype) {
    detail::DirectSolveOptions o;
    o.memoryPath = false;
    o.kickAfterAnalysis = false;
    o.solutionInB = false;
    return detail::directSolve(o, n, a, ia, ja, b, x, nrhs, mtype, nullptr);
}

int pardisoSolverInLine(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                        int nrhs, int mtype) {
    return detail::directSolve(detail::inLineOptions(), n, a, ia, ja, b, x, nrhs, mtype, nullptr);
}

int pardisoSolverOOC(int n, const float* a, const int* ia, const int* ja, float* b, float* x,
                     int nrhs, int mtype) {
    detail::DirectSolveOptions o;
    o.ordering = detail::Ordering::Nesdis;
    o.refinementSteps = 5;
    o.compactSupernodes = true;
    return detail::directSolve(o, n, a, ia, ja, b, x, nrhs, mtype, nullptr);
}

}  // namespace qx
