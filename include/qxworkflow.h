/*
 * qxiveilon31 workflows — the host's side of matting in one call each.
 *
 * The exports of qxiveilon31.h are the building blocks an editor composes: find the tri-map's
 * box, crop, solve, paste back; code the strokes; frame a GrabCut rectangle and band its edge.
 * These functions do that composing once, inside the library, for every host: the command-line
 * tool, the Python package and the GIMP plug-in call only them, so that all give the same
 * result on the same input.
 *
 * Buffers belong to the caller. Every image argument is the full image: colour images through
 * QxwImage, grey planes (tri-maps, strokes, alpha) one byte a pixel of the image's size with
 * their own row stride. Outputs are written only when a call returns QXW_OK; on any other
 * status every output buffer is left as it was.
 *
 * Valid C99 and C++.
 */
#ifndef QXWORKFLOW_H
#define QXWORKFLOW_H

#include <stdint.h>

#include "qxiveilon31.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Byte order of a colour image's first three bytes. */
enum { QXW_BGR = 0, QXW_RGB = 1 };

/* A colour image: 3 or 4 (the fourth byte is not read) bytes a pixel. */
typedef struct QxwImage {
    const unsigned char* pixels;
    int32_t stride;   /* bytes between rows */
    int32_t channels; /* 3 or 4 */
    int32_t width;
    int32_t height;
    int32_t order; /* QXW_BGR or QXW_RGB */
} QxwImage;

/* A colour output: 3 bytes a pixel, the order of the input image. */
typedef struct QxwColourOut {
    unsigned char* pixels;
    int32_t stride;
} QxwColourOut;

typedef enum QxwStatus {
    QXW_OK = 0,
    QXW_BAD_INPUT = 1, /* the input can't be used (message says why); nothing was run */
    QXW_FAILED = 2,    /* a library job failed (message and libraryStatus say which) */
    QXW_CANCELLED = 3, /* the job's cancel flag was set; no output was written */
    QXW_NO_MODEL = 4   /* the subject model is not installed where it is looked for (message
                          says where, and how to install it); nothing was run */
} QxwStatus;

/* Progress of the whole workflow as a fraction from 0 to 1, never going back. Called on the
 * thread that called the workflow, and never after the workflow has returned. */
typedef void (*QxwProgressFn)(double fraction, void* data);

/* In: where progress goes (progress may be NULL), and a cancel flag (may be NULL) that any thread
 * may set to nonzero while the call runs: the call then returns QXW_CANCELLED at its next
 * progress step, with every output as it was. Out: a one-line message (empty on QXW_OK), and
 * the status of the library job that failed (0 when none did). The message is in words, never
 * a status number; running out of memory says what the job asked for when that is known, and
 * what is free (available memory and swap, within the process's address-space and container
 * limits): "out of memory: the job needs another 36 MB and 7.9 MB is free; close other
 * programs or use a smaller image". A workflow may be given a NULL job. The fraction reaches
 * 1 only when the call succeeds. Calls on different threads run at the same time, each with its
 * own job. */
typedef struct QxwJob {
    QxwProgressFn progress;
    void* progressData;
    int32_t libraryStatus;
    char message[512];
    const volatile int32_t* cancel; /* offset 536 */
} QxwJob;
QX_LAYOUT_CHECK(job_cancel, offsetof(QxwJob, cancel) == 536 && sizeof(QxwJob) == 544);

/* Stroke planes of the workflows: 255 keep (subject), 0 cut (background), any other value
 * unpainted. */
enum { QXW_KEEP = 255, QXW_CUT = 0 };

/* Engines for strokes: the stroke engine of qxStrokesToAlphaFlow (default: the information
 * flows' solve, then again on the tri-map tightened from its alpha), the older tiled engine of
 * qxKeepCutToAlpha at full resolution, or at half resolution with one guided doubling. */
typedef enum QxwStrokeEngine {
    QXW_ENGINE_STROKES = 0,
    QXW_ENGINE_KDTREE = 1,
    QXW_ENGINE_PYRAMID = 2
} QxwStrokeEngine;

/* Colour recovery methods: least squares at a quarter of the size (qxRecoverForeground),
 * shared-sample separation, or the full-resolution recovery of qxRecoverForegroundFull, which
 * the cut-out workflows use. */
typedef enum QxwForegroundMethod {
    QXW_FG_LEAST_SQUARES = 0,
    QXW_FG_SAMPLING = 1,
    QXW_FG_FULL = 2
} QxwForegroundMethod;

/* Alpha from a tri-map: codes <= bgCode background, >= fgCode foreground, others undecided;
 * the final levels stretch [levelLow, levelHigh] to [0, 255] (255 and 0: none). The undecided
 * pixels' box is solved by the information flows (qxMaskAlphaFlow). When that would run at full
 * size and the levels are 255 and 0, it is solved twice: first at half size (from 10,000
 * undecided pixels up; progress: 0.3 of the call), then at full size with what came out at most
 * 10 or at least 245 taken as decided (at full size throughout, below 10,000: 20 and 235, 0.6 of
 * the call for the first solve). QXW_BAD_INPUT,
 * before any work, for a tri-map with no undecided pixel, or with undecided pixels but no
 * background or no foreground pixel (the message says which is missing). */
