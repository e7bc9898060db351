#include "flows/compressed_rows.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include <omp.h>

namespace qx::flows {
void transposeRows(int n, const std::vector<int>& start, const std::vector<int>& cols,
                   const std::vector<float>& values, std::vector<int>& outStart,
                   std::vector<int>& outCols, std::vector<float>& outValues) {
    // The rows in chunks split at even shares of the entries, one a thread; a team given fewer
    // threads takes them in turn.
    const int chunks = n >= kParallelRows ? std::max(1, omp_get_max_threads()) : 1;
    std::vector<int> firstRow(size_t(chunks) + 1, n);
    firstRow[0] = 0;
    const int64_t total = start[size_t(n)];
    for (int t = 1; t < chunks; ++t)
        firstRow[size_t(t)] = static_cast<int>(
            std::lower_bound(start.begin(), start.begin() + n, total * t / chunks) - start.begin());
    // place[t][c]: first how many entries of column c chunk t holds, then where they go.
    std::vector<std::vector<int>> place(static_cast<size_t>(chunks), std::vector<int>(size_t(n), 0));
    outStart.assign(size_t(n) + 1, 0);
    outCols.resize(size_t(total));
    outValues.resize(size_t(total));
#pragma omp parallel num_threads(chunks)
    {
        const int team = omp_get_num_threads();
        for (int t = omp_get_thread_num(); t < chunks; t += team) {
            int* count = place[size_t(t)].data();
            for (int e = start[size_t(firstRow[size_t(t)])]; e < start[size_t(firstRow[size_t(t) + 1])]; ++e)
                ++count[cols[size_t(e)]];
        }
#pragma omp barrier
#pragma omp single
        {
            int at = 0;
            for (int c = 0; c < n; ++c) {
                outStart[size_t(c)] = at;
                for (int t = 0; t < chunks; ++t) {
                    int& slot = place[size_t(t)][size_t(c)];
                    const int k = slot;
                    slot = at;
                    at += k;
                }
            }
            outStart[size_t(n)] = at;
        }
        for (int t = omp_get_thread_num(); t < chunks; t += team) {
            int* next = place[size_t(t)].data();
            for (int r = firstRow[size_t(t)]; r < firstRow[size_t(t) + 1]; ++r)
                for (int e = start[size_t(r)]; e < start[size_t(r) + 1]; ++e) {
                    const int q = next[cols[size_t(e)]]++;
                    outCols[size_t(q)] = r;
                    outValues[size_t(q)] = values[size_t(e)];
                }
        }
    }
}

void packRows(int n, int stride, const std::vector<int>& count, std::vector<int>& start,
              std::vector<int>& cols, std::vector<float>& values) {
    std::vector<int> packedCols;
    std::vector<float> packedValues;
    rowsInTwoPasses(
        n, start, packedCols, packedValues, [&](int r) { return count[size_t(r)]; },
        [&](int r, int* c, float* v) {
            const size_t from = size_t(r) * size_t(stride);
            std::copy_n(cols.begin() + from, count[size_t(r)], c);
            std::copy_n(values.begin() + from, count[size_t(r)], v);
        });
    cols = std::move(packedCols);
    values = std::move(packedValues);
}

}  // namespace qx::flows
