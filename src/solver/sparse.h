// The sparse layout shared by the matting Laplacian, the iterative solvers and the direct driver:
// a symmetric matrix kept as its upper triangle in compressed rows, one-based.
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

}  // namespace qx
