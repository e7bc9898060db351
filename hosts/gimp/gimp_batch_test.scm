; The GIMP batch test's calls of the plug-in's procedures, run by gimp_batch_test.sh in a folder
; that holds the demo scene (demo/*.png). Every result is saved as an RGBA PNG whose alpha is
; the procedure's alpha: masks and selections are applied to a copy of the layer first, because
; exporting a mask on its own would re-encode its linear values.

(define (save-layer img layer path)
  ; interlace, compression 9, no bKGD, gAMA, oFFs, pHYs, tIME, comment; keep the colours of
  ; transparent pixels
  (file-png-save2 RUN-NONINTERACTIVE img layer path path 0 9 0 0 0 0 0 0 1))

(define (save-with-mask img layer path)
  (let ((copy (car (gimp-layer-copy layer TRUE))))
    (gimp-image-insert-layer img copy 0 -1)
    (gimp-layer-remove-mask copy MASK-APPLY)
    (save-layer img copy path)
    (gimp-image-remove-layer img copy)))

(define (save-selection img layer path)
  (let ((copy (car (gimp-layer-copy layer FALSE))))
    (gimp-image-insert-layer img copy 0 -1)
    (if (not (= (car (gimp-layer-get-mask copy)) -1))
        (gimp-layer-remove-mask copy MASK-DISCARD))
    (gimp-layer-add-mask copy (car (gimp-layer-create-mask copy ADD-MASK-SELECTION)))
    (gimp-layer-remove-mask copy MASK-APPLY)
    (save-layer img copy path)
    (gimp-image-remove-layer img copy)))

(define (load-layer img path)
  (let ((layer (car (gimp-file-load-layer RUN-NONINTERACTIVE img path))))
    (gimp-image-insert-layer img layer 0 -1)
    layer))

(define (filled-layer img name fill)
  (let ((layer (car (gimp-layer-new img (car (gimp-image-width img))
                                    (car (gimp-image-height img)) RGB-IMAGE name 100
                                    LAYER-MODE-NORMAL))))
    (gimp-image-insert-layer img layer 0 -1)
    (gimp-drawable-fill layer fill)
    layer))

; A call that must fail: "refused: LABEL" in the log when it did, "NOT REFUSED: LABEL" when not.
(define-macro (expect-refusal label call)
  `(if (catch #f ,call #t)
       (gimp-message (string-append "NOT REFUSED: " ,label))
       (gimp-message (string-append "refused: " ,label))))

(define (qx-batch-test rect-x rect-y rect-w rect-h)
  (let* ((img (car (gimp-file-load RUN-NONINTERACTIVE "demo/image.png" "demo/image.png")))
         (layer (car (gimp-image-get-active-layer img)))
         (trimap (load-layer img "demo/trimap.png"))
         (strokes (load-layer img "demo/strokes.png")))
    ; 1. Tri-map: the alpha becomes the layer's mask.
    (plug-in-qx-matte-trimap RUN-NONINTERACTIVE img layer trimap 255 0)
    (save-with-mask img layer "gimp_trimap.png")
    ; 2. Strokes: a new layer above the active one, recovered colours with the alpha.
    (plug-in-qx-matte-strokes RUN-NONINTERACTIVE img layer strokes 0)
    (save-layer img (car (gimp-image-get-active-layer img)) "gimp_strokes.png")
    ; A stroke layer over part of the layer only, at an offset: outside it nothing is painted.
    ; The strokes as they should be seen (the part over unpainted grey, composed by GIMP) are
    ; saved for the tool.
    (let ((part (car (gimp-layer-copy strokes FALSE))))
      (gimp-image-insert-layer img part 0 0)
      (gimp-layer-resize part 440 330 -70 -50)
      (plug-in-qx-matte-strokes RUN-NONINTERACTIVE img layer part 0)
      (save-layer img (car (gimp-image-get-active-layer img)) "gimp_strokes_part.png")
      (gimp-context-set-foreground '(128 128 128))
      (let ((grey (filled-layer img "unpainted" FILL-FOREGROUND)))
        (gimp-image-reorder-item img grey 0 (+ 1 (car (gimp-image-get-item-position img part))))
        (let ((seen (car (gimp-image-merge-down img part CLIP-TO-IMAGE))))
          (save-layer img seen "gimp_strokes_part_seen.png")
          (gimp-image-remove-layer img seen))))
    ; 3. Select subject from the rectangle: as a new layer, and as the selection.
    (gimp-image-select-rectangle img CHANNEL-OP-REPLACE rect-x rect-y rect-w rect-h)
    (plug-in-qx-select-subject RUN-NONINTERACTIVE img layer 0 -1 2)
    (save-layer img (car (gimp-image-get-active-layer img)) "gimp_subject_layer.png")
    (gimp-image-select-rectangle img CHANNEL-OP-REPLACE rect-x rect-y rect-w rect-h)
    (plug-in-qx-select-subject RUN-NONINTERACTIVE img layer 0 -1 0)
    (save-selection img layer "gimp_subject_selection.png")
    ; Refusals, each with its message in the log.
    (let ((white (filled-layer img "all white" FILL-WHITE)))
      (expect-refusal "tri-map without undecided pixels"
                      (plug-in-qx-matte-trimap RUN-NONINTERACTIVE img layer white 255 0))
      (expect-refusal "strokes without a cut stroke"
                      (plug-in-qx-matte-strokes RUN-NONINTERACTIVE img layer white 0)))
    (let ((channel (car (gimp-channel-new img (car (gimp-image-width img))
                                          (car (gimp-image-height img)) "white" 100 '(0 0 0)))))
      (gimp-image-insert-channel img channel 0 0)
      (gimp-drawable-fill channel FILL-WHITE)
      (expect-refusal "tri-map channel without undecided pixels"
                      (plug-in-qx-matte-trimap RUN-NONINTERACTIVE img layer channel 255 0)))
    (expect-refusal "codes in the wrong order"
                    (plug-in-qx-matte-trimap RUN-NONINTERACTIVE img layer trimap 0 255))
    (expect-refusal "the layer as its own tri-map"
                    (plug-in-qx-matte-trimap RUN-NONINTERACTIVE img layer layer 255 0))
    (gimp-selection-none img)
    (expect-refusal "no selection"
                    (plug-in-qx-select-subject RUN-NONINTERACTIVE img layer 0 -1 0))
    (gimp-image-delete img)
    (gimp-message "qx batch test: done")))

; The interactive runs, each on its own image holding just what the dialog offers: the dialog's
; choices as they open (the one other layer, band automatic, result the selection) are the batch
; run's arguments, so the results must be the same. gimp_batch_test.sh presses OK in each dialog.
(define (qx-dialog-test rect-x rect-y rect-w rect-h)
  (let* ((img (car (gimp-file-load RUN-NONINTERACTIVE "demo/image.png" "demo/image.png")))
         (layer (car (gimp-image-get-active-layer img)))
         (trimap (load-layer img "demo/trimap.png")))
    (plug-in-qx-matte-trimap RUN-INTERACTIVE img layer -1 0 0)
    (save-with-mask img layer "dialog_trimap.png")
    (gimp-image-delete img))
  (let* ((img (car (gimp-file-load RUN-NONINTERACTIVE "demo/image.png" "demo/image.png")))
         (layer (car (gimp-image-get-active-layer img)))
         (strokes (load-layer img "demo/strokes.png")))
    (plug-in-qx-matte-strokes RUN-INTERACTIVE img layer -1 0)
    (save-layer img (car (gimp-image-get-active-layer img)) "dialog_strokes.png")
    (gimp-image-delete img))
  (let* ((img (car (gimp-file-load RUN-NONINTERACTIVE "demo/image.png" "demo/image.png")))
         (layer (car (gimp-image-get-active-layer img))))
    (gimp-image-select-rectangle img CHANNEL-OP-REPLACE rect-x rect-y rect-w rect-h)
    (plug-in-qx-select-subject RUN-INTERACTIVE img layer 0 -1 0)
    (save-selection img layer "dialog_subject_selection.png")
    (gimp-image-delete img))
  (gimp-message "qx dialog test: done"))
