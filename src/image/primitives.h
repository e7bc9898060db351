// Image primitives: the pixel operations under every algorithm of the library.
//
// Conventions shared by all operations:
// - A plane is a pointer to its top-left element and a row step in bytes (signed 32-bit). The
//   region is a Size in pixels. Rows are processed as tight loops (see dispatch.h).
// - Every operation returns a status: kOk (0), kNullPtr (-8) for a null pointer, kSizeErr (-6)
//   for a width or height below 1 (nothing is written then), kBadArg (-5) for another refused
//   argument, kNoMem (-9) for a failed scratch allocation. Callers store it at most; it is not a
//   control path.
// - In-place operations read and write the last plane they are given.
// - Scale factor s of 8-bit arithmetic: the exact integer result v becomes v / 2^s rounded to
//   nearest with ties to even (for s > 0: (v + 2^(s-1) - 1 + ((v >> s) & 1)) >> s), or v * 2^-s
//   for s < 0, then saturates to 0..255. s = 0 is plain saturating arithmetic.
// - Suffixes name the data: 8u bytes, 16s int16, 32s int32, 32f float, 64f double; C1 one
//   channel, C3 three interleaved, C4 four interleaved; P3 three separate planes.
#pragma once

#include <cstdint>

namespace qx::prim {

enum Status : int { kOk = 0, kBadArg = -5, kSizeErr = -6, kNullPtr = -8, kNoMem = -9 };

struct Size {
    int width;
    int height;
};
struct Point {
    int x;
    int y;
};
struct Rect {
    int x;
    int y;
    int width;
    int height;
};

// ---- Allocation ---------------------------------------------------------------------------

// Aligned (64-byte) plane of `height` rows of at least `widthBytes` bytes; *step receives the row
// size rounded up to a multiple of 32. Null with *step = 0 for a size below 1 or on failure.
void* allocPlane(int widthBytes, int height, int* step);
// Aligned block; null for a count below 1 or on failure.
void* allocBlock(int64_t bytes);
// Releases what allocPlane or allocBlock returned; null is ignored.
void freeAligned(void* p);

// Failure injection for tests: the next `count` calls of allocPlane/allocBlock return null.
void failNextAllocations(int count);
// Consumes one pending injected failure and returns true, or returns false when none is
// pending. The image containers' fallback allocator asks this too, so a test can fail both.
bool takeInjectedFailure();

// ---- Copy, fill, channels -----------------------------------------------------------------

int copy_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);
int copy_8u_C3(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);
int copy_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);
int copy_16s_C1(const int16_t* src, int srcStep, int16_t* dst, int dstStep, Size size);
int copy_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size);
int copy_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size);

int set_8u_C1(uint8_t value, uint8_t* dst, int dstStep, Size size);
int set_16s_C1(int16_t value, int16_t* dst, int dstStep, Size size);
int set_32f_C1(float value, float* dst, int dstStep, Size size);
int set_32f_C3(const float value[3], float* dst, int dstStep, Size size);

// Copy where the mask byte is non-zero.
int copyMasked_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                     const uint8_t* mask, int maskStep);
int copyMasked_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                      const uint8_t* mask, int maskStep);
int copyMasked_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                     const uint8_t* mask, int maskStep);
// Set where the mask byte is non-zero.
int setMasked_8u_C1(uint8_t value, uint8_t* dst, int dstStep, Size size, const uint8_t* mask,
                    int maskStep);

// Bytes 0..2 of each 4-byte pixel; the destination's fourth byte stays.
int copy_8u_AC4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);

// One byte of each 4-byte pixel into a plane: srcAtByte points at that byte of pixel 0.
int extractChannel_8u_C4C1(const uint8_t* srcAtByte, int srcStep, uint8_t* dst, int dstStep,
                           Size size);
// One float of each 3-float pixel into a plane: srcAtChannel points at that float of pixel 0.
int extractChannel_32f_C3C1(const float* srcAtChannel, int srcStep, float* dst, int dstStep,
                            Size size);
// A plane into one byte of each 4-byte (C4) or 3-byte (C3) pixel; dstAtByte points at that
// byte of pixel 0. The other bytes stay.
int insertChannel_8u_C1C4(const uint8_t* src, int srcStep, uint8_t* dstAtByte, int dstStep,
                          Size size);
int insertChannel_8u_C1C3(const uint8_t* src, int srcStep, uint8_t* dstAtByte, int dstStep,
                          Size size);
int insertChannel_32f_C1C3(const float* src, int srcStep, float* dstAtChannel, int dstStep,
                           Size size);

// Three planes (common step) to 3-byte pixels.
int interleave_8u_P3C3(const uint8_t* const src[3], int srcStep, uint8_t* dst, int dstStep,
                       Size size);