QX_API QxwStatus qxwMatteTrimap(const QxwImage* image, const unsigned char* trimap,
                                int trimapStride, int fgCode, int bgCode, int levelHigh,
                                int levelLow, unsigned char* alpha, int alphaStride,
                                QxwJob* job);

/* Alpha from a stroke plane with the chosen engine. */
QX_API QxwStatus qxwMatteStrokes(const QxwImage* image, const unsigned char* strokes,
                                 int strokesStride, QxwStrokeEngine engine, unsigned char* alpha,
                                 int alphaStride, QxwJob* job);

/* The subject's own colours under an alpha from any source: where alpha is partial the
 * background's share is taken out; elsewhere the image's colours stand. */
QX_API QxwStatus qxwRecoverForeground(const QxwImage* image, const unsigned char* alpha,
                                      int alphaStride, QxwForegroundMethod method,
                                      const QxwColourOut* colours, QxwJob* job);

/* GrabCut inside the rectangle (everything outside it is background), with optional strokes
 * (NULL: none): the hard selection (255 selected, 0 not), and, when trimap is not NULL, a
 * tri-map with an undecided band of `band` pixels along the selection's edge (0: the default
 * width, qxwDefaultBand). The cut runs on a reduced copy of a large rectangle; the selection's
 * edge, and structures too thin for the reduced copy, are then decided at full resolution.
 * Painted pixels keep their stroke's side. */
QX_API QxwStatus qxwSelectSubject(const QxwImage* image, const unsigned char* strokes,
                                  int strokesStride, int x, int y, int width, int height,
                                  int band, unsigned char* selection, int selectionStride,
                                  unsigned char* trimap, int trimapStride, QxwJob* job);

/* An interactive GrabCut session that keeps its colour models between cuts: the selection of
 * qxwSelectSubject spread over the user's gestures. Begin copies the image and frames the
 * rectangle (everything outside it background) with optional strokes; each Cut paints the
 * strokes given to it (NULL: none; QXW_KEEP fixed subject, QXW_CUT fixed background, other
 * values leave the pixels as they were) and cuts again from the models the cuts before learnt,
 * writing the hard selection (255 selected, 0 not). A cancelled cut leaves the session as it
 * was. Trimap makes a tri-map from the last cut's selection with an undecided band of `band`
 * pixels (0: qxwDefaultBand) along its edge: 255 subject, 0 background, 128 undecided. End frees
 * the session (NULL is allowed). A session is used by one thread at a time. Unlike
 * qxwSelectSubject the cuts stay on the working level: the edge is not decided again at full
 * resolution. */
typedef struct QxwGrabCut QxwGrabCut;
QX_API QxwStatus qxwGrabCutBegin(const QxwImage* image, const unsigned char* strokes,
                                 int strokesStride, int x, int y, int width, int height,
                                 QxwGrabCut** session, QxwJob* job);
QX_API QxwStatus qxwGrabCutCut(QxwGrabCut* session, const unsigned char* strokes,
                               int strokesStride, unsigned char* selection, int selectionStride,
                               QxwJob* job);
QX_API QxwStatus qxwGrabCutTrimap(QxwGrabCut* session, int band, unsigned char* trimap,
                                  int trimapStride, QxwJob* job);
QX_API void qxwGrabCutEnd(QxwGrabCut* session);

/* The whole cut-out from a rectangle: GrabCut, the edge band, alpha on the band and, when
 * colours is not NULL, the recovered colours (QXW_FG_FULL). */
QX_API QxwStatus qxwCutoutFromRect(const QxwImage* image, const unsigned char* strokes,
                                   int strokesStride, int x, int y, int width, int height,
                                   int band, unsigned char* alpha, int alphaStride,
                                   const QxwColourOut* colours, QxwJob* job);

/* A clean alpha from a coarse mask or soft alpha of any source (grey, the image's size: a
 * segmentation model's output, a rough brush, another editor's selection) and, when colours is
 * not NULL, the subject's recovered colours (QXW_FG_FULL). The undecided band comes from the
 * mask and the image: the mask's soft parts, a band along its edge that is wide where the image
 * has little contrast and narrow where an image edge agrees with it, pixels near the edge whose
 * colour belongs to the other side (hair outside the mask, holes inside it), and more band
 * where the solved edge runs on past it. QXW_BAD_INPUT for a mask that is all one value. A mask
 * whose values are only 0 and 1, both present (a binary mask saved as 0/1), is read as 0 and
 * 255. */
QX_API QxwStatus qxwRefineMask(const QxwImage* image, const unsigned char* mask, int maskStride,
                               unsigned char* alpha, int alphaStride, const QxwColourOut* colours,
                               QxwJob* job);

/* What the subject-selection calls are given: where the segmentation network is. modelPath NULL
 * or empty: the environment's QX_SUBJECT_MODEL when set, else the default cache file
 * ${XDG_CACHE_HOME:-$HOME/.cache}/qxiveilon31/isnet-fp32.onnx that scripts/setup.sh (through
 * scripts/fetch_subject_model.sh) installs. A NULL options record means all defaults. */
