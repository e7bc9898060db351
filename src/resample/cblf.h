// Cross bilateral filter on 8-bit planes: the planes to filter take weights from other planes
// (the matting code cleans an alpha plane along the edges of the colour image this way).
//
// The filter works by shifted whole-plane operations: for each offset of the square window one
// weight plane is made for all pixels at once, in 8-bit fixed point, and accumulated into float
// sums. All planes are held whole.
#pragma once

namespace qx {

// Filters planeCount planes (rows planeStep bytes apart) in place, with the range weight taken
// from the saturated sum of the absolute differences over refCount reference planes (rows
// refStep bytes apart), all of width x height pixels.
//
// For each pixel of the interior (radius in from every side), the result is
//   (c * v0 + sum_o w_o * v_o) / (c + sum_o w_o),   c = epsilon * 255,
// over the window offsets o != (0, 0) in [-radius, radius]^2, where
//   w_o = rangeTable[min(255, sum_ref |ref(o) - ref(0)|)] * trunc(128 * s_o) / 128
// rounded to nearest-even in 8 bits, rangeTable[i] = trunc(255 * exp(-3 (i / sigmaRange)^2))
// and s_o = exp(-|o|^2 / (2 sigmaSpace^2)). The result is rounded to nearest (ties to even).
// The outer `radius` rows and columns are left as they are.
//
// Returns 1; 0, with nothing written, when radius is outside 1..3, the interior is less than 2
// pixels in either direction (an image of 2 * radius + 1 is refused), a count is below 1, a
// pointer is null or a step is shorter than a row. Allocation failures throw the ints of
// image/img.h.
//
// The window rows compute their weights in parallel and add them to the shared sums in row
// order, so the result is the same bit for bit with any number of threads.
int CBLFRGB(int width, int height, unsigned char* const* planes, int planeStep, int planeCount,
            unsigned char* const* refPlanes, int refStep, int refCount, int radius,
            float sigmaRange, float sigmaSpace, float epsilon);

}  // namespace qx