// Byte i of each 4-byte pixel to plane i (common step).
int deinterleave_8u_C4P4(const uint8_t* src, int srcStep, uint8_t* const dst[4], int dstStep,
                         Size size);

// ---- 8-bit arithmetic (scale factor rule above) -------------------------------------------

// srcDst = srcDst + src
int add_8u_C1IS(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size,
                int scale);
// srcDst = srcDst - src, at least 0
int sub_8u_C1IS(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size,
                int scale);
// dst = src2 - src1, at least 0
int sub_8u_C1S(const uint8_t* src1, int src1Step, const uint8_t* src2, int src2Step,
               uint8_t* dst, int dstStep, Size size, int scale);
// srcDst = srcDst * src
int mul_8u_C1IS(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size,
                int scale);
// srcDst = srcDst + value / - value / * value
int addC_8u_C1IS(uint8_t value, uint8_t* srcDst, int step, Size size, int scale);
int subC_8u_C1IS(uint8_t value, uint8_t* srcDst, int step, Size size, int scale);
int mulC_8u_C1IS(uint8_t value, uint8_t* srcDst, int step, Size size, int scale);
// dst = src - value, at least 0
int subC_8u_C1S(const uint8_t* src, int srcStep, uint8_t value, uint8_t* dst, int dstStep,
                Size size, int scale);
// One constant a channel.
int mulC_8u_C3IS(const uint8_t value[3], uint8_t* srcDst, int step, Size size, int scale);
int mulC_8u_C4IS(const uint8_t value[4], uint8_t* srcDst, int step, Size size, int scale);

int andC_8u_C1I(uint8_t value, uint8_t* srcDst, int step, Size size);
int and_8u_C1I(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size);
int or_8u_C1I(const uint8_t* src, int srcStep, uint8_t* srcDst, int srcDstStep, Size size);
// dst = |src1 - src2|
int absDiff_8u_C1(const uint8_t* src1, int src1Step, const uint8_t* src2, int src2Step,
                  uint8_t* dst, int dstStep, Size size);

enum CmpOp : int { kCmpLessEq = 1, kCmpEq = 2, kCmpGreaterEq = 3 };
// dst = (src op value) ? 255 : 0
int compareC_8u_C1(const uint8_t* src, int srcStep, uint8_t value, uint8_t* dst, int dstStep,
                   Size size, CmpOp op);
// dst = table[src]
int lut_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
              const uint8_t table[256]);

// ---- Float arithmetic (no saturation) -----------------------------------------------------

int add_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size);
int sub_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size);
int mul_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size);
// srcDst = srcDst / src
int div_32f_C1I(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size);
int addC_32f_C1I(float value, float* srcDst, int step, Size size);
int mulC_32f_C1I(float value, float* srcDst, int step, Size size);
int addC_32f_C1(const float* src, int srcStep, float value, float* dst, int dstStep, Size size);
int mulC_32f_C1(const float* src, int srcStep, float value, float* dst, int dstStep, Size size);
int abs_32f_C1I(float* srcDst, int step, Size size);
int sqrt_32f_C1I(float* srcDst, int step, Size size);
// Clamp from above: min(value, limit). Clamp from below: max(value, limit).
int clampAbove_32f_C1I(float* srcDst, int step, Size size, float limit);
int clampBelow_32f_C1I(float* srcDst, int step, Size size, float limit);
int clampAbove_32f_C3I(float* srcDst, int step, Size size, const float limit[3]);
int clampBelow_32f_C3I(float* srcDst, int step, Size size, const float limit[3]);
// srcDst += src1 * src2 (two byte planes into a float plane)
int addProduct_8u32f_C1I(const uint8_t* src1, int src1Step, const uint8_t* src2, int src2Step,
                         float* srcDst, int srcDstStep, Size size);
// dst = (src1 > src2) ? 255 : 0
int compareGreater_32f_C1(const float* src1, int src1Step, const float* src2, int src2Step,
                          uint8_t* dst, int dstStep, Size size);
int sum_32f_C1(const float* src, int step, Size size, double* sum);

// ---- 8-bit reductions ---------------------------------------------------------------------

int sum_8u_C1(const uint8_t* src, int step, Size size, double* sum);
int mean_8u_C1(const uint8_t* src, int step, Size size, double* mean);
int mean_8u_C3(const uint8_t* src, int step, Size size, double mean[3]);

// ---- Conversion ---------------------------------------------------------------------------

int convert_8u32f_C1(const uint8_t* src, int srcStep, float* dst, int dstStep, Size size);
int convert_16s32f_C1(const int16_t* src, int srcStep, float* dst, int dstStep, Size size);
// Round to nearest, ties to even, saturating.
int convert_32f8u_C1(const float* src, int srcStep, uint8_t* dst, int dstStep, Size size);
int convert_32f16s_C1(const float* src, int srcStep, int16_t* dst, int dstStep, Size size);
// dst = src * (vMax - vMin) / 255 + vMin
int scale_8u32f_C1(const uint8_t* src, int srcStep, float* dst, int dstStep, Size size,
                   float vMin, float vMax);
