#include "dialogs.h"

#include <libgimp/gimpui.h>

#define PLUG_IN_BINARY "qx-matting"
#define PLUG_IN_ROLE "qx-matting"

/* The drawables a source combo offers: those of the image but the layer itself (only layers when
 * layersOnly). */
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

/* A dialog with Cancel and OK around a table of `rows` rows, label and field. */
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

/* A combo of choices (the caller's gimp_int_combo_box_new) showing `value`. */
static GtkWidget* choiceField(GtkWidget* table, int row, const char* label, GtkWidget* combo,
                              gint32 value) {
    gimp_int_combo_box_set_active(GIMP_INT_COMBO_BOX(combo), value);
    gimp_table_attach_aligned(GTK_TABLE(table), 0, row, label, 0.0, 0.5, combo, 1, FALSE);
    return combo;
}

static gboolean runDialog(GtkWidget* dialog) {
    gtk_widget_show_all(dialog);
    return gimp_dialog_run(GIMP_DIALOG(dialog)) == GTK_RESPONSE_OK;
}

gboolean qxg_trimap_dialog(gint32 image, gint32 layer, ProcedureValues* values) {
    TrimapValues* v = &values->trimap;
    GtkWidget *table, *dialog = newDialog(TITLE_TRIMAP, PROC_TRIMAP, &table, 3);
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

gboolean qxg_strokes_dialog(gint32 image, gint32 layer, ProcedureValues* values) {
    StrokeValues* v = &values->strokes;
    GtkWidget *table, *dialog = newDialog(TITLE_STROKES, PROC_STROKES, &table, 2);
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

gboolean qxg_subject_dialog(gint32 image, gint32 layer, ProcedureValues* values) {
    SubjectValues* v = &values->subject;
    GtkWidget *table, *dialog = newDialog(TITLE_SUBJECT, PROC_SUBJECT, &table, 2);
    GtkWidget* band = numberField(table, 0, "Edge _band (0: automatic):", 0, 32767, v->band);
    GtkWidget* output = choiceField(
        table, 1, "_Result:",
        gimp_int_combo_box_new("Selection", OUTPUT_SELECTION, "Layer mask", OUTPUT_MASK,
                               "New layer with true colours", OUTPUT_LAYER, NULL),
        v->output);
    const gboolean ok = runDialog(dialog);
    if (ok) {
        v->band = gtk_spin_button_get_value_as_int(GTK_SPIN_BUTTON(band));
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(output), &v->output);
        v->strokes = -1; /* strokes: through the procedure's argument */
    }
    gtk_widget_destroy(dialog);
    return ok;
}

gboolean qxg_refine_dialog(gint32 image, gint32 layer, ProcedureValues* values) {
    RefineValues* v = &values->refine;
    GtkWidget *table, *dialog = newDialog(TITLE_REFINE, PROC_REFINE, &table, 2);
    GtkWidget* source = choiceField(
        table, 0, "_Coarse mask:",
        gimp_int_combo_box_new("The layer's mask", SOURCE_MASK, "The selection", SOURCE_SELECTION,
                               NULL),
        v->source);
    GtkWidget* output = choiceField(
        table, 1, "_Result:",
        gimp_int_combo_box_new("Layer mask", OUTPUT_MASK, "New layer with true colours",
                               OUTPUT_LAYER, NULL),
        v->output);
    const gboolean ok = runDialog(dialog);
    if (ok) {
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(source), &v->source);
        gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(output), &v->output);
    }
    gtk_widget_destroy(dialog);
    return ok;
}
