// Steps on compressed rows: a transpose holds exactly the entries with row and column swapped,
// each row ascending, the same arrays on one thread as on a team (whose rows split unevenly);
// packing keeps each row's leading entries in order and drops the rest.
#include <gtest/gtest.h>

#include <omp.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include "flows/compressed_rows.h"

namespace qx::flows {
namespace {

struct Rows {
    std::vector<int> start{0};
    std::vector<int> cols;
    std::vector<float> values;
};

// n rows, row r with 0..maxLength entries at distinct random columns (sorted or not), a few
// rows much longer than the rest so that the threads' shares split inside them.
Rows randomRows(int n, int maxLength, unsigned seed, bool sorted) {
    std::mt19937 rng(seed);
    Rows m;
    for (int r = 0; r < n; ++r) {
        int length = static_cast<int>(rng() % unsigned(maxLength + 1));
        if (r % 997 == 0) length = 200;
        length = std::min(length, n);
        std::vector<int> cols;
        while (static_cast<int>(cols.size()) < length) {
            const int c = static_cast<int>(rng() % unsigned(n));
            if (std::find(cols.begin(), cols.end(), c) == cols.end()) cols.push_back(c);
        }
        if (sorted) std::sort(cols.begin(), cols.end());
        for (int c : cols) {
            m.cols.push_back(c);
            m.values.push_back(static_cast<float>(r) + static_cast<float>(c) * 1e-6f);
        }
        m.start.push_back(static_cast<int>(m.cols.size()));
    }
    return m;
}

Rows transposed(const Rows& m, int n) {
    Rows t;
    transposeRows(n, m.start, m.cols, m.values, t.start, t.cols, t.values);
    return t;
}

TEST(FlowsCompressedRows, TransposeSwapsEveryEntryAndOrdersRowsAscending) {
    for (const int n : {1, 50, 40000}) {
        const Rows m = randomRows(n, 9, 7u + unsigned(n), false);
        const Rows t = transposed(m, n);
        ASSERT_EQ(t.start.size(), size_t(n) + 1);
        ASSERT_EQ(t.start.back(), m.start.back());
        // Every entry (r, c, v) of m, as (c, r, v), in the order a transpose must hold them.
        std::vector<std::tuple<int, int, float>> want;
        for (int r = 0; r < n; ++r)
            for (int e = m.start[size_t(r)]; e < m.start[size_t(r) + 1]; ++e)
                want.emplace_back(m.cols[size_t(e)], r, m.values[size_t(e)]);
        std::sort(want.begin(), want.end());
        std::vector<std::tuple<int, int, float>> got;
        for (int c = 0; c < n; ++c) {
            ASSERT_LE(t.start[size_t(c)], t.start[size_t(c) + 1]);
            for (int e = t.start[size_t(c)]; e < t.start[size_t(c) + 1]; ++e)
                got.emplace_back(c, t.cols[size_t(e)], t.values[size_t(e)]);
        }
        EXPECT_EQ(got, want) << n;  // got is in row order, so equal only when rows ascend
    }
}

TEST(FlowsCompressedRows, TransposeIsTheSameOnOneThreadAsOnATeam) {
    const int n = 60000;
    const Rows m = randomRows(n, 12, 3u, true);
    const Rows team = transposed(m, n);
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    const Rows one = transposed(m, n);
    omp_set_num_threads(std::max(before, 3));  // more chunks than this machine may have cores
    const Rows three = transposed(m, n);
    omp_set_num_threads(before);
    EXPECT_EQ(one.start, team.start);
    EXPECT_EQ(one.cols, team.cols);
    EXPECT_EQ(one.values, team.values);
    EXPECT_EQ(three.cols, team.cols);
    EXPECT_EQ(three.values, team.values);
    // Twice transposed is the matrix again (its rows were sorted).
    const Rows back = transposed(team, n);
    EXPECT_EQ(back.start, m.start);
    EXPECT_EQ(back.cols, m.cols);
    EXPECT_EQ(back.values, m.values);
}

TEST(FlowsCompressedRows, PackKeepsEachRowsLeadingEntriesInOrder) {
    const int n = 20000, stride = 5;
    std::vector<int> count(static_cast<size_t>(n)), cols(static_cast<size_t>(n) * stride);
    std::vector<float> values(cols.size());
    for (int r = 0; r < n; ++r) {
        count[size_t(r)] = r % (stride + 1);
        for (int j = 0; j < stride; ++j) {
            cols[size_t(r) * stride + j] = j < count[size_t(r)] ? r * 10 + j : -1;
            values[size_t(r) * stride + j] = j < count[size_t(r)] ? float(j) : -1.0f;
        }
    }
    std::vector<int> start;
    packRows(n, stride, count, start, cols, values);
    ASSERT_EQ(start.size(), size_t(n) + 1);
    ASSERT_EQ(cols.size(), size_t(start.back()));
    ASSERT_EQ(values.size(), cols.size());
    for (int r = 0; r < n; ++r) {
        ASSERT_EQ(start[size_t(r) + 1] - start[size_t(r)], count[size_t(r)]);
        for (int j = 0; j < count[size_t(r)]; ++j) {
            EXPECT_EQ(cols[size_t(start[size_t(r)] + j)], r * 10 + j);
            EXPECT_EQ(values[size_t(start[size_t(r)] + j)], float(j));
        }
    }
}

}  // namespace
}  // namespace qx::flows
