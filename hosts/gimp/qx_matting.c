/*
 * qx-matting: matting procedures for GIMP 2.10 on the qxiveilon31 library.
 *
 *   Filters > Matting > Matte from Tri-map...   plug-in-qx-matte-trimap
 *   Filters > Matting > Matte from Strokes...   plug-in-qx-matte-strokes
 *   Filters > Matting > Select Subject...       plug-in-qx-select-subject
 *
 * Each works on the active layer of an 8-bit RGB image. Pixels are read and written in the
 * layer's own format (no conversion), so that the workflows see exactly the bytes that GIMP
 * stores and a PNG export of the layer holds. The matting is the library's host workflows
 * (qxworkflow.h), the same calls the command-line tool and the Python package make.
 */
#include <libgimp/gimp.h>
#include <libgimp/gimpui.h>
#include <stdarg.h>
#include <string.h>

#include "layer_codes.h"
#include "qxworkflow.h"

#define PLUG_IN_BINARY "qx-matting"
#define PLUG_IN_ROLE "qx-matting"
#define PROC_TRIMAP "plug-in-qx-matte-trimap"
#define PROC_STROKES "plug-in-qx-matte-strokes"
#define PROC_SUBJECT "plug-in-qx-select-subject"
#define PROC_REFINE "plug-in-qx-refine-edge"
#define MENU_PATH "<Image>/Filters/Matting"

enum { OUTPUT_SELECTION = 0, OUTPUT_MASK = 1, OUTPUT_LAYER = 2 };

typedef struct {
    gint32 trimap;
    gint32 fgCode;
    gint32 bgCode;
} TrimapValues;

typedef struct {
    gint32 strokes;
    gint32 pyramid;
} StrokeValues;

typedef struct {
    gint32 band;
    gint32 strokes; /* -1: none */
    gint32 output;
} SubjectValues;

enum { SOURCE_MASK = 0, SOURCE_SELECTION = 1 };

typedef struct {
    gint32 source; /* SOURCE_MASK or SOURCE_SELECTION */
    gint32 output; /* OUTPUT_MASK or OUTPUT_LAYER */
} RefineValues;

static void query(void);
static void run(const gchar* name, gint nparams, const GimpParam* param, gint* nreturn_vals,
                GimpParam** return_vals);

const GimpPlugInInfo PLUG_IN_INFO = {NULL, NULL, query, run};

MAIN()

/* ---- Registration ------------------------------------------------------------------------ */

/* The arguments every procedure starts with. */
#define RUN_MODE_AND_IMAGE                                                                      \
    {GIMP_PDB_INT32, "run-mode", "The run mode { RUN-INTERACTIVE (0), RUN-NONINTERACTIVE (1) }"}, \
    {GIMP_PDB_IMAGE, "image", "Input image"}

/* One procedure of the plug-in, in the Matting menu, for RGB images. */
static void install(const char* name, const char* blurb, const char* help, const char* label,
                    const GimpParamDef* args, int count) {
    gimp_install_procedure(name, blurb, help, "qxiveilon31 developers", "qxiveilon31 developers",
                           "2026", label, "RGB*", GIMP_PLUGIN, count, 0, args, NULL);
    gimp_plugin_menu_register(name, MENU_PATH);
}

