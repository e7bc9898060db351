#include "runtime/fault.h"
#include "foreground/fb_solve.h"

#include <cmath>
#include <cstdio>
#include <vector>

#include "solver/sparse.h"
#include "runtime/progress.h"
#include "solver/direct_solver.h"

namespace qx {
namespace {

bool inRange(float v) { return v >= 0.01f && v <= 0.99f; }

// The gradient operator: 4N rows (horizontal, vertical, down-right, up-right differences) and N
// columns. A row whose mask is set holds +1 at the pixel and -1 at its neighbour (columns
// ascending); any other row holds one explicit 0 in column 1, so that no row is empty.
SparseCsr gradientOperator(const std::vector<float>& masks, int w, int h) {
    const int n = w * h;
    SparseCsr g;
    g.rows = 4 * n;
    g.cols = n;
    g.ia.resize(size_t(g.rows) + 1);
    g.ja.reserve(size_t(8) * n);
    g.a.reserve(size_t(8) * n);
    const int offset[4] = {1, w, w + 1, -w + 1};
    for (int b = 0; b < 4; ++b) {
        for (int p = 0; p < n; ++p) {
            const int row = b * n + p;
            g.ia[size_t(row)] = int(g.ja.size()) + 1;
            if (masks[size_t(row)] == 1.0f) {
                const int q = p + offset[b];
                if (b == 3) {  // the neighbour lies a row up: its column comes first
                    g.ja.push_back(q + 1);
                    g.a.push_back(-1.0f);
                    g.ja.push_back(p + 1);
                    g.a.push_back(1.0f);
                } else {
                    g.ja.push_back(p + 1);
                    g.a.push_back(1.0f);
                    g.ja.push_back(q + 1);
                    g.a.push_back(-1.0f);
                }
            } else {
                g.ja.push_back(1);
                g.a.push_back(0.0f);
            }
        }
    }
    g.ia[size_t(g.rows)] = int(g.ja.size()) + 1;
    return g;
}

// The system matrix: 11N rows over the unknowns F (columns 1..N) and B (N+1..2N): the data terms
// of F and of B, the compositing equation, then the weighted gradients of F and of B.
SparseCsr systemMatrix(const std::vector<float>& a, const std::vector<float>& dF,
                       const std::vector<float>& dB, const SparseCsr& wFG, const SparseCsr& wBG,
                       int n) {
    SparseCsr m;
    m.rows = 11 * n;
    m.cols = 2 * n;
    m.ia.resize(size_t(m.rows) + 1);
    const size_t nnz = size_t(4) * n + wFG.a.size() + wBG.a.size();
    m.ja.reserve(nnz);
    m.a.reserve(nnz);
    int row = 0;
    auto put = [&](int col, float v) {
        m.ja.push_back(col);
        m.a.push_back(v);
    };
    for (int p = 0; p < n; ++p, ++row) {
        m.ia[size_t(row)] = int(m.ja.size()) + 1;
        put(p + 1, dF[size_t(p)]);
    }
    for (int p = 0; p < n; ++p, ++row) {
        m.ia[size_t(row)] = int(m.ja.size()) + 1;
        put(n + p + 1, dB[size_t(p)]);
    }
    for (int p = 0; p < n; ++p, ++row) {
        m.ia[size_t(row)] = int(m.ja.size()) + 1;
        put(p + 1, a[size_t(p)]);
        put(n + p + 1, 1.0f - a[size_t(p)]);
    }
    for (const SparseCsr* wg : {&wFG, &wBG}) {
        const int shift = wg == &wFG ? 0 : n;
        for (int r = 0; r < wg->rows; ++r, ++row) {
            m.ia[size_t(row)] = int(m.ja.size()) + 1;
            for (int p = wg->ia[size_t(r)] - 1; p < wg->ia[size_t(r) + 1] - 1; ++p)
                put(wg->ja[size_t(p)] + shift, wg->a[size_t(p)]);
        }
    }
    m.ia[size_t(row)] = int(m.ja.size()) + 1;
    return m;
}

// The upper triangle of a symmetric product for the direct solver. A row that holds a single 0
// is kept as a 0 on the diagonal.
SparseCsr upperTriangle(const SparseCsr& s) {
    SparseCsr u;
    u.rows = u.cols = s.rows;
    u.ia.resize(size_t(s.rows) + 1);
    u.ja.reserve(s.ja.size() / 2 + size_t(s.rows));
    u.a.reserve(s.ja.size() / 2 + size_t(s.rows));
    for (int i = 0; i < s.rows; ++i) {
        u.ia[size_t(i)] = int(u.ja.size()) + 1;
        const int p0 = s.ia[size_t(i)] - 1, p1 = s.ia[size_t(i) + 1] - 1;
        if (p1 - p0 == 1 && s.a[size_t(p0)] == 0.0f) {
            u.ja.push_back(i + 1);
            u.a.push_back(0.0f);
            continue;
        }
        for (int p = p0; p < p1; ++p) {
            if (s.ja[size_t(p)] >= i + 1) {
                u.ja.push_back(s.ja[size_t(p)]);
                u.a.push_back(s.a[size_t(p)]);
            }
        }
    }
    u.ia[size_t(s.rows)] = int(u.ja.size()) + 1;
    return u;
}

}  // namespace

void solveInLine(const SparseCsr& u, float* b, float* x, int nrhs) {
    try {
        pardisoSolverInLine(u.rows, u.a.data(), u.ia.data(), u.ja.data(), b, x, nrhs, -2);
    } catch (const Failure& f) {
        const int e = f.value();
        const char* message = e == 121   ? "\nERROR during symbolic factorization: %d"
                              : e == 122 ? "\nERROR during numerical factorization: %d"
                              : e == 123 ? "\nERROR during solution: %d"
                                         : nullptr;
        if (message) {
            std::printf(message, e);
            std::fflush(stdout);
        }
        throw;
    }
}

int solveForegroundBackground(void* /*unused*/, IMG<unsigned char, 1>* const planes[3],
                              int wantBackground, const IMG<unsigned char, 1>& alpha) {
    const int w = alpha.width, h = alpha.height;
    if (w < 3 || h < 3) return 0;  // no interior pixel to solve for
    const int64_t n64 = int64_t(w) * h;
    if (11 * n64 >= 10000000) fail(Fault::TransposeTooLarge);  // beyond what the transpose takes
    const int n = int(n64);

    std::vector<float> a(static_cast<size_t>(n));
    for (int y = 0; y < h; ++y) {
        const unsigned char* row = alpha.row(y);
        for (int x = 0; x < w; ++x) a[size_t(y * w + x)] = float(row[x]) * (1.0f / 255.0f);
    }

    // Masks of the four directions, 0 on the outer ring. The horizontal one also counts a pixel
    // whose right neighbour is mixed; the others look at the pixel alone.
    std::vector<float> masks(size_t(4) * n, 0.0f);
    std::vector<float> g(size_t(4) * n, 0.0f);
    for (int y = 1; y < h - 1; ++y) {
        for (int x = 1; x < w - 1; ++x) {
            const int p = y * w + x;
            const float v = a[size_t(p)];
            const bool mixed = inRange(v);
            masks[size_t(p)] = (mixed || inRange(a[size_t(p + 1)])) ? 1.0f : 0.0f;
            const float m = mixed ? 1.0f : 0.0f;
            masks[size_t(n + p)] = m;
            masks[size_t(2 * n + p)] = m;
            masks[size_t(3 * n + p)] = m;
            g[size_t(p)] = (v - a[size_t(p + 1)]) * masks[size_t(p)];
            g[size_t(n + p)] = (v - a[size_t(p + w)]) * m;
            g[size_t(2 * n + p)] = (v - a[size_t(p + w + 1)]) * m;
            g[size_t(3 * n + p)] = (v - a[size_t(p - w + 1)]) * m;
        }
    }
    progressKick();

    std::vector<float> wF(size_t(4) * n), wB(size_t(4) * n);
    for (int b = 0; b < 4; ++b) {
        for (int p = 0; p < n; ++p) {
            const size_t k = size_t(b) * n + p;
            const float s = std::sqrt(std::fabs(g[k]));
            wF[k] = s + 0.003f * (1.0f - a[size_t(p)]);
            wB[k] = s + 0.003f * a[size_t(p)];
        }
    }
    std::vector<float>().swap(g);
    progressKick();

    std::vector<float> dF(static_cast<size_t>(n)), dB(static_cast<size_t>(n));
    for (int p = 0; p < n; ++p) {
        const float v = a[size_t(p)];
        float f = 0.0f, bg = 0.0f;
        if (v > 0.99f) f += 100.0f;
        if (v > 0.7f) f += 0.03f * v;
        if (v < 0.01f) f += 0.01f;
        if (v < 0.01f) bg += 100.0f;
        if (v < 0.3f) bg += 0.03f * (1.0f - v);
        if (v > 0.99f) bg += 0.01f;
        dF[size_t(p)] = f;
        dB[size_t(p)] = bg;
    }
    progressKick();

    SparseCsr gradient = gradientOperator(masks, w, h);
    std::vector<float>().swap(masks);
    progressKick();

    SparseCsr wFG, wBG;
    scaleRowsSparse(wF.data(), gradient, wFG);
    scaleRowsSparse(wB.data(), gradient, wBG);
    gradient = SparseCsr();
    const SparseCsr sys = systemMatrix(a, dF, dB, wFG, wBG, n);
    wFG = SparseCsr();
    wBG = SparseCsr();

    // The matrix is the same for the three planes: its transpose, normal matrix, triangle and
    // factorisation are made once.
    SparseCsr at;
    if (transposeSparse(sys, at) != 0) fail(Fault::TransposeTooLarge);
    SparseCsr ata;
    if (multiplySparse(at, sys, ata) != 0) return 10;
    const SparseCsr upper = upperTriangle(ata);
    ata = SparseCsr();

    // The three right sides are solved together; the progress still ticks as for three solves
    // (the solver's own two ticks come with the first plane).
    const size_t m = size_t(2) * n;
    std::vector<float> rhs(size_t(11) * n), atb(3 * m), x(3 * m);
    for (int c = 0; c < 3; ++c) {
        IMG<unsigned char, 1>& plane = *planes[c];
        std::fill(rhs.begin(), rhs.end(), 0.0f);
        for (int y = 0; y < h; ++y) {
            const unsigned char* row = plane.row(y);
            for (int xx = 0; xx < w; ++xx) {
                const int p = y * w + xx;
                const float i = float(row[xx]);
                const double v = double(a[size_t(p)]);
                rhs[size_t(p)] = v > 0.1 ? dF[size_t(p)] * i : 0.0f;
                rhs[size_t(n + p)] = v < 0.9 ? dB[size_t(p)] * i : 0.0f;
                rhs[size_t(2 * n + p)] = i;
            }
        }
        progressKick();
        multiplySparseVector(at, rhs.data(), atb.data() + size_t(c) * m);
        progressKick();
        progressKick();  // the triangle (formed once above)
    }
    solveInLine(upper, atb.data(), x.data(), 3);
    for (int c = 0; c < 3; ++c) {
        if (c > 0) {
            progressKick();  // this plane's factorisation and solve, done with the first
            progressKick();
        }
        IMG<unsigned char, 1>& plane = *planes[c];
        const float* result = x.data() + size_t(c) * m + (wantBackground ? n : 0);
        for (int y = 1; y < h - 1; ++y) {
            unsigned char* row = plane.row(y);
            for (int xx = 1; xx < w - 1; ++xx) {
                float v = result[size_t(y * w + xx)];
                v = v > 0.0f ? (v < 255.0f ? v : 255.0f) : 0.0f;  // NaN too goes to 0
                row[xx] = static_cast<unsigned char>(int(v));
            }
        }
    }
    progressKick();
    return 0;
}

}  // namespace qx
