#include "layer_codes.h"

/* Grey value of a pixel, or -1 when its colour bytes differ. */
static int greyValue(const unsigned char* p, int colours) {
    int c;
    for (c = 1; c < colours; ++c)
        if (p[c] != p[0]) return -1;
    return p[0];
}

static int opaqueEnough(const unsigned char* p, QxgPixelLayout layout) {
    return !layout.hasAlpha || p[layout.colours] >= 128;
}

void qxg_strokes_from_pixels(const unsigned char* pixels, QxgPixelLayout layout, int count,
                             unsigned char* out) {
    const int bpp = layout.colours + (layout.hasAlpha ? 1 : 0);
    int i;
    for (i = 0; i < count; ++i) {
        const unsigned char* p = pixels + (long)i * bpp;
        const int v = opaqueEnough(p, layout) ? greyValue(p, layout.colours) : -1;
        out[i] = v == 255 ? 255 : v == 0 ? 0 : QXG_UNPAINTED;
    }
}

int qxg_trimap_from_pixels(const unsigned char* pixels, QxgPixelLayout layout, int count,
                           unsigned char undecided, unsigned char* out) {
    const int bpp = layout.colours + (layout.hasAlpha ? 1 : 0);
    int i;
    for (i = 0; i < count; ++i) {
        const unsigned char* p = pixels + (long)i * bpp;
        int v;
        if (!opaqueEnough(p, layout)) {
            out[i] = undecided;
            continue;
        }
        v = greyValue(p, layout.colours);
        if (v < 0) return i;
        out[i] = (unsigned char)v;
    }
    return -1;
}
