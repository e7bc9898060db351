#include "job.h"

#include <stdarg.h>
#include <string.h>

static gchar* failureText = NULL;

GimpPDBStatusType qxg_fail(GimpPDBStatusType status, const char* format, ...) {
    va_list args;
    va_start(args, format);
    g_free(failureText);
    failureText = g_strdup_vprintf(format, args);
    va_end(args);
    gimp_message(failureText);
    return status;
}

gchar* qxg_failure_text(void) { return failureText; }

GimpPDBStatusType qxg_check_layer(gint32 image, gint32 drawable, const char* procedure) {
    const GimpPrecision precision = gimp_image_get_precision(image);
    if (!gimp_item_is_layer(drawable) || gimp_item_is_group(drawable))
        return QXG_FAIL("%s works on a layer: select a layer (not a mask, channel or group)",
                        procedure);
    if (!gimp_drawable_is_rgb(drawable))
        return QXG_FAIL("%s needs an RGB image: use Image > Mode > RGB", procedure);
    if (precision != GIMP_PRECISION_U8_GAMMA && precision != GIMP_PRECISION_U8_LINEAR)
        return QXG_FAIL("%s needs an 8-bit image: use Image > Precision > 8 bit integer",
                        procedure);
    return GIMP_PDB_SUCCESS;
}

GimpPDBStatusType qxg_check_source(gint32 image, gint32 drawable, gint32 source,
                                   const char* what, const char* procedure) {
    if (!gimp_item_is_valid(source) || !gimp_item_is_drawable(source) ||
        gimp_item_get_image(source) != image)
        return QXG_FAIL("%s: the %s is not a layer or channel of this image", procedure, what);
    if (source == drawable)
        return QXG_FAIL("%s: the %s must be another layer than the one to matte", procedure,
                        what);
    return GIMP_PDB_SUCCESS;
}

static void showProgress(double fraction, void* data) {
    QxgProgress* progress = data;
    const double overall = (progress->stage + fraction) / progress->stages;
    /* Every call is a message to GIMP: pass on changes of a percent or more. */
    if (overall - progress->shown >= 0.01) {
        progress->shown = overall;
        gimp_progress_update(overall);
    }
}

void qxg_next_stage(QxgRun* run) { ++run->progress.stage; }

/* The result where the procedure sends it; NULL, or why nothing was written. */
static const char* writeResult(gint32 image, const QxgRun* run, const QxgJobPlan* plan) {
    switch (plan->output) {
    case OUTPUT_SELECTION:
        return qxg_alpha_to_selection(image, run->layer.id, run->alpha);
    case OUTPUT_MASK:
        qxg_alpha_to_mask(run->layer.id, run->alpha);
        return NULL;
    default:
        return qxg_add_colour_layer(image, run->layer.id, plan->layerName, run->colourOut.pixels,
                                    run->alpha);
    }
}

GimpPDBStatusType qxg_run_job(gint32 image, gint32 layer, const QxgJobPlan* plan) {
    QxgRun run;
    guchar *pixels, *rgb;
    size_t count;
    GimpPDBStatusType status;
    QxwStatus result;

    memset(&run, 0, sizeof run);
    run.layer = qxg_extent_of(layer);
    run.plane = plan->plane;
    count = (size_t)run.layer.width * run.layer.height;
    pixels = qxg_read_colour(layer, &run.colour);
    run.alpha = qxg_allocate(count);
    rgb = plan->recoverColours ? qxg_allocate(count * 3) : NULL;
    if (!pixels || !run.alpha || (plan->recoverColours && !rgb)) {
        status = QXG_FAIL("%s: out of memory", plan->procedure);
    } else {
        if (rgb) {
            run.colourOut.pixels = rgb;
            run.colourOut.stride = run.layer.width * 3;
            run.colours = &run.colourOut;
        }
        run.progress.stages = plan->stages;
        run.job.progress = showProgress;
        run.job.progressData = &run.progress;
        gimp_progress_init(plan->progressText);
        result = plan->workflow(&run, plan->input);
        if (result != QXW_OK) {
            status = QXG_FAIL("%s: %s%s", plan->procedure, run.job.message,
                              result == QXW_FAILED ? " (the matting job failed)" : "");
        } else {
            const char* notWritten;
            gimp_image_undo_group_start(image);
            notWritten = writeResult(image, &run, plan);
            status = notWritten ? QXG_FAIL("%s: %s", plan->procedure, notWritten)
                                : GIMP_PDB_SUCCESS;
            gimp_image_undo_group_end(image);
        }
    }
    g_free(pixels);
    g_free(run.alpha);
    g_free(rgb);
    g_free(plan->plane);
    return status;
}
