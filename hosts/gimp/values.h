/*
 * The plug-in's four procedures: their names, their titles (dialogs and messages) and the values
 * each takes after run-mode, image and drawable, in the order of the call. GIMP keeps a
 * procedure's values between interactive runs ("Repeat", "Re-show").
 */
#ifndef QX_GIMP_VALUES_H
#define QX_GIMP_VALUES_H

#include <glib.h>

#define PROC_TRIMAP "plug-in-qx-matte-trimap"
#define PROC_STROKES "plug-in-qx-matte-strokes"
#define PROC_SUBJECT "plug-in-qx-select-subject"
#define PROC_REFINE "plug-in-qx-refine-edge"

#define TITLE_TRIMAP "Matte from Tri-map"
#define TITLE_STROKES "Matte from Strokes"
#define TITLE_SUBJECT "Select Subject"
#define TITLE_REFINE "Refine Edge"

/* Where a result's alpha goes. */
enum { OUTPUT_SELECTION = 0, OUTPUT_MASK = 1, OUTPUT_LAYER = 2 };

/* Where Refine Edge reads its coarse mask. */
enum { SOURCE_MASK = 0, SOURCE_SELECTION = 1 };

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

typedef struct {
    gint32 source; /* SOURCE_MASK or SOURCE_SELECTION */
    gint32 output; /* OUTPUT_MASK or OUTPUT_LAYER */
} RefineValues;

/* The values of whichever procedure runs. */
typedef union {
    TrimapValues trimap;
    StrokeValues strokes;
    SubjectValues subject;
    RefineValues refine;
} ProcedureValues;

#endif /* QX_GIMP_VALUES_H */
