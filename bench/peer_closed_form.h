// A peer for the stroke and tri-map reports: the closed-form alpha as the PyMatting library
// computes it (estimate_alpha_cf with its defaults), re-implemented here from Levin, Lischinski
// and Weiss's equations, since the library itself can't be installed on these machines:
//  - the matting Laplacian of the 3 x 3 windows that lie inside the image, colours on 0..1,
//    epsilon 1e-7;
//  - the system (L + 100 D) a = 100 f, D marking the known pixels (a tri-map's or strokes' 0 and
//    255), f the known foreground;
//  - solved to the end (PyMatting runs preconditioned conjugate gradients to a relative residual
//    of 1e-7; a factorisation gives that answer), clipped to 0..1.
#pragma once

#include <cholmod.h>

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <vector>

#include "solver/cholmod_session.h"

namespace bench {

// The alpha (8 bits) of `bgr` given `trimap` (0 background, 255 foreground, else unknown); empty
// when CHOLMOD fails (out of memory on a large image).
inline cv::Mat peerClosedForm(const cv::Mat& bgr, const cv::Mat& trimap) {
    constexpr double kEpsilon = 1e-7, kLambda = 100.0;
    const int w = bgr.cols, h = bgr.rows, n = w * h;
    // L's entries by pixel and by the neighbour's offset: dy, dx in -2..2 -> 25 slots a pixel.
    std::vector<double> lap(size_t(n) * 25, 0.0);
    auto slot = [](int dy, int dx) { return (dy + 2) * 5 + (dx + 2); };
    for (int cy = 1; cy + 1 < h; ++cy)
        for (int cx = 1; cx + 1 < w; ++cx) {
            double v[9][3], mean[3] = {0, 0, 0};
            for (int k = 0; k < 9; ++k) {
                const cv::Vec3b& p = bgr.at<cv::Vec3b>(cy + k / 3 - 1, cx + k % 3 - 1);
                for (int c = 0; c < 3; ++c) {
                    v[k][c] = p[c] / 255.0;
                    mean[c] += v[k][c] / 9.0;
                }
            }
            cv::Matx33d cov = cv::Matx33d::zeros();
            for (int k = 0; k < 9; ++k)
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b)
                        cov(a, b) += (v[k][a] - mean[a]) * (v[k][b] - mean[b]) / 9.0;
            for (int a = 0; a < 3; ++a) cov(a, a) += kEpsilon / 9.0;
            const cv::Matx33d inv = cov.inv(cv::DECOMP_CHOLESKY);
            double d[9][3];  // (I_k - mean)^T inv
            for (int k = 0; k < 9; ++k)
                for (int b = 0; b < 3; ++b) {
                    d[k][b] = 0;
                    for (int a = 0; a < 3; ++a) d[k][b] += (v[k][a] - mean[a]) * inv(a, b);
                }
            for (int i = 0; i < 9; ++i) {
                const int pi = (cy + i / 3 - 1) * w + cx + i % 3 - 1;
                for (int j = 0; j < 9; ++j) {
                    double dot = 0;
                    for (int c = 0; c < 3; ++c) dot += d[i][c] * (v[j][c] - mean[c]);
                    const double value = (i == j ? 1.0 : 0.0) - (1.0 + dot) / 9.0;
                    lap[size_t(pi) * 25 + slot(j / 3 - i / 3, j % 3 - i % 3)] += value;
                }
            }
        }

    // The lower triangle in compressed columns: column p holds p and the neighbours after it.
    qx::CholmodSession s;
    if (!s.started) return cv::Mat();
    s.c.supernodal = CHOLMOD_SUPERNODAL;
    std::vector<int> colStart(size_t(n) + 1, 0), rows;
    std::vector<double> values;
    rows.reserve(size_t(n) * 13);
    values.reserve(size_t(n) * 13);
    for (int p = 0; p < n; ++p) {
        const int y = p / w, x = p % w;
        for (int dy = 0; dy <= 2; ++dy)
            for (int dx = -2; dx <= 2; ++dx) {
                if (dy == 0 && dx < 0) continue;
                const int qy = y + dy, qx = x + dx;
                if (qy >= h || qx < 0 || qx >= w) continue;
                double value = lap[size_t(p) * 25 + slot(dy, dx)];
                if (dy == 0 && dx == 0) {
                    const unsigned char t = trimap.at<unsigned char>(y, x);
                    if (t == 0 || t == 255) value += kLambda;
                }
                if (value == 0.0 && !(dy == 0 && dx == 0)) continue;
                rows.push_back(qy * w + qx);
                values.push_back(value);
            }
        colStart[size_t(p) + 1] = static_cast<int>(rows.size());
    }
    lap = std::vector<double>();
    s.A = cholmod_allocate_sparse(n, n, rows.size(), 1, 1, -1, CHOLMOD_REAL, &s.c);
    if (!s.A) return cv::Mat();
    std::copy(colStart.begin(), colStart.end(), static_cast<int*>(s.A->p));
    std::copy(rows.begin(), rows.end(), static_cast<int*>(s.A->i));
    std::copy(values.begin(), values.end(), static_cast<double*>(s.A->x));
    rows = std::vector<int>();
    values = std::vector<double>();
    s.L = cholmod_analyze(s.A, &s.c);
    if (!s.L || !cholmod_factorize(s.A, s.L, &s.c)) return cv::Mat();
    cholmod_dense* b = cholmod_zeros(n, 1, CHOLMOD_REAL, &s.c);
    if (!b) return cv::Mat();
    double* bx = static_cast<double*>(b->x);
    for (int p = 0; p < n; ++p)
        bx[p] = trimap.at<unsigned char>(p / w, p % w) == 255 ? kLambda : 0.0;
    cholmod_dense* x = cholmod_solve(CHOLMOD_A, s.L, b, &s.c);
    cholmod_free_dense(&b, &s.c);
    if (!x) return cv::Mat();
    cv::Mat alpha(h, w, CV_8UC1);
    const double* xv = static_cast<const double*>(x->x);
    for (int p = 0; p < n; ++p)
        alpha.at<unsigned char>(p / w, p % w) =
            static_cast<unsigned char>(std::lround(std::clamp(xv[p], 0.0, 1.0) * 255.0));
    cholmod_free_dense(&x, &s.c);
    return alpha;
}

}  // namespace bench
