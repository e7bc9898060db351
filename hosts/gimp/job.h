/*
 * What every procedure does around its workflow: the checks of its image and layer, GIMP's
 * progress bar, the workflow's call, the report of a failure (gimp_message, the PDB status and
 * the procedure's error string) and the one undo step that writes the result.
 */
#ifndef QX_GIMP_JOB_H
#define QX_GIMP_JOB_H

#include <libgimp/gimp.h>

#include "pixels.h"
#include "qxworkflow.h"
#include "values.h"

/* A failure: the message is shown by gimp_message and kept as the procedure's error string
 * (Script-Fu prints it). Returns `status`. */
GimpPDBStatusType qxg_fail(GimpPDBStatusType status, const char* format, ...) G_GNUC_PRINTF(2, 3);

#define QXG_FAIL(...) qxg_fail(GIMP_PDB_EXECUTION_ERROR, __VA_ARGS__)

/* The message of the last failure; NULL before any. */
gchar* qxg_failure_text(void);

/* The checks every procedure makes of its image and layer: a layer (not a mask, channel or
 * group) of an RGB image at 8-bit precision. */
GimpPDBStatusType qxg_check_layer(gint32 image, gint32 drawable, const char* procedure);

/* A second drawable given by the caller (`what`, for messages): live, of this image, not the
 * layer itself. */
GimpPDBStatusType qxg_check_source(gint32 image, gint32 drawable, gint32 source,
                                   const char* what, const char* procedure);

/* GIMP's progress bar over a job of `stages` workflow calls, each a share of one run. */
typedef struct {
    double shown;
    int stage, stages;
} QxgProgress;

/* A running job: what its workflow reads and writes. */
typedef struct {
    QxgExtent layer;             /* the active layer */
    const guchar* plane;         /* the procedure's own plane (QxgJobPlan), or NULL */
    QxwImage colour;             /* the layer's colours */
    guchar* alpha;               /* the result's alpha */
    const QxwColourOut* colours; /* the subject's recovered colours, NULL when not asked for */
    QxwJob job;
    QxgProgress progress;
    QxwColourOut colourOut; /* what `colours` points to */
} QxgRun;

typedef QxwStatus (*QxgWorkflow)(QxgRun* run, const void* input);

/* A procedure's job, as its procedure sets it up. */
typedef struct {
    const char* procedure;    /* its title, in messages */
    const char* progressText; /* the progress bar's text */
    int stages;               /* workflow calls in the job */
    gboolean recoverColours;  /* the job writes the subject's colours */
    int output;               /* OUTPUT_SELECTION, OUTPUT_MASK or OUTPUT_LAYER */
    const char* layerName;    /* the new layer's name (OUTPUT_LAYER) */
    guchar* plane;            /* the tri-map, strokes or coarse mask; the job frees it */
    QxgWorkflow workflow;     /* the workflow calls, with qxg_next_stage between two */
    const void* input;        /* the workflow's own arguments */
} QxgJobPlan;

/* Reads the layer, runs the workflow with GIMP's progress bar, and writes the result to
 * plan->output in one undo step. On failure nothing in the image changes and the status says
 * why (reported with qxg_fail). */
GimpPDBStatusType qxg_run_job(gint32 image, gint32 layer, const QxgJobPlan* plan);

/* The next workflow call of the job takes the next share of the progress bar. */
void qxg_next_stage(QxgRun* run);

#endif /* QX_GIMP_JOB_H */