static void query(void) {
    static const GimpParamDef trimapArgs[] = {
        RUN_MODE_AND_IMAGE,
        {GIMP_PDB_DRAWABLE, "drawable", "The layer to matte (its mask receives the alpha)"},
        {GIMP_PDB_DRAWABLE, "trimap",
         "Layer or channel holding the tri-map; it must cover the layer. Values <= bg-code are "
         "background, >= fg-code foreground, others undecided; pixels of a layer that are less "
         "than half opaque are undecided"},
        {GIMP_PDB_INT32, "fg-code", "Foreground code (1..255, default 255)"},
        {GIMP_PDB_INT32, "bg-code", "Background code (0..254, below fg-code, default 0)"},
    };
    static const GimpParamDef strokeArgs[] = {
        RUN_MODE_AND_IMAGE,
        {GIMP_PDB_DRAWABLE, "drawable", "The layer to matte"},
        {GIMP_PDB_DRAWABLE, "strokes",
         "Layer with the strokes: white (255 in every colour byte) keeps, black (0) cuts, at "
         "least half opaque; every other pixel, and any part of the layer it doesn't cover, is "
         "unpainted"},
        {GIMP_PDB_INT32, "pyramid",
         "0: the stroke engine; 1: the tiled engine at half size, doubled back"},
    };
    static const GimpParamDef subjectArgs[] = {
        RUN_MODE_AND_IMAGE,
        {GIMP_PDB_DRAWABLE, "drawable", "The layer to cut the subject from"},
        {GIMP_PDB_INT32, "band",
         "Width of the undecided band along the subject's edge in pixels (0: 1% of the layer's "
         "longer side, at least 10)"},
        {GIMP_PDB_INT32, "strokes", "ID of a stroke layer (as for plug-in-qx-matte-strokes), -1 none"},
        {GIMP_PDB_INT32, "output",
         "Where the alpha goes: 0 the selection (also kept as a channel \"Subject\"), 1 the "
         "layer's mask, 2 a new layer with the subject's recovered colours"},
    };
    static const GimpParamDef refineArgs[] = {
        RUN_MODE_AND_IMAGE,
        {GIMP_PDB_DRAWABLE, "drawable", "The layer whose edge is refined"},
        {GIMP_PDB_INT32, "source",
         "The coarse mask: 0 the layer's mask, 1 the selection (any source: a segmentation, a "
         "rough brush, another tool's selection)"},
        {GIMP_PDB_INT32, "output",
         "Where the alpha goes: 1 the layer's mask, 2 a new layer with the subject's recovered "
         "colours"},
    };
    install(PROC_REFINE, "Refine the edge of a coarse mask or selection",
            "Turns a coarse mask or selection into a clean alpha: an undecided band made from "
            "the mask and the image (wide where the image has little contrast, reaching hair "
            "and holes the mask closed over), solved by closed-form matting, with the subject's "
            "own colours recovered.",
            "_Refine Edge...", refineArgs, G_N_ELEMENTS(refineArgs));
    install(PROC_TRIMAP, "Alpha matte of the layer from a tri-map",
            "Solves the soft alpha of the undecided pixels of a tri-map (closed-form matting) and "
            "puts it into the layer's mask, adding a mask when the layer has none.",
            "Matte from _Tri-map...", trimapArgs, G_N_ELEMENTS(trimapArgs));
    install(PROC_STROKES, "Alpha matte and true colours of the layer from keep and cut strokes",
            "Solves alpha from white keep and black cut strokes painted on another layer, "
            "recovers the subject's own colours at its soft edges and adds the result as a new "
            "layer above the active one.",
            "Matte from _Strokes...", strokeArgs, G_N_ELEMENTS(strokeArgs));
    install(PROC_SUBJECT, "Select the subject inside the current selection's bounds",
            "GrabCut inside the bounding box of the current selection, an undecided band along "
            "the subject's edge, closed-form alpha on the band. The alpha becomes the selection, "
            "the layer's mask or a new layer with the recovered colours.",
            "Select Su_bject...", subjectArgs, G_N_ELEMENTS(subjectArgs));
}

/* ---- Errors and progress ----------------------------------------------------------------- */

/* The reason of a failure: shown by gimp_message and handed back as the procedure's error
 * string (Script-Fu prints it). */
static gchar* failureText = NULL;

static GimpPDBStatusType failWith(GimpPDBStatusType status, const char* format, ...)
    G_GNUC_PRINTF(2, 3);

static GimpPDBStatusType failWith(GimpPDBStatusType status, const char* format, ...) {
    va_list args;
    va_start(args, format);
    g_free(failureText);
    failureText = g_strdup_vprintf(format, args);
    va_end(args);
    gimp_message(failureText);
    return status;
}

#define FAIL(...) failWith(GIMP_PDB_EXECUTION_ERROR, __VA_ARGS__)

/* GIMP's progress bar over a procedure of `stages` workflow calls, each a share of one run. */
typedef struct {
    double shown;
    int stage, stages;
} ProgressState;

static void showProgress(double fraction, void* data) {
    ProgressState* state = data;
    const double overall = (state->stage + fraction) / state->stages;
    /* Every call is a message to GIMP: pass on changes of a percent or more. */
    if (overall - state->shown >= 0.01) {
        state->shown = overall;
        gimp_progress_update(overall);
    }
}

static void startJob(QxwJob* job, ProgressState* state, int stages, const char* text) {
    memset(job, 0, sizeof *job);
    state->shown = 0.0;
    state->stage = 0;
    state->stages = stages;
    job->progress = showProgress;
    job->progressData = state;
    gimp_progress_init(text);
}

static GimpPDBStatusType workflowFailure(QxwStatus status, const QxwJob* job,
                                         const char* procedure) {
    return FAIL("%s: %s%s", procedure, job->message,
                status == QXW_FAILED ? " (the matting job failed)" : "");
}

/* ---- Pixels ------------------------------------------------------------------------------ */

typedef struct {
    gint32 id;
    int x, y; /* offsets in the image */
    int width, height;
} Extent;

static Extent extentOf(gint32 drawable) {
    Extent e;
    e.id = drawable;
    gimp_drawable_offsets(drawable, &e.x, &e.y);
    e.width = gimp_drawable_width(drawable);
    e.height = gimp_drawable_height(drawable);
    return e;
}

static guchar* allocate(size_t bytes) { return g_try_malloc0(bytes ? bytes : 1); }

/* Reads a region (in the drawable's own coordinates) in the drawable's own format. */
static void readRegionAs(gint32 drawable, int x, int y, int width, int height,
                         const Babl* format, guchar* out, int stride) {
    GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
    gegl_buffer_get(buffer, GEGL_RECTANGLE(x, y, width, height), 1.0, format, out, stride,
                    GEGL_ABYSS_NONE);
    g_object_unref(buffer);
}

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

