; The GIMP batch test's calls, run by gimp_batch_test.sh in a folder holding the demo scene
; (demo/*.png). Each result is saved as an RGBA PNG whose alpha is the procedure's alpha: a mask
; is applied to a copy of the layer first (a mask exported alone would be re-encoded).

(define (save-layer img layer path)
  ; no interlace, compression 9, no extra chunks; keep the colours of transparent pixels
  (file-png-save2 RUN-NONINTERACTIVE img layer path path 0 9 0 0 0 0 0 0 1))

(define (load-layer img path)
  (let ((layer (car (gimp-file-load-layer RUN-NONINTERACTIVE img path))))
    (gimp-image-insert-layer img layer 0 -1)
    layer))

(define (qx-batch-test rect-x rect-y rect-w rect-h)
  (let* ((img (car (gimp-file-load RUN-NONINTERACTIVE "demo/image.png" "demo/image.png")))
         (layer (car (gimp-image-get-active-layer img)))
         (trimap (load-layer img "demo/trimap.png"))
         (strokes (load-layer img "demo/strokes.png")))
    ; Tri-map: the alpha becomes the layer's mask.
    (plug-in-qx-matte-trimap RUN-NONINTERACTIVE img layer trimap 255 0)
    (let ((copy (car (gimp-layer-copy layer TRUE))))
      (gimp-image-insert-layer img copy 0 -1)
      (gimp-layer-remove-mask copy MASK-APPLY)
      (save-layer img copy "gimp_trimap.png")
      (gimp-image-remove-layer img copy))
    ; Strokes: a new layer above the active one, recovered colours with the alpha.
    (plug-in-qx-matte-strokes RUN-NONINTERACTIVE img layer strokes 0)
    (save-layer img (car (gimp-image-get-active-layer img)) "gimp_strokes.png")
    ; Select subject from a rectangle, as a new layer with the recovered colours.
    (gimp-image-select-rectangle img CHANNEL-OP-REPLACE rect-x rect-y rect-w rect-h)
    (plug-in-qx-select-subject RUN-NONINTERACTIVE img layer 0 -1 2)
    (save-layer img (car (gimp-image-get-active-layer img)) "gimp_subject.png")
    ; Refine Edge: a copy of the layer whose mask is the coarse mask (saved as GIMP has it, for
    ; the tool to refine the same values); the result a new layer.
    (gimp-selection-none img)
    (let* ((copy (car (gimp-layer-copy layer TRUE)))
           (coarse (load-layer img "coarse.png")))
      (gimp-image-insert-layer img copy 0 -1)
      (if (not (= (car (gimp-layer-get-mask copy)) -1)) (gimp-layer-remove-mask copy MASK-DISCARD))
      (let ((mask (car (gimp-layer-create-mask copy ADD-MASK-WHITE))))
        (gimp-layer-add-mask copy mask)
        (gimp-edit-copy coarse)
        (gimp-floating-sel-anchor (car (gimp-edit-paste mask FALSE)))
        (save-layer img mask "gimp_coarse.png"))
      (plug-in-qx-refine-edge RUN-NONINTERACTIVE img copy 0 2)
      (save-layer img (car (gimp-image-get-active-layer img)) "gimp_refine.png"))
    ; Keep strokes only (a white square, the rest unpainted): the procedure fails with the
    ; workflow's message.
    (let ((white (car (gimp-layer-new img 100 100 RGB-IMAGE "white" 100 LAYER-MODE-NORMAL))))
      (gimp-image-insert-layer img white 0 -1)
      (gimp-drawable-fill white FILL-WHITE)
      (if (catch #f (plug-in-qx-matte-strokes RUN-NONINTERACTIVE img layer white 0) #t)
          (gimp-message "NOT REFUSED: strokes without a cut stroke")
          (gimp-message "refused: strokes without a cut stroke")))
    (gimp-image-delete img)
    (gimp-message "qx batch test: done")))