int scale_8u32f_C3(const uint8_t* src, int srcStep, float* dst, int dstStep, Size size,
                   float vMin, float vMax);
// The inverse: [vMin, vMax] to 0..255, rounded to nearest and saturated.
int scale_32f8u_C1(const float* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                   float vMin, float vMax);
int scale_32f8u_C3(const float* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                   float vMin, float vMax);

// ---- Filters and geometry -----------------------------------------------------------------

// Cubic resize (OpenCV's) of the srcRect part of the source into a dstSize destination. The
// factors are dstSize / srcRect size as the callers compute them; they are checked against the
// sizes, and the sizes decide.
int resizeCubic_8u_C1(const uint8_t* src, Size srcSize, int srcStep, Rect srcRect, uint8_t* dst,
                      int dstStep, Size dstSize, double xFactor, double yFactor);
int resizeCubic_8u_C4(const uint8_t* src, Size srcSize, int srcStep, Rect srcRect, uint8_t* dst,
                      int dstStep, Size dstSize, double xFactor, double yFactor);

// Gaussian filter. maskCode 33: mask 1 2 1 / 2 4 2 / 1 2 1, sum v -> (v + ((v >> 4) & 1) + 7) >> 4.
// maskCode 55: mask 2 7 12 7 2 / 7 31 52 31 7 / 12 52 127 52 12 / 7 31 52 31 7 / 2 7 12 7 2,
// v -> ((v + 286) * 29382) >> 24. Other codes: kBadArg. Reads a frame of 1 (33) or 2 (55) pixels
// around the region: the caller narrows the region to stay inside the image.
int filterGauss_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                      int maskCode);

// Minimum / maximum over the full 3x3 neighbourhood; reads a frame of 1 pixel.
int erode3x3_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);
int dilate3x3_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);
// In place, minimum / maximum over the pixels where the structuring mask (maskSize, row-major
// bytes) is non-zero, anchored at `anchor`; reads the frame the mask reaches.
int erode_8u_C1I(uint8_t* srcDst, int step, Size size, const uint8_t* mask, Size maskSize,
                 Point anchor);
int dilate_8u_C1I(uint8_t* srcDst, int step, Size size, const uint8_t* mask, Size maskSize,
                  Point anchor);
int min3x3_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size);
int max3x3_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size);

// One-dimensional convolution, the kernel reversed over the source:
// row:    dst(x, y) = sum_i kernel[i] * src(x + anchor - i, y)
// column: dst(x, y) = sum_i kernel[i] * src(x, y + anchor - i)
// Reads the frame the kernel reaches.
int filterRow_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                     const float* kernel, int kernelSize, int anchor);
int filterColumn_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                        const float* kernel, int kernelSize, int anchor);
int filterRow_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size,
                     const float* kernel, int kernelSize, int anchor);
int filterColumn_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size,
                        const float* kernel, int kernelSize, int anchor);
// Two-dimensional: dst(x, y) = sum_{i,j} kernel[j * kw + i] * src(x + ax - i, y + ay - j).
int filter_32f_C1(const float* src, int srcStep, float* dst, int dstStep, Size size,
                  const float* kernel, Size kernelSize, Point anchor);

// Median over a cross of size 3 (maskCode 33) or 5 (maskCode 55); reads the frame it reaches.
int medianCross_8u_C1(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size,
                      int maskCode);
int medianCross_16s_C1(const int16_t* src, int srcStep, int16_t* dst, int dstStep, Size size,
                       int maskCode);
// Median over a maskSize rectangle anchored at `anchor`.
int medianSquare_16s_C1(const int16_t* src, int srcStep, int16_t* dst, int dstStep, Size size,
                        Size maskSize, Point anchor);

// Pipelined separable filter. The row stage filters rows given as an array of row pointers
// (srcRows[0 .. size.height-1]), with `borderMode` for the columns outside the row:
// 0 constant `borderValue`, 1 replicate, 2 wrap, 4 mirror (edge not repeated); others kBadArg.
// dst(x) = sum_i kernel[i] * src(x + anchor - i). The 16s form divides the sum by `divisor`
// (rounded to nearest, saturating); the float form has none. The column stage filters
// dst row y from srcRows[y + i], i = 0..kernelSize-1: dst = sum_i kernel[kernelSize-1-i] *
// srcRows[y + i] (divisor as above), so the caller supplies size.height + kernelSize - 1 rows.
// Each stage asks for its scratch size first; the buffer holds at least that many bytes.
int sepFilterRowBufferSize(Size size, int kernelSize, int elementBytes, int* bytes);
int sepFilterColumnBufferSize(Size size, int kernelSize, int elementBytes, int* bytes);
int sepFilterRow_16s_C1(const int16_t* const* srcRows, int16_t* const* dstRows, int width,
                        int rows, const int16_t* kernel, int kernelSize, int anchor,
                        int borderMode, int16_t borderValue, int divisor, uint8_t* buffer);
