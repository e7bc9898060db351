/*
 * The GIMP plug-in's way into the host workflows of tools/qxmatte (C++): the plug-in hands over
 * the pixels it read from GIMP, the bridge wraps them in cv::Mat headers and runs the same
 * workflow code as the command-line tool, so that both give the same result on the same bytes.
 * Colour images come in GIMP's byte order (R, G, B[, A]); the workflows work in B, G, R, as the
 * tool does after reading a file, and the bridge turns them round on the way in and out.
 */
#ifndef QX_GIMP_WORKFLOW_BRIDGE_H
#define QX_GIMP_WORKFLOW_BRIDGE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Progress of the running stage as a fraction (0..1). Only called on the thread that started
 * the job. The library reports on that thread; a report from any other thread would be dropped,
 * as a guard, because a plug-in's link to GIMP must only be used from its own main thread. */
typedef void (*QxgProgressFn)(double fraction, void* data);

/* A colour image: 3 (RGB) or 4 (RGBA, the alpha is not read) bytes a pixel. */
typedef struct QxgImage {
    const unsigned char* pixels;
    int stride; /* bytes between rows */
    int channels;
    int width;
    int height;
} QxgImage;

typedef enum QxgStatus {
    QXG_OK = 0,
    QXG_BAD_INPUT = 1, /* the input can't be used; message says why */
    QXG_FAILED = 2     /* the library's job failed; message gives its status */
} QxgStatus;

/* In: where progress goes (progress may be NULL). Out: a one-line message when the call fails. */
typedef struct QxgReport {
    QxgProgressFn progress;
    void* progressData;
    char message[512];
} QxgReport;

/* Alpha from a tri-map (one byte a pixel, the image's size; codes <= bgCode background,
 * >= fgCode foreground, others undecided) into alpha (one byte a pixel). */
QxgStatus qxg_matte_trimap(const QxgImage* image, const unsigned char* trimap, int trimapStride,
                           int fgCode, int bgCode, unsigned char* alpha, int alphaStride,
                           QxgReport* report);

/* Alpha from a stroke image (one byte a pixel: 255 keep, 0 cut, any other value unpainted), and
 * the subject's recovered colours (3 bytes a pixel, R G B) into rgb. pyramid: solve at half size
 * and double back. */
QxgStatus qxg_matte_strokes(const QxgImage* image, const unsigned char* strokes,
                            int strokesStride, int pyramid, unsigned char* alpha,
                            int alphaStride, unsigned char* rgb, int rgbStride,
                            QxgReport* report);

/* The cut-out workflow from a rectangle inside the image: GrabCut, an undecided band of `band`
 * pixels along the selection's edge (0: the tool's default width), alpha on the band, and, when
 * rgb is not NULL, the recovered colours. strokes: NULL, or a stroke image as above. */
QxgStatus qxg_select_subject(const QxgImage* image, const unsigned char* strokes,
                             int strokesStride, int x, int y, int width, int height, int band,
                             unsigned char* alpha, int alphaStride, unsigned char* rgb,
                             int rgbStride, QxgReport* report);

#ifdef __cplusplus
}
#endif

#endif /* QX_GIMP_WORKFLOW_BRIDGE_H */
