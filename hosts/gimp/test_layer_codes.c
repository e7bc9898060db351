/* The plug-in's reading of strokes and tri-maps from layer pixels, on hand-made pixels. */
#include <stdio.h>
#include <string.h>

#include "layer_codes.h"

static int failures = 0;

static void expect(const char* what, int same) {
    if (!same) printf("FAIL %s\n", what), ++failures;
}

int main(void) {
    const QxgPixelLayout rgba = {3, 1}, grey = {1, 0}, rgb = {3, 0};
    unsigned char out[8];
    /* Strokes as a brush leaves them on a transparent layer: white and black at full and at half
     * cover, the soft rim below half, an untouched pixel, off-white, grey and red. */
    const unsigned char brush[8 * 4] = {255, 255, 255, 255, 0,   0,   0,   255, 255, 255, 255,
                                        128, 0,   0,   0,   127, 0,   0,   0,   0,   255, 255,
                                        254, 255, 128, 128, 128, 255, 255, 0,   0,   255};
    /* A grey stroke file (the tool's coding): only 255 and 0 are painted. */
    const unsigned char file[4] = {255, 0, 1, 254};
    /* Tri-map from RGBA: grey values pass, a transparent pixel is undecided whatever its colour;
     * an opaque coloured pixel is refused with its index; a channel's bytes pass as stored. */
    const unsigned char tri[4 * 4] = {0, 0, 0, 255, 255, 255, 255, 255, 77, 77, 77, 200, 9, 200,
                                      30, 10};
    const unsigned char coloured[3 * 3] = {10, 10, 10, 20, 20, 20, 30, 31, 30};
    const unsigned char channel[3] = {0, 128, 255};

    qxg_strokes_from_pixels(brush, rgba, 8, out);
    expect("strokes from RGBA", memcmp(out, "\377\000\377\200\200\200\200\200", 8) == 0);
    qxg_strokes_from_pixels(file, grey, 4, out);
    expect("strokes from grey", memcmp(out, "\377\000\200\200", 4) == 0);
    expect("tri-map from RGBA", qxg_trimap_from_pixels(tri, rgba, 4, 100, out) == -1 &&
                                    memcmp(out, "\000\377\115\144", 4) == 0);
    expect("tri-map refuses colour", qxg_trimap_from_pixels(coloured, rgb, 3, 128, out) == 2);
    expect("tri-map from a channel", qxg_trimap_from_pixels(channel, grey, 3, 1, out) == -1 &&
                                         memcmp(out, channel, 3) == 0);
    printf(failures ? "layer codes: failed\n" : "layer codes: all cases passed\n");
    return failures ? 1 : 0;
}
