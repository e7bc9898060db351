#include "flows/coarse_level.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

#include <omp.h>

#include "flows/block_sum.h"
#include "solver/cholmod_session.h"

namespace qx::flows {
namespace {

// Diagonal shifts tried, relative to the largest diagonal entry of Ac, when a pivot is not
// positive: the first far above the rounding of a factorisation in double, the last still small
// beside the diagonal's own scale (a preconditioner only has to stay positive definite).
constexpr double kFirstShift = 1e-10;
constexpr double kLastShift = 1e-4;
constexpr double kShiftGrowth = 100.0;
// A pivot below this part of the largest diagonal entry counts as not positive: a semi-definite
// Ac factorises with rounding-sized pivots of either sign, and a positive one would blow the
// correction up along the singular direction.
constexpr double kSmallestPivot = 1e-12;

// A CHOLMOD session set up for a simplicial LL' factor in AMD order, printing nothing.
struct Cholmod : CholmodSession {
    Cholmod() {
        if (!started) throw std::bad_alloc();
        c.print = 0;
        c.error_handler = nullptr;
        c.nmethods = 1;
        c.method[0].ordering = CHOLMOD_AMD;
        c.postorder = 1;
        c.supernodal = CHOLMOD_SIMPLICIAL;
        c.final_ll = 1;
        c.quick_return_if_not_posdef = 1;
    }
    void throwIfOutOfMemory() const {
        if (memoryFailure()) throw std::bad_alloc();
    }
};

// One coarse row's entries on and below the diagonal (columns >= the row), by column.
using CoarseRow = std::vector<std::pair<int, double>>;

// A thread's dense accumulator over the coarse columns with the list of those touched.
struct Accumulator {
    std::vector<double> value;
    std::vector<int> touched;
    std::vector<std::pair<int, double>> fine;  // (fine row of M, its weight in M P's column)

