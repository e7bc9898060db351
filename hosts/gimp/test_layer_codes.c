/* The plug-in's reading of strokes and tri-maps from layer pixels, on hand-made pixels. */
#include <stdio.h>
#include <string.h>

#include "layer_codes.h"

static int failures = 0;

static void expectBytes(const char* what, const unsigned char* got, const unsigned char* want,
                        int n) {
    int i;
    for (i = 0; i < n; ++i) {
        if (got[i] != want[i]) {
            printf("FAIL %s: pixel %d is %d, expected %d\n", what, i, got[i], want[i]);
            ++failures;
            return;
        }
    }
}

static void expectInt(const char* what, int got, int want) {
    if (got != want) {
        printf("FAIL %s: %d, expected %d\n", what, got, want);
        ++failures;
    }
}

int main(void) {
    unsigned char out[8];
    {
        /* RGBA strokes as a brush leaves them on a transparent layer: white and black at full
         * and at half cover, the soft rim below half, an untouched pixel, off-white and grey. */
        const QxgPixelLayout rgba = {3, 1};
        const unsigned char px[8 * 4] = {
            255, 255, 255, 255, /* keep */
            0,   0,   0,   255, /* cut */
            255, 255, 255, 128, /* keep at half cover */
            0,   0,   0,   127, /* rim of a cut stroke: unpainted */
            0,   0,   0,   0,   /* untouched transparent pixel (black, transparent) */
            255, 255, 254, 255, /* off-white */
            128, 128, 128, 255, /* grey */
            255, 0,   0,   255, /* red */
        };
        const unsigned char want[8] = {255, 0, 255, 128, 128, 128, 128, 128};
        memset(out, 7, sizeof out);
        qxg_strokes_from_pixels(px, rgba, 8, out);
        expectBytes("strokes from RGBA", out, want, 8);
    }
    {
        /* A grey image without alpha (a stroke file as the command-line tool reads it). */
        const QxgPixelLayout grey = {1, 0};
        const unsigned char px[4] = {255, 0, 1, 254};
        const unsigned char want[4] = {255, 0, 128, 128};
        qxg_strokes_from_pixels(px, grey, 4, out);
        expectBytes("strokes from grey", out, want, 4);
    }
    {
        /* Tri-map from an RGB layer with alpha: grey values pass, a transparent pixel takes the
         * undecided code whatever its colour. */
        const QxgPixelLayout rgba = {3, 1};
        const unsigned char px[4 * 4] = {
            0, 0, 0, 255, 255, 255, 255, 255, 77, 77, 77, 200, 9, 200, 30, 10,
        };
        const unsigned char want[4] = {0, 255, 77, 100};
        expectInt("tri-map from RGBA: no colour pixel", qxg_trimap_from_pixels(px, rgba, 4, 100, out),
                  -1);
        expectBytes("tri-map from RGBA", out, want, 4);
    }
    {
        /* A coloured opaque pixel is refused, and its index reported. */
        const QxgPixelLayout rgb = {3, 0};
        const unsigned char px[3 * 3] = {10, 10, 10, 20, 20, 20, 30, 31, 30};
        expectInt("tri-map refuses colour", qxg_trimap_from_pixels(px, rgb, 3, 128, out), 2);
    }
    {
        /* A channel: one byte, taken as it is. */
        const QxgPixelLayout channel = {1, 0};
        const unsigned char px[3] = {0, 128, 255};
        expectInt("tri-map from a channel", qxg_trimap_from_pixels(px, channel, 3, 1, out), -1);
        expectBytes("tri-map from a channel", out, px, 3);
    }
    if (failures) return 1;
    printf("layer codes: all cases passed\n");
    return 0;
}