/* The checks every procedure makes of its image and layer. */
static GimpPDBStatusType checkLayer(gint32 image, gint32 drawable, const char* procedure) {
    const GimpPrecision precision = gimp_image_get_precision(image);
    if (!gimp_item_is_layer(drawable) || gimp_item_is_group(drawable))
        return FAIL("%s works on a layer: select a layer (not a mask, channel or group)",
                    procedure);
    if (!gimp_drawable_is_rgb(drawable))
        return FAIL("%s needs an RGB image: use Image > Mode > RGB", procedure);
    if (precision != GIMP_PRECISION_U8_GAMMA && precision != GIMP_PRECISION_U8_LINEAR)
        return FAIL("%s needs an 8-bit image: use Image > Precision > 8 bit integer", procedure);
    return GIMP_PDB_SUCCESS;
}

/* A second drawable given by the caller: live, of this image, not the layer itself. */
static GimpPDBStatusType checkSource(gint32 image, gint32 drawable, gint32 source,
                                     const char* what, const char* procedure) {
    if (!gimp_item_is_valid(source) || !gimp_item_is_drawable(source) ||
        gimp_item_get_image(source) != image)
        return FAIL("%s: the %s is not a layer or channel of this image", procedure, what);
    if (source == drawable)
        return FAIL("%s: the %s must be another layer than the one to matte", procedure, what);
    return GIMP_PDB_SUCCESS;
}

/* The layer's colour pixels, in its own format (R, G, B and, with 4 bytes, alpha). */
static guchar* readColour(gint32 drawable, QxwImage* image) {
    const Extent e = extentOf(drawable);
    const int bpp = babl_format_get_bytes_per_pixel(gimp_drawable_get_format(drawable));
    guchar* pixels = allocate((size_t)e.width * e.height * bpp);
    if (!pixels) return NULL;
    readRegion(drawable, 0, 0, e.width, e.height, pixels, e.width * bpp);
    image->pixels = pixels;
    image->stride = e.width * bpp;
    image->channels = bpp;
    image->width = e.width;
    image->height = e.height;
    image->order = QXW_RGB;
    return pixels;
}

/* What a procedure's job reads and writes: the layer's colour, the alpha and, when asked, the
 * subject's colours (RGB). */
typedef struct {
    guchar *pixels, *alpha, *rgb;
} JobPlanes;

/* Reads the layer into `colour` and allocates the outputs. FALSE when out of memory; the planes
 * are freed with freePlanes() either way. */
static gboolean readPlanes(gint32 layer, QxwImage* colour, gboolean withRgb, JobPlanes* p) {
    const Extent e = extentOf(layer);
    p->pixels = readColour(layer, colour);
    p->alpha = allocate((size_t)e.width * e.height);
    p->rgb = withRgb ? allocate((size_t)e.width * e.height * 3) : NULL;
    return p->pixels && p->alpha && (!withRgb || p->rgb);
}

static void freePlanes(JobPlanes* p) {
    g_free(p->pixels);
    g_free(p->alpha);
    g_free(p->rgb);
}

/* The part of `source` over the layer `target` (both in image coordinates), converted row by row
 * by `convert` into a plane of the layer's size that starts filled with `fill`. *covered says
 * whether the source covers the whole layer. NULL when out of memory. */
typedef int (*ConvertRow)(const guchar* pixels, QxgPixelLayout layout, int count, guchar* out,
                          void* data);

