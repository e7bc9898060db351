/*
 * How the plug-in reads a tri-map or strokes from a GIMP layer or channel: pixel rules kept apart
 * from the GIMP calls so that they can be checked on their own.
 */
#ifndef QX_GIMP_LAYER_CODES_H
#define QX_GIMP_LAYER_CODES_H

#ifdef __cplusplus
extern "C" {
#endif

/* The stroke image's "unpainted" value (the workflows take anything but 255 and 0 as such). */
#define QXG_UNPAINTED 128

/* Bytes of a source pixel: `colours` colour bytes (1 grey or 3 RGB) followed by an alpha byte
 * when hasAlpha. */
typedef struct QxgPixelLayout {
    int colours;
    int hasAlpha;
} QxgPixelLayout;

/* Strokes: a pixel at least half opaque (alpha >= 128) whose colour bytes are all 255 is a keep
 * stroke (255), all 0 a cut stroke (0); every other pixel (transparent, grey, coloured) is
 * unpainted. Writes `count` bytes into out. */
void qxg_strokes_from_pixels(const unsigned char* pixels, QxgPixelLayout layout, int count,
                             unsigned char* out);

/* Tri-map: a pixel's code is its grey value (the colour bytes must be equal); a pixel less than
 * half opaque is undecided and gets `undecided`. Writes `count` bytes into out and returns -1,
 * or returns the index of the first pixel whose colour bytes differ (out then partly written). */
int qxg_trimap_from_pixels(const unsigned char* pixels, QxgPixelLayout layout, int count,
                           unsigned char undecided, unsigned char* out);

#ifdef __cplusplus
}
#endif

#endif /* QX_GIMP_LAYER_CODES_H */
