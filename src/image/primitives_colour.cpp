// Colour conversions: HLS on bytes and floats, studio-range YCbCr in 16.16 fixed point, and the
// float colour twist.
#include "image/rowloops.h"

namespace qx::prim {

using detail::checkPlanes;
using detail::plane;
using detail::rowAt;
using detail::roundSat;

namespace {

// ---- HLS ------------------------------------------------------------------------------------
// The usual double-hexcone model with every component in 0..1: L = (max + min) / 2,
// S = (max - min) / (max + min) for L <= 1/2 and (max - min) / (2 - max - min) above, hue in
// sixths of the turn, 0 for a grey. The byte forms run the same float arithmetic on byte / 255
// and store round(component * 255) (to nearest, ties to even), so a hue of 1 turn and of 0
// meet at 0 / 255 and a round trip is off by at most the hue's quantisation.

struct Hls {
    float h, l, s;
};
struct Rgb {
    float r, g, b;
};

inline Hls toHls(float r, float g, float b) {
    const float mx = r > g ? (r > b ? r : b) : (g > b ? g : b);
    const float mn = r < g ? (r < b ? r : b) : (g < b ? g : b);
    const float l = (mx + mn) * 0.5f;
    const float d = mx - mn;
    if (d <= 0.0f) return {0.0f, l, 0.0f};
    const float s = l <= 0.5f ? d / (mx + mn) : d / (2.0f - mx - mn);
    float h;
    if (r == mx)
        h = (g - b) / d;
    else if (g == mx)
        h = 2.0f + (b - r) / d;
    else
        h = 4.0f + (r - g) / d;
    h *= 1.0f / 6.0f;
    if (h < 0.0f) h += 1.0f;
    return {h, l, s};
}

inline float hueChannel(float m1, float m2, float h) {
    if (h < 0.0f) h += 1.0f;
    if (h >= 1.0f) h -= 1.0f;
    if (h < 1.0f / 6.0f) return m1 + (m2 - m1) * h * 6.0f;
    if (h < 0.5f) return m2;
    if (h < 2.0f / 3.0f) return m1 + (m2 - m1) * (2.0f / 3.0f - h) * 6.0f;
    return m1;
}

inline Rgb toRgb(float h, float l, float s) {
    if (s <= 0.0f) return {l, l, l};
    const float m2 = l <= 0.5f ? l * (1.0f + s) : l + s - l * s;
    const float m1 = 2.0f * l - m2;
    return {hueChannel(m1, m2, h + 1.0f / 3.0f), hueChannel(m1, m2, h),
            hueChannel(m1, m2, h - 1.0f / 3.0f)};
}

QX_CLONES void rgbToHlsRow8u(const uint8_t* s, uint8_t* d, int width) {
    constexpr float k = 1.0f / 255.0f;
    for (int x = 0; x < width; ++x) {
        const Hls c = toHls(s[4 * x] * k, s[4 * x + 1] * k, s[4 * x + 2] * k);
        d[4 * x] = roundSat<uint8_t>(c.h * 255.0f, 0.0f, 255.0f);
        d[4 * x + 1] = roundSat<uint8_t>(c.l * 255.0f, 0.0f, 255.0f);
        d[4 * x + 2] = roundSat<uint8_t>(c.s * 255.0f, 0.0f, 255.0f);
        d[4 * x + 3] = s[4 * x + 3];
    }
}

QX_CLONES void hlsToRgbRow8u(const uint8_t* s, uint8_t* d, int width) {
    constexpr float k = 1.0f / 255.0f;
    for (int x = 0; x < width; ++x) {
        const Rgb c = toRgb(s[4 * x] * k, s[4 * x + 1] * k, s[4 * x + 2] * k);
        d[4 * x] = roundSat<uint8_t>(c.r * 255.0f, 0.0f, 255.0f);
        d[4 * x + 1] = roundSat<uint8_t>(c.g * 255.0f, 0.0f, 255.0f);
        d[4 * x + 2] = roundSat<uint8_t>(c.b * 255.0f, 0.0f, 255.0f);
        d[4 * x + 3] = s[4 * x + 3];
    }
}

QX_CLONES void rgbToHlsRow32f(const float* s, float* d, int width) {
    for (int x = 0; x < width; ++x) {
        const Hls c = toHls(s[3 * x], s[3 * x + 1], s[3 * x + 2]);
        d[3 * x] = c.h;
        d[3 * x + 1] = c.l;
        d[3 * x + 2] = c.s;
    }
}

QX_CLONES void hlsToRgbRow32f(const float* s, float* d, int width) {
    for (int x = 0; x < width; ++x) {
        const Rgb c = toRgb(s[3 * x], s[3 * x + 1], s[3 * x + 2]);
        d[3 * x] = c.r;
        d[3 * x + 1] = c.g;
        d[3 * x + 2] = c.b;
    }
}

template <typename T, int C, void (*Row)(const T*, T*, int)>
int convertPixels(const T* src, int srcStep, T* dst, int dstStep, Size size) {
    if (const int st = checkPlanes(size, {plane(src, srcStep, C), plane(dst, dstStep, C)}))
        return st;
    for (int y = 0; y < size.height; ++y) Row(rowAt(src, srcStep, y), rowAt(dst, dstStep, y),
                                              size.width);
    return kOk;
}

// ---- YCbCr ----------------------------------------------------------------------------------
// Coefficients in 16.16 fixed point, each rounded to nearest; sums are rounded half up by
// adding 2^15 before the shift, then saturated.

constexpr int fix16(double c) { return static_cast<int>(c * 65536.0 + (c >= 0 ? 0.5 : -0.5)); }
constexpr int kHalf = 1 << 15;

QX_CLONES void rgbToYCbCrRow(const uint8_t* s, uint8_t* y0, uint8_t* cb, uint8_t* cr, int width) {
    for (int x = 0; x < width; ++x) {
        const int r = s[3 * x], g = s[3 * x + 1], b = s[3 * x + 2];
        const int y = fix16(0.257) * r + fix16(0.504) * g + fix16(0.098) * b + (16 << 16) + kHalf;
        const int u = fix16(-0.148) * r + fix16(-0.291) * g + fix16(0.439) * b + (128 << 16) + kHalf;
        const int v = fix16(0.439) * r + fix16(-0.368) * g + fix16(-0.071) * b + (128 << 16) + kHalf;
        y0[x] = static_cast<uint8_t>(detail::saturate8u(y >> 16));
        cb[x] = static_cast<uint8_t>(detail::saturate8u(u >> 16));
        cr[x] = static_cast<uint8_t>(detail::saturate8u(v >> 16));
    }
}

QX_CLONES void yCbCrToRgbRow(const uint8_t* y0, const uint8_t* cb, const uint8_t* cr, uint8_t* d,
                             int width) {
    for (int x = 0; x < width; ++x) {
        const int y = fix16(1.164) * (y0[x] - 16) + kHalf;
        const int u = cb[x] - 128, v = cr[x] - 128;
        const int r = y + fix16(1.596) * v;
        const int g = y - fix16(0.813) * v - fix16(0.392) * u;
        const int b = y + fix16(2.017) * u;
        d[3 * x] = static_cast<uint8_t>(detail::saturate8u(r >> 16));
        d[3 * x + 1] = static_cast<uint8_t>(detail::saturate8u(g >> 16));
        d[3 * x + 2] = static_cast<uint8_t>(detail::saturate8u(b >> 16));
    }
}

QX_CLONES void twistRow(float* p0, float* p1, float* p2, int n, const float* m) {
    for (int x = 0; x < n; ++x) {
        const float a = p0[x], b = p1[x], c = p2[x];
        p0[x] = m[0] * a + m[1] * b + m[2] * c + m[3];
        p1[x] = m[4] * a + m[5] * b + m[6] * c + m[7];
        p2[x] = m[8] * a + m[9] * b + m[10] * c + m[11];
    }
}

}  // namespace

int rgbToHls_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return convertPixels<uint8_t, 4, rgbToHlsRow8u>(src, srcStep, dst, dstStep, size);
}
int hlsToRgb_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size) {
    return convertPixels<uint8_t, 4, hlsToRgbRow8u>(src, srcStep, dst, dstStep, size);
}
int rgbToHls_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size) {
    return convertPixels<float, 3, rgbToHlsRow32f>(src, srcStep, dst, dstStep, size);
}
int hlsToRgb_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size) {
    return convertPixels<float, 3, hlsToRgbRow32f>(src, srcStep, dst, dstStep, size);
}