static guchar* sourcePlane(const Extent* target, gint32 source, QxgPixelLayout layout,
                           guchar fill, ConvertRow convert, void* data, gboolean* covered,
                           int* badPixel) {
    const Extent s = extentOf(source);
    const int x0 = MAX(target->x, s.x), y0 = MAX(target->y, s.y);
    const int x1 = MIN(target->x + target->width, s.x + s.width);
    const int y1 = MIN(target->y + target->height, s.y + s.height);
    const int bpp = layout.colours + layout.hasAlpha;
    guchar* plane = allocate((size_t)target->width * target->height);
    guchar* row;
    int y;
    *covered = x0 == target->x && y0 == target->y && x1 == target->x + target->width &&
               y1 == target->y + target->height;
    *badPixel = -1;
    if (!plane) return NULL;
    memset(plane, fill, (size_t)target->width * target->height);
    if (x1 <= x0 || y1 <= y0) return plane;
    row = allocate((size_t)(x1 - x0) * bpp);
    if (!row) {
        g_free(plane);
        return NULL;
    }
    for (y = y0; y < y1; ++y) {
        int bad;
        readRegion(source, x0 - s.x, y - s.y, x1 - x0, 1, row, (x1 - x0) * bpp);
        bad = convert(row, layout, x1 - x0,
                      plane + (size_t)(y - target->y) * target->width + (x0 - target->x), data);
        if (bad >= 0) {
            *badPixel = (y - target->y) * target->width + (x0 - target->x) + bad;
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

/* Strokes from a layer, as a stroke image over the target layer (unpainted where the stroke
 * layer doesn't reach). */
static GimpPDBStatusType readStrokes(const Extent* target, gint32 source, const char* procedure,
                                     guchar** out) {
    QxgPixelLayout layout;
    gboolean covered;
    int bad;
    if (!layoutOf(source, &layout))
        return FAIL("%s: the stroke layer's pixel format can't be read", procedure);
    *out = sourcePlane(target, source, layout, QXG_UNPAINTED, strokeRow, NULL, &covered, &bad);
    return *out ? GIMP_PDB_SUCCESS : FAIL("%s: out of memory", procedure);
}

/* The alpha into the layer's mask: the mask there is, or a new one. */
static void alphaToMask(gint32 layer, const guchar* alpha) {
    const Extent e = extentOf(layer);
    gint32 mask = gimp_layer_get_mask(layer);
    if (mask == -1) {
        mask = gimp_layer_create_mask(layer, GIMP_ADD_MASK_WHITE);
        gimp_layer_add_mask(layer, mask);
    }
    writeRegion(mask, 0, 0, e.width, e.height, alpha, e.width);
}

/* A new layer above `layer` at its place, with colours (R, G, B) and alpha. */
static GimpPDBStatusType addColourLayer(gint32 image, gint32 layer, const char* name,
                                        const guchar* rgb, const guchar* alpha,
                                        const char* procedure) {
    const Extent e = extentOf(layer);
    const size_t count = (size_t)e.width * e.height;
    gint32 created =
        gimp_layer_new(image, name, e.width, e.height, GIMP_RGBA_IMAGE, 100.0,
                       GIMP_LAYER_MODE_NORMAL);
    guchar* rgba;
    size_t i;
    if (created == -1) return FAIL("%s: GIMP made no new layer", procedure);
    if (babl_format_get_bytes_per_pixel(gimp_drawable_get_format(created)) != 4) {
        gimp_item_delete(created);
        return FAIL("%s: the new layer is not 8-bit RGBA", procedure);
    }
    rgba = allocate(count * 4);
    if (!rgba) {
        gimp_item_delete(created);
        return FAIL("%s: out of memory", procedure);
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
    return GIMP_PDB_SUCCESS;
}

/* The alpha of the layer as the selection, through a channel "Subject" kept in the image
 * (hidden; the part of the layer outside the canvas is left out, the canvas off the layer is 0).
 * FALSE when out of memory (nothing changed). */
static gboolean alphaToSelection(gint32 image, gint32 layer, const guchar* alpha) {
    const Extent e = extentOf(layer);
    const int width = gimp_image_width(image), height = gimp_image_height(image);
    const int x0 = MAX(0, e.x), y0 = MAX(0, e.y);
    const int x1 = MIN(width, e.x + e.width), y1 = MIN(height, e.y + e.height);
    guchar* plane = allocate((size_t)width * height);
    GimpRGB colour;
    gint32 channel;
    int y;
    if (!plane) return FALSE;
    for (y = y0; x1 > x0 && y < y1; ++y)
        memcpy(plane + (size_t)y * width + x0, alpha + (size_t)(y - e.y) * e.width + (x0 - e.x),
               (size_t)(x1 - x0));
    gimp_rgb_set(&colour, 0.0, 0.0, 0.0);
    channel = gimp_channel_new(image, "Subject", width, height, 50.0, &colour);
    gimp_image_insert_channel(image, channel, 0, 0);
    gimp_item_set_visible(channel, FALSE);
    writeRegion(channel, 0, 0, width, height, plane, width);
    g_free(plane);
    gimp_image_select_item(image, GIMP_CHANNEL_OP_REPLACE, channel);
    return TRUE;
}

/* ---- Dialogs (interactive runs) ---------------------------------------------------------- */

typedef struct {
    gint32 image;
    gint32 layer;
    gboolean layersOnly;
} SourceFilter;

static gboolean otherDrawableOfImage(gint32 image, gint32 drawable, gpointer data) {
    const SourceFilter* f = data;
    return image == f->image && drawable != f->layer &&
           (!f->layersOnly || gimp_item_is_layer(drawable));
}

static GtkWidget* newDialog(const char* title, const char* procedure, GtkWidget** table,
                            int rows) {
    GtkWidget* dialog;
    gimp_ui_init(PLUG_IN_BINARY, FALSE);
    dialog = gimp_dialog_new(title, PLUG_IN_ROLE, NULL, 0, gimp_standard_help_func, procedure,
                             "_Cancel", GTK_RESPONSE_CANCEL, "_OK", GTK_RESPONSE_OK, NULL);
    *table = gtk_table_new(rows, 2, FALSE);
    gtk_table_set_row_spacings(GTK_TABLE(*table), 6);
    gtk_table_set_col_spacings(GTK_TABLE(*table), 6);
    gtk_container_set_border_width(GTK_CONTAINER(*table), 12);
    gtk_box_pack_start(GTK_BOX(gtk_dialog_get_content_area(GTK_DIALOG(dialog))), *table, TRUE,
                       TRUE, 0);
    return dialog;
}

static GtkWidget* sourceCombo(GtkWidget* table, int row, const char* label, SourceFilter* filter,
                              gint32 current) {
    GtkWidget* combo = filter->layersOnly
                           ? gimp_layer_combo_box_new(otherDrawableOfImage, filter)
                           : gimp_drawable_combo_box_new(otherDrawableOfImage, filter);
    if (current != -1) gimp_int_combo_box_set_active(GIMP_INT_COMBO_BOX(combo), current);
    gimp_table_attach_aligned(GTK_TABLE(table), 0, row, label, 0.0, 0.5, combo, 1, FALSE);
    return combo;
}

static GtkWidget* numberField(GtkWidget* table, int row, const char* label, int low, int high,
                              int value) {
    GtkWidget* spin = gtk_spin_button_new_with_range(low, high, 1);
    gtk_spin_button_set_value(GTK_SPIN_BUTTON(spin), value);
    gimp_table_attach_aligned(GTK_TABLE(table), 0, row, label, 0.0, 0.5, spin, 1, TRUE);
    return spin;
}

static gboolean runDialog(GtkWidget* dialog) {
    gtk_widget_show_all(dialog);
    return gimp_dialog_run(GIMP_DIALOG(dialog)) == GTK_RESPONSE_OK;
}

static gboolean trimapDialog(gint32 image, gint32 layer, TrimapValues* v) {
    GtkWidget *table, *dialog = newDialog("Matte from Tri-map", PROC_TRIMAP, &table, 3);
    SourceFilter filter = {image, layer, FALSE};
    GtkWidget* combo = sourceCombo(table, 0, "_Tri-map (layer or channel):", &filter, v->trimap);
    GtkWidget* fg = numberField(table, 1, "_Foreground code:", 1, 255, v->fgCode);
    GtkWidget* bg = numberField(table, 2, "_Background code:", 0, 254, v->bgCode);
    const gboolean ok = runDialog(dialog);
    if (ok) {
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(combo), &v->trimap);
        v->fgCode = gtk_spin_button_get_value_as_int(GTK_SPIN_BUTTON(fg));
        v->bgCode = gtk_spin_button_get_value_as_int(GTK_SPIN_BUTTON(bg));
    }
    gtk_widget_destroy(dialog);
    return ok;
}

static gboolean strokeDialog(gint32 image, gint32 layer, StrokeValues* v) {
    GtkWidget *table, *dialog = newDialog("Matte from Strokes", PROC_STROKES, &table, 2);
    SourceFilter filter = {image, layer, TRUE};
    GtkWidget* combo = sourceCombo(table, 0, "_Stroke layer:", &filter, v->strokes);
    GtkWidget* pyramid =
        gtk_check_button_new_with_mnemonic("_Half size (the tiled engine, doubled back)");
    gboolean ok;
    gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(pyramid), v->pyramid != 0);
    gtk_table_attach_defaults(GTK_TABLE(table), pyramid, 0, 2, 1, 2);
    ok = runDialog(dialog);
    if (ok) {
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(combo), &v->strokes);
        v->pyramid = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(pyramid)) ? 1 : 0;
    }
    gtk_widget_destroy(dialog);
    return ok;
}

