#include "procedures.h"

#include "job.h"
#include "pixels.h"

/* A stroke layer (checked by qxg_check_source) as a stroke plane over the layer. */
static GimpPDBStatusType readStrokes(const QxgExtent* layer, gint32 source, const char* procedure,
                                     guchar** plane) {
    switch (qxg_read_strokes(layer, source, plane)) {
    case QXG_READ_OK:
        return GIMP_PDB_SUCCESS;
    case QXG_READ_FORMAT:
        return QXG_FAIL("%s: the stroke layer's pixel format can't be read", procedure);
    default:
        return QXG_FAIL("%s: out of memory", procedure);
    }
}

/* ---- Matte from Tri-map ------------------------------------------------------------------ */

static QxwStatus trimapWorkflow(QxgRun* run, const void* input) {
    const TrimapValues* v = input;
    return qxwMatteTrimap(&run->colour, run->plane, run->layer.width, v->fgCode, v->bgCode, 255, 0,
                          run->alpha, run->layer.width, &run->job);
}

GimpPDBStatusType qxg_matte_from_trimap(gint32 image, gint32 layer, const ProcedureValues* values) {
    const char* const name = TITLE_TRIMAP;
    const TrimapValues* v = &values->trimap;
    const QxgExtent e = qxg_extent_of(layer);
    QxgJobPlan plan = {.procedure = name, .progressText = "Matting from the tri-map", .stages = 1,
                       .recoverColours = FALSE, .output = OUTPUT_MASK,
                       .workflow = trimapWorkflow, .input = v};
    GimpPDBStatusType status;
    int bad;

    if (v->bgCode < 0 || v->fgCode > 255 || v->bgCode >= v->fgCode)
        return qxg_fail(GIMP_PDB_CALLING_ERROR,
                        "%s: the background code (%d) must be below the foreground code (%d), "
                        "both in 0..255",
                        name, v->bgCode, v->fgCode);
    if ((status = qxg_check_source(image, layer, v->trimap, "tri-map", name)) != GIMP_PDB_SUCCESS)
        return status;
    switch (qxg_read_trimap(&e, v->trimap, (guchar)((v->fgCode + v->bgCode) / 2), &plan.plane,
                            &bad)) {
    case QXG_READ_OK:
        return qxg_run_job(image, layer, &plan);
    case QXG_READ_FORMAT:
        return QXG_FAIL("%s: the tri-map's format can't be read", name);
    case QXG_READ_UNCOVERED:
        return QXG_FAIL("%s: the tri-map \"%s\" doesn't cover the layer \"%s\"", name,
                        gimp_item_get_name(v->trimap), gimp_item_get_name(layer));
    case QXG_READ_COLOUR:
        return QXG_FAIL("%s: the tri-map \"%s\" has colour at (%d, %d) of the layer; paint it in "
                        "black, white and grey only",
                        name, gimp_item_get_name(v->trimap), bad % e.width, bad / e.width);
    default:
        return QXG_FAIL("%s: out of memory", name);
    }
}

/* ---- Matte from Strokes ------------------------------------------------------------------ */

/* The alpha, then the subject's colours under it: half the progress bar each. */
static QxwStatus strokesWorkflow(QxgRun* run, const void* input) {
    const StrokeValues* v = input;
    const QxwStatus result =
        qxwMatteStrokes(&run->colour, run->plane, run->layer.width,
                        v->pyramid ? QXW_ENGINE_PYRAMID : QXW_ENGINE_STROKES, run->alpha,
                        run->layer.width, &run->job);
    if (result != QXW_OK) return result;
    qxg_next_stage(run);
    return qxwRecoverForeground(&run->colour, run->alpha, run->layer.width, QXW_FG_FULL,
                                run->colours, &run->job);
}

GimpPDBStatusType qxg_matte_from_strokes(gint32 image, gint32 layer,
                                         const ProcedureValues* values) {
    const char* const name = TITLE_STROKES;
    const StrokeValues* v = &values->strokes;
    const QxgExtent e = qxg_extent_of(layer);
    QxgJobPlan plan = {.procedure = name, .progressText = "Matting from the strokes", .stages = 2,
                       .recoverColours = TRUE, .output = OUTPUT_LAYER,
                       .workflow = strokesWorkflow, .input = v};
    GimpPDBStatusType status;
    gchar* title;

    if ((status = qxg_check_source(image, layer, v->strokes, "stroke layer", name)) !=
        GIMP_PDB_SUCCESS)
        return status;
    if (!gimp_item_is_layer(v->strokes))
        return QXG_FAIL("%s: the strokes must be painted on a layer", name);
    if ((status = readStrokes(&e, v->strokes, name, &plan.plane)) != GIMP_PDB_SUCCESS)
        return status;
    title = g_strdup_printf("%s matte", gimp_item_get_name(layer));
    plan.layerName = title;
    status = qxg_run_job(image, layer, &plan);
    g_free(title);
    return status;
}

/* ---- Select Subject ---------------------------------------------------------------------- */

