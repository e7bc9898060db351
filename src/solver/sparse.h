// The library's one sparse layout: compressed rows, one-based. The matting Laplacian, the
// iterative solvers and the direct driver keep a symmetric matrix as its upper triangle in it;
// the least-squares colour solve builds general matrices in it (SparseCsr, below).
//
//   ia[n + 1]  ia[k] is the one-based position in ja/a of row k's first entry; ia[n] - 1 is the
//              number of entries.
//   ja[...]    one-based column, normally at or above the row, ascending, diagonal first.
//   a[...]     the value (float for the direct driver, double for conjugate gradient).
//
// Consumers accept a little more than the assembler is meant to produce, because one quirk is
// settled: the last row may keep its columns unsorted and may repeat a column. So columns need
// not ascend, repeated columns add up, and an entry below the diagonal (column < row) is ignored,
// as a symmetric upper-triangle product would ignore it.
#pragma once

#include <cstdint>
#include <vector>

namespace qx {

// Number of entries of a well-formed structure, or -1 when the arrays would make a consumer read
// out of bounds: n < 1, a null array, ia[0] != 1, row starts going backwards, or a column outside
// [1, n]. Costs one pass over ia and ja.
inline int64_t csrUpperEntries(int n, const int* ia, const int* ja) {
    if (n < 1 || ia == nullptr || ja == nullptr || ia[0] != 1) return -1;
    for (int k = 0; k < n; ++k)
        if (ia[k + 1] < ia[k]) return -1;
    const int64_t m = int64_t(ia[n]) - 1;
    for (int64_t p = 0; p < m; ++p)
        if (ja[p] < 1 || ja[p] > n) return -1;
    return m;
}

// The diagonal of row k: the sum of the row's entries in column k + 1 (normally just the first
// entry), 0 when the row holds none.
template <class T>
inline double csrUpperDiagonal(int k, const T* a, const int* ia, const int* ja) {
    double d = 0.0;
    for (int p = ia[k] - 1; p < ia[k + 1] - 1; ++p)
        if (ja[p] == k + 1) d += double(a[p]);
    return d;
}

// ---- General matrices ------------------------------------------------------------------------
//
// The transpose, the row scaling diag(w) * M, the product of two matrices and the product with a
// dense vector, as the least-squares colour solve uses them.

// rows x cols, one-based: row k (0-based) holds entries ia[k] - 1 .. ia[k + 1] - 2 of ja and a.
struct SparseCsr {
    int rows = 0;
    int cols = 0;
    std::vector<int> ia;    // rows + 1
    std::vector<int> ja;    // one-based columns
    std::vector<float> a;   // values

    int64_t entries() const { return ia.empty() ? 0 : int64_t(ia.back()) - 1; }
};

// The transpose of a one-based CSR matrix (values, columns, row starts, rows, cols), columns
// ascending within each row; entries of one row and column keep their order. A row of the
// transpose that would be empty (a column of the input without entries) gets one explicit 0 in
// column 1, so that no row is empty.
// Refuses with -1, leaving `out` untouched, when trunc(log2(rows)) > 25 or
// trunc(log2(cols)) + 1 > 25, or when rows reach 10,000,000 (the limit of the row numbering the
// solve relies on); a malformed structure (row starts going backwards, a column outside 1..cols)
// is refused the same way. Returns 0.
int transposeSparse(const float* values, const int* columns, const int* rowStarts, int rows,
                    int cols, SparseCsr& out);
int transposeSparse(const SparseCsr& m, SparseCsr& out);

// diag(w) * m: row k scaled by w[k]; the structure stays as it is.
void scaleRowsSparse(const float* w, const SparseCsr& m, SparseCsr& out);

// x * y with columns ascending in every row of the product. Every pair of entries that meet
// gives an entry, also when the values cancel or are zero (the structure is the symbolic
// product). Returns 0, or 10 when the product would not fit 32-bit positions or the inner sizes
// differ.
int multiplySparse(const SparseCsr& x, const SparseCsr& y, SparseCsr& out);

// out = m * v (v of m.cols values, out of m.rows), float accumulation in entry order.
void multiplySparseVector(const SparseCsr& m, const float* v, float* out);

}  // namespace qx
