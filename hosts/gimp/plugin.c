/*
 * qx-matting: matting procedures for GIMP 2.10 on the qxiveilon31 library.
 *
 *   Filters > Matting > Matte from Tri-map...   plug-in-qx-matte-trimap
 *   Filters > Matting > Matte from Strokes...   plug-in-qx-matte-strokes
 *   Filters > Matting > Select Subject...       plug-in-qx-select-subject
 *   Filters > Matting > Refine Edge...          plug-in-qx-refine-edge
 *
 * Each works on the active layer of an 8-bit RGB image. The matting is the library's host
 * workflows (qxworkflow.h), the same calls the command-line tool and the Python package make.
 * This file registers the procedures and takes a run's arguments; procedures.c runs them.
 */
#include <libgimp/gimp.h>
#include <string.h>

#include "dialogs.h"
#include "job.h"
#include "procedures.h"
#include "values.h"

#define MENU_PATH "<Image>/Filters/Matting"

static void query(void);
static void run(const gchar* name, gint nparams, const GimpParam* param, gint* nreturn_vals,
                GimpParam** return_vals);

const GimpPlugInInfo PLUG_IN_INFO = {NULL, NULL, query, run};

MAIN()

/* ---- Arguments --------------------------------------------------------------------------- */

/* The arguments every procedure starts with. */
#define RUN_MODE_AND_IMAGE                                                                      \
    {GIMP_PDB_INT32, "run-mode", "The run mode { RUN-INTERACTIVE (0), RUN-NONINTERACTIVE (1) }"}, \
    {GIMP_PDB_IMAGE, "image", "Input image"}

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

/* A non-interactive call's arguments after run-mode, image and drawable. */

static void trimapFromCall(const GimpParam* param, ProcedureValues* values) {
    values->trimap.trimap = param[3].data.d_drawable;
    values->trimap.fgCode = param[4].data.d_int32;
    values->trimap.bgCode = param[5].data.d_int32;
}

static void strokesFromCall(const GimpParam* param, ProcedureValues* values) {
    values->strokes.strokes = param[3].data.d_drawable;
    values->strokes.pyramid = param[4].data.d_int32;
}

static void subjectFromCall(const GimpParam* param, ProcedureValues* values) {
    values->subject.band = param[3].data.d_int32;
    values->subject.strokes = param[4].data.d_int32;
    values->subject.output = param[5].data.d_int32;
}

static void refineFromCall(const GimpParam* param, ProcedureValues* values) {
    values->refine.source = param[3].data.d_int32;
    values->refine.output = param[4].data.d_int32;
}

/* ---- The procedures ---------------------------------------------------------------------- */

typedef struct {
    const char* name;
    const char* blurb;
    const char* help;
    const char* label; /* in the Matting menu */
    const GimpParamDef* args;
    int count; /* of args */
    ProcedureValues defaults;
    size_t size; /* of the procedure's values, as GIMP keeps them */
    void (*fromCall)(const GimpParam* param, ProcedureValues* values);
    gboolean (*ask)(gint32 image, gint32 layer, ProcedureValues* values);
    GimpPDBStatusType (*perform)(gint32 image, gint32 layer, const ProcedureValues* values);
} Procedure;

static const Procedure procedures[] = {
    {PROC_REFINE, "Refine the edge of a coarse mask or selection",
     "Turns a coarse mask or selection into a clean alpha: an undecided band made from the mask "
     "and the image (wide where the image has little contrast, reaching hair and holes the mask "
     "closed over), solved by the matting engine, with the subject's own colours recovered.",
     "_Refine Edge...", refineArgs, G_N_ELEMENTS(refineArgs),
     {.refine = {SOURCE_MASK, OUTPUT_LAYER}}, sizeof(RefineValues), refineFromCall,
     qxg_refine_dialog, qxg_refine_edge},
    {PROC_TRIMAP, "Alpha matte of the layer from a tri-map",
     "Solves the soft alpha of the undecided pixels of a tri-map (closed-form matting) and puts "
     "it into the layer's mask, adding a mask when the layer has none.",
     "Matte from _Tri-map...", trimapArgs, G_N_ELEMENTS(trimapArgs), {.trimap = {-1, 255, 0}},
     sizeof(TrimapValues), trimapFromCall, qxg_trimap_dialog, qxg_matte_from_trimap},
    {PROC_STROKES, "Alpha matte and true colours of the layer from keep and cut strokes",
     "Solves alpha from white keep and black cut strokes painted on another layer, recovers the "
     "subject's own colours at its soft edges and adds the result as a new layer above the "
     "active one.",
     "Matte from _Strokes...", strokeArgs, G_N_ELEMENTS(strokeArgs), {.strokes = {-1, 0}},
     sizeof(StrokeValues), strokesFromCall, qxg_strokes_dialog, qxg_matte_from_strokes},
    {PROC_SUBJECT, "Select the subject inside the current selection's bounds",
     "GrabCut inside the bounding box of the current selection, an undecided band along the "
     "subject's edge, closed-form alpha on the band. The alpha becomes the selection, the "
     "layer's mask or a new layer with the recovered colours.",
     "Select Su_bject...", subjectArgs, G_N_ELEMENTS(subjectArgs),
     {.subject = {0, -1, OUTPUT_SELECTION}}, sizeof(SubjectValues), subjectFromCall,
     qxg_subject_dialog, qxg_select_subject},
};

