#include "pixels.h"

#include <string.h>

#include "layer_codes.h"

QxgExtent qxg_extent_of(gint32 drawable) {
    QxgExtent e;
    e.id = drawable;
    gimp_drawable_offsets(drawable, &e.x, &e.y);
    e.width = gimp_drawable_width(drawable);
    e.height = gimp_drawable_height(drawable);
    return e;
}

guchar* qxg_allocate(size_t bytes) { return g_try_malloc0(bytes ? bytes : 1); }

/* Reads a region (in the drawable's own coordinates) in `format`. */
static void readRegionAs(gint32 drawable, int x, int y, int width, int height,
                         const Babl* format, guchar* out, int stride) {
    GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
    gegl_buffer_get(buffer, GEGL_RECTANGLE(x, y, width, height), 1.0, format, out, stride,
                    GEGL_ABYSS_NONE);
    g_object_unref(buffer);
}

/* The same in the drawable's own format. */
static void readRegion(gint32 drawable, int x, int y, int width, int height, guchar* out,
                       int stride) {
    readRegionAs(drawable, x, y, width, height, gimp_drawable_get_format(drawable), out, stride);
}

static void writeRegion(gint32 drawable, int x, int y, int width, int height, const guchar* data,
                        int stride) {
    GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
    gegl_buffer_set(buffer, GEGL_RECTANGLE(x, y, width, height), 0,
                    gimp_drawable_get_format(drawable), data, stride);
    g_object_unref(buffer); /* flushes the tiles to GIMP */
    gimp_drawable_update(drawable, x, y, width, height);
}

/* The layout of a drawable's own 8-bit format; FALSE for one the plug-in doesn't read. */
static gboolean layoutOf(gint32 drawable, QxgPixelLayout* layout) {
    const Babl* format = gimp_drawable_get_format(drawable);
    const int components = babl_format_get_n_components(format);
    const int hasAlpha = babl_format_has_alpha(format) ? 1 : 0;
    if (babl_format_get_bytes_per_pixel(format) != components) return FALSE; /* not 8-bit */
    layout->hasAlpha = hasAlpha;
    layout->colours = components - hasAlpha;
    return layout->colours == 1 || layout->colours == 3;
}

guchar* qxg_read_colour(gint32 layer, QxwImage* image) {
    const QxgExtent e = qxg_extent_of(layer);
    const int bpp = babl_format_get_bytes_per_pixel(gimp_drawable_get_format(layer));
    guchar* pixels = qxg_allocate((size_t)e.width * e.height * bpp);
    if (!pixels) return NULL;
    readRegion(layer, 0, 0, e.width, e.height, pixels, e.width * bpp);
    image->pixels = pixels;
    image->stride = e.width * bpp;
    image->channels = bpp;
    image->width = e.width;
    image->height = e.height;
    image->order = QXW_RGB;
    return pixels;
}

/* The rectangle where two extents overlap, in image coordinates; empty when x1 <= x0 or
 * y1 <= y0. */
typedef struct {
    int x0, y0, x1, y1;
} Overlap;

static Overlap overlapOf(const QxgExtent* a, const QxgExtent* b) {
    Overlap o;
    o.x0 = MAX(a->x, b->x);
    o.y0 = MAX(a->y, b->y);
    o.x1 = MIN(a->x + a->width, b->x + b->width);
    o.y1 = MIN(a->y + a->height, b->y + b->height);
    return o;
}

/* Turns `count` source pixels into plane bytes; returns -1, or the index of a pixel it refuses. */
typedef int (*ConvertRow)(const guchar* pixels, QxgPixelLayout layout, int count, guchar* out,
                          void* data);

/* The part of `source` over `target` (both in image coordinates), converted row by row by
 * `convert` into a plane of the target's size that starts filled with `fill`. *covered says
 * whether the source covers the whole target; *badPixel is the plane index of a refused pixel
 * (reading stops there), else -1. NULL when out of memory. */
static guchar* sourcePlane(const QxgExtent* target, gint32 source, QxgPixelLayout layout,
                           guchar fill, ConvertRow convert, void* data, gboolean* covered,
                           int* badPixel) {
    const QxgExtent s = qxg_extent_of(source);
    const Overlap o = overlapOf(target, &s);
    const int bpp = layout.colours + layout.hasAlpha;
    guchar* plane = qxg_allocate((size_t)target->width * target->height);
    guchar* row;
    int y;
    *covered = o.x0 == target->x && o.y0 == target->y && o.x1 == target->x + target->width &&
               o.y1 == target->y + target->height;
    *badPixel = -1;
    if (!plane) return NULL;
    memset(plane, fill, (size_t)target->width * target->height);
    if (o.x1 <= o.x0 || o.y1 <= o.y0) return plane;
    row = qxg_allocate((size_t)(o.x1 - o.x0) * bpp);
    if (!row) {
        g_free(plane);
        return NULL;
    }
    for (y = o.y0; y < o.y1; ++y) {
        int bad;
        readRegion(source, o.x0 - s.x, y - s.y, o.x1 - o.x0, 1, row, (o.x1 - o.x0) * bpp);
        bad = convert(row, layout, o.x1 - o.x0,
                      plane + (size_t)(y - target->y) * target->width + (o.x0 - target->x), data);
        if (bad >= 0) {
            *badPixel = (y - target->y) * target->width + (o.x0 - target->x) + bad;
            break;
        }
    }
    g_free(row);
    return plane;
}

