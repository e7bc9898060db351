// A reference for the full-resolution colour recovery: multilevel foreground estimation as
// Germer et al. (2020, "Fast Multi-Level Foreground Estimation") describe it and the free
// PyMatting library ships it (estimate_foreground_ml, default parameters). Re-implemented here
// from the paper's description so that both run in one process, compiled alike; on the
// composites of composites.h it reproduces the data README's reference errors.
//
// Levels of w0^(l/n) by h0^(l/n) for l = 0..n, n = ceil(log2(max side)); image, alpha and the
// previous level's F and B brought to each level by nearest pixel; per level 10 (sides at most
// 32) or 2 raster-order Gauss-Seidel sweeps of the per-pixel 2 x 2 least-squares update with
// neighbour weights 1e-5 + |a(p) - a(q)| (border pixels repeat), clamped to 0..1.
#pragma once

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <vector>

namespace bench {

inline cv::Mat peerMultilevelForeground(const cv::Mat& bgr, const cv::Mat& alpha8) {
    const int w0 = bgr.cols, h0 = bgr.rows;
    cv::Mat img, alpha;
    bgr.convertTo(img, CV_32FC3, 1.0 / 255);
    alpha8.convertTo(alpha, CV_32F, 1.0 / 255);
    const auto nearest = [](const cv::Mat& src, int w, int h) {
        cv::Mat dst(h, w, src.type());
        const size_t px = src.elemSize();
        for (int y = 0; y < h; ++y) {
            const int ys = std::min(src.rows - 1, int(int64_t(y) * src.rows / h));
            for (int x = 0; x < w; ++x) {
                const int xs = std::min(src.cols - 1, int(int64_t(x) * src.cols / w));
                std::copy_n(src.ptr(ys) + xs * px, px, dst.ptr(y) + x * px);
            }
        }
        return dst;
    };
    cv::Mat F(1, 1, CV_32FC3, cv::Scalar::all(0)), B = F.clone();
    const int n = int(std::ceil(std::log2(std::max(w0, h0))));
    for (int l = 0; l <= n; ++l) {
        const int w = int(std::lround(std::pow(w0, double(l) / n)));
        const int h = int(std::lround(std::pow(h0, double(l) / n)));
        const cv::Mat I = nearest(img, w, h), A = nearest(alpha, w, h);
        F = nearest(F, w, h);
        B = nearest(B, w, h);
        const int sweeps = w <= 32 && h <= 32 ? 10 : 2;
        for (int it = 0; it < sweeps; ++it)
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const float a0 = A.at<float>(y, x), a1 = 1 - a0;
                    float m00 = a0 * a0, m01 = a0 * a1, m11 = a1 * a1;
                    const cv::Vec3f i = I.at<cv::Vec3f>(y, x);
                    cv::Vec3f f = a0 * i, b = a1 * i;
                    const int nx[4] = {std::max(0, x - 1), std::min(w - 1, x + 1), x, x};
                    const int ny[4] = {y, y, std::max(0, y - 1), std::min(h - 1, y + 1)};
                    for (int d = 0; d < 4; ++d) {
                        const float g = 1e-5f + std::fabs(a0 - A.at<float>(ny[d], nx[d]));
                        m00 += g;
                        m11 += g;
                        f += g * F.at<cv::Vec3f>(ny[d], nx[d]);
                        b += g * B.at<cv::Vec3f>(ny[d], nx[d]);
                    }
                    const float inv = 1.f / (m00 * m11 - m01 * m01);
                    for (int c = 0; c < 3; ++c) {
                        F.at<cv::Vec3f>(y, x)[c] =
                            std::clamp(inv * (m11 * f[c] - m01 * b[c]), 0.f, 1.f);
                        B.at<cv::Vec3f>(y, x)[c] =
                            std::clamp(inv * (m00 * b[c] - m01 * f[c]), 0.f, 1.f);
                    }
                }
    }
    cv::Mat out;
    F.convertTo(out, CV_8UC3, 255.0);
    return out;
}

}  // namespace bench
