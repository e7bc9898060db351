// Steps on matrices held as compressed rows: row starts, column indices, values.
#pragma once

#include <vector>

namespace qx::flows {

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
