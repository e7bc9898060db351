// The single-precision backend of the direct solver: MUMPS (sequential, smumps), LDL' without
// pivoting, then refinement in double against the caller's values.
#include <smumps_c.h>

#include <algorithm>
#include <chrono>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "solver/direct_backends.h"

namespace qx {
namespace detail {
namespace {

// MUMPS's control and information arrays are documented one-based.
#define ICNTL(i) icntl[(i) - 1]
#define CNTL(i) cntl[(i) - 1]
#define INFO(i) info[(i) - 1]
#define INFOG(i) infog[(i) - 1]
#define RINFOG(i) rinfog[(i) - 1]

constexpr int kUseCommWorld = -987654;

// MUMPS keeps module-level state (its load balancing among others) that two instances on two
// threads would share: one instance runs at a time in the process. Jobs on other threads go on
// with everything but their direct solve.
std::mutex& mumpsLock() {
    static std::mutex m;
    return m;
}

}  // namespace

std::unique_lock<std::mutex> holdMumps() { return std::unique_lock<std::mutex>(mumpsLock()); }

namespace {

// One MUMPS instance, ended (job -2, which frees all it holds) on every way out.
struct Instance {
    std::lock_guard<std::mutex> only{mumpsLock()};
    SMUMPS_STRUC_C id;
    bool started = false;

