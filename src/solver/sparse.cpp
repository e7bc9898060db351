#include "solver/sparse.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace qx {

int transposeSparse(const float* values, const int* columns, const int* rowStarts, int rows,
                    int cols, SparseCsr& out) {
    if (rows < 1 || cols < 1 || values == nullptr || columns == nullptr || rowStarts == nullptr)
        return -1;
    if (int(std::trunc(std::log2(double(rows)))) > 25) return -1;
    if (int(std::trunc(std::log2(double(cols)))) + 1 > 25) return -1;
    // The row numbers are carried as exact integers below 10,000,000 by the solve's callers.
    if (rows >= 10000000) return -1;
    if (rowStarts[0] != 1) return -1;
    for (int r = 0; r < rows; ++r)
        if (rowStarts[r + 1] < rowStarts[r]) return -1;
    const int64_t nnz = int64_t(rowStarts[rows]) - 1;
    for (int64_t p = 0; p < nnz; ++p)
        if (columns[p] < 1 || columns[p] > cols) return -1;
    // A counting pass gives what a sort on (column, row, position) gives: each row of the
    // transpose receives its entries in ascending source row, and in source order within a row.
    std::vector<int64_t> count(size_t(cols) + 1, 0);
    for (int64_t p = 0; p < nnz; ++p) ++count[size_t(columns[p])];
    int64_t total = 0;
    for (int c = 1; c <= cols; ++c) total += count[size_t(c)] > 0 ? count[size_t(c)] : 1;
    if (total + 1 > std::numeric_limits<int>::max()) return -1;

    SparseCsr t;
    t.rows = cols;
    t.cols = rows;
    t.ia.resize(size_t(cols) + 1);
    t.ja.resize(size_t(total));
    t.a.resize(size_t(total));
    std::vector<int> next(static_cast<size_t>(cols));
    int start = 1;
    for (int c = 0; c < cols; ++c) {
        t.ia[size_t(c)] = start;
        next[size_t(c)] = start - 1;
        const int64_t n = count[size_t(c) + 1];
        if (n == 0) {  // an empty row: one explicit zero in column 1
            t.ja[size_t(start - 1)] = 1;
            t.a[size_t(start - 1)] = 0.0f;
        }
        start += int(n > 0 ? n : 1);
    }
    t.ia[size_t(cols)] = start;
    for (int r = 0; r < rows; ++r) {
        for (int p = rowStarts[r] - 1; p < rowStarts[r + 1] - 1; ++p) {
            const int c = columns[p] - 1;
            const int q = next[size_t(c)]++;
            t.ja[size_t(q)] = r + 1;
            t.a[size_t(q)] = values[p];
        }
    }
    out = std::move(t);
    return 0;
}

int transposeSparse(const SparseCsr& m, SparseCsr& out) {
    if (m.ia.size() != size_t(m.rows) + 1) return -1;
    return transposeSparse(m.a.data(), m.ja.data(), m.ia.data(), m.rows, m.cols, out);
}

void scaleRowsSparse(const float* w, const SparseCsr& m, SparseCsr& out) {
    out.rows = m.rows;
    out.cols = m.cols;
    out.ia = m.ia;
    out.ja = m.ja;
    out.a.resize(m.a.size());
    for (int r = 0; r < m.rows; ++r)
        for (int p = m.ia[size_t(r)] - 1; p < m.ia[size_t(r) + 1] - 1; ++p)
            out.a[size_t(p)] = w[r] * m.a[size_t(p)];
}

int multiplySparse(const SparseCsr& x, const SparseCsr& y, SparseCsr& out) {
    if (x.cols != y.rows) return 10;
    const int n = y.cols;
    // Symbolic pass: the columns that each row of the product touches, counted with a marker.
    std::vector<int> mark(size_t(n), -1);
    std::vector<int> ia(size_t(x.rows) + 1);
    int64_t total = 0;
    for (int r = 0; r < x.rows; ++r) {
        ia[size_t(r)] = int(total + 1);
        for (int p = x.ia[size_t(r)] - 1; p < x.ia[size_t(r) + 1] - 1; ++p) {
            const int k = x.ja[size_t(p)] - 1;
            for (int q = y.ia[size_t(k)] - 1; q < y.ia[size_t(k) + 1] - 1; ++q) {
                const int c = y.ja[size_t(q)] - 1;
                if (mark[size_t(c)] != r) {
                    mark[size_t(c)] = r;
                    ++total;
                }
            }
        }
        if (total + 1 > std::numeric_limits<int>::max()) return 10;
    }
    ia[size_t(x.rows)] = int(total + 1);

    // Numeric pass: accumulate into a dense row, then read it back in column order. Rows are
    // short (a handful of entries) so sorting each row's column list is cheap.
    std::vector<int> ja(static_cast<size_t>(total));
    std::vector<float> a(static_cast<size_t>(total));
    std::vector<float> acc(static_cast<size_t>(n), 0.0f);
    std::fill(mark.begin(), mark.end(), -1);
    for (int r = 0; r < x.rows; ++r) {
        int* cols = ja.data() + (ia[size_t(r)] - 1);
        int used = 0;
        for (int p = x.ia[size_t(r)] - 1; p < x.ia[size_t(r) + 1] - 1; ++p) {
            const int k = x.ja[size_t(p)] - 1;
            const float xv = x.a[size_t(p)];
            for (int q = y.ia[size_t(k)] - 1; q < y.ia[size_t(k) + 1] - 1; ++q) {
                const int c = y.ja[size_t(q)] - 1;
                if (mark[size_t(c)] != r) {
                    mark[size_t(c)] = r;
                    acc[size_t(c)] = 0.0f;
                    cols[used++] = c;
                }
                acc[size_t(c)] += xv * y.a[size_t(q)];
            }
        }
        // insertion sort: the rows hold a few entries, except for the rare long one
        if (used > 64) {
            std::sort(cols, cols + used);
        } else {
            for (int i = 1; i < used; ++i) {
                const int v = cols[i];
                int j = i - 1;
                while (j >= 0 && cols[j] > v) {
                    cols[j + 1] = cols[j];
                    --j;
                }
                cols[j + 1] = v;
            }
        }
        float* vals = a.data() + (ia[size_t(r)] - 1);
        for (int i = 0; i < used; ++i) {
            vals[i] = acc[size_t(cols[i])];
            cols[i] += 1;
        }
    }
    out.rows = x.rows;
    out.cols = n;
    out.ia = std::move(ia);
    out.ja = std::move(ja);
    out.a = std::move(a);
    return 0;
}

void multiplySparseVector(const SparseCsr& m, const float* v, float* out) {
    for (int r = 0; r < m.rows; ++r) {
        float s = 0.0f;
        for (int p = m.ia[size_t(r)] - 1; p < m.ia[size_t(r) + 1] - 1; ++p)
            s += m.a[size_t(p)] * v[m.ja[size_t(p)] - 1];
        out[r] = s;
    }
}

}  // namespace qx