static gboolean subjectDialog(gint32 image, gint32 layer, SubjectValues* v) {
    GtkWidget *table, *dialog = newDialog("Select Subject", PROC_SUBJECT, &table, 2);
    GtkWidget* band = numberField(table, 0, "Edge _band (0: automatic):", 0, 32767, v->band);
    GtkWidget* output = gimp_int_combo_box_new("Selection", OUTPUT_SELECTION, "Layer mask",
                                               OUTPUT_MASK, "New layer with true colours",
                                               OUTPUT_LAYER, NULL);
    gboolean ok;
    gimp_int_combo_box_set_active(GIMP_INT_COMBO_BOX(output), v->output);
    gimp_table_attach_aligned(GTK_TABLE(table), 0, 1, "_Result:", 0.0, 0.5, output, 1, FALSE);
    ok = runDialog(dialog);
    if (ok) {
        v->band = gtk_spin_button_get_value_as_int(GTK_SPIN_BUTTON(band));
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(output), &v->output);
        v->strokes = -1; /* strokes: through the procedure's argument */
    }
    gtk_widget_destroy(dialog);
    return ok;
}

/* ---- The procedures ---------------------------------------------------------------------- */

static GimpPDBStatusType matteFromTrimap(gint32 image, gint32 layer, const TrimapValues* v) {
    const char* const name = "Matte from Tri-map";
    const Extent e = extentOf(layer);
    QxgPixelLayout layout;
    QxwImage colour;
    QxwJob job;
    ProgressState progress;
    GimpPDBStatusType status;
    guchar* trimap = NULL;
    JobPlanes planes = {NULL, NULL, NULL};
    guchar undecided;
    gboolean covered;
    int bad;
    QxwStatus result;

    if (v->bgCode < 0 || v->fgCode > 255 || v->bgCode >= v->fgCode)
        return failWith(GIMP_PDB_CALLING_ERROR,
                        "%s: the background code (%d) must be below the foreground code (%d), "
                        "both in 0..255",
                        name, v->bgCode, v->fgCode);
    if ((status = checkSource(image, layer, v->trimap, "tri-map", name)) != GIMP_PDB_SUCCESS)
        return status;
    if (!layoutOf(v->trimap, &layout)) return FAIL("%s: the tri-map's format can't be read", name);
    undecided = (guchar)((v->fgCode + v->bgCode) / 2);
    trimap = sourcePlane(&e, v->trimap, layout, undecided, trimapRow, &undecided, &covered, &bad);
    if (!trimap) return FAIL("%s: out of memory", name);
    if (!covered) {
        g_free(trimap);
        return FAIL("%s: the tri-map \"%s\" doesn't cover the layer \"%s\"", name,
                    gimp_item_get_name(v->trimap), gimp_item_get_name(layer));
    }
    if (bad >= 0) {
        g_free(trimap);
        return FAIL("%s: the tri-map \"%s\" has colour at (%d, %d) of the layer; paint it in "
                    "black, white and grey only",
                    name, gimp_item_get_name(v->trimap), bad % e.width, bad / e.width);
    }
    if (!readPlanes(layer, &colour, FALSE, &planes)) {
        status = FAIL("%s: out of memory", name);
    } else {
        startJob(&job, &progress, 1, "Matting from the tri-map");
        result = qxwMatteTrimap(&colour, trimap, e.width, v->fgCode, v->bgCode, 255, 0,
                                planes.alpha, e.width, &job);
        if (result != QXW_OK) {
            status = workflowFailure(result, &job, name);
        } else {
            gimp_image_undo_group_start(image);
            alphaToMask(layer, planes.alpha);
            gimp_image_undo_group_end(image);
            status = GIMP_PDB_SUCCESS;
        }
    }
    freePlanes(&planes);
    g_free(trimap);
    return status;
}