static void query(void) {
    size_t i;
    for (i = 0; i < G_N_ELEMENTS(procedures); ++i) {
        const Procedure* p = &procedures[i];
        gimp_install_procedure(p->name, p->blurb, p->help, "qxiveilon31 developers",
                               "qxiveilon31 developers", "2026", p->label, "RGB*", GIMP_PLUGIN,
                               p->count, 0, p->args, NULL);
        gimp_plugin_menu_register(p->name, MENU_PATH);
    }
}

/* ---- Entry ------------------------------------------------------------------------------- */

static const Procedure* procedureNamed(const gchar* name) {
    size_t i;
    for (i = 0; i < G_N_ELEMENTS(procedures); ++i)
        if (strcmp(name, procedures[i].name) == 0) return &procedures[i];
    return NULL;
}

/* Arguments: the interactive run asks, the last-values run takes the stored ones, the
 * non-interactive run reads them from the call. FALSE when the user cancelled or the call was
 * wrong (*status says which). */
static gboolean takeArguments(const Procedure* p, GimpRunMode mode, gint nparams,
                              const GimpParam* param, gint32 image, gint32 layer,
                              ProcedureValues* values, GimpPDBStatusType* status) {
    *status = GIMP_PDB_SUCCESS;
    if (mode == GIMP_RUN_NONINTERACTIVE) {
        if (nparams != p->count) {
            *status = qxg_fail(GIMP_PDB_CALLING_ERROR, "%s: wrong number of arguments", p->name);
            return FALSE;
        }
        p->fromCall(param, values);
        return TRUE;
    }
    gimp_get_data(p->name, values);
    if (mode == GIMP_RUN_WITH_LAST_VALS) return TRUE;
    return p->ask(image, layer, values);
}

static void run(const gchar* name, gint nparams, const GimpParam* param, gint* nreturn_vals,
                GimpParam** return_vals) {
    static GimpParam values[2];
    const GimpRunMode mode = nparams > 0 ? param[0].data.d_int32 : GIMP_RUN_NONINTERACTIVE;
    const gint32 image = nparams > 1 ? param[1].data.d_image : -1;
    const gint32 layer = nparams > 2 ? param[2].data.d_drawable : -1;
    const Procedure* p = procedureNamed(name);
    GimpPDBStatusType status = GIMP_PDB_SUCCESS;
    ProcedureValues chosen;

    gegl_init(NULL, NULL);
    *nreturn_vals = 1;
    *return_vals = values;
    values[0].type = GIMP_PDB_STATUS;
    if (!p) {
        values[0].data.d_status = GIMP_PDB_CALLING_ERROR;
        return;
    }
    chosen = p->defaults;

    if (nparams < 3) {
        status = qxg_fail(GIMP_PDB_CALLING_ERROR, "%s: wrong number of arguments", name);
    } else if ((status = qxg_check_layer(image, layer, name)) == GIMP_PDB_SUCCESS) {
        if (!takeArguments(p, mode, nparams, param, image, layer, &chosen, &status)) {
            if (status == GIMP_PDB_SUCCESS) status = GIMP_PDB_CANCEL;
        } else {
            status = p->perform(image, layer, &chosen);
        }
        if (status == GIMP_PDB_SUCCESS) {
            if (mode == GIMP_RUN_INTERACTIVE) gimp_set_data(name, &chosen, p->size);
            if (mode != GIMP_RUN_NONINTERACTIVE) gimp_displays_flush();
        }
    }
    values[0].data.d_status = status;
    if (status != GIMP_PDB_SUCCESS && qxg_failure_text()) {
        *nreturn_vals = 2;
        values[1].type = GIMP_PDB_STRING;
        values[1].data.d_string = qxg_failure_text();
    }
}