int sepFilterColumn_16s_C1(const int16_t* const* srcRows, int16_t* dst, int dstStep, Size size,
                           const int16_t* kernel, int kernelSize, int divisor, uint8_t* buffer);
int sepFilterRow_32f_C1(const float* const* srcRows, float* const* dstRows, int width, int rows,
                        const float* kernel, int kernelSize, int anchor, int borderMode,
                        float borderValue, uint8_t* buffer);
int sepFilterColumn_32f_C1(const float* const* srcRows, float* dst, int dstStep, Size size,
                           const float* kernel, int kernelSize, uint8_t* buffer);

// 8-connected flood fill in place: every pixel connected to the seed whose value lies within
// [seedValue - minDelta, seedValue + maxDelta] becomes newValue. No operation when the seed
// pixel already equals newValue (region zeroed). region receives the filled pixel count and
// the bounding rectangle of what was filled.
struct ConnectedComp {
    double area;
    double value[3];
    Rect rect;
};
int floodFillBufferSize(Size size, int* bytes);
int floodFill8_8u_C1I(Point seed, uint8_t newValue, uint8_t minDelta, uint8_t maxDelta,
                      uint8_t* srcDst, int step, Size size, ConnectedComp* region,
                      uint8_t* buffer);

// ---- Colour -------------------------------------------------------------------------------

// RGB <-> HLS on 4-byte pixels (byte 0 R, 1 G, 2 B; byte 3 is copied through). All three
// components on 0..255 (hue scaled from 0..360 degrees). Source to destination.
int rgbToHls_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);
int hlsToRgb_8u_C4(const uint8_t* src, int srcStep, uint8_t* dst, int dstStep, Size size);
// The same on 3-float pixels in 0..1 (hue 0..360 degrees scaled to 0..1 as well).
int rgbToHls_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size);
int hlsToRgb_32f_C3(const float* src, int srcStep, float* dst, int dstStep, Size size);
// Studio-range YCbCr in 16.16 fixed point, byte 0 of a pixel as R:
// Y = 0.257R + 0.504G + 0.098B + 16, Cb = -0.148R - 0.291G + 0.439B + 128,
// Cr = 0.439R - 0.368G - 0.071B + 128; and the inverse
// R = 1.164(Y-16) + 1.596(Cr-128), G = 1.164(Y-16) - 0.813(Cr-128) - 0.392(Cb-128),
// B = 1.164(Y-16) + 2.017(Cb-128), all rounded and saturated.
int rgbToYCbCr_8u_C3P3(const uint8_t* src, int srcStep, uint8_t* const dst[3], int dstStep,
                       Size size);
int yCbCrToRgb_8u_P3C3(const uint8_t* const src[3], int srcStep, uint8_t* dst, int dstStep,
                       Size size);
// planes[i] = twist[i][0]*p0 + twist[i][1]*p1 + twist[i][2]*p2 + twist[i][3], in place.
int colorTwist_32f_P3I(float* const planes[3], int step, Size size, const float twist[3][4]);

// ---- Vectors and small matrices -----------------------------------------------------------

int mulC_64f_I(double value, double* srcDst, int length);
int addC_64f_I(double value, double* srcDst, int length);
int subC_64f_I(double value, double* srcDst, int length);
int mean_64f(const double* src, int length, double* mean);
int dotProd_64f(const double* a, const double* b, int length, double* result);
int convert_64f32f(const double* src, float* dst, int length);
int set_16s(int16_t value, int16_t* dst, int length);
int zero_16s(int16_t* dst, int length);
int set_32f(float value, float* dst, int length);
int zero_32f(float* dst, int length);
// Sorts ascending in place and writes the permutation: perm[i] is the original index of the
// element now at i. The order among equal keys is unspecified.
int sortAscendIndex_32s_I(int32_t* srcDst, int32_t* perm, int length);
// Inverse of a 3x3 matrix with row stride in bytes; kBadArg when singular (|det| < 1e-300).
int invert3x3_64f(const double* src, int srcStride, double* dst, int dstStride);
// dst (m x n) = a (m x k) * b (k x n); strides in bytes between rows.
int matMul_64f(const double* a, int aStride, int m, int k, const double* b, int bStride, int n,
               double* dst, int dstStride);
// dst (m x n) = a^T * b, with a stored as (k x m).
int matMulTransA_64f(const double* a, int aStride, int m, int k, const double* b, int bStride,
                     int n, double* dst, int dstStride);

}  // namespace qx::prim
