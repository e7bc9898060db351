// Gaussian kernels and blurs, the float median through 16-bit arithmetic, the toggle-contrast
// sharpener and the separable filter with vertical border modes. The pixel work is the
// primitives'; these routines arrange the calls, the temporaries and the frames left unfiltered.
#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "runtime/fault.h"
#include "image/base_tools.h"

namespace qx {

using prim::Size;

// ---- Kernel makers ----------------------------------------------------------------------------

float computeGaussFilter(float* taps, int n, float sigma) {
    if (taps == nullptr || n < 1) return 0.0f;
    const double s2 = static_cast<double>(sigma) * sigma;
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) {
        const int k = i - n / 2;
        taps[i] = static_cast<float>(std::exp(-0.5 * k * k / s2));
        sum += taps[i];
    }
    for (int i = 0; i < n; ++i) taps[i] /= sum;
    return sum;
}

int computeGaussFilter(short* taps, int n, float sigma, int scale) {
    if (taps == nullptr || n < 1) return 0;
    const double s2 = static_cast<double>(sigma) * sigma;
    int sum = 0;
    for (int i = 0; i < n; ++i) {
        const int k = i - n / 2;
        taps[i] = static_cast<short>(std::exp(-0.5 * k * k / s2) * scale);
        sum += taps[i];
    }
    return sum;
}

namespace {

// size x size elements of make(exp(-0.5 r^2 / variance)) around the centre size/2 - 0.5.
template <typename T, typename Make>
T* gaussianSquare(float variance, int size, Make make) {
    if (size < 1 || size > 46340) fail(Fault::FilterSize);  // size^2 elements must fit a 32-bit count
    auto* out = static_cast<T*>(prim::allocBlock(static_cast<int64_t>(size) * size * sizeof(T)));
    if (out == nullptr) fail(Fault::FilterSize);
    const double c = size * 0.5 - 0.5;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) {
            const double r2 = (x - c) * (x - c) + (y - c) * (y - c);
            out[static_cast<int64_t>(y) * size + x] = make(std::exp(-0.5 * r2 / variance));
        }
    return out;
}

}  // namespace

uint8_t* creatGaussian2D_8u(float variance, int size) {
    return gaussianSquare<uint8_t>(variance, size,
                                   [](double e) { return static_cast<uint8_t>(e * 255); });
}

int32_t* creatGaussianMorph_32s(float variance, int size, int scale) {
    return gaussianSquare<int32_t>(variance, size, [scale](double e) {
        return static_cast<int32_t>((e - 1.0) * scale);
    });
}

// ---- Gaussian blur ----------------------------------------------------------------------------

namespace {

// Tap count for one direction: 4 sigma truncated, made even towards zero, plus 3, in 5..17.
int gaussTapCount(float sigma) {
    const int t = (static_cast<int>(4.0 * sigma) / 2) * 2 + 3;
    return std::clamp(t, 5, 17);
}

}  // namespace

int guassFilter(IMG<float, 1>& image, float sigmaX, float sigmaY) {
    const bool doY = sigmaY > 0.4f, doX = sigmaX > 0.4f;
    if (!doX && !doY) return 0;
    const int w = image.width, h = image.height;
    IMG<float, 1> temp(w, h);
    float taps[17];
    if (doY) {
        const int t = gaussTapCount(sigmaY), half = t / 2;
        computeGaussFilter(taps, t, sigmaY);
        if (h > 2 * half)
            prim::filterColumn_32f_C1(image.ptr(0, half), image.step, temp.ptr(0, half), temp.step,
                                      {w, h - 2 * half}, taps, t, half);
        const int band = std::min(half, h);
        prim::copy_32f_C1(image.data, image.step, temp.data, temp.step, {w, band});
        prim::copy_32f_C1(image.ptr(0, h - band), image.step, temp.ptr(0, h - band), temp.step,
                          {w, band});
    } else {
        Copy(image, temp);
    }
    if (doX) {
        const int t = gaussTapCount(sigmaX), half = t / 2;
        computeGaussFilter(taps, t, sigmaX);
        if (w > 2 * half)
            prim::filterRow_32f_C1(temp.ptr(half, 0), temp.step, image.ptr(half, 0), image.step,
                                   {w - 2 * half, h}, taps, t, half);
        const int band = std::min(half, w);
        prim::copy_32f_C1(temp.data, temp.step, image.data, image.step, {band, h});
        prim::copy_32f_C1(temp.ptr(w - band, 0), temp.step, image.ptr(w - band, 0), image.step,
                          {band, h});
    } else {
        Copy(temp, image);
    }
    return 1;
}

