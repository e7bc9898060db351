#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "solver/sparse.h"

namespace {

using Dense = std::vector<std::vector<float>>;

// A random sparse matrix with some empty rows and columns (none, if `full`).
qx::SparseCsr randomSparse(int rows, int cols, unsigned seed, double density) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(-5.0f, 5.0f);
    std::bernoulli_distribution keep(density);
    qx::SparseCsr m;
    m.rows = rows;
    m.cols = cols;
    m.ia.push_back(1);
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c)
            if (keep(rng)) {
                m.ja.push_back(c + 1);
                m.a.push_back(value(rng));
            }
        m.ia.push_back(int(m.ja.size()) + 1);
    }
    return m;
}

Dense toDense(const qx::SparseCsr& m) {
    Dense d(size_t(m.rows), std::vector<float>(size_t(m.cols), 0.0f));
    for (int r = 0; r < m.rows; ++r)
        for (int p = m.ia[size_t(r)] - 1; p < m.ia[size_t(r) + 1] - 1; ++p)
            d[size_t(r)][size_t(m.ja[size_t(p)] - 1)] += m.a[size_t(p)];
    return d;
}

void expectAscendingColumns(const qx::SparseCsr& m) {
    for (int r = 0; r < m.rows; ++r) {
        ASSERT_LT(m.ia[size_t(r)], m.ia[size_t(r) + 1]) << "row " << r << " is empty";
        for (int p = m.ia[size_t(r)]; p < m.ia[size_t(r) + 1] - 1; ++p)
            EXPECT_LT(m.ja[size_t(p) - 1], m.ja[size_t(p)]) << "row " << r;
    }
}

TEST(TransposeSparse, MatchesTheDenseTransposeWithSortedRows) {
    for (unsigned seed : {1u, 2u, 3u}) {
        const qx::SparseCsr m = randomSparse(37, 23, seed, 0.15);
        qx::SparseCsr t;
        ASSERT_EQ(qx::transposeSparse(m, t), 0);
        EXPECT_EQ(t.rows, 23);
        EXPECT_EQ(t.cols, 37);
        expectAscendingColumns(t);
        const Dense dm = toDense(m), dt = toDense(t);
        for (int r = 0; r < 37; ++r)
            for (int c = 0; c < 23; ++c) EXPECT_EQ(dt[size_t(c)][size_t(r)], dm[size_t(r)][size_t(c)]);
    }
}

TEST(TransposeSparse, EmptyColumnBecomesOneZeroInColumnOne) {
    // 3 x 4, column 2 (one-based 3) empty:
    // [1 0 0 2]
    // [0 3 0 0]
    // [4 0 0 5]
    qx::SparseCsr m;
    m.rows = 3;
    m.cols = 4;
    m.ia = {1, 3, 4, 6};
    m.ja = {1, 4, 2, 1, 4};
    m.a = {1, 2, 3, 4, 5};
    qx::SparseCsr t;
    ASSERT_EQ(qx::transposeSparse(m, t), 0);
    EXPECT_EQ(t.ia, (std::vector<int>{1, 3, 4, 5, 7}));
    EXPECT_EQ(t.ja, (std::vector<int>{1, 3, 2, 1, 1, 3}));
    EXPECT_EQ(t.a, (std::vector<float>{1, 4, 3, 0, 2, 5}));
}

TEST(TransposeSparse, RefusesBeyondItsLimitsAndLeavesTheOutputAlone) {
    const float v[1] = {1.0f};
    const int ja[1] = {1};
    const int ia[2] = {1, 2};
    qx::SparseCsr out;
    out.rows = 77;
    // trunc(log2(rows)) > 25 from 2^26 rows; trunc(log2(cols)) + 1 > 25 from 2^25 columns.
    EXPECT_EQ(qx::transposeSparse(v, ja, ia, 1 << 26, 1, out), -1);
    EXPECT_EQ(qx::transposeSparse(v, ja, ia, 1, 1 << 25, out), -1);
    // Row numbers from 10,000,000 on can't be carried exactly.
    EXPECT_EQ(qx::transposeSparse(v, ja, ia, 10000000, 1, out), -1);
    EXPECT_EQ(qx::transposeSparse(v, ja, ia, 0, 1, out), -1);
    EXPECT_EQ(out.rows, 77);
    EXPECT_TRUE(out.ia.empty());
    // A column outside the matrix is refused, not written out of bounds.
    const int bad[1] = {3};
    EXPECT_EQ(qx::transposeSparse(v, bad, ia, 1, 2, out), -1);
    EXPECT_EQ(out.rows, 77);
}

TEST(SparseProducts, MatchDenseProducts) {
    const qx::SparseCsr x = randomSparse(19, 13, 7, 0.25);
    const qx::SparseCsr y = randomSparse(13, 17, 8, 0.25);
    qx::SparseCsr p;
    ASSERT_EQ(qx::multiplySparse(x, y, p), 0);
    EXPECT_EQ(p.rows, 19);
    EXPECT_EQ(p.cols, 17);
    const Dense dx = toDense(x), dy = toDense(y), dp = toDense(p);
    for (int r = 0; r < 19; ++r)
        for (int c = 0; c < 17; ++c) {
            double s = 0;
            for (int k = 0; k < 13; ++k) s += double(dx[size_t(r)][size_t(k)]) * dy[size_t(k)][size_t(c)];
            EXPECT_NEAR(dp[size_t(r)][size_t(c)], s, 1e-4);
        }
    for (int r = 0; r < p.rows; ++r)
        for (int q = p.ia[size_t(r)]; q < p.ia[size_t(r) + 1] - 1; ++q)
            EXPECT_LT(p.ja[size_t(q) - 1], p.ja[size_t(q)]);
    EXPECT_EQ(qx::multiplySparse(y, y, p), 10);  // inner sizes differ

    std::vector<float> v(13), out(19);
    for (int k = 0; k < 13; ++k) v[size_t(k)] = float(k % 5) - 2.0f;
    qx::multiplySparseVector(x, v.data(), out.data());
    for (int r = 0; r < 19; ++r) {
        double s = 0;
        for (int k = 0; k < 13; ++k) s += double(dx[size_t(r)][size_t(k)]) * v[size_t(k)];
        EXPECT_NEAR(out[size_t(r)], s, 1e-4);
    }
}

TEST(SparseProducts, StructureKeepsEntriesThatCancel) {
    // [1 1] * [1; -1] = [0], but the entry is there: the solver's triangle counts on it.
    qx::SparseCsr x, y, p;
    x.rows = 1, x.cols = 2, x.ia = {1, 3}, x.ja = {1, 2}, x.a = {1, 1};
    y.rows = 2, y.cols = 1, y.ia = {1, 2, 3}, y.ja = {1, 1}, y.a = {1, -1};
    ASSERT_EQ(qx::multiplySparse(x, y, p), 0);
    EXPECT_EQ(p.ia, (std::vector<int>{1, 2}));
    EXPECT_EQ(p.a, (std::vector<float>{0.0f}));
    // Row scaling keeps the structure and scales each row.
    qx::SparseCsr s;
    const float w[2] = {2.0f, -3.0f};
    qx::scaleRowsSparse(w, y, s);
    EXPECT_EQ(s.ja, y.ja);
    EXPECT_EQ(s.a, (std::vector<float>{2.0f, 3.0f}));
}

}  // namespace
