// Border bands of an image, in place: replicated outward from the inner rows and columns, copied
// from another image, or set to a value. None of these allocate.
#include <algorithm>
#include <cstring>

#include "image/base_tools.h"

namespace qx {

using prim::Size;

namespace {

inline uint8_t* byteRow(void* data, int step, int y) {
    return static_cast<uint8_t*>(data) + static_cast<int64_t>(step) * y;
}

// The bands of a replication leave an inner row and column to copy from: each band stays below
// the size in its direction (a band at or past the far edge would read outside the image).
bool replicable(const void* data, Size size, int top, int bottom, int left, int right) {
    return data != nullptr && size.width >= 1 && size.height >= 1 && top < size.height &&
           bottom < size.height && left < size.width && right < size.width;
}

// Rows first at full width, then every row's left and right bands from its inner pixel, so
// that the corners come from the extended rows.
template <typename Pixel>
void replicate(void* data, int step, Size size, int top, int bottom, int left, int right) {
    if (!replicable(data, size, top, bottom, left, right)) return;
    const int w = size.width, h = size.height;
    const size_t rowBytes = static_cast<size_t>(w) * sizeof(Pixel);
    for (int y = 0; y < top; ++y) std::memcpy(byteRow(data, step, y), byteRow(data, step, top), rowBytes);
    for (int y = h - bottom; y < h; ++y)
        std::memcpy(byteRow(data, step, y), byteRow(data, step, h - bottom - 1), rowBytes);
    for (int y = 0; y < h; ++y) {
        auto* row = reinterpret_cast<Pixel*>(byteRow(data, step, y));
        if (left > 0) std::fill(row, row + left, row[left]);
        if (right > 0) std::fill(row + w - right, row + w, row[w - right - 1]);
    }
}

struct Bytes3 {
    uint8_t b[3];
};
struct Float3 {
    float v[3];
};

template <typename T, int C>
void replicateImage(IMG<T, C>& image, int left, int top, int right, int bottom) {
    using Pixel = std::conditional_t<C == 1, T, std::conditional_t<sizeof(T) == 4, Float3, Bytes3>>;
    static_assert(sizeof(Pixel) == sizeof(T) * C);
    replicate<Pixel>(image.data, image.step, image.size(), top, bottom, left, right);
}

// Copies a rectangle of 2-byte or 4-byte elements between two planes.
template <typename T>
void copyRect(const T* src, int srcStep, T* dst, int dstStep, int x, int y, int w, int h) {
    if (w < 1 || h < 1) return;
    const auto* s = reinterpret_cast<const uint8_t*>(src) + int64_t(srcStep) * y + int64_t(x) * sizeof(T);
    auto* d = reinterpret_cast<uint8_t*>(dst) + int64_t(dstStep) * y + int64_t(x) * sizeof(T);
    for (int r = 0; r < h; ++r)
        std::memcpy(d + int64_t(dstStep) * r, s + int64_t(srcStep) * r, size_t(w) * sizeof(T));
}

// Top and bottom `rows`, left and right `columns`, each cut to the size.
template <typename T>
void copyFrameBands(const T* src, int srcStep, T* dst, int dstStep, Size size, int columns,
                    int rows) {
    if (!src || !dst || size.width < 1 || size.height < 1) return;
    const int w = size.width, h = size.height;
    rows = std::clamp(rows, 0, h);
    columns = std::clamp(columns, 0, w);
    copyRect(src, srcStep, dst, dstStep, 0, 0, w, rows);
    copyRect(src, srcStep, dst, dstStep, 0, h - rows, w, rows);
    copyRect(src, srcStep, dst, dstStep, 0, 0, columns, h);
    copyRect(src, srcStep, dst, dstStep, w - columns, 0, columns, h);
}

}  // namespace

void extendBorder(uint8_t* data, int step, Size size, int top, int bottom, int left, int right) {
    replicate<uint8_t>(data, step, size, top, bottom, left, right);
}

void extendBorder(uint32_t* data, int step, Size size, int top, int bottom, int left,
                  int right) {
    replicate<uint32_t>(data, step, size, top, bottom, left, right);
}

void extendBorder3C(uint8_t* data, int step, Size size, int top, int bottom, int left,
                    int right) {
    if (!replicable(data, size, top, bottom, left, right)) return;
    // The rows are replicated as three-byte pixels; the columns keep the old smear below.
    replicate<Bytes3>(data, step, size, top, bottom, 0, 0);
    const int w = size.width;
    for (int y = 0; y < size.height; ++y) {
        uint8_t* row = byteRow(data, step, y);
        if (left > 0) {
            const uint8_t* s = row + 3 * left;  // never among the bytes written: left + 2 <= 3 left
            const uint8_t s0 = s[0], s1 = s[1], s2 = s[2];
            std::memset(row, s0, static_cast<size_t>(left));
            row[left] = s1;
            row[left + 1] = s2;
        }
        if (right > 0) {
            const uint8_t* s = row + 3 * (w - right - 1);
            const uint8_t s0 = s[0], s1 = s[1], s2 = s[2];
            uint8_t* band = row + 3 * (w - right);
            std::memset(band, s0, static_cast<size_t>(right));
            band[right] = s1;
            band[right + 1] = s2;
        }
    }
}

void imageExtendBorder(IMG<float, 1>& image, int left, int top, int right, int bottom) {
    replicateImage(image, left, top, right, bottom);
}
void imageExtendBorder(IMG<float, 3>& image, int left, int top, int right, int bottom) {
    replicateImage(image, left, top, right, bottom);
}
void imageExtendBorder(IMG<short, 1>& image, int left, int top, int right, int bottom) {
    replicateImage(image, left, top, right, bottom);
}
void imageExtendBorder(IMG<unsigned short, 1>& image, int left, int top, int right, int bottom) {
    replicateImage(image, left, top, right, bottom);
}
void imageExtendBorder(IMG<unsigned char, 1>& image, int left, int top, int right, int bottom) {
    replicateImage(image, left, top, right, bottom);
}

void imageCopyBorder(IMG<float, 1>& src, IMG<float, 1>& dst, int top, int bottom, int left,
                     int right) {
    const int w = std::min(src.width, dst.width), h = std::min(src.height, dst.height);
    if (w < 1 || h < 1) return;
    top = std::min(top, h);
    bottom = std::min(bottom, h);
    left = std::min(left, w);
    right = std::min(right, w);
    if (top > 0) copyRect(src.data, src.step, dst.data, dst.step, 0, 0, w, top);
    if (bottom > 0) copyRect(src.data, src.step, dst.data, dst.step, 0, h - bottom, w, bottom);
    if (left > 0) copyRect(src.data, src.step, dst.data, dst.step, 0, 0, left, h);
    if (right > 0) copyRect(src.data, src.step, dst.data, dst.step, w - right, 0, right, h);
}

void imageCopyBorder(IMG<short, 1>& src, IMG<short, 1>& dst, int columns, int rows) {
    copyFrameBands(src.data, src.step, dst.data, dst.step,
                   {std::min(src.width, dst.width), std::min(src.height, dst.height)}, columns,
                   rows);
}
void imageCopyBorder(IMG<unsigned short, 1>& src, IMG<unsigned short, 1>& dst, int columns,
                     int rows) {
    copyFrameBands(src.data, src.step, dst.data, dst.step,
                   {std::min(src.width, dst.width), std::min(src.height, dst.height)}, columns,
                   rows);
}
void imageCopyBorder(const short* src, int srcStep, short* dst, int dstStep, Size size,
                     int columns, int rows) {
    copyFrameBands(src, srcStep, dst, dstStep, size, columns, rows);
}

void imageSetBorder(IMG<unsigned char, 1>& image, unsigned char value, int columns, int rows) {
    const int w = image.width, h = image.height;
    if (image.data == nullptr || w < 1 || h < 1) return;
    rows = std::clamp(rows, 0, h);
    columns = std::clamp(columns, 0, w);
    if (rows > 0) {
        prim::set_8u_C1(value, image.data, image.step, {w, rows});
        prim::set_8u_C1(value, image.ptr(0, h - rows), image.step, {w, rows});
    }
    if (columns > 0) {
        prim::set_8u_C1(value, image.data, image.step, {columns, h});
        prim::set_8u_C1(value, image.ptr(w - columns, 0), image.step, {columns, h});
    }
}

int imageCopyExt(IMG<float, 1>& src, IMG<float, 1>& dst) {
    const int sw = src.width, sh = src.height, dw = dst.width, dh = dst.height;
    const int cw = std::min(sw, dw), ch = std::min(sh, dh);
    if (cw < 1 || ch < 1) return 1;
    prim::copy_32f_C1(src.data, src.step, dst.data, dst.step, {cw, ch});
    // The rows below at full destination width (their right part is filled just after), then
    // the columns to the right in every row.
    for (int y = sh; y < dh; ++y)
        std::memcpy(dst.row(y), dst.row(sh - 1), static_cast<size_t>(dw) * sizeof(float));
    if (dw > sw)
        for (int y = 0; y < dh; ++y) {
            float* row = dst.row(y);
            std::fill(row + sw, row + dw, row[sw - 1]);
        }
    return 1;
}

}  // namespace qx
