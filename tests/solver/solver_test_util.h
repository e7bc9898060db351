// Small dense reference tools and matrix builders for the solver tests.
#pragma once

#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "frame/progress.h"

namespace qxtest {

// A symmetric matrix as its upper triangle in one-based compressed rows.
template <class T>
struct Csr {
    int n = 0;
    std::vector<int> ia{1}, ja;
    std::vector<T> a;
    void add(int col, double v) { ja.push_back(col + 1), a.push_back(T(v)); }
    void endRow() { ia.push_back(int(ja.size()) + 1), ++n; }
};

// Upper triangle of a dense symmetric n x n matrix (row-major), zeros left out but the diagonal.
template <class T>
Csr<T> fromDense(const std::vector<double>& m, int n) {
    Csr<T> c;
    for (int i = 0; i < n; ++i) {
        for (int j = i; j < n; ++j)
            if (j == i || m[size_t(i * n + j)] != 0.0) c.add(j, m[size_t(i * n + j)]);
        c.endRow();
    }
    return c;
}

// Random sparse symmetric positive definite matrix: a few off-diagonals per row, diagonally
// dominant. Values are exact in float.
inline std::vector<double> randomSpd(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> col(0, n - 1), val(-64, 64);
    std::vector<double> m(size_t(n * n), 0.0);
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            const int j = col(rng);
            if (j == i) continue;
            m[size_t(i * n + j)] = m[size_t(j * n + i)] = val(rng) / 16.0;
        }
    for (int i = 0; i < n; ++i) {
        double s = 1.0;
        for (int j = 0; j < n; ++j) s += std::fabs(m[size_t(i * n + j)]) * (j != i);
        m[size_t(i * n + i)] = std::ceil(s);
    }
    return m;
}

// Gaussian elimination with partial pivoting, column by column of b (n x nrhs).
inline std::vector<double> denseSolve(std::vector<double> m, std::vector<double> b, int n,
                                      int nrhs = 1) {
    for (int k = 0; k < n; ++k) {
        int p = k;
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(m[size_t(i * n + k)]) > std::fabs(m[size_t(p * n + k)])) p = i;
        for (int j = 0; j < n; ++j) std::swap(m[size_t(k * n + j)], m[size_t(p * n + j)]);
        for (int r = 0; r < nrhs; ++r) std::swap(b[size_t(r * n + k)], b[size_t(r * n + p)]);
        for (int i = k + 1; i < n; ++i) {
            const double f = m[size_t(i * n + k)] / m[size_t(k * n + k)];
            for (int j = k; j < n; ++j) m[size_t(i * n + j)] -= f * m[size_t(k * n + j)];
            for (int r = 0; r < nrhs; ++r) b[size_t(r * n + i)] -= f * b[size_t(r * n + k)];
        }
    }
    for (int r = 0; r < nrhs; ++r)
        for (int k = n - 1; k >= 0; --k) {
            double s = b[size_t(r * n + k)];
            for (int j = k + 1; j < n; ++j) s -= m[size_t(k * n + j)] * b[size_t(r * n + j)];
            b[size_t(r * n + k)] = s / m[size_t(k * n + k)];
        }
    return b;
}

// 1D Laplacian tridiag(-1, 2, -1) of order n.
template <class T>
Csr<T> laplacian1d(int n) {
    Csr<T> c;
    for (int i = 0; i < n; ++i) {
        c.add(i, 2.0);
        if (i + 1 < n) c.add(i + 1, -1.0);
        c.endRow();
    }
    return c;
}

// Counts progress callbacks while alive.
struct KickCounter {
    int kicks = 0;
    static int proc(int, int, void* p) { return ++static_cast<KickCounter*>(p)->kicks, 1; }
    KickCounter() { qx::setProgProc(&KickCounter::proc, this, 1 << 30, 1); }
    ~KickCounter() { qx::setProgProc(nullptr, nullptr, 0, 0); }
};

}  // namespace qxtest