    explicit Accumulator(int count) : value(size_t(count), 0.0) { touched.reserve(256); }
    void add(int col, double v) {
        if (value[size_t(col)] == 0.0) touched.push_back(col);
        value[size_t(col)] += v;
    }
    // The row's entries at columns >= first, sorted, and the accumulator cleared.
    CoarseRow take(int first) {
        std::sort(touched.begin(), touched.end());
        touched.erase(std::unique(touched.begin(), touched.end()), touched.end());
        CoarseRow row;
        row.reserve(touched.size());
        for (int c : touched) {
            if (c >= first) row.emplace_back(c, value[size_t(c)]);
            value[size_t(c)] = 0.0;
        }
        touched.clear();
        return row;
    }
};

}  // namespace

std::unique_ptr<CoarseLevel> CoarseLevel::build(const FlowSystem& system, const int* pixelOf,
                                                int width, const CoarseOptions& options) {
    const int n = system.n, s = options.aggregate;
    if (s <= 0 || n == 0 || width <= 0) return nullptr;

    // The aggregates: non-empty cells numbered in the cells' raster order.
    const int across = (width + s - 1) / s;
    int cells = 0;
    std::vector<int> cellOf(size_t(n), 0);
    for (int i = 0; i < n; ++i) {
        const int p = pixelOf[i];
        cellOf[size_t(i)] = (p / width / s) * across + (p % width) / s;
        cells = std::max(cells, cellOf[size_t(i)] + 1);
    }
    std::vector<int> number(size_t(cells), -1);
    for (int c : cellOf) number[size_t(c)] = 0;
    int count = 0;
    for (int& v : number)
        if (v == 0) v = count++;
    if (count < std::max(1, options.minUnknowns)) return nullptr;

    std::unique_ptr<CoarseLevel> level(new CoarseLevel());
    CoarseLevel& out = *level;
    out.n_ = n;
    out.count_ = count;
    out.aggregate_.resize(size_t(n));
    out.memberStart_.assign(size_t(count) + 1, 0);
    for (int i = 0; i < n; ++i) {
        const int a = number[size_t(cellOf[size_t(i)])];
        out.aggregate_[size_t(i)] = a;
        ++out.memberStart_[size_t(a) + 1];
    }
    cellOf = {};
    number = {};
    for (int a = 0; a < count; ++a) out.memberStart_[size_t(a) + 1] += out.memberStart_[size_t(a)];
    out.members_.resize(size_t(n));
    {
        std::vector<int> fill(out.memberStart_.begin(), out.memberStart_.end() - 1);
        for (int i = 0; i < n; ++i) out.members_[size_t(fill[size_t(out.aggregate_[size_t(i)])]++)] = i;
    }

    // Ac row by row, each by one thread in a fixed order: the explicit part summed over the
    // aggregate's rows, then the mixture's sCM (M P)^T (M P). Column a of M P holds, for each
    // row r of M, M's entries of that row at a's members; its rows come from M^T's rows of the
    // members, merged by r.
    const std::vector<int>& agg = out.aggregate_;
    const bool mix = system.mixtureWeight != 0.0 && !system.mixture.cols.empty();
    const SparseRows& E = system.explicitPart;
    const SparseRows& M = system.mixture;
    const SparseRows& MT = system.mixtureT;
    std::vector<CoarseRow> rows(static_cast<size_t>(count));
    bool allocationFailed = false;
    std::vector<Accumulator> accumulators;
    const int threads = n >= kParallelRows ? omp_get_max_threads() : 1;
    for (int t = 0; t < threads; ++t) accumulators.emplace_back(count);
#pragma omp parallel for schedule(dynamic, 16) num_threads(threads)
    for (int a = 0; a < count; ++a) {
        Accumulator& acc = accumulators[size_t(omp_get_thread_num())];
        try {
            const int* first = out.members_.data() + out.memberStart_[size_t(a)];
            const int* last = out.members_.data() + out.memberStart_[size_t(a) + 1];
            for (const int* f = first; f != last; ++f)
                for (int e = E.start[size_t(*f)]; e < E.start[size_t(*f) + 1]; ++e)
                    acc.add(agg[size_t(E.cols[size_t(e)])], double(E.values[size_t(e)]));
            if (mix) {
                acc.fine.clear();
                for (const int* f = first; f != last; ++f)
                    for (int e = MT.start[size_t(*f)]; e < MT.start[size_t(*f) + 1]; ++e)
                        acc.fine.emplace_back(MT.cols[size_t(e)], double(MT.values[size_t(e)]));
                std::stable_sort(acc.fine.begin(), acc.fine.end(),
                                 [](const auto& x, const auto& y) { return x.first < y.first; });
                for (size_t t = 0; t < acc.fine.size();) {
                    const int r = acc.fine[t].first;
                    double u = 0.0;
                    for (; t < acc.fine.size() && acc.fine[t].first == r; ++t)
                        u += acc.fine[t].second;
                    if (u == 0.0) continue;
                    u *= system.mixtureWeight;
                    for (int e = M.start[size_t(r)]; e < M.start[size_t(r) + 1]; ++e)
                        acc.add(agg[size_t(M.cols[size_t(e)])], u * double(M.values[size_t(e)]));
                }
            }
            rows[size_t(a)] = acc.take(a);
        } catch (const std::bad_alloc&) {
#pragma omp atomic write
            allocationFailed = true;
        }
    }
    if (allocationFailed) throw std::bad_alloc();

    // Weak links dropped: |a_ij| < drop sqrt(a_ii a_jj) goes, |a_ij| is added to both ends'
    // diagonals (which adds |a_ij| (e_i -+ e_j)(e_i -+ e_j)^T: Ac stays positive definite, a
    // little above what it was).
    if (options.dropTolerance > 0.0) {
        std::vector<double> diag(size_t(count), 0.0), extra(size_t(count), 0.0);
        for (int a = 0; a < count; ++a)
            if (!rows[size_t(a)].empty() && rows[size_t(a)][0].first == a)
                diag[size_t(a)] = rows[size_t(a)][0].second;
        const double t2 = options.dropTolerance * options.dropTolerance;
        for (int a = 0; a < count; ++a) {
            CoarseRow& row = rows[size_t(a)];
            size_t m = 0;
            for (size_t t = 0; t < row.size(); ++t) {
                const auto [c, v] = row[t];
                if (c != a && v * v < t2 * diag[size_t(a)] * diag[size_t(c)]) {
                    extra[size_t(a)] += std::abs(v);
                    extra[size_t(c)] += std::abs(v);
                } else {
                    row[m++] = row[t];
                }
            }
            row.resize(m);
        }
        for (int a = 0; a < count; ++a) {
            CoarseRow& row = rows[size_t(a)];
            if (!row.empty() && row[0].first == a) row[0].second += extra[size_t(a)];
            else if (extra[size_t(a)] > 0.0) row.insert(row.begin(), {a, extra[size_t(a)]});
        }
    }

    // Ac's lower triangle to CHOLMOD: coarse row a is column a (Ac is symmetric).
    Cholmod ch;
    size_t entries = 0;
    for (const CoarseRow& r : rows) entries += r.size();
    ch.A = cholmod_allocate_sparse(size_t(count), size_t(count), entries, 1, 1, -1, CHOLMOD_REAL,
                                   &ch.c);
    if (!ch.A) {
        ch.throwIfOutOfMemory();
        return nullptr;
    }
    {
        int* Ap = static_cast<int*>(ch.A->p);
        int* Ai = static_cast<int*>(ch.A->i);
        double* Ax = static_cast<double*>(ch.A->x);
        int pos = 0;
        Ap[0] = 0;
        for (int a = 0; a < count; ++a) {
            for (const auto& [c, v] : rows[size_t(a)]) {
                Ai[pos] = c;
                Ax[pos] = v;
                ++pos;
            }
            Ap[a + 1] = pos;
            rows[size_t(a)] = {};
        }
    }
    rows = {};
    double largest = 0.0;
    {
        const int* Ap = static_cast<const int*>(ch.A->p);
        const int* Ai = static_cast<const int*>(ch.A->i);
        const double* Ax = static_cast<const double*>(ch.A->x);
        for (int a = 0; a < count; ++a)
            if (Ap[a] < Ap[a + 1] && Ai[Ap[a]] == a) largest = std::max(largest, Ax[Ap[a]]);
    }
    if (!(largest > 0.0) || !std::isfinite(largest)) return nullptr;

    ch.L = cholmod_analyze(ch.A, &ch.c);
    if (!ch.L) {
        ch.throwIfOutOfMemory();
        return nullptr;
    }
    if (ch.c.lnz * (sizeof(double) + sizeof(int)) > options.factorBytesPerUnknown * n)
        return nullptr;

    auto factorise = [&](double shift) {
        double beta[2] = {shift, 0.0};
        const int ok = cholmod_factorize_p(ch.A, beta, nullptr, 0, ch.L, &ch.c);
        ch.throwIfOutOfMemory();
        if (!ok || ch.c.status != CHOLMOD_OK || ch.L->minor != ch.L->n || ch.L->is_super)
            return false;
        const int* p = static_cast<const int*>(ch.L->p);
        const double* x = static_cast<const double*>(ch.L->x);
        for (int j = 0; j < count; ++j)
            if (!(x[p[j]] * x[p[j]] > kSmallestPivot * largest)) return false;
        return true;
    };
    bool ok = factorise(0.0);
    for (double rel = kFirstShift; !ok && rel <= kLastShift * 1.000001; rel *= kShiftGrowth) {
        out.shift_ = rel * largest;
        ok = factorise(out.shift_);
    }
    if (!ok || ch.L->is_super || !ch.L->is_ll) return nullptr;

    // The factor into compact arrays of our own (CHOLMOD's simplicial columns may hold slack).
    const int* Lp = static_cast<const int*>(ch.L->p);
    const int* Lnz = static_cast<const int*>(ch.L->nz);
    const int* Li = static_cast<const int*>(ch.L->i);
    const double* Lx = static_cast<const double*>(ch.L->x);
    const int* perm = static_cast<const int*>(ch.L->Perm);
    out.perm_.assign(perm, perm + count);
    out.colStart_.assign(size_t(count) + 1, 0);
    for (int j = 0; j < count; ++j) out.colStart_[size_t(j) + 1] = out.colStart_[size_t(j)] + Lnz[j];
    out.rows_.resize(size_t(out.colStart_[size_t(count)]));
    out.values_.resize(out.rows_.size());
    for (int j = 0; j < count; ++j) {
        if (Lnz[j] < 1 || Li[Lp[j]] != j || !(Lx[Lp[j]] > 0.0)) return nullptr;
        std::copy(Li + Lp[j], Li + Lp[j] + Lnz[j], out.rows_.begin() + out.colStart_[size_t(j)]);
        std::copy(Lx + Lp[j], Lx + Lp[j] + Lnz[j], out.values_.begin() + out.colStart_[size_t(j)]);
    }
    return level;
}

void CoarseLevel::restrictResidual(const double* r, double* rc) const {
#pragma omp parallel for schedule(static) if (n_ >= kParallelRows)
    for (int a = 0; a < count_; ++a) {
        double s = 0.0;
        for (int t = memberStart_[size_t(a)]; t < memberStart_[size_t(a) + 1]; ++t)
            s += r[members_[size_t(t)]];
        rc[a] = s;
    }
}

void CoarseLevel::solve(double* rc, std::vector<double>& work) const {
    work.resize(size_t(count_));
    double* y = work.data();
    for (int k = 0; k < count_; ++k) y[k] = rc[perm_[size_t(k)]];
    // L y' = y, column by column.
    for (int j = 0; j < count_; ++j) {
        const int first = colStart_[size_t(j)], last = colStart_[size_t(j) + 1];
        const double v = y[j] / values_[size_t(first)];
        y[j] = v;
        for (int e = first + 1; e < last; ++e) y[rows_[size_t(e)]] -= values_[size_t(e)] * v;
    }
    // L^T x = y', from the last column.
    for (int j = count_ - 1; j >= 0; --j) {
        const int first = colStart_[size_t(j)], last = colStart_[size_t(j) + 1];
        double s = y[j];
        for (int e = first + 1; e < last; ++e) s -= values_[size_t(e)] * y[rows_[size_t(e)]];
        y[j] = s / values_[size_t(first)];
    }
    for (int k = 0; k < count_; ++k) rc[perm_[size_t(k)]] = y[k];
}

void CoarseLevel::correct(const double* r, double* z, std::vector<double>& work) const {
    std::vector<double> rc(static_cast<size_t>(count_));
    restrictResidual(r, rc.data());
    solve(rc.data(), work);
#pragma omp parallel for schedule(static) if (n_ >= kParallelRows)
    for (int i = 0; i < n_; ++i) z[i] += rc[size_t(aggregate_[size_t(i)])];
}

}  // namespace qx::flows
