// The matting Laplacian over 3x3 windows. Each window with its centre undecided in `core` gets a
// local colour model (mean and regularised covariance); it contributes the affinity
// (1 + (Ia - mu)^T inv(cov + eps/9 E) (Ib - mu)) / 9 between each pair of its nine pixels. All
// 81 values go into the row sums, the 45 on or above the diagonal into the triples' values, 45 a
// window (window indices ascend, so a <= b is exactly win[a] <= win[b]).
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "runtime/fault.h"
#include "runtime/progress.h"
#include "matting/cfmatt.h"

namespace qx {
namespace {

constexpr int64_t kMaxTriples = 400000000;
constexpr double kNinth = 0.1111111111111111;

// The mean of each channel of a window's 27 colour values (channel-major).
void windowMeans(const double I[27], double mu[3]) {
    for (int c = 0; c < 3; ++c) {
        double s = 0.0;
        for (int k = 0; k < 9; ++k) s += I[9 * c + k];
        mu[c] = s / 9.0;
    }
}

// The window's 9x9 affinity block from its 27 colour values (channel-major, window order).
void windowAffinities(double I[27], double epsilon, double T[81]) {
    double mu[3];
    windowMeans(I, mu);
    double cov[9];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            double dot;
            prim::dotProd_64f(I + 9 * i, I + 9 * j, 9, &dot);
            cov[3 * i + j] = dot / 9.0 - mu[i] * mu[j];
            if (i == j) cov[3 * i + j] += epsilon / 9.0;
        }
    }
    double inv[9];
    prim::invert3x3_64f(cov, 3 * sizeof(double), inv, 3 * sizeof(double));
    for (int c = 0; c < 3; ++c) prim::subC_64f_I(mu[c], I + 9 * c, 9);
    // P (9x3) = I^T inv, then T (9x9) = P I.
    double P[27];
    prim::matMulTransA_64f(I, 9 * sizeof(double), 9, 3, inv, 3 * sizeof(double), 3, P,
                           3 * sizeof(double));
    prim::matMul_64f(P, 3 * sizeof(double), 9, 3, I, 9 * sizeof(double), 9, T,
                     9 * sizeof(double));
    for (int k = 0; k < 81; ++k) T[k] = (T[k] + 1.0) * kNinth;
}

// windowAffinities through a Cholesky factor of the regularised covariance instead of its
// adjugate: the same quantity, (1 + d_a^T inv(cov + eps/9 E) d_b) / 9, as the dot product of the
// deviations whitened by L^-1 (L L^T = cov + eps/9 E), without the cancellation that the adjugate
// of a nearly singular covariance suffers. A window of greys has a covariance of rank one and the
// deviations d lie in its range, where the inverse is small; the adjugate forms that inverse as
// the difference of entries of order 1/eps, while the factorisation's rounding stays of the
// order of the covariance's entries, far below eps/9.
void windowAffinitiesStable(double I[27], double epsilon, double T[81]) {
    double mu[3];
    windowMeans(I, mu);
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < 9; ++k) I[9 * c + k] -= mu[c];
    double cov[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j <= i; ++j) {
            double s = 0.0;
            for (int k = 0; k < 9; ++k) s += I[9 * i + k] * I[9 * j + k];
            cov[i][j] = s / 9.0 + (i == j ? epsilon / 9.0 : 0.0);
        }
    // L L^T = cov (lower triangle). A pivot that rounding (or a regularisation of 0) leaves at or
    // below 0 is taken as the smallest positive double, which whitens its direction to nothing
    // rather than to infinity.
    double L[3][3] = {};
    for (int j = 0; j < 3; ++j) {
        double d = cov[j][j];
        for (int k = 0; k < j; ++k) d -= L[j][k] * L[j][k];
        L[j][j] = std::sqrt(std::max(d, DBL_MIN));
        for (int i = j + 1; i < 3; ++i) {
            double s = cov[i][j];
            for (int k = 0; k < j; ++k) s -= L[i][k] * L[j][k];
            L[i][j] = s / L[j][j];
        }
    }
    double P[9][3];  // each pixel's deviation whitened: L^-1 d
    for (int k = 0; k < 9; ++k) {
        const double p0 = I[k] / L[0][0];
        const double p1 = (I[9 + k] - L[1][0] * p0) / L[1][1];
        const double p2 = (I[18 + k] - L[2][0] * p0 - L[2][1] * p1) / L[2][2];
        P[k][0] = p0, P[k][1] = p1, P[k][2] = p2;
    }
    for (int a = 0; a < 9; ++a)
        for (int b = 0; b < 9; ++b)
            T[9 * a + b] =
                (P[a][0] * P[b][0] + P[a][1] * P[b][1] + P[a][2] * P[b][2] + 1.0) * kNinth;
}

}  // namespace