// ---- Five-tap smoothing across a list of images -----------------------------------------------

namespace {

template <int C>
int filterAcross(IMG<float, C>** images, int count, const float taps[5]) {
    if (images == nullptr || taps == nullptr || count <= 4) return 1;
    for (int i = 0; i < count; ++i)
        if (images[i] == nullptr) return 1;
    const int w = images[0]->width, h = images[0]->height;
    for (int i = 1; i < count; ++i)
        if (images[i]->width != w || images[i]->height != h) return 1;
    if (w < 1 || h < 1) return 1;
    // The ring keeps the unfiltered images i-2, i-1 and i while image i is rewritten; images
    // i+1 and i+2 are still unfiltered in place.
    IMG<float, C> ring0(w, h), ring1(w, h), ring2(w, h), work(w, h);
    IMG<float, C>* ring[3] = {&ring0, &ring1, &ring2};
    Copy(*images[0], *ring[0]);
    Copy(*images[1], *ring[1]);
    const int n = w * C;
    for (int i = 2; i <= count - 3; ++i) {
        IMG<float, C>& old0 = *ring[(i - 2) % 3];
        IMG<float, C>& old1 = *ring[(i - 1) % 3];
        IMG<float, C>& old2 = *ring[i % 3];
        Copy(*images[i], old2);
        const IMG<float, C>& next1 = *images[i + 1];
        const IMG<float, C>& next2 = *images[i + 2];
        for (int y = 0; y < h; ++y) {
            const float *a = old0.row(y), *b = old1.row(y), *c = old2.row(y);
            const float *d = next1.row(y), *e = next2.row(y);
            float* o = work.row(y);
            for (int x = 0; x < n; ++x)
                o[x] = taps[0] * a[x] + taps[1] * b[x] + taps[2] * c[x] + taps[3] * d[x] +
                       taps[4] * e[x];
        }
        Copy(work, *images[i]);
    }
    return 1;
}

}  // namespace

int FilterGauss5f_inPlace(IMG<float, 1>** images, int count, const float taps[5]) {
    return filterAcross<1>(images, count, taps);
}
int FilterGauss5f_inPlace(IMG<float, 3>** images, int count, const float taps[5]) {
    return filterAcross<3>(images, count, taps);
}

// ---- Median through 16-bit arithmetic ---------------------------------------------------------

namespace {

void median16s(IMG<short, 1>& a, IMG<short, 1>& b, int radius) {
    const int margin = std::min(radius, 5);
    const int w = a.width - 2 * margin, h = a.height - 2 * margin;
    if (w > 0 && h > 0) {
        const short* s = a.ptr(margin, margin);
        short* d = b.ptr(margin, margin);
        if (margin <= 2)
            prim::medianCross_16s_C1(s, a.step, d, b.step, {w, h}, margin == 1 ? 33 : 55);
        else
            prim::medianSquare_16s_C1(s, a.step, d, b.step, {w, h},
                                      {2 * margin + 1, 2 * margin + 1}, {margin, margin});
    }
    imageCopyBorder(a, b, margin, margin);  // top, bottom, left, right bands unfiltered
}

}  // namespace

int medianFilter(IMG<float, 1>** images, int count, float maxValue, float minValue,
                 const int* radii) {
    if (images == nullptr || radii == nullptr || count < 1 || images[0] == nullptr) return 1;
    const float scale = 65435.0f / (maxValue - minValue);
    const float centre = (maxValue + minValue) * 0.5f;
    const int w = images[0]->width, h = images[0]->height;
    if (w < 1 || h < 1) return 1;
    int failure = 0;  // an exception may not leave the parallel region: the first is thrown again
#pragma omp parallel for schedule(static, 1)
    for (int i = 0; i < count; ++i) {
        IMG<float, 1>* im = images[i];
        if (radii[i] <= 0 || im == nullptr || im->width < w || im->height < h) continue;
        try {
            IMG<short, 1> a(w, h), b(w, h);
            prim::addC_32f_C1I(-centre, im->data, im->step, {w, h});
            prim::mulC_32f_C1I(scale, im->data, im->step, {w, h});
            prim::convert_32f16s_C1(im->data, im->step, a.data, a.step, {w, h});
            median16s(a, b, radii[i]);
            prim::convert_16s32f_C1(b.data, b.step, im->data, im->step, {w, h});
            prim::mulC_32f_C1I(1.0f / scale, im->data, im->step, {w, h});
            prim::addC_32f_C1I(centre, im->data, im->step, {w, h});
        } catch (const Failure& e) {
#pragma omp critical(qx_median_failure)
            if (failure == 0) failure = e.value();
        }
    }
    if (failure != 0) fail(Fault(failure));
    return 1;
}

