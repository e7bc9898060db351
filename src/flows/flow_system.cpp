#include "flows/flow_system.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "flows/block_sum.h"
#include "flows/compressed_rows.h"

namespace qx::flows {
namespace {

double knownAlpha(const PixelSets& sets, int p) {
    return sets.kind[size_t(p)] == PixelKind::Foreground ? 1.0 : 0.0;
}

// A row's entry while the rows are built. No initialiser: the room for all rows is left unset
// until each row's own thread writes it (setting it first took longer than filling it).
struct Entry {
    int col;
    double value;
};

// Sorts one row's entries by column and adds up equal columns, in place; returns the merged
// length. Entries of one column are added in the order they were put in. A row arrives as a few
// runs already in column order (the local Laplacian's, the links', the diagonal): a short row's
// runs are merged in turn, stably, through a buffer on the stack, which orders it as a stable
// sort would at a fraction of the cost; a long row, or one found scattered in many runs, is
// sorted (the runs merged so far keep their order, so the sort comes out the same).
int mergeRow(Entry* row, int count) {
    const auto byColumn = [](const Entry& a, const Entry& b) { return a.col < b.col; };
    constexpr int kOnStack = 128, kMostRuns = 8;
    if (count > kOnStack) {
        std::stable_sort(row, row + count, byColumn);
    } else {
        for (int done = 0, runs = 1; done < count; ++runs) {
            if (runs > kMostRuns) {
                std::stable_sort(row, row + count, byColumn);
                break;
            }
            int end = done + 1;
            while (end < count && row[end].col >= row[end - 1].col) ++end;
            if (done > 0) {
                Entry merged[kOnStack];
                std::merge(row, row + done, row + done, row + end, merged, byColumn);
                std::copy(merged, merged + end, row);
            }
            done = end;
        }
    }
    int m = 0;
    for (int t = 0; t < count; ++t) {
        if (m > 0 && row[m - 1].col == row[t].col)
            row[m - 1].value += row[t].value;
        else
            row[m++] = row[t];
    }
    return m;
}

// Rows built at fixed bounds, in parallel, then packed in order.
template <typename FillRow>
SparseRows buildRows(int n, const std::vector<int>& bound, FillRow fill) {
    std::vector<int64_t> at(size_t(n) + 1, 0);
    for (int r = 0; r < n; ++r) at[size_t(r) + 1] = at[size_t(r)] + bound[size_t(r)];
    const std::unique_ptr<Entry[]> work(new Entry[size_t(at[size_t(n)])]);
    std::vector<int> length(size_t(n), 0);
#pragma omp parallel for schedule(dynamic, 512)
    for (int r = 0; r < n; ++r) {
        Entry* row = work.get() + at[size_t(r)];
        const int count = fill(r, row);
        length[size_t(r)] = mergeRow(row, count);
    }
    SparseRows out;
    out.start.assign(size_t(n) + 1, 0);
    for (int r = 0; r < n; ++r) out.start[size_t(r) + 1] = out.start[size_t(r)] + length[size_t(r)];
    out.cols.resize(size_t(out.start[size_t(n)]));
    out.values.resize(out.cols.size());
#pragma omp parallel for schedule(static)
    for (int r = 0; r < n; ++r) {
        const Entry* row = work.get() + at[size_t(r)];
        for (int t = 0; t < length[size_t(r)]; ++t) {
            out.cols[size_t(out.start[size_t(r)] + t)] = row[t].col;
            out.values[size_t(out.start[size_t(r)] + t)] = static_cast<float>(row[t].value);
        }
    }
    return out;
}

// Row r of m times x. Four running sums side by side: a row's products are added in four
// independent chains rather than one, which the additions' latency held up.
double rowTimes(const SparseRows& m, int r, const double* x) {
    const int* cols = m.cols.data();
    const float* values = m.values.data();
    int e = m.start[size_t(r)];
    const int end = m.start[size_t(r) + 1];
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    for (; e + 4 <= end; e += 4) {
        s0 += double(values[e]) * x[cols[e]];
        s1 += double(values[e + 1]) * x[cols[e + 1]];
        s2 += double(values[e + 2]) * x[cols[e + 2]];
        s3 += double(values[e + 3]) * x[cols[e + 3]];
    }
    for (; e < end; ++e) s0 += double(values[e]) * x[cols[e]];
    return (s0 + s1) + (s2 + s3);
}

}  // namespace

FlowSystem assembleFlowSystem(const PixelSets& sets, const FlowTerms& terms,
                              const FlowWeights& weights) {
    const int n = static_cast<int>(sets.unknown.size());
    FlowSystem s;
    s.n = n;
    s.rhs.assign(size_t(n), 0.0);
    s.diagonal.assign(size_t(n), 0.0);
    const WeightRows* local = weights.local != 0.0 ? terms.local : nullptr;
    const WeightRows* uu = weights.unknownUnknown != 0.0 ? terms.unknownUnknown : nullptr;
    const KnownUnknownEstimate* ku = weights.knownUnknown != 0.0 ? terms.knownUnknown : nullptr;
    const WeightRows* cm = weights.colourMixture != 0.0 ? terms.mixture : nullptr;
    if (local && local->rows() != n) local = nullptr;
    if (uu && uu->rows() != n) uu = nullptr;
    if (cm && cm->rows() != n) cm = nullptr;

    // The explicit part, and what the decided pixels move to the right-hand side.
    std::vector<int> bound(size_t(n), 1);
    for (int r = 0; r < n; ++r) {
        if (local) bound[size_t(r)] += local->start[size_t(r) + 1] - local->start[size_t(r)];
        if (uu) bound[size_t(r)] += uu->start[size_t(r) + 1] - uu->start[size_t(r)];
    }
    const double sL = weights.local, sUU = weights.unknownUnknown, sKU = weights.knownUnknown;
    s.explicitPart = buildRows(n, bound, [&](int r, Entry* row) {
        int m = 0;
        double diag = 0.0, b = 0.0;
        if (local)
            for (int e = local->start[size_t(r)]; e < local->start[size_t(r) + 1]; ++e) {
                const int p = local->cols[size_t(e)];
                const double v = sL * local->weights[size_t(e)];
                const int c = sets.unknownIndex[size_t(p)];
                if (c >= 0) row[m++] = {c, v};
                else b -= v * knownAlpha(sets, p);
            }
        if (uu)
            for (int e = uu->start[size_t(r)]; e < uu->start[size_t(r) + 1]; ++e) {
                const double v = sUU * uu->weights[size_t(e)];
                row[m++] = {uu->cols[size_t(e)], -v};
                diag += v;
            }
        if (ku) {
            const double c = sKU * ku->confidence[size_t(r)];
            diag += c;
            b += c * ku->alpha[size_t(r)];
        }
        row[m++] = {r, diag};
        s.rhs[size_t(r)] = b;
        return m;
    });
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
    for (int r = 0; r < n; ++r)
        for (int e = s.explicitPart.start[size_t(r)]; e < s.explicitPart.start[size_t(r) + 1]; ++e)
            if (s.explicitPart.cols[size_t(e)] == r) s.diagonal[size_t(r)] += s.explicitPart.values[size_t(e)];

    // The colour-mixture rows: 1 at the pixel, minus its weights at its neighbours; decided
    // neighbours make the constant c, and the right-hand side takes -sCM M^T c.
    if (cm) {
        s.mixtureWeight = weights.colourMixture;
        std::vector<double> constant(size_t(n), 0.0);
        std::vector<int> mbound(static_cast<size_t>(n));
        for (int r = 0; r < n; ++r)
            mbound[size_t(r)] = 1 + cm->start[size_t(r) + 1] - cm->start[size_t(r)];
        s.mixture = buildRows(n, mbound, [&](int r, Entry* row) {
            int m = 0;
            row[m++] = {r, 1.0};
            double c = 0.0;
            for (int e = cm->start[size_t(r)]; e < cm->start[size_t(r) + 1]; ++e) {
                const int p = cm->cols[size_t(e)];
                const double w = cm->weights[size_t(e)];
                const int col = sets.unknownIndex[size_t(p)];
                if (col >= 0) row[m++] = {col, -w};
                else c -= w * knownAlpha(sets, p);
            }
            constant[size_t(r)] = c;
            return m;
        });
        transposeRows(n, s.mixture.start, s.mixture.cols, s.mixture.values, s.mixtureT.start,
                      s.mixtureT.cols, s.mixtureT.values);
        const double sCM = weights.colourMixture;
#pragma omp parallel for schedule(static)
        for (int i = 0; i < n; ++i) {
            double d = 0.0, b = 0.0;
            for (int e = s.mixtureT.start[size_t(i)]; e < s.mixtureT.start[size_t(i) + 1]; ++e) {
                const double v = s.mixtureT.values[size_t(e)];
                d += v * v;
                b += v * constant[size_t(s.mixtureT.cols[size_t(e)])];
            }
            s.diagonal[size_t(i)] += sCM * d;
            s.rhs[size_t(i)] -= sCM * b;
        }
    }
    return s;
}

double FlowSystem::apply(const double* x, double* y, std::vector<double>& scratch,
                         std::vector<double>& partial) const {
    const bool mix = mixtureWeight != 0.0 && !mixture.cols.empty();
    if (mix) {
        scratch.resize(size_t(n));
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
        for (int r = 0; r < n; ++r) scratch[size_t(r)] = rowTimes(mixture, r, x);
    }
    return blockSum(n, partial, [&](int i) {
        double s = rowTimes(explicitPart, i, x);
        if (mix) s += mixtureWeight * rowTimes(mixtureT, i, scratch.data());
        y[i] = s;
        return x[i] * s;
    });
}

}  // namespace qx::flows