template <typename ReadWindow>
int CFMatt::buildLaplacian(Plane8& core, int* count, ReadWindow&& readWindow) {
    const int width = core.width, height = core.height;

    // Size: the interior windows less the definite interior pixels. The 0.4 guards against a
    // byte sum that falls just short of a multiple of 255.
    double sum = 0.0;
    core.border(1, 1);
    core.width -= 1;
    core.height -= 1;
    prim::sum_8u_C1(core.data, core.step, core.size(), &sum);
    core.restoreRect();
    const int interiorKnown = static_cast<int>(sum / 255.0 + 0.4);
    const int64_t windows = static_cast<int64_t>(width - 2) * (height - 2) - interiorKnown;
    const int64_t capacity = windows * 50;
    *count = static_cast<int>(std::clamp<int64_t>(capacity, INT32_MIN, INT32_MAX));
    if (capacity <= 0) return 4;
    if (capacity > kMaxTriples) fail(Fault::SizeLimit);

    // Window ordinals by row: the triples of window k stand at 45k, in window order, whatever
    // thread builds them.
    std::vector<int64_t> rowFirst(static_cast<size_t>(height) + 1, 0);
    for (int y = 1; y < height - 1; ++y) {
        const unsigned char* coreRow = core.row(y);
        int64_t n = 0;
        for (int x = 1; x < width - 1; ++x) n += coreRow[x] == 0;
        rowFirst[y + 1] = rowFirst[y] + n;
    }
    const int64_t triples = 45 * rowFirst[height - 1];
    const int64_t length = std::max<int64_t>(triples, 1);

    const int64_t pixels = static_cast<int64_t>(width) * height;
    lapVals = static_cast<float*>(std::malloc(sizeof(float) * length));
    lapDiag = static_cast<float*>(std::calloc(static_cast<size_t>(pixels), sizeof(float)));
    if (!lapVals || !lapDiag) {
        cleanMemAll();
        fail(Fault::ArrayMemory);
    }

    // A window adds to the row sums of three image rows, so window rows three apart never touch
    // the same sums: each of three passes takes every third row in parallel. The order of the
    // additions into a row sum is then fixed by the passes, not by the threads.
    for (int pass = 0; pass < 3; ++pass) {
        const int first = 1 + pass;
        const int rowsInPass = first < height - 1 ? (height - 2 - first) / 3 + 1 : 0;
#pragma omp parallel for schedule(static)
        for (int r = 0; r < rowsInPass; ++r) {
            const int y = first + 3 * r;
            const unsigned char* coreRow = core.row(y);
            int64_t n = 45 * rowFirst[y];
            double I[27], T[81];
            int win[9];
            for (int x = 1; x < width - 1; ++x) {
                if (coreRow[x] != 0) continue;
                winIdx(x, y, width, win);
                readWindow(x, y, I);
                if (stableAffinities)
                    windowAffinitiesStable(I, epsilon, T);
                else
                    windowAffinities(I, epsilon, T);
                for (int a = 0; a < 9; ++a) {
                    float* diag = lapDiag + win[a];
                    for (int b = 0; b < 9; ++b) {
                        const float v = static_cast<float>(T[9 * a + b]);
                        *diag += v;
                        if (a <= b) lapVals[n++] = v;
                    }
                }
            }
        }
        progressWithin((pass + 1) / 3.0);
    }
    *count = static_cast<int>(triples);
    return 0;
}

int CFMatt::compMatLap(Plane8& core, unsigned char* const* planes, int planeStep, int* count) {
    return buildLaplacian(core, count, [&](int x, int y, double I[27]) {
        const int64_t offset = static_cast<int64_t>(y) * planeStep + x;
        for (int c = 0; c < 3; ++c) copy3x3(planes[c] + offset, planeStep, I + 9 * c);
    });
}

int CFMatt::compMatLap(Plane8& core, GIMG<float>* const* planes, int* count) {
    return buildLaplacian(core, count, [&](int x, int y, double I[27]) {
        for (int c = 0; c < 3; ++c) copy3x3(planes[c]->ptr(x, y), planes[c]->step, I + 9 * c);
    });
}

int CFMatt::compMatLap(Plane8& core, const IMG3<unsigned char>& image, int* count) {
    return buildLaplacian(core, count, [&](int x, int y, double I[27]) {
        copy3x3C3(image.ptr(x, y), image.step, I);
    });
}

}  // namespace qx
