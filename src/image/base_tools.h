// Whole-image helpers on the image containers: Gaussian kernels and blurs, a median filter for
// float planes through 16-bit arithmetic, a morphological sharpener, a separable filter with
// selectable vertical borders, colour conversions between planar float images (base_filters.cpp,
// colour_convert.cpp); border bands filled, copied and replicated in place (borders.cpp); and a
// clipped rasteriser of thick round-ended strokes into a byte plane (rasterise.cpp).
//
// They work on an image's whole current region unless a comment says otherwise. The heavy
// lifting is done by the primitives (primitives.h): these routines only arrange their calls.
// Arguments that would make a routine read or write outside its buffers are refused as each
// comment says; nothing here ends the process.
#pragma once

#include <cstdint>

#include "image/img.h"
#include "image/primitives.h"

namespace qx {

// ---- Kernel makers (base_filters.cpp) ------------------------------------------------------

// taps[i] = exp(-0.5 k^2 / sigma^2), k = i - n/2 (integer division; an even n is off centre by
// half a tap), computed in double and stored as float, then divided by their float sum, which
// is returned. 0 and nothing written for n below 1 or null taps.
float computeGaussFilter(float* taps, int n, float sigma);
// The same bell times `scale`, each tap truncated to short, not normalised: returns the sum of
// the taps for the caller to divide by. 0 for n below 1 or null taps.
int computeGaussFilter(short* taps, int n, float sigma, int scale);

// size x size bytes exp(-0.5 ((x-c)^2 + (y-c)^2) / variance) * 255 truncated, c = size/2 - 0.5.
// The argument is a variance, not a standard deviation. Allocated with prim::allocBlock: the
// caller frees it with prim::freeAligned. Throws 108 when the block cannot be had (size below 1
// included).
uint8_t* creatGaussian2D_8u(float variance, int size);
// The same bell as a grey-scale structuring function: (exp(...) - 1) * scale truncated to
// int32, 0 at the centre of an odd kernel and negative elsewhere. Same allocation and 108.
int32_t* creatGaussianMorph_32s(float variance, int size, int scale);

// ---- Filters (base_filters.cpp) ------------------------------------------------------------

// Separable Gaussian blur in place. A sigma of 0.4 or less switches its direction off; both off
// returns 0 untouched. Tap count per direction: ((int)(4 sigma) made even towards zero) + 3,
// within 5..17. Rows (columns) within half the taps of an edge are left unsmoothed in that
// direction. Returns 1. Throws like the image containers when the temporary cannot be had.
int guassFilter(IMG<float, 1>& image, float sigmaX, float sigmaY);

// Smooths across a list of images (not within one): for i = 2 .. count-3,
// image[i] = taps[0] old[i-2] + taps[1] old[i-1] + taps[2] old[i] + taps[3] old[i+1] +
// taps[4] old[i+2] over the old values; the first and last two stay. count 4 or less (or a null
// list) changes nothing. An index whose five images are not all at least its own size, or any
// null image, is skipped. Returns 1.
int FilterGauss5f_inPlace(IMG<float, 1>** images, int count, const float taps[5]);
int FilterGauss5f_inPlace(IMG<float, 3>** images, int count, const float taps[5]);

// Median of float images through 16-bit arithmetic: each image with radii[i] > 0 is mapped by
// (v - centre) * scale (scale = 65435 / (maxValue - minValue), centre their mean) to int16, then
// radius 1 and 2 take the cross median of 3x3 and 5x5, 3 and 4 the square median of 7x7 and
// 9x9, anything larger 11x11, on the image inset by the radius' margin (the margin bands are
// copied through), and the result is mapped back. The working size is that of image 0; an image
// smaller than image 0 in either direction, or a null one, is skipped (it would be read beyond
// its end). maxValue equal to minValue gives undefined pixels. Parallel over the images.
// Returns 1.
int medianFilter(IMG<float, 1>** images, int count, float maxValue, float minValue,
                 const int* radii);

// Toggle contrast: every pixel jumps to the nearer of its grey-scale dilation and erosion by a
// 3x3 square applied `iterations` times (at most 32; 0 or less does nothing), the dilation on a
// tie. After each step the outer rows and columns repeat their inner neighbours.
void ExtremeSharpen(IMG<float, 1>& image, int iterations);

// Separable filter, rows first, through the primitives' row and column pipelines. rowHalf =
// rowLength/2 and columnHalf likewise are the anchors: an even kernel reaches one pixel less on
// the low side. borderMode: 0 constant borderValue, 1 replicate, 2 mirror (edge not repeated),
// 3 wrap; the vertical pad rows are pointers into the image (or constant rows), the horizontal
// border is the row stage's. Returns 0, prim::kNoMem (-9) for a failed allocation, -121 for
// another border mode (after releasing what was allocated, before writing dst), a primitive's
// failure status as it stands, or prim::kSizeErr when a mirror or wrap pad would reach past the
// image's rows (columnHalf at or above the height for mirror, above it for wrap).
int ippSepFilter(const short* src, int srcStep, short* dst, int dstStep, prim::Size size,
                 const short* rowKernel, int rowLength, const short* columnKernel,
                 int columnLength, int borderMode, short borderValue, short divisor);
int ippSepFilter(const float* src, int srcStep, float* dst, int dstStep, prim::Size size,
                 const float* rowKernel, int rowLength, const float* columnKernel,
                 int columnLength, int borderMode, float borderValue);
constexpr int kSepFilterBadBorder = -121;

// ---- Colour conversion (colour_convert.cpp) -------------------------------------------------
// A colour image is three IMG<float,1> planes of one size. The conversions work on the size of
// the first plane and do nothing when a plane is null or smaller.

// gray = 0.299 R + 0.587 G + 0.114 B (float coefficients), formed as (0.299 R + 0.587 G) + 0.114 B.
void RGB2Gray(IMG<float, 1>& r, IMG<float, 1>& g, IMG<float, 1>& b, IMG<float, 1>& gray);
void RGB2Gray(IMG<float, 1>* const planes[3], IMG<float, 1>& gray);
// Colour twists in place; noOffset drops the constant terms (and uses the shorter table).
int RGB2YCbCr(IMG<float, 1>* const planes[3], bool noOffset);
int YCbCr2RGB(IMG<float, 1>* const planes[3], bool noOffset);
// HLS on 0..1 (hue in turns). HLS2RGB clamps its input to 0..1 first; RGB2HLS does not.
int RGB2HLS(IMG<float, 1>* const planes[3]);
int HLS2RGB(IMG<float, 1>* const planes[3]);

// ---- Borders (borders.cpp) --------------------------------------------------------------------
// Replication: rows `top` and height-bottom-1 are copied outward over the top and bottom bands
// at full width, then in every row column `left` and width-right-1 outward, so corners come from
// the extended rows. A band of 0 or less does nothing. Null data, a size below 1 or a band that
// reaches the opposite edge (top or bottom at or above the height, left or right at or above the
// width) does nothing at all.

void extendBorder(uint8_t* data, int step, prim::Size size, int top, int bottom, int left,
                  int right);
void extendBorder(uint32_t* data, int step, prim::Size size, int top, int bottom, int left,
                  int right);
// Three-byte pixels. The rows are replicated correctly; the left and right passes keep the
// routine's old smear: the first byte of the source pixel fills the first `left` bytes of the
// row (`right` bytes from the start of the right band) and its second and third bytes follow
// once each.
void extendBorder3C(uint8_t* data, int step, prim::Size size, int top, int bottom, int left,
                    int right);
// The same rule on an image's current region; note the order of the bands.
void imageExtendBorder(IMG<float, 1>& image, int left, int top, int right, int bottom);
void imageExtendBorder(IMG<float, 3>& image, int left, int top, int right, int bottom);
void imageExtendBorder(IMG<short, 1>& image, int left, int top, int right, int bottom);
void imageExtendBorder(IMG<unsigned short, 1>& image, int left, int top, int right, int bottom);
void imageExtendBorder(IMG<unsigned char, 1>& image, int left, int top, int right, int bottom);

// Copies each band whose count is above 0 from src to dst, on the size the two regions share.
void imageCopyBorder(IMG<float, 1>& src, IMG<float, 1>& dst, int top, int bottom, int left,
                     int right);
// Copies the top and bottom `rows` and the left and right `columns`; counts beyond the size are
// cut to it. Null planes or a size below 1 do nothing.
void imageCopyBorder(IMG<short, 1>& src, IMG<short, 1>& dst, int columns, int rows);
void imageCopyBorder(IMG<unsigned short, 1>& src, IMG<unsigned short, 1>& dst, int columns,
                     int rows);
void imageCopyBorder(const short* src, int srcStep, short* dst, int dstStep, prim::Size size,
                     int columns, int rows);
// Sets the top and bottom `rows` and the left and right `columns` to value (counts cut to the
// size).
void imageSetBorder(IMG<unsigned char, 1>& image, unsigned char value, int columns, int rows);
// Copies the area src and dst share, then replicates the last row and column of it into what
// dst has more. Returns 1.
int imageCopyExt(IMG<float, 1>& src, IMG<float, 1>& dst);

// Address of pixel (x, y) of an image's current region.
template <typename T, int C>
inline T* imgPtr(IMG<T, C>& image, int x, int y) {
    return image.ptr(x, y);
}

// ---- Rasteriser (rasterise.cpp) ---------------------------------------------------------------
// Byte planes of width x height with rows `step` bytes apart; every write is clipped to the
// plane. Null data or a size below 1 returns 0 and writes nothing.

// Fills row y from min(x0,x1) to max(x0,x1), clipped. 1 when something was filled.
int drawHLine(uint8_t* data, int step, int width, int height, int x0, int x1, int y,
              uint8_t value);
// Filled disc: row cy+dy spans half = (int)(sqrt(radius^2 - dy^2) + 0.49) either side, so a
// radius-1 disc is a five-pixel plus. Radius 0 sets the centre pixel if it is inside (1) or
// nothing (0); a negative radius returns 0; otherwise 1, even when nothing fell inside.
int drawCircle(uint8_t* data, int step, int width, int height, int cx, int cy, int radius,
               uint8_t value);
// Thick stroke as a chain of such discs, one a step along the major axis from (x0,y0) to
// (x1,y1), the position on the minor axis rounded by +0.49999. 2 radius + 1 pixels wide with
// round ends; a negative radius draws nothing. Returns 1.
int drawLineW(uint8_t* data, int step, int width, int height, int x0, int y0, int x1, int y1,
              int radius, uint8_t value);
// Filled capsule: every pixel whose centre lies within `reach` of the segment from (x0,y0) to
// (x1,y1). Each row's covered part is one interval worked out directly, so any coordinates and
// reach take time in proportion to the plane. A negative or NaN reach draws nothing. Returns 1.
int fillCapsule(uint8_t* data, int step, int width, int height, int x0, int y0, int x1, int y1,
                double reach, uint8_t value);
// The stroke of drawLineW, pixel for pixel, while its walk costs at most about a thousand fills
// of the plane; beyond that (a radius or length far beyond the plane) the capsule of reach
// radius + 1/2, which agrees with the walk to within a pixel. Returns 1.
int drawStroke(uint8_t* data, int step, int width, int height, int x0, int y0, int x1, int y1,
               int radius, uint8_t value);

}  // namespace qx
