// General (non-symmetric) sparse matrices in compressed rows, one-based, as the least-squares
// colour solve builds them: the transpose, the row scaling diag(w) * M, the product of two such
// matrices and the product with a dense vector.
#pragma once

#include <cstdint>
#include <vector>

namespace qx {

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