    explicit Instance(int sym) {
        std::memset(&id, 0, sizeof id);
        id.comm_fortran = kUseCommWorld;
        id.par = 1;  // the calling process works
        id.sym = sym;
        id.job = -1;
        smumps_c(&id);
        started = id.INFO(1) >= 0;
    }
    ~Instance() { end(); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    void end() {
        if (!started) return;
        id.job = -2;
        smumps_c(&id);
        started = false;
    }
    void run(int job) {
        id.job = job;
        smumps_c(&id);
    }
    int error() const { return id.INFO(1) < 0 ? id.INFO(1) : 0; }
};

// Errors that mean memory ran out or a workspace was too small, as opposed to a numerical or an
// argument error. -8, -9, -14, -15 and -17, -20 are workspaces sized by the analysis; -5, -7, -13,
// -22 failed allocations; -19 the cap of ICNTL(23); -11 the solve's workspace.
bool isMemoryError(int e) {
    switch (e) {
    case -5: case -7: case -8: case -9: case -11: case -13: case -14: case -15: case -17:
    case -19: case -20: case -22:
        return true;
    default:
        return false;
    }
}
// The ones that a larger workspace (ICNTL(14)) cures.
bool isWorkspaceError(int e) {
    return e == -8 || e == -9 || e == -14 || e == -15 || e == -17 || e == -20 || e == -11;
}

int mumpsOrdering(Ordering o) {
    switch (o) {
    case Ordering::Amd: return 0;
    case Ordering::Metis: return 5;
    case Ordering::Nesdis:
    case Ordering::Scotch: return 3;
    case Ordering::Pord: return 4;
    case Ordering::Amf: return 2;
    }
    return 0;
}

// A failed phase: memory errors go to the memory path, the rest throw the phase's fault.
[[noreturn]] void fail(int error, int phase) {
    if (isMemoryError(error)) throw OutOfMemory{phase};
    qx::fail(Fault(phase));
}

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Refinement stops once the backward error max|b - A*x| / (max|A| max|x| + max|b|) is below this.
// On the matting systems of the benchmark images the float factor leaves 1e-8 to 1e-7, one step
// 2e-13 to 6e-12 and a second 5e-16 to 1e-14. After one step 8 pixels of the ten 8-bit results
// still differ from the double-precision solve's (by up to 3 levels once sharpened and stretched),
// after two none: the second step costs a third of the solve phase, 4-5% of a job.
constexpr double kSettled = 1e-13;
// A single-precision solution whose backward error stays above this after refinement goes to the
// double-precision path: a float factor that doesn't get there is too inaccurate to refine.
constexpr double kAcceptable = 1e-9;

}  // namespace

Outcome mumpsSolve(const DirectSolveOptions& o, int n, const float* a, const int* ia,
                   const int* ja, const float* b, float* out, int nrhs, DirectSolveStats& stats,
                   PhaseKicks& kicks) {
    // Phase 1: analysis.
    auto t0 = std::chrono::steady_clock::now();
    const double largest = largestEntry(n, a, ia, ja);
    const size_t entries = size_t(ia[n] - 1);
    const size_t values = size_t(n) * size_t(nrhs);

    // Row indices for the coordinate format; columns and values are the caller's arrays as they
    // stand unless an entry lies below the diagonal, which is dropped in a copy (MUMPS would add
    // it to its mirror). Repeated entries add up in MUMPS as they do in the product.
    std::vector<int> irn, jcn;
    std::vector<float> kept;
    bool below = false;
    try {
        irn.resize(entries);
        for (int k = 0; k < n; ++k)
            for (int q = ia[k] - 1; q < ia[k + 1] - 1; ++q) {
                irn[size_t(q)] = k + 1;
                below |= ja[q] < k + 1;
            }
        if (below) {
            jcn.reserve(entries);
            kept.reserve(entries);
            size_t w = 0;
            for (size_t q = 0; q < entries; ++q) {
                if (ja[q] < irn[q]) continue;
                irn[w++] = irn[q];
                jcn.push_back(ja[q]);
                kept.push_back(a[q]);
            }
            irn.resize(w);
        }
    } catch (const std::bad_alloc&) {
        throw OutOfMemory{kAnalysisFailed};
    }

    // General symmetric (LDL' with threshold pivoting) rather than positive definite: only that
    // kind detects null pivots, and only with a pivot threshold above 0. Matting systems don't
    // need their pivots moved: their factor has the same structure and flops as with sym = 1.
    Instance m(2);
    if (!m.started) fail(m.id.INFO(1), kAnalysisFailed);
    SMUMPS_STRUC_C& id = m.id;
    id.ICNTL(1) = id.ICNTL(2) = id.ICNTL(3) = -1;  // the library prints nothing
    id.ICNTL(4) = 0;
    id.ICNTL(5) = 0;   // assembled matrix
    id.ICNTL(7) = mumpsOrdering(o.ordering);
    id.ICNTL(6) = 0;   // no column permutation,
    id.ICNTL(8) = 0;   // no scaling: the refinement in double takes care of accuracy
    id.ICNTL(12) = 1;  // the ordering on the matrix as it is
    id.ICNTL(10) = 0;  // no refinement inside MUMPS (it would be in single precision)
    id.ICNTL(11) = 0;
    id.ICNTL(18) = 0;  // matrix on the host
    id.ICNTL(20) = 0;  // dense right-hand sides
    id.ICNTL(21) = 0;  // the solution overwrites them
    id.ICNTL(24) = 1;  // detect null pivots
    id.ICNTL(35) = 0;  // no low-rank compression
    if (o.workspacePercent > 0) id.ICNTL(14) = o.workspacePercent;
    if (o.maxWorkMB > 0) id.ICNTL(23) = o.maxWorkMB;
    id.CNTL(1) = 0.01f;  // MUMPS's default pivot threshold
    // Null pivots: only a pivot that is zero (or below 1e-30 of the largest entry, that is,
    // underflow) counts as one, and its unknown is fixed (row set to zero, pivot to one). MUMPS's
    // default threshold, 1e-5 of float's epsilon relative to the largest entry, also caught a real
    // pivot of a region held by weak couplings in a 1.2M system, and refinement couldn't repair
    // the fixed unknown. Pivots of a free region that cancel only to float precision stay: they
    // are harmless where the right-hand side is zero, and refinement or the fallback catches the
    // rest.
    id.CNTL(3) = 1e-30f;
    id.CNTL(5) = 0.0f;
    id.n = n;
    id.nnz = int64_t(irn.size());
    id.irn = irn.data();
    id.jcn = below ? jcn.data() : const_cast<int*>(ja);
    id.a = below ? kept.data() : const_cast<float*>(a);

    m.run(1);
    if (m.error()) fail(m.error(), kAnalysisFailed);
    stats.analysisSeconds = secondsSince(t0);
    // The analysis's estimates, until the factorisation gives its own counts.
    stats.factorFlops = double(id.RINFOG(1));
    stats.factorEntries = id.INFOG(20) >= 0 ? double(id.INFOG(20)) : -1e6 * id.INFOG(20);
    kicks.reached(1);

    // Phase 2: numeric factorisation, once more on a larger workspace if the estimate was short.
    t0 = std::chrono::steady_clock::now();
    m.run(2);
    if (isWorkspaceError(m.error())) {
        ++stats.workspaceRetries;
        id.ICNTL(14) = std::max(2 * std::max(id.ICNTL(14), 20), 100);
        m.run(2);
    }
    if (m.error() == -10) return Outcome::GiveBack;  // numerically singular
    if (m.error()) fail(m.error(), kFactorisationFailed);
    stats.nullPivots = id.INFOG(28);
    stats.factorFlops = double(id.RINFOG(3));
    stats.factorEntries = id.INFOG(29) >= 0 ? double(id.INFOG(29)) : -1e6 * id.INFOG(29);
    stats.factorSeconds = secondsSince(t0);
    kicks.reached(2);

    // Phase 3: solve and refinement in double.
    t0 = std::chrono::steady_clock::now();
    std::vector<float> rhs;
    std::vector<double> xd, bd, r, previous;
    try {
        rhs.assign(b, b + values);
        bd.assign(b, b + values);
        xd.resize(values);
        r.resize(values);
        if (o.refinementSteps > 0) previous.resize(values);
    } catch (const std::bad_alloc&) {
        throw OutOfMemory{kSolveFailed};
    }
    auto solveFloat = [&] {
        id.nrhs = nrhs;
        id.lrhs = n;
        id.rhs = rhs.data();
        m.run(3);
        if (isWorkspaceError(m.error())) {
            ++stats.workspaceRetries;
            id.ICNTL(14) = std::max(2 * std::max(id.ICNTL(14), 20), 100);
            m.run(3);
        }
        if (m.error()) fail(m.error(), kSolveFailed);
    };
    solveFloat();
    for (size_t i = 0; i < values; ++i) xd[i] = rhs[i];
    double bMax = 0.0;
    for (size_t i = 0; i < values; ++i) bMax = std::max(bMax, std::fabs(bd[i]));
    auto backward = [&](double residualMax) {
        double xMax = 0.0;
        for (size_t i = 0; i < values; ++i) xMax = std::max(xMax, std::fabs(xd[i]));
        const double scale = largest * xMax + bMax;
        return scale > 0.0 ? residualMax / scale : 0.0;
    };
    double norm = symmetricResidual(n, a, ia, ja, bd.data(), xd.data(), r.data(), nrhs);
    double omega = std::isfinite(norm) ? backward(norm) : HUGE_VAL;
    int keptSteps = 0;
    for (int step = 0; step < o.refinementSteps && std::isfinite(omega) && omega > kSettled;
         ++step) {
        // The residual scaled to order 1 so that it neither underflows nor loses digits in float.
        const double s = 1.0 / norm;
        for (size_t i = 0; i < values; ++i) rhs[i] = float(r[i] * s);
        solveFloat();
        std::copy(xd.begin(), xd.end(), previous.begin());
        for (size_t i = 0; i < values; ++i) xd[i] += double(rhs[i]) * norm;
        const double next = symmetricResidual(n, a, ia, ja, bd.data(), xd.data(), r.data(), nrhs);
        if (!(next < norm)) {
            xd.swap(previous);
            break;
        }
        norm = next;
        omega = backward(norm);
        ++keptSteps;
    }
    stats.peakBytes = size_t(std::max(id.INFOG(22), 0)) * 1000000u +
                      (irn.size() + jcn.size() + kept.size() + values) * 4 + values * 32;
    m.end();  // the factor goes before anything else is allocated
    stats.refinementSteps = keptSteps;
    stats.backwardError = omega;
    bool finite = true;
    for (size_t i = 0; i < values && finite; ++i) finite = std::fabs(xd[i]) <= double(FLT_MAX);
    if (!finite || !(omega <= kAcceptable)) return Outcome::GiveBack;
    for (size_t i = 0; i < values; ++i) out[i] = float(xd[i]);
    stats.solveSeconds = secondsSince(t0);
    stats.backend = Backend::Mumps;
    kicks.reached(3);
    return Outcome::Solved;
}

}  // namespace detail
}  // namespace qx
