// Foreground and background colours by sampling instead of solving. For each undecided pixel
// four rays are shot across the image to find decided foreground and background pixels; the
// best pair by an energy of colour fit, gradient path and distance is chosen, the choices of
// neighbouring pixels are shared, and foreground, background and alpha come out per pixel.
//
// Colours are three floats on 0..1. The alpha plane codes 255 definite foreground and 1 definite
// background (not 0: a background coded 0 gives no background samples at all); the known plane
// marks the pixels to solve with 0.
//
// The hair brush's projection of a colour onto the line between two colours
// (CompAlphaMapHair, hair_brush.cpp) belongs to the same class.
#pragma once

#include <cstdint>
#include <vector>

#include "image/img.h"

namespace qx {

// A sample found by a ray: its colour and where it was found. 16 bytes, coordinates in 16 bits,
// which is why the separation refuses images over kMaxSampleSide a side.
struct SharedSample {
    float colour[3];
    int16_t x;
    int16_t y;
};
static_assert(sizeof(SharedSample) == 16);
constexpr int kMaxSampleSide = 32767;

// Up to four foreground and four background samples a pixel, at 4*i + k of the two arrays for
// pixel i of the list, with their counts.
struct SampleSet {
    std::vector<SharedSample> fg, bg;
    std::vector<uint8_t> fgCount, bgCount;
    explicit SampleSet(int64_t pixels);  // zero-filled; throws 130 when it cannot be had
};

// The rays of one gathering: slopes[q][r][c] = tan(q pi/2 + r pi/6 + c pi/18) for quadrant q,
// row class r (y mod 3) and column class c (x mod 9), pi the single-precision constant.
struct LineSet {
    float tangent45;
    float slopes[4][3][9];
    int width;
    int height;

    LineSet(int width, int height);

    // Walks the four rays of pixel (x, y), number i of the list, and stores the first decided
    // foreground (alpha 255) and background (alpha 1) pixel each ray meets; undecided pixels
    // (known 0) and decided ones of other alpha are passed over, and a ray ends once it found
    // both. The walking axis of every ray is decided by the first records of the two sample
    // arrays (those of the list's first pixel), as they stand at that moment: along rows when
    // their y differ at least as much as their x.
    void searchLine(int x, int y, int i, const uint8_t* known, int knownStep, const uint8_t* alpha,
                    int alphaStep, const IMG<float, 3>& image, SampleSet& samples) const;
};

class FBSeperationSharedSample {
public:
    // Overwrites `image` (three interleaved bytes a pixel) with the foreground colour of every
    // undecided pixel; decided pixels come back as they were. Returns 0, also when it refuses
    // (null planes, a size below 1 or over kMaxSampleSide, steps smaller than a row) without
    // writing. Throws like the image containers, and 130 when an array cannot be had.
    int extractF_SharedSample(uint8_t* image, int imageStep, int width, int height,
                              const uint8_t* known, int knownStep, const uint8_t* alpha,
                              int alphaStep);

    // The whole chain on float images: `image` and `alpha` on 0..1 as read from the planes,
    // F and B (of the image's size) receive foreground and background, alphaOut (may be null)
    // the separation's alpha ((I - B).(F - B) / |F - B|^2, unguarded) at the undecided pixels.
    // Planes are checked by the caller.
    void separate(const IMG<float, 3>& image, const IMG<float, 1>& alphaF, const uint8_t* known,
                  int knownStep, const uint8_t* alpha, int alphaStep, IMG<float, 3>& F,
                  IMG<float, 3>& B, IMG<float, 1>* alphaOut);

    // Hair brush projection: for each pixel whose mask byte is non-zero, alpha = the position of
    // its colour on the line from backColor to foreColor, clamped to 0..1; others keep their
    // alpha. The two colours are in reverse byte order: colour byte 0 goes with image channel 2.
    // A null mask or alpha stands for a fresh zero plane (so a null mask computes nothing).
    // Equal colours divide by zero, unguarded: such pixels come out at an end or 0. Returns 0;
    // refuses (returns 0, writes nothing) null image or colours, a size below 1 or a step
    // smaller than a row.
    int CompAlphaMapHair(const uint8_t* image, int imageStep, int width, int height,
                         const uint8_t* mask, int maskStep, uint8_t* alpha, int alphaStep,
                         const uint8_t* foreColor, const uint8_t* backColor);

    // Energy of the straight path from p to s over the colour's central differences Gx, Gy.
    float Eps(const IMG<float, 3>& gx, const IMG<float, 3>& gy, int px, int py, int sx,
              int sy) const;

    struct PixelPos {
        int32_t x, y;
    };

    void sampleGathering(const IMG<float, 3>& image, const IMG<float, 1>& alphaF,
                         const uint8_t* known, int knownStep, const uint8_t* alpha, int alphaStep,
                         const std::vector<PixelPos>& unknown, IMG<float, 3>& Fs,
                         IMG<float, 3>& Bs, IMG<float, 1>& varF, IMG<float, 1>& varB);
    void sampleRefining(const IMG<float, 3>& image, const IMG<float, 1>& alphaF,
                        const std::vector<PixelPos>& unknown, const IMG<float, 3>& Fs,
                        const IMG<float, 3>& Bs, const IMG<float, 1>& varF,
                        const IMG<float, 1>& varB, IMG<float, 3>& F, IMG<float, 3>& B,
                        IMG<float, 1>* alphaOut);
};

// Foreground colours of a colour image from its alpha (0 background, 255 foreground, anything
// between undecided) by shared-sample separation: the entry for a caller that holds an image
// and an alpha and wants the foreground, such as the command line's `--method sampling`.
// image and foreground have `channels` (3 or 4) bytes a pixel in one order; a fourth byte is
// copied through. foreground may be image itself. Returns 1; 0 and nothing written for a
// refusal (null planes, channels other than 3 or 4, a size below 1 or over kMaxSampleSide, a
// step smaller than a row). Throws like extractF_SharedSample.
int recoverForegroundBySampling(const uint8_t* image, int imageStep, int channels, int width,
                                int height, const uint8_t* alpha, int alphaStep,
                                uint8_t* foreground, int foregroundStep);

}  // namespace qx
