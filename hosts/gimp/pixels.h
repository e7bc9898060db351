/*
 * Pixels between GIMP's drawables and the library's planes. A layer's colours are read in the
 * layer's own format (no conversion), so that the workflows see exactly the bytes that GIMP
 * stores and a PNG export of the layer holds. Every plane is a byte a pixel of the active
 * layer, its width bytes a row.
 */
#ifndef QX_GIMP_PIXELS_H
#define QX_GIMP_PIXELS_H

#include <libgimp/gimp.h>

#include "qxworkflow.h"

/* A drawable's place in the image and its size. */
typedef struct {
    gint32 id;
    int x, y; /* offsets in the image */
    int width, height;
} QxgExtent;

QxgExtent qxg_extent_of(gint32 drawable);

/* Zeroed bytes (at least one); NULL when out of memory. */
guchar* qxg_allocate(size_t bytes);

/* The layer's colour pixels, in its own format (R, G, B and, with 4 bytes, alpha), described in
 * `image`. The caller frees the pixels; NULL when out of memory. */
guchar* qxg_read_colour(gint32 layer, QxwImage* image);

/* How reading a plane from another drawable went; the plane is NULL unless QXG_READ_OK. */
typedef enum {
    QXG_READ_OK,
    QXG_READ_NO_MEMORY,
    QXG_READ_FORMAT,    /* a pixel format the plug-in doesn't read */
    QXG_READ_UNCOVERED, /* the source leaves part of the layer uncovered */
    QXG_READ_COLOUR     /* a pixel whose colour bytes differ (*badPixel: its index) */
} QxgRead;

/* Strokes from a layer over `layer` (layer_codes.h), unpainted where the source doesn't reach. */
QxgRead qxg_read_strokes(const QxgExtent* layer, gint32 source, guchar** plane);

/* A tri-map from a layer or channel that must cover `layer` (layer_codes.h); its pixels less
 * than half opaque get `undecided`. */
QxgRead qxg_read_trimap(const QxgExtent* layer, gint32 source, guchar undecided, guchar** plane,
                        int* badPixel);

/* A channel (a layer mask, the selection) over `layer`, as the grey levels the user sees
 * (perceptual, as a PNG export has them); 0 where it doesn't reach. NULL when out of memory. */
guchar* qxg_channel_plane(const QxgExtent* layer, gint32 channel);

/* The writers of a result. Those that can fail return why nothing was written, or NULL. */

/* The alpha into the layer's mask: the mask there is, or a new one. */
void qxg_alpha_to_mask(gint32 layer, const guchar* alpha);

/* The alpha of the layer as the selection, through a hidden channel "Subject" kept in the image
 * (the part of the layer outside the canvas is left out, the canvas off the layer is 0). */
const char* qxg_alpha_to_selection(gint32 image, gint32 layer, const guchar* alpha);

/* A new layer `name` above `layer` at its place, with colours (R, G, B) and alpha. */
const char* qxg_add_colour_layer(gint32 image, gint32 layer, const char* name, const guchar* rgb,
                                 const guchar* alpha);

#endif /* QX_GIMP_PIXELS_H */