// ---- Toggle contrast --------------------------------------------------------------------------

namespace {

// `iterations` times: the inner region by its 3x3 extreme, then the outer rows and columns
// repeat their inner neighbours.
void iterateExtreme(IMG<float, 1>& a, IMG<float, 1>& work, int iterations, bool maximum) {
    const int w = a.width, h = a.height;
    for (int it = 0; it < iterations; ++it) {
        if (w > 2 && h > 2) {
            const Size inner{w - 2, h - 2};
            if (maximum)
                prim::max3x3_32f_C1(a.ptr(1, 1), a.step, work.ptr(1, 1), work.step, inner);
            else
                prim::min3x3_32f_C1(a.ptr(1, 1), a.step, work.ptr(1, 1), work.step, inner);
            prim::copy_32f_C1(work.ptr(1, 1), work.step, a.ptr(1, 1), a.step, inner);
        }
        if (h > 1) {
            prim::copy_32f_C1(a.row(1), a.step, a.row(0), a.step, {w, 1});
            prim::copy_32f_C1(a.row(h - 2), a.step, a.row(h - 1), a.step, {w, 1});
        }
        if (w > 1) {
            prim::copy_32f_C1(a.ptr(1, 0), a.step, a.ptr(0, 0), a.step, {1, h});
            prim::copy_32f_C1(a.ptr(w - 2, 0), a.step, a.ptr(w - 1, 0), a.step, {1, h});
        }
    }
}

}  // namespace

void ExtremeSharpen(IMG<float, 1>& image, int iterations) {
    iterations = std::min(iterations, 32);
    const int w = image.width, h = image.height;
    if (iterations <= 0 || w < 1 || h < 1) return;
    IMG<float, 1> a(w, h), b(w, h), work(w, h);
    Copy(image, a);
    iterateExtreme(a, work, iterations, true);
    Copy(image, b);
    iterateExtreme(b, work, iterations, false);
    // C = A - image and D = image - B; B wins where C > D, A on a tie.
    IMG<float, 1> c(w, h);
    IMG<unsigned char, 1> nearerB(w, h);
    Copy(a, c);
    prim::sub_32f_C1I(image.data, image.step, c.data, c.step, {w, h});
    Copy(image, work);
    prim::sub_32f_C1I(b.data, b.step, work.data, work.step, {w, h});
    prim::compareGreater_32f_C1(c.data, c.step, work.data, work.step, nearerB.data, nearerB.step,
                                {w, h});
    Copy(a, image);
    prim::copyMasked_32f_C1(b.data, b.step, image.data, image.step, {w, h}, nearerB.data,
                            nearerB.step);
}

// ---- Separable filter with vertical border modes ----------------------------------------------

