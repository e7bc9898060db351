/*
 * The dialogs of interactive runs: each shows a procedure's values (the last run's, or the
 * defaults), and on OK stores the user's choice in them. FALSE when the user cancelled.
 */
#ifndef QX_GIMP_DIALOGS_H
#define QX_GIMP_DIALOGS_H

#include <libgimp/gimp.h>

#include "values.h"

gboolean qxg_trimap_dialog(gint32 image, gint32 layer, ProcedureValues* values);
gboolean qxg_strokes_dialog(gint32 image, gint32 layer, ProcedureValues* values);
gboolean qxg_subject_dialog(gint32 image, gint32 layer, ProcedureValues* values);
gboolean qxg_refine_dialog(gint32 image, gint32 layer, ProcedureValues* values);

#endif /* QX_GIMP_DIALOGS_H */