int rgbToYCbCr_8u_C3P3(const uint8_t* src, int srcStep, uint8_t* const dst[3], int dstStep,
                       Size size) {
    if (!dst) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src, srcStep, 3), plane(dst[0], dstStep),
                                          plane(dst[1], dstStep), plane(dst[2], dstStep)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        rgbToYCbCrRow(rowAt(src, srcStep, y), rowAt(dst[0], dstStep, y), rowAt(dst[1], dstStep, y),
                      rowAt(dst[2], dstStep, y), size.width);
    return kOk;
}

int yCbCrToRgb_8u_P3C3(const uint8_t* const src[3], int srcStep, uint8_t* dst, int dstStep,
                       Size size) {
    if (!src) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(src[0], srcStep), plane(src[1], srcStep),
                                          plane(src[2], srcStep), plane(dst, dstStep, 3)}))
        return st;
    for (int y = 0; y < size.height; ++y)
        yCbCrToRgbRow(rowAt(src[0], srcStep, y), rowAt(src[1], srcStep, y),
                      rowAt(src[2], srcStep, y), rowAt(dst, dstStep, y), size.width);
    return kOk;
}

int colorTwist_32f_P3I(float* const planes[3], int step, Size size, const float twist[3][4]) {
    if (!planes || !twist) return kNullPtr;
    if (const int st = checkPlanes(size, {plane(planes[0], step), plane(planes[1], step),
                                          plane(planes[2], step)}))
        return st;
    const float* m = &twist[0][0];
    for (int y = 0; y < size.height; ++y)
        twistRow(rowAt(planes[0], step, y), rowAt(planes[1], step, y), rowAt(planes[2], step, y),
                 size.width, m);
    return kOk;
}

}  // namespace qx::prim