static int strokeRow(const guchar* pixels, QxgPixelLayout layout, int count, guchar* out,
                     void* data) {
    qxg_strokes_from_pixels(pixels, layout, count, out);
    return -1;
}

static int trimapRow(const guchar* pixels, QxgPixelLayout layout, int count, guchar* out,
                     void* data) {
    return qxg_trimap_from_pixels(pixels, layout, count, *(const guchar*)data, out);
}

QxgRead qxg_read_strokes(const QxgExtent* layer, gint32 source, guchar** plane) {
    QxgPixelLayout layout;
    gboolean covered;
    int bad;
    *plane = NULL;
    if (!layoutOf(source, &layout)) return QXG_READ_FORMAT;
    *plane = sourcePlane(layer, source, layout, QXG_UNPAINTED, strokeRow, NULL, &covered, &bad);
    return *plane ? QXG_READ_OK : QXG_READ_NO_MEMORY;
}

QxgRead qxg_read_trimap(const QxgExtent* layer, gint32 source, guchar undecided, guchar** plane,
                        int* badPixel) {
    QxgPixelLayout layout;
    gboolean covered;
    QxgRead read = QXG_READ_OK;
    *plane = NULL;
    *badPixel = -1;
    if (!layoutOf(source, &layout)) return QXG_READ_FORMAT;
    *plane = sourcePlane(layer, source, layout, undecided, trimapRow, &undecided, &covered,
                         badPixel);
    if (!*plane) return QXG_READ_NO_MEMORY;
    if (!covered) read = QXG_READ_UNCOVERED;
    else if (*badPixel >= 0) read = QXG_READ_COLOUR;
    if (read != QXG_READ_OK) {
        g_free(*plane);
        *plane = NULL;
    }
    return read;
}

guchar* qxg_channel_plane(const QxgExtent* layer, gint32 channel) {
    const QxgExtent s = qxg_extent_of(channel);
    const Overlap o = overlapOf(layer, &s);
    guchar* plane = qxg_allocate((size_t)layer->width * layer->height);
    if (!plane || o.x1 <= o.x0 || o.y1 <= o.y0) return plane;
    readRegionAs(channel, o.x0 - s.x, o.y0 - s.y, o.x1 - o.x0, o.y1 - o.y0, babl_format("Y' u8"),
                 plane + (size_t)(o.y0 - layer->y) * layer->width + (o.x0 - layer->x),
                 layer->width);
    return plane;
}

void qxg_alpha_to_mask(gint32 layer, const guchar* alpha) {
    const QxgExtent e = qxg_extent_of(layer);
    gint32 mask = gimp_layer_get_mask(layer);
    if (mask == -1) {
        mask = gimp_layer_create_mask(layer, GIMP_ADD_MASK_WHITE);
        gimp_layer_add_mask(layer, mask);
    }
    writeRegion(mask, 0, 0, e.width, e.height, alpha, e.width);
}

const char* qxg_alpha_to_selection(gint32 image, gint32 layer, const guchar* alpha) {
    const QxgExtent e = qxg_extent_of(layer);
    const QxgExtent canvas = {image, 0, 0, gimp_image_width(image), gimp_image_height(image)};
    const Overlap o = overlapOf(&e, &canvas);
    guchar* plane = qxg_allocate((size_t)canvas.width * canvas.height);
    GimpRGB colour;
    gint32 channel;
    int y;
    if (!plane) return "out of memory";
    for (y = o.y0; o.x1 > o.x0 && y < o.y1; ++y)
        memcpy(plane + (size_t)y * canvas.width + o.x0,
               alpha + (size_t)(y - e.y) * e.width + (o.x0 - e.x), (size_t)(o.x1 - o.x0));
    gimp_rgb_set(&colour, 0.0, 0.0, 0.0);
    channel = gimp_channel_new(image, "Subject", canvas.width, canvas.height, 50.0, &colour);
    gimp_image_insert_channel(image, channel, 0, 0);
    gimp_item_set_visible(channel, FALSE);
    writeRegion(channel, 0, 0, canvas.width, canvas.height, plane, canvas.width);
    g_free(plane);
    gimp_image_select_item(image, GIMP_CHANNEL_OP_REPLACE, channel);
    return NULL;
}

const char* qxg_add_colour_layer(gint32 image, gint32 layer, const char* name, const guchar* rgb,
                                 const guchar* alpha) {
    const QxgExtent e = qxg_extent_of(layer);
    const size_t count = (size_t)e.width * e.height;
    gint32 created =
        gimp_layer_new(image, name, e.width, e.height, GIMP_RGBA_IMAGE, 100.0,
                       GIMP_LAYER_MODE_NORMAL);
    guchar* rgba;
    size_t i;
    if (created == -1) return "GIMP made no new layer";
    if (babl_format_get_bytes_per_pixel(gimp_drawable_get_format(created)) != 4) {
        gimp_item_delete(created);
        return "the new layer is not 8-bit RGBA";
    }
    rgba = qxg_allocate(count * 4);
    if (!rgba) {
        gimp_item_delete(created);
        return "out of memory";
    }
    for (i = 0; i < count; ++i) {
        memcpy(rgba + 4 * i, rgb + 3 * i, 3);
        rgba[4 * i + 3] = alpha[i];
    }
    gimp_image_insert_layer(image, created, gimp_item_get_parent(layer),
                            gimp_image_get_item_position(image, layer));
    gimp_layer_set_offsets(created, e.x, e.y);
    writeRegion(created, 0, 0, e.width, e.height, rgba, e.width * 4);
    g_free(rgba);
    return NULL;
}