static GimpPDBStatusType matteFromStrokes(gint32 image, gint32 layer, const StrokeValues* v) {
    const char* const name = "Matte from Strokes";
    const Extent e = extentOf(layer);
    QxwImage colour;
    QxwJob job;
    ProgressState progress;
    GimpPDBStatusType status;
    guchar* strokes = NULL;
    JobPlanes planes = {NULL, NULL, NULL};
    QxwStatus result;

    if ((status = checkSource(image, layer, v->strokes, "stroke layer", name)) != GIMP_PDB_SUCCESS)
        return status;
    if (!gimp_item_is_layer(v->strokes))
        return FAIL("%s: the strokes must be painted on a layer", name);
    if ((status = readStrokes(&e, v->strokes, name, &strokes)) != GIMP_PDB_SUCCESS) return status;
    if (!readPlanes(layer, &colour, TRUE, &planes)) {
        status = FAIL("%s: out of memory", name);
    } else {
        const QxwColourOut out = {planes.rgb, e.width * 3};
        startJob(&job, &progress, 2, "Matting from the strokes");
        result = qxwMatteStrokes(&colour, strokes, e.width,
                                 v->pyramid ? QXW_ENGINE_PYRAMID : QXW_ENGINE_STROKES,
                                 planes.alpha, e.width, &job);
        if (result == QXW_OK) {
            progress.stage = 1;
            result = qxwRecoverForeground(&colour, planes.alpha, e.width, QXW_FG_FULL, &out,
                                          &job);
        }
        if (result != QXW_OK) {
            status = workflowFailure(result, &job, name);
        } else {
            gchar* title = g_strdup_printf("%s matte", gimp_item_get_name(layer));
            gimp_image_undo_group_start(image);
            status = addColourLayer(image, layer, title, planes.rgb, planes.alpha, name);
            gimp_image_undo_group_end(image);
            g_free(title);
        }
    }
    freePlanes(&planes);
    g_free(strokes);
    return status;
}

static GimpPDBStatusType selectSubject(gint32 image, gint32 layer, const SubjectValues* v) {
    const char* const name = "Select Subject";
    const Extent e = extentOf(layer);
    QxwImage colour;
    QxwJob job;
    ProgressState progress;
    GimpPDBStatusType status;
    guchar* strokes = NULL;
    JobPlanes planes = {NULL, NULL, NULL};
    gboolean nonEmpty = FALSE;
    int x1, y1, x2, y2;
    QxwStatus result;

    if (v->output < OUTPUT_SELECTION || v->output > OUTPUT_LAYER)
        return failWith(GIMP_PDB_CALLING_ERROR, "%s: output is 0 (selection), 1 (mask) or 2 "
                        "(new layer), not %d", name, v->output);
    if (v->band < 0 || v->band > 32767)
        return failWith(GIMP_PDB_CALLING_ERROR, "%s: the band is 0 (automatic) to 32767 pixels, "
                        "not %d", name, v->band);
    gimp_selection_bounds(image, &nonEmpty, &x1, &y1, &x2, &y2);
    /* In the layer's coordinates, clipped to it. */
    x1 = MAX(x1 - e.x, 0);
    y1 = MAX(y1 - e.y, 0);
    x2 = MIN(x2 - e.x, e.width);
    y2 = MIN(y2 - e.y, e.height);
    if (!nonEmpty || x2 <= x1 || y2 <= y1)
        return FAIL("%s: draw a rectangle selection around the subject on the layer first", name);
    if (v->strokes != -1) {
        if ((status = checkSource(image, layer, v->strokes, "stroke layer", name)) !=
            GIMP_PDB_SUCCESS)
            return status;
        if ((status = readStrokes(&e, v->strokes, name, &strokes)) != GIMP_PDB_SUCCESS)
            return status;
    }
    if (!readPlanes(layer, &colour, v->output == OUTPUT_LAYER, &planes)) {
        status = FAIL("%s: out of memory", name);
    } else {
        const QxwColourOut out = {planes.rgb, e.width * 3};
        startJob(&job, &progress, 1, "Selecting the subject");
        result = qxwCutoutFromRect(&colour, strokes, e.width, x1, y1, x2 - x1, y2 - y1, v->band,
                                   planes.alpha, e.width, planes.rgb ? &out : NULL, &job);
        if (result != QXW_OK) {
            status = workflowFailure(result, &job, name);
        } else {
            status = GIMP_PDB_SUCCESS;
            gimp_image_undo_group_start(image);
            if (v->output == OUTPUT_SELECTION) {
                if (!alphaToSelection(image, layer, planes.alpha))
                    status = FAIL("%s: out of memory", name);
            }
            else if (v->output == OUTPUT_MASK) alphaToMask(layer, planes.alpha);
            else status = addColourLayer(image, layer, "Subject", planes.rgb, planes.alpha, name);
            gimp_image_undo_group_end(image);
        }
    }
    freePlanes(&planes);
    g_free(strokes);
    return status;
}