typedef struct QxwSubjectOptions {
    const char* modelPath;
} QxwSubjectOptions;

/* The subject's soft mask in one click: a segmentation network (ISNet, general objects) sees the
 * image brought down to 1024 x 1024, and its mask comes back up to the image's size (0
 * background, 255 subject, soft values between). The network is loaded once per process and
 * file. About 3 to 10 seconds a call on two cores whatever the image's size, and about 1 GB of
 * memory (QXW_FAILED with an out-of-memory message when less is free). Progress moves before
 * and after the network's pass, and the cancel flag is looked at then: the pass itself (most
 * of the time) can't be interrupted, so a cancel waits for it. QXW_NO_MODEL when the model's
 * file is not there: "no subject model installed (looked for PATH): run scripts/setup.sh (or
 * set QX_SUBJECT_MODEL)"; QXW_BAD_INPUT when the file is not a network that gives a mask. */
QX_API QxwStatus qxwSubjectMask(const QxwImage* image, const QxwSubjectOptions* options,
                                unsigned char* mask, int maskStride, QxwJob* job);

/* The whole cut-out in one click: the subject's mask (qxwSubjectMask), combined with what the
 * user gave, solved on a band made for the network's mask (from a twentieth of the network's
 * view inside the mask's edge to a fiftieth outside it: the network paints loose hair mostly
 * as opaque subject) by the tri-map workflow (qxwMatteTrimap; on a large photo, whose band the
 * workflow first solves at a reduced size, its tightened band again at full size when it fits
 * the flows' run), and, when colours is not NULL, the recovered colours (QXW_FG_FULL). A rectangle (width and height above 0; 0 and 0: none) makes
 * everything outside it background, and the network is shown the rectangle with a margin of
 * a tenth of its sides rather than the whole image; strokes (NULL: none) override both: keep
 * pixels are subject, cut pixels background, in the mask and in the alpha. When the mask falls
 * short of the rectangle's sides (it spans under 0.88 of its width or height), GrabCut seeded
 * by the mask's sure core makes the selection, refined as qxwRefineMask refines a coarse mask.
 * When the solve loses most of the mask (its hard selection overlaps the mask's by less than a
 * half, or keeps under a quarter of it), the mask is trusted instead: a narrow band along its
 * edge is solved.
 * Statuses as qxwSubjectMask's, and QXW_BAD_INPUT when the network finds no subject (in the
 * rectangle). */
QX_API QxwStatus qxwCutoutSubject(const QxwImage* image, const QxwSubjectOptions* options,
                                  const unsigned char* strokes, int strokesStride, int x, int y,
                                  int width, int height, unsigned char* alpha, int alphaStride,
                                  const QxwColourOut* colours, QxwJob* job);

/* The memory a job may still have, in bytes, as the workflows' out-of-memory messages count it:
 * available memory plus free swap (or what the process's control group has left, when less),
 * within the address space the process may still map. Returns 1, or 0 (bytes untouched) when
 * the system's figures can't be read or bytes is NULL. */
QX_API int qxwFreeMemory(uint64_t* bytes);

/* The default band width for an image: about 1% of its longer side, at least 10 pixels. */
QX_API int qxwDefaultBand(int width, int height);

/* Paints a straight brush stroke of `value` (QXW_KEEP or QXW_CUT for a stroke plane) from
 * (x0, y0) to (x1, y1), 2 * radius + 1 pixels wide with round ends, clipped to the plane: any
 * coordinates and radius are safe, and the time is bounded by the plane's size. Strokes paint
 * the brush's chain of discs, except one so large for the plane (radius or length far beyond
 * its size) that the chain would cost over about a thousand fills of it: that one paints the
 * pixels within radius + 1/2 of the segment, which agrees with the chain to within a pixel.
 * Returns 1, or 0 (nothing painted) for a NULL plane, a size below 1, a stride shorter than a
 * row or a negative radius. */
QX_API int qxwPaintStroke(unsigned char* plane, int stride, int width, int height, int x0,
                          int y0, int x1, int y1, int radius, unsigned char value);

/* A synthetic scene with a known answer, for demonstrations and checks: a soft-edged subject
 * with thin hair-like strands over a textured background (width and height 24 to 30000; the
 * same seed gives the same scene). Each output may be NULL: image and foreground are BGR, 3
 * bytes a pixel (the composite and the subject's own colours); trimap 0 background, 128
 * undecided, 255 subject; truth the true alpha; strokes keep/cut strokes as an edge-band tool
 * leaves them (a band of about 16 pixels along the edge unpainted, 128). QXW_BAD_INPUT for a
 * size out of range (nothing written). */
QX_API QxwStatus qxwDemoScene(int width, int height, unsigned seed, const QxwColourOut* image,
                              unsigned char* trimap, int trimapStride, unsigned char* truth,
                              int truthStride, const QxwColourOut* foreground,
                              unsigned char* strokes, int strokesStride);

#ifdef __cplusplus
}
#endif

#endif /* QXWORKFLOW_H */