namespace {

// Frees what the separable filter allocated, whatever path it leaves by.
struct BlockSet {
    std::vector<void*> blocks;
    void* take(int64_t bytes) {
        void* p = prim::allocBlock(bytes);
        if (p) blocks.push_back(p);
        return p;
    }
    ~BlockSet() {
        for (void* p : blocks) prim::freeAligned(p);
    }
};

template <typename T>
int sepFilter(const T* src, int srcStep, T* dst, int dstStep, Size size, const T* rowKernel,
              int rowLength, const T* columnKernel, int columnLength, int borderMode,
              T borderValue, int divisor) {
    if (!src || !dst || !rowKernel || !columnKernel) return prim::kNullPtr;
    if (size.width < 1 || size.height < 1 || rowLength < 1 || columnLength < 1)
        return prim::kSizeErr;
    const int width = size.width, height = size.height;
    const int rowHalf = rowLength / 2, columnHalf = columnLength / 2;
    const int evenColumn = columnLength % 2 == 0 ? 1 : 0;
    const int64_t rows64 = int64_t(height) + 2 * columnHalf - evenColumn;
    if (rows64 > INT32_MAX / 2 || width > INT32_MAX / 8) return prim::kSizeErr;
    const int rows = static_cast<int>(rows64);

    BlockSet mem;
    int midStep = 0;
    T* mid = static_cast<T*>(prim::allocPlane(width * static_cast<int>(sizeof(T)), rows, &midStep));
    std::unique_ptr<void, void (*)(void*)> midOwner(mid, prim::freeAligned);
    auto** srcRows = static_cast<const T**>(mem.take(rows64 * int64_t(sizeof(T*))));
    auto** midRows = static_cast<T**>(mem.take(rows64 * int64_t(sizeof(T*))));
    int rowBytes = 0, columnBytes = 0;
    if (const int st = prim::sepFilterRowBufferSize({width, rows}, rowLength, sizeof(T), &rowBytes))
        return st;
    if (const int st = prim::sepFilterColumnBufferSize(size, columnLength, sizeof(T), &columnBytes))
        return st;
    auto* rowBuffer = static_cast<uint8_t*>(mem.take(rowBytes));
    auto* columnBuffer = static_cast<uint8_t*>(mem.take(columnBytes));
    T* constantRow = borderMode == 0 ? static_cast<T*>(mem.take(int64_t(width) * sizeof(T)))
                                     : nullptr;
    if (!mid || !srcRows || !midRows || !rowBuffer || !columnBuffer ||
        (borderMode == 0 && !constantRow))
        return prim::kNoMem;
    if (borderMode < 0 || borderMode > 3) return kSepFilterBadBorder;
    // An even column kernel reaches one row less upwards: one pad row fewer on top.
    const int topPads = columnHalf - evenColumn, bottomPads = columnHalf;
    if ((borderMode == 2 && columnHalf > height - 1) || (borderMode == 3 && columnHalf > height))
        return prim::kSizeErr;

    auto srcRow = [&](int y) {
        return reinterpret_cast<const T*>(reinterpret_cast<const uint8_t*>(src) +
                                          int64_t(srcStep) * y);
    };
    if (borderMode == 0) std::fill(constantRow, constantRow + width, borderValue);
    for (int k = 0; k < topPads; ++k) {  // k = 0 is the pad next to the edge
        const T* p = borderMode == 0   ? constantRow
                     : borderMode == 1 ? srcRow(0)
                     : borderMode == 2 ? srcRow(k + 1)
                                       : srcRow(height - 1 - k);
        srcRows[topPads - 1 - k] = p;
    }
    for (int y = 0; y < height; ++y) srcRows[topPads + y] = srcRow(y);
    for (int k = 0; k < bottomPads; ++k) {
        const T* p = borderMode == 0   ? constantRow
                     : borderMode == 1 ? srcRow(height - 1)
                     : borderMode == 2 ? srcRow(height - 2 - k)
                                       : srcRow(k);
        srcRows[topPads + height + k] = p;
    }
    for (int r = 0; r < rows; ++r)
        midRows[r] = reinterpret_cast<T*>(reinterpret_cast<uint8_t*>(mid) + int64_t(midStep) * r);

    static constexpr int kRowStageCode[4] = {0, 1, 4, 2};
    int st;
    if constexpr (std::is_same_v<T, float>) {
        st = prim::sepFilterRow_32f_C1(srcRows, midRows, width, rows, rowKernel, rowLength,
                                       rowHalf, kRowStageCode[borderMode], borderValue,
                                       rowBuffer);
        if (st == prim::kOk)
            st = prim::sepFilterColumn_32f_C1(midRows, dst, dstStep, size, columnKernel,
                                              columnLength, columnBuffer);
    } else {
        st = prim::sepFilterRow_16s_C1(srcRows, midRows, width, rows, rowKernel, rowLength,
                                       rowHalf, kRowStageCode[borderMode], borderValue, divisor,
                                       rowBuffer);
        if (st == prim::kOk)
            st = prim::sepFilterColumn_16s_C1(midRows, dst, dstStep, size, columnKernel,
                                              columnLength, divisor, columnBuffer);
    }
    return st;
}

}  // namespace

int ippSepFilter(const short* src, int srcStep, short* dst, int dstStep, Size size,
                 const short* rowKernel, int rowLength, const short* columnKernel,
                 int columnLength, int borderMode, short borderValue, short divisor) {
    return sepFilter<short>(src, srcStep, dst, dstStep, size, rowKernel, rowLength, columnKernel,
                            columnLength, borderMode, borderValue, divisor);
}

int ippSepFilter(const float* src, int srcStep, float* dst, int dstStep, Size size,
                 const float* rowKernel, int rowLength, const float* columnKernel,
                 int columnLength, int borderMode, float borderValue) {
    return sepFilter<float>(src, srcStep, dst, dstStep, size, rowKernel, rowLength, columnKernel,
                            columnLength, borderMode, borderValue, 1);
}

}  // namespace qx