/* A channel (a layer mask, the selection) over the layer, as the grey levels the user sees
 * (perceptual, as a PNG export has them); 0 where it doesn't reach. NULL when out of memory. */
static guchar* channelPlane(const Extent* target, gint32 channel) {
    const Extent s = extentOf(channel);
    const int x0 = MAX(target->x, s.x), y0 = MAX(target->y, s.y);
    const int x1 = MIN(target->x + target->width, s.x + s.width);
    const int y1 = MIN(target->y + target->height, s.y + s.height);
    guchar* plane = allocate((size_t)target->width * target->height);
    if (!plane || x1 <= x0 || y1 <= y0) return plane;
    readRegionAs(channel, x0 - s.x, y0 - s.y, x1 - x0, y1 - y0, babl_format("Y' u8"),
                 plane + (size_t)(y0 - target->y) * target->width + (x0 - target->x),
                 target->width);
    return plane;
}

static GimpPDBStatusType refineEdge(gint32 image, gint32 layer, const RefineValues* v) {
    const char* const name = "Refine Edge";
    const Extent e = extentOf(layer);
    QxwImage colour;
    QxwJob job;
    ProgressState progress;
    GimpPDBStatusType status;
    guchar* mask = NULL;
    JobPlanes planes = {NULL, NULL, NULL};
    gint32 channel;
    QxwStatus result;

    if (v->source != SOURCE_MASK && v->source != SOURCE_SELECTION)
        return failWith(GIMP_PDB_CALLING_ERROR, "%s: source is 0 (the layer's mask) or 1 (the "
                        "selection), not %d", name, v->source);
    if (v->output != OUTPUT_MASK && v->output != OUTPUT_LAYER)
        return failWith(GIMP_PDB_CALLING_ERROR, "%s: output is 1 (mask) or 2 (new layer), not "
                        "%d", name, v->output);
    if (v->source == SOURCE_MASK) {
        channel = gimp_layer_get_mask(layer);
        if (channel == -1) return FAIL("%s: the layer \"%s\" has no mask", name,
                                       gimp_item_get_name(layer));
    } else {
        if (gimp_selection_is_empty(image)) return FAIL("%s: there is no selection", name);
        channel = gimp_image_get_selection(image);
    }
    mask = channelPlane(&e, channel);
    if (!mask) return FAIL("%s: out of memory", name);
    if (!readPlanes(layer, &colour, TRUE, &planes)) {
        status = FAIL("%s: out of memory", name);
    } else {
        const QxwColourOut out = {planes.rgb, e.width * 3};
        startJob(&job, &progress, 1, "Refining the edge");
        result = qxwRefineMask(&colour, mask, e.width, planes.alpha, e.width, &out, &job);
        if (result != QXW_OK) {
            status = workflowFailure(result, &job, name);
        } else {
            gimp_image_undo_group_start(image);
            if (v->output == OUTPUT_MASK) {
                alphaToMask(layer, planes.alpha);
                status = GIMP_PDB_SUCCESS;
            } else {
                status = addColourLayer(image, layer, "Refined", planes.rgb, planes.alpha, name);
            }
            gimp_image_undo_group_end(image);
        }
    }
    freePlanes(&planes);
    g_free(mask);
    return status;
}

static gboolean refineDialog(RefineValues* v) {
    GtkWidget *table, *dialog = newDialog("Refine Edge", PROC_REFINE, &table, 2);
    GtkWidget* source = gimp_int_combo_box_new("The layer's mask", SOURCE_MASK, "The selection",
                                               SOURCE_SELECTION, NULL);
    GtkWidget* output = gimp_int_combo_box_new("Layer mask", OUTPUT_MASK,
                                               "New layer with true colours", OUTPUT_LAYER, NULL);
    gboolean ok;
    gimp_int_combo_box_set_active(GIMP_INT_COMBO_BOX(source), v->source);
    gimp_int_combo_box_set_active(GIMP_INT_COMBO_BOX(output), v->output);
    gimp_table_attach_aligned(GTK_TABLE(table), 0, 0, "_Coarse mask:", 0.0, 0.5, source, 1, FALSE);
    gimp_table_attach_aligned(GTK_TABLE(table), 0, 1, "_Result:", 0.0, 0.5, output, 1, FALSE);
    ok = runDialog(dialog);
    if (ok) {
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(source), &v->source);
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(output), &v->output);
    }
    gtk_widget_destroy(dialog);
    return ok;
}