typedef struct {
    int band;
    int x, y, width, height; /* the rectangle, in the layer; 0 x 0 without a selection */
} SubjectInput;

static QxwStatus subjectWorkflow(QxgRun* run, const void* input) {
    const SubjectInput* in = input;
    /* No selection: the subject in one click, from the segmentation network. */
    if (in->width == 0)
        return qxwCutoutSubject(&run->colour, NULL, run->plane, run->layer.width, 0, 0, 0, 0,
                                run->alpha, run->layer.width, run->colours, &run->job);
    return qxwCutoutFromRect(&run->colour, run->plane, run->layer.width, in->x, in->y, in->width,
                             in->height, in->band, run->alpha, run->layer.width, run->colours,
                             &run->job);
}

GimpPDBStatusType qxg_select_subject(gint32 image, gint32 layer, const ProcedureValues* values) {
    const char* const name = TITLE_SUBJECT;
    const SubjectValues* v = &values->subject;
    const QxgExtent e = qxg_extent_of(layer);
    SubjectInput in;
    QxgJobPlan plan = {.procedure = name, .progressText = "Selecting the subject", .stages = 1,
                       .recoverColours = v->output == OUTPUT_LAYER, .output = v->output,
                       .layerName = "Subject", .workflow = subjectWorkflow, .input = &in};
    GimpPDBStatusType status;
    gboolean nonEmpty = FALSE;
    int x1, y1, x2, y2;

    if (v->output < OUTPUT_SELECTION || v->output > OUTPUT_LAYER)
        return qxg_fail(GIMP_PDB_CALLING_ERROR, "%s: output is 0 (selection), 1 (mask) or 2 "
                        "(new layer), not %d", name, v->output);
    if (v->band < 0 || v->band > 32767)
        return qxg_fail(GIMP_PDB_CALLING_ERROR, "%s: the band is 0 (automatic) to 32767 pixels, "
                        "not %d", name, v->band);
    gimp_selection_bounds(image, &nonEmpty, &x1, &y1, &x2, &y2);
    /* In the layer's coordinates, clipped to it. */
    x1 = MAX(x1 - e.x, 0);
    y1 = MAX(y1 - e.y, 0);
    x2 = MIN(x2 - e.x, e.width);
    y2 = MIN(y2 - e.y, e.height);
    if (nonEmpty && (x2 <= x1 || y2 <= y1))
        return QXG_FAIL("%s: the selection is outside the layer; draw one around the subject, "
                        "or select none for one click", name);
    if (!nonEmpty) x1 = y1 = x2 = y2 = 0; /* one click */
    if (v->strokes != -1) {
        if ((status = qxg_check_source(image, layer, v->strokes, "stroke layer", name)) !=
            GIMP_PDB_SUCCESS)
            return status;
        if ((status = readStrokes(&e, v->strokes, name, &plan.plane)) != GIMP_PDB_SUCCESS)
            return status;
    }
    in.band = v->band;
    in.x = x1;
    in.y = y1;
    in.width = x2 - x1;
    in.height = y2 - y1;
    return qxg_run_job(image, layer, &plan);
}

/* ---- Refine Edge ------------------------------------------------------------------------- */

static QxwStatus refineWorkflow(QxgRun* run, const void* input) {
    return qxwRefineMask(&run->colour, run->plane, run->layer.width, run->alpha, run->layer.width,
                         run->colours, &run->job);
}

GimpPDBStatusType qxg_refine_edge(gint32 image, gint32 layer, const ProcedureValues* values) {
    const char* const name = TITLE_REFINE;
    const RefineValues* v = &values->refine;
    const QxgExtent e = qxg_extent_of(layer);
    /* The workflow recovers the colours for either output. */
    QxgJobPlan plan = {.procedure = name, .progressText = "Refining the edge", .stages = 1,
                       .recoverColours = TRUE, .output = v->output, .layerName = "Refined",
                       .workflow = refineWorkflow, .input = NULL};
    gint32 channel;

    if (v->source != SOURCE_MASK && v->source != SOURCE_SELECTION)
        return qxg_fail(GIMP_PDB_CALLING_ERROR, "%s: source is 0 (the layer's mask) or 1 (the "
                        "selection), not %d", name, v->source);
    if (v->output != OUTPUT_MASK && v->output != OUTPUT_LAYER)
        return qxg_fail(GIMP_PDB_CALLING_ERROR, "%s: output is 1 (mask) or 2 (new layer), not "
                        "%d", name, v->output);
    if (v->source == SOURCE_MASK) {
        channel = gimp_layer_get_mask(layer);
        if (channel == -1)
            return QXG_FAIL("%s: the layer \"%s\" has no mask", name, gimp_item_get_name(layer));
    } else {
        if (gimp_selection_is_empty(image)) return QXG_FAIL("%s: there is no selection", name);
        channel = gimp_image_get_selection(image);
    }
    plan.plane = qxg_channel_plane(&e, channel);
    if (!plan.plane) return QXG_FAIL("%s: out of memory", name);
    return qxg_run_job(image, layer, &plan);
}
