// Steps on matrices held as compressed rows: row starts, column indices, values.
#pragma once

#include <vector>

#include "flows/block_sum.h"

namespace qx::flows {

// n rows made in two parallel passes: length(r) entries a row first, then, once the starts are
// known, write(r, cols, values) fills the row's own place (cols and values point at its first
// entry). start, cols and values are set to the rows.
template <class Length, class Write>
void rowsInTwoPasses(int n, std::vector<int>& start, std::vector<int>& cols,
                     std::vector<float>& values, Length length, Write write) {
    std::vector<int> count(static_cast<size_t>(n));
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
    for (int r = 0; r < n; ++r) count[size_t(r)] = length(r);
    start.assign(size_t(n) + 1, 0);
    for (int r = 0; r < n; ++r) start[size_t(r) + 1] = start[size_t(r)] + count[size_t(r)];
    cols.resize(size_t(start[size_t(n)]));
    values.resize(cols.size());
#pragma omp parallel for schedule(static) if (n >= kParallelRows)
    for (int r = 0; r < n; ++r)
        write(r, cols.data() + start[size_t(r)], values.data() + start[size_t(r)]);
}

// Row c of the result holds column c's entries, in ascending order of the rows they come from:
// the same arrays a plain scatter over the rows in order gives, whatever the thread count. The
// rows are split among the threads, each counts its own entries a column, and each then
// scatters its rows behind the threads before it.
void transposeRows(int n, const std::vector<int>& start, const std::vector<int>& cols,
                   const std::vector<float>& values, std::vector<int>& outStart,
                   std::vector<int>& outCols, std::vector<float>& outValues);

// Rows written `stride` entries apart (row r's count[r] entries from r * stride in cols and
// values) packed in row order: start is set, cols and values shrink to the entries.
void packRows(int n, int stride, const std::vector<int>& count, std::vector<int>& start,
              std::vector<int>& cols, std::vector<float>& values);

}  // namespace qx::flows