/* ---- Entry ------------------------------------------------------------------------------- */

/* Arguments: the interactive run asks, the last-values run takes the stored ones, the
 * non-interactive run reads them from the call. FALSE when the user cancelled. */
static gboolean takeArguments(const gchar* name, GimpRunMode mode, gint nparams,
                              const GimpParam* param, gint32 image, gint32 layer, void* values,
                              GimpPDBStatusType* status) {
    *status = GIMP_PDB_SUCCESS;
    if (mode == GIMP_RUN_NONINTERACTIVE) {
        const int expected = strcmp(name, PROC_STROKES) == 0 || strcmp(name, PROC_REFINE) == 0 ? 5 : 6;
        if (nparams != expected) {
            *status = failWith(GIMP_PDB_CALLING_ERROR, "%s: wrong number of arguments", name);
            return FALSE;
        }
        if (strcmp(name, PROC_TRIMAP) == 0) {
            TrimapValues* v = values;
            v->trimap = param[3].data.d_drawable;
            v->fgCode = param[4].data.d_int32;
            v->bgCode = param[5].data.d_int32;
        } else if (strcmp(name, PROC_STROKES) == 0) {
            StrokeValues* v = values;
            v->strokes = param[3].data.d_drawable;
            v->pyramid = param[4].data.d_int32;
        } else if (strcmp(name, PROC_REFINE) == 0) {
            RefineValues* v = values;
            v->source = param[3].data.d_int32;
            v->output = param[4].data.d_int32;
        } else {
            SubjectValues* v = values;
            v->band = param[3].data.d_int32;
            v->strokes = param[4].data.d_int32;
            v->output = param[5].data.d_int32;
        }
        return TRUE;
    }
    gimp_get_data(name, values);
    if (mode == GIMP_RUN_WITH_LAST_VALS) return TRUE;
    if (strcmp(name, PROC_TRIMAP) == 0) return trimapDialog(image, layer, values);
    if (strcmp(name, PROC_STROKES) == 0) return strokeDialog(image, layer, values);
    if (strcmp(name, PROC_REFINE) == 0) return refineDialog(values);
    return subjectDialog(image, layer, values);
}

static void run(const gchar* name, gint nparams, const GimpParam* param, gint* nreturn_vals,
                GimpParam** return_vals) {
    static GimpParam values[2];
    const GimpRunMode mode = nparams > 0 ? param[0].data.d_int32 : GIMP_RUN_NONINTERACTIVE;
    const gint32 image = nparams > 1 ? param[1].data.d_image : -1;
    const gint32 layer = nparams > 2 ? param[2].data.d_drawable : -1;
    GimpPDBStatusType status = GIMP_PDB_SUCCESS;
    TrimapValues trimapValues = {-1, 255, 0};
    StrokeValues strokeValues = {-1, 0};
    SubjectValues subjectValues = {0, -1, OUTPUT_SELECTION};
    RefineValues refineValues = {SOURCE_MASK, OUTPUT_LAYER};
    void* chosen;
    size_t size;

    gegl_init(NULL, NULL);
    *nreturn_vals = 1;
    *return_vals = values;
    values[0].type = GIMP_PDB_STATUS;

    if (strcmp(name, PROC_TRIMAP) == 0) {
        chosen = &trimapValues;
        size = sizeof trimapValues;
    } else if (strcmp(name, PROC_STROKES) == 0) {
        chosen = &strokeValues;
        size = sizeof strokeValues;
    } else if (strcmp(name, PROC_SUBJECT) == 0) {
        chosen = &subjectValues;
        size = sizeof subjectValues;
    } else if (strcmp(name, PROC_REFINE) == 0) {
        chosen = &refineValues;
        size = sizeof refineValues;
    } else {
        values[0].data.d_status = GIMP_PDB_CALLING_ERROR;
        return;
    }

    if (nparams < 3) {
        status = failWith(GIMP_PDB_CALLING_ERROR, "%s: wrong number of arguments", name);
    } else if ((status = checkLayer(image, layer, name)) == GIMP_PDB_SUCCESS) {
        if (!takeArguments(name, mode, nparams, param, image, layer, chosen, &status)) {
            if (status == GIMP_PDB_SUCCESS) status = GIMP_PDB_CANCEL;
        } else if (chosen == &trimapValues) {
            status = matteFromTrimap(image, layer, &trimapValues);
        } else if (chosen == &strokeValues) {
            status = matteFromStrokes(image, layer, &strokeValues);
        } else if (chosen == &refineValues) {
            status = refineEdge(image, layer, &refineValues);
        } else {
            status = selectSubject(image, layer, &subjectValues);
        }
        if (status == GIMP_PDB_SUCCESS) {
            if (mode == GIMP_RUN_INTERACTIVE) gimp_set_data(name, chosen, size);
            if (mode != GIMP_RUN_NONINTERACTIVE) gimp_displays_flush();
        }
    }
    values[0].data.d_status = status;
    if (status != GIMP_PDB_SUCCESS && failureText) {
        *nreturn_vals = 2;
        values[1].type = GIMP_PDB_STRING;
        values[1].data.d_string = failureText;
    }
}
