// Exact factor-two resampling.
//
// CDnsampleQX2X halves an image (plain decimation for masks and tri-maps, a 3x3 Gaussian first
// for colour planes). CUpSampleQX2X doubles a solved result under the guidance of the
// full-resolution colour planes, so that edges of the result follow the colour edges. Other
// factors are reached by a plain resize to or from the half size.
//
// Phase decomposition: an image of W x H is seen as four half images of W/2 x H/2 (truncated);
// phase (px, py) holds the pixels (2x + px, 2y + py).
//
// Allocation failures of working images throw the ints of image/img.h; callers run inside a
// guarded entry.
#pragma once

#include <cstdint>

#include "image/img.h"

namespace qx {

// dst(x, y) = src(x0 + 2x, y0 + 2y) over min(src.width / 2, dst.width) by
// min(src.height / 2, dst.height). Returns 1; 0 (nothing written) for a null image, a negative
// origin, or an origin that would read past the source.
int getHalfImage(const GIMG<unsigned char>& src, int x0, int y0, GIMG<unsigned char>& dst);
int getHalfImage(const GIMG<float>& src, int x0, int y0, GIMG<float>& dst);

// dst(x0 + 2x, y0 + 2y) = src(x, y) over min(dst.width / 2, src.width) by
// min(dst.height / 2, src.height). Returns 1; 0 (nothing written) for a null image, a negative
// origin, or an origin that would write past the destination.
int putHalfImage(const GIMG<unsigned char>& src, GIMG<unsigned char>& dst, int x0, int y0);
int putHalfImage(const GIMG<float>& src, GIMG<float>& dst, int x0, int y0);

// Halves src into dst over min(src / 2, dst) in each axis. filter 0: dst(x, y) = src(2x, 2y),
// so no new values arise (a tri-map stays a tri-map). filter != 0: the interior of src is
// smoothed by the 3x3 Gaussian (mask code 33), its outer rows and columns are taken as they
// are, then every second pixel is kept. An odd source size drops its last row or column.
// Returns 1; 0 for a null image.
int CDnsampleQX2X(GIMG<unsigned char>& src, GIMG<unsigned char>& dst, int filter);

// The weight table of the guided upsampler: 255 * exp(-0.5 * i / sigma), truncated, with
// every value below 1.4 raised to 1. The exponent is linear in the colour distance i, and no
// entry is 0, so a weight sum is never 0.
void makeUpsampleWeightTable(float sigma, uint8_t table[256]);

// Doubles planeCount planes small[p] into big[p], guided by guideCount (at most 4)
// full-resolution planes guide[g] of big's size.
//
// With hw x hh = min(big / 2, small) in each axis: small goes into the even pixels of big; then
// over a region of (hw - 1) x (hh - 1) three stages estimate the centres (2x+1, 2y+1), the
// horizontal gaps (2x+1, 2y+2) and the vertical gaps (2x+2, 2y+1), each as a weighted mean of
// four neighbours with weights from the summed guide differences. Row 0's gaps, column 0's
// gaps and the last one to three rows and columns keep what big held: callers repair them.
// The last row and column of centres are not estimated; the gap stages read them as 0.
//
// Returns 1; 0 at once, with nothing written, when guideCount is above 4 (or negative), a
// list or an image in it is null, or a guide is smaller than 2hw x 2hh.
int CUpSampleQX2X(GIMG<unsigned char>** small, GIMG<unsigned char>** big, int planeCount,
                  GIMG<unsigned char>** guide, int guideCount, float sigma);

}  // namespace qx
