/*
 * The four procedures, once their values are taken (from the call, the last run or a dialog) and
 * the image and layer have passed qxg_check_layer. Each checks its own values, reads its own
 * input and hands the rest to qxg_run_job.
 */
#ifndef QX_GIMP_PROCEDURES_H
#define QX_GIMP_PROCEDURES_H

#include <libgimp/gimp.h>

#include "values.h"

/* The alpha from a tri-map into the layer's mask. */
GimpPDBStatusType qxg_matte_from_trimap(gint32 image, gint32 layer, const ProcedureValues* v);

/* The alpha and the subject's colours from keep and cut strokes, as a new layer. */
GimpPDBStatusType qxg_matte_from_strokes(gint32 image, gint32 layer, const ProcedureValues* v);

/* The cut-out from the selection's bounding box, to the selection, the mask or a new layer. */
GimpPDBStatusType qxg_select_subject(gint32 image, gint32 layer, const ProcedureValues* v);

/* A clean alpha from a coarse mask or selection, to the mask or a new layer. */
GimpPDBStatusType qxg_refine_edge(gint32 image, gint32 layer, const ProcedureValues* v);

#endif /* QX_GIMP_PROCEDURES_H */
