/*
 * qxiveilon31 — image matting for image editors. Public C interface.
 *
 * All pixel buffers belong to the caller. Planes are given as a pointer to the first byte and a
 * row step in bytes; the library never writes the pad bytes beyond a row's width. Calls run on
 * the caller's thread and fan out into parallel loops inside.
 *
 * Threads: the brushes and tools (qxDrawLine8u, qxFloodFillAlpha, qxColorRangeSelect,
 * qxDesaturation, qxfilterIm8u, qxHairSelect), qxMaskBBox, qxGrabCutEdgeGen and the display
 * functions (qxShowImageAlpha, qxScaleAlpha, qxShowKeepBlend, qxRGB2YCbCrAutoLevel,
 * qxPreviewAutoLevel) may be called from several host threads at once on different buffers.
 * The jobs (qxMaskAlpha, qxKeepCutToAlpha, qxRecoverForeground, qxRecoverForegroundCell,
 * qxGrabCut, qxStrokesToAlpha, qxRecoverForegroundFull) may run on several host threads at
 * once: progress and cancel belong to the calling thread (see qxSetCancelFlag). A GrabCut
 * control belongs to one document and takes no lock. Each call puts the calling thread's floating-point mode
 * back as it found it.
 *
 * Valid C99 and C++. Records are little-endian with 8-byte pointers; their layouts are fixed and
 * checked at compile time below.
 */
#ifndef QXIVEILON31_H
#define QXIVEILON31_H

#include <stddef.h>
#include <stdint.h>

/* The version of this header. qxVersion gives the version of the library actually loaded; a
 * plug-in built against this header needs the same major version (the shared object's soname
 * and the symbol version QXIVEILON31_<major> change with it) and at least this minor version. */
#define QXIVEILON31_VERSION_MAJOR 0
#define QXIVEILON31_VERSION_MINOR 4
#define QXIVEILON31_VERSION_PATCH 0

#if defined(QX_BUILDING_LIBRARY)
#define QX_API __attribute__((visibility("default")))
#else
#define QX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Progress callback: called with (current, total, param) during long jobs. Reports go out only
 * when both the callback and its parameter are non-null. The return value is not read. */
typedef int (*qxProgressProc)(int current, int total, void* param);

/* A tri-map matting job (qxMaskAlpha). */
typedef struct MaskRequest {
    void* reserved0;              /*  0: not read */
    unsigned char** planes;       /*  8: three colour plane pointers, 8-bit, separate planes */
    int32_t planeStep;            /* 16: bytes between rows of each colour plane */
    int32_t reserved1;            /* 20: not read */
    unsigned char* mask;          /* 24: tri-map in, alpha out */
    int32_t maskStep;             /* 32: bytes between rows of the mask */
    int32_t width;                /* 36: pixels, all four planes */
    int32_t height;               /* 40: pixels, all four planes */
    unsigned char reserved2[20];  /* 44: not read */
    qxProgressProc progProc;      /* 64: progress callback or NULL */
    void* progParam;              /* 72: handed back to progProc */
} MaskRequest;

/* The keep/cut stroke job. Stroke coding of the alpha plane: bit 0 set marks a painted pixel,
 * bits 7..1 hold alpha; 255 keep, 1 cut, 126 set back to undecided. */
typedef struct KeepCutRequest {
    unsigned char* srcImage;      /*   0: 4 bytes a pixel, bytes 0..2 colour */
    int32_t srcStep;              /*   8 */
    int32_t reserved0;            /*  12 */
    unsigned char* alphaPlane;    /*  16: strokes in, alpha out */
    int32_t alphaStep;            /*  24 */
    int32_t reserved1;            /*  28 */
    unsigned char* dstImage;      /*  32: 4 bytes a pixel, recovered colour */
    int32_t dstStep;              /*  40 */
    int32_t reserved2;            /*  44 */
    unsigned char* auxPlane;      /*  48: the host's record of the strokes */
    int32_t auxStep;              /*  56 */
    int32_t fullWidth;            /*  60 */
    int32_t fullHeight;           /*  64 */
    int32_t roiX;                 /*  68 */
    int32_t roiY;                 /*  72 */
    int32_t roiWidth;             /*  76 */
    int32_t roiHeight;            /*  80 */
    int32_t regionMode;           /*  84: 0 whole region; else width of the fixed frame */
    unsigned char recoverFlag;    /*  88: non-zero: recover foreground colour after alpha */
    unsigned char reserved3[7];   /*  89 */
    qxProgressProc progProc;      /*  96 */
    void* progParam;              /* 104 */
    void* foreColor;              /* 112 */
    void* backColor;              /* 120 */
    unsigned char reserved4[24];  /* 128 */
    int32_t mergeMode;            /* 152: refinement may only 0 lower, 1 raise alpha */
    int32_t reserved5;            /* 156: padding */
} KeepCutRequest;

/* GrabCut selection, and the colour-range brush. Planes are addressed at (roiLeft, roiTop). */
typedef struct GrabCutRequest {
    unsigned char* image;         /*   0: 4 bytes a pixel */
    int32_t imageStep;            /*   8 */
    int32_t reserved0;            /*  12 */
    unsigned char* mask;          /*  16: code plane, 1 byte a pixel */
    int32_t maskStep;             /*  24 */
    unsigned char reserved1[20];  /*  28 */
    unsigned char* result;        /*  48: result plane, or NULL */
    int32_t resultStep;           /*  56 */
    int32_t width;                /*  60 */
    int32_t height;               /*  64 */
    unsigned char reserved2[28];  /*  68 */
    qxProgressProc progProc;      /*  96 */
    void* progParam;              /* 104 */
    unsigned char reserved3[16];  /* 112 */
    void* control;                /* 128: state kept between calls; NULL to start */
    int32_t roiWidth;             /* 136 */
    int32_t roiHeight;            /* 140 */
    int32_t roiLeft;              /* 144 */
    int32_t roiTop;               /* 148 */
} GrabCutRequest;

/* A stroke matting job (qxStrokesToAlpha): keep and cut strokes to a plain alpha at any size.
 * The input and output planes are separate; the library reads image and strokes and writes only
 * alpha. */
typedef struct StrokeMatteRequest {
    const unsigned char* image;   /*  0: colour, imageChannels bytes a pixel, bytes 0..2 colour */
    int32_t imageStep;            /*  8: bytes between image rows */
    int32_t imageChannels;        /* 12: 3 or 4 */
    const unsigned char* strokes; /* 16: stroke coding (bit 0 set: painted, its alpha
                                   *     (v & 0xFE) + ((v >> 1) & 1); even: to be computed) */
    int32_t strokesStep;          /* 24 */
    int32_t width;                /* 28: pixels, all three planes */
    unsigned char* alpha;         /* 32: out: plain alpha, 0 transparent .. 255 opaque */
    int32_t alphaStep;            /* 40 */
    int32_t height;               /* 44: pixels, all three planes */
    qxProgressProc progProc;      /* 48: progress callback or NULL; uninstalled when the job ends */
    void* progParam;              /* 56: handed back to progProc */
    int32_t memoryBudgetMB;       /* 64: working memory allowed, in MB; 0: the library's budget */
    int32_t reserved0;            /* 68: set to 0 */
    unsigned char reserved1[24];  /* 72: set to 0 */
} StrokeMatteRequest;

/* Request of qxRecoverForegroundFull. All planes are width x height; fill reserved with 0. */
typedef struct ForegroundRequest {
    const unsigned char* image;   /*  0: the photograph, imageChannels bytes a pixel, 0..2 colour */
    int32_t imageStep;            /*  8: bytes between image rows */
    int32_t imageChannels;        /* 12: 3 or 4 */
    const unsigned char* alpha;   /* 16: plain alpha, 0 transparent .. 255 opaque */
    int32_t alphaStep;            /* 24 */
    int32_t width;                /* 28: pixels */
    unsigned char* colours;       /* 32: out: the subject's colours, coloursChannels bytes a
                                   *     pixel (bytes 0..2 in the image's order; a fourth byte
                                   *     is not written); must not overlap image or alpha */
    int32_t coloursStep;          /* 40 */
    int32_t height;               /* 44: pixels */
    qxProgressProc progProc;      /* 48: progress callback or NULL; uninstalled when the job ends */
    void* progParam;              /* 56: handed back to progProc */
    int32_t memoryBudgetMB;       /* 64: working memory allowed, in MB; 0: the library's budget */
    int32_t coloursChannels;      /* 68: 3 or 4 */
    unsigned char reserved[24];   /* 72: set to 0 */
} ForegroundRequest;

/* Compile-time layout checks (C99-compatible: a negative array size fails the build). */
#define QX_LAYOUT_CHECK(name, cond) typedef char qx_layout_check_##name[(cond) ? 1 : -1]
QX_LAYOUT_CHECK(mask_size, sizeof(MaskRequest) == 80);
QX_LAYOUT_CHECK(mask_planes, offsetof(MaskRequest, planes) == 8);
QX_LAYOUT_CHECK(mask_planeStep, offsetof(MaskRequest, planeStep) == 16);
QX_LAYOUT_CHECK(mask_mask, offsetof(MaskRequest, mask) == 24);
QX_LAYOUT_CHECK(mask_maskStep, offsetof(MaskRequest, maskStep) == 32);
QX_LAYOUT_CHECK(mask_width, offsetof(MaskRequest, width) == 36);
QX_LAYOUT_CHECK(mask_height, offsetof(MaskRequest, height) == 40);
QX_LAYOUT_CHECK(mask_progProc, offsetof(MaskRequest, progProc) == 64);
QX_LAYOUT_CHECK(mask_progParam, offsetof(MaskRequest, progParam) == 72);
QX_LAYOUT_CHECK(kc_size, sizeof(KeepCutRequest) == 160);
QX_LAYOUT_CHECK(kc_srcStep, offsetof(KeepCutRequest, srcStep) == 8);
QX_LAYOUT_CHECK(kc_alphaPlane, offsetof(KeepCutRequest, alphaPlane) == 16);
QX_LAYOUT_CHECK(kc_alphaStep, offsetof(KeepCutRequest, alphaStep) == 24);
QX_LAYOUT_CHECK(kc_dstImage, offsetof(KeepCutRequest, dstImage) == 32);
QX_LAYOUT_CHECK(kc_dstStep, offsetof(KeepCutRequest, dstStep) == 40);
QX_LAYOUT_CHECK(kc_auxPlane, offsetof(KeepCutRequest, auxPlane) == 48);
QX_LAYOUT_CHECK(kc_auxStep, offsetof(KeepCutRequest, auxStep) == 56);
QX_LAYOUT_CHECK(kc_fullWidth, offsetof(KeepCutRequest, fullWidth) == 60);
QX_LAYOUT_CHECK(kc_fullHeight, offsetof(KeepCutRequest, fullHeight) == 64);
QX_LAYOUT_CHECK(kc_roiX, offsetof(KeepCutRequest, roiX) == 68);
QX_LAYOUT_CHECK(kc_roiY, offsetof(KeepCutRequest, roiY) == 72);
QX_LAYOUT_CHECK(kc_roiWidth, offsetof(KeepCutRequest, roiWidth) == 76);
QX_LAYOUT_CHECK(kc_roiHeight, offsetof(KeepCutRequest, roiHeight) == 80);
QX_LAYOUT_CHECK(kc_regionMode, offsetof(KeepCutRequest, regionMode) == 84);
QX_LAYOUT_CHECK(kc_recoverFlag, offsetof(KeepCutRequest, recoverFlag) == 88);
QX_LAYOUT_CHECK(kc_progProc, offsetof(KeepCutRequest, progProc) == 96);
QX_LAYOUT_CHECK(kc_progParam, offsetof(KeepCutRequest, progParam) == 104);
QX_LAYOUT_CHECK(kc_foreColor, offsetof(KeepCutRequest, foreColor) == 112);
QX_LAYOUT_CHECK(kc_backColor, offsetof(KeepCutRequest, backColor) == 120);
QX_LAYOUT_CHECK(kc_mergeMode, offsetof(KeepCutRequest, mergeMode) == 152);
QX_LAYOUT_CHECK(gc_size, sizeof(GrabCutRequest) == 152);
QX_LAYOUT_CHECK(gc_imageStep, offsetof(GrabCutRequest, imageStep) == 8);
QX_LAYOUT_CHECK(gc_mask, offsetof(GrabCutRequest, mask) == 16);
QX_LAYOUT_CHECK(gc_maskStep, offsetof(GrabCutRequest, maskStep) == 24);
QX_LAYOUT_CHECK(gc_result, offsetof(GrabCutRequest, result) == 48);
QX_LAYOUT_CHECK(gc_resultStep, offsetof(GrabCutRequest, resultStep) == 56);
QX_LAYOUT_CHECK(gc_width, offsetof(GrabCutRequest, width) == 60);
QX_LAYOUT_CHECK(gc_height, offsetof(GrabCutRequest, height) == 64);
QX_LAYOUT_CHECK(gc_progProc, offsetof(GrabCutRequest, progProc) == 96);
QX_LAYOUT_CHECK(gc_progParam, offsetof(GrabCutRequest, progParam) == 104);
QX_LAYOUT_CHECK(gc_control, offsetof(GrabCutRequest, control) == 128);
QX_LAYOUT_CHECK(gc_roiWidth, offsetof(GrabCutRequest, roiWidth) == 136);
QX_LAYOUT_CHECK(gc_roiHeight, offsetof(GrabCutRequest, roiHeight) == 140);
QX_LAYOUT_CHECK(gc_roiLeft, offsetof(GrabCutRequest, roiLeft) == 144);
QX_LAYOUT_CHECK(gc_roiTop, offsetof(GrabCutRequest, roiTop) == 148);

QX_LAYOUT_CHECK(sm_size, sizeof(StrokeMatteRequest) == 96);
QX_LAYOUT_CHECK(sm_strokes, offsetof(StrokeMatteRequest, strokes) == 16);
QX_LAYOUT_CHECK(sm_alpha, offsetof(StrokeMatteRequest, alpha) == 32);
QX_LAYOUT_CHECK(sm_height, offsetof(StrokeMatteRequest, height) == 44);
QX_LAYOUT_CHECK(sm_progProc, offsetof(StrokeMatteRequest, progProc) == 48);
QX_LAYOUT_CHECK(sm_memoryBudgetMB, offsetof(StrokeMatteRequest, memoryBudgetMB) == 64);
QX_LAYOUT_CHECK(fg_size, sizeof(ForegroundRequest) == 96);
QX_LAYOUT_CHECK(fg_alpha, offsetof(ForegroundRequest, alpha) == 16);
QX_LAYOUT_CHECK(fg_colours, offsetof(ForegroundRequest, colours) == 32);
QX_LAYOUT_CHECK(fg_height, offsetof(ForegroundRequest, height) == 44);
QX_LAYOUT_CHECK(fg_progProc, offsetof(ForegroundRequest, progProc) == 48);
QX_LAYOUT_CHECK(fg_coloursChannels, offsetof(ForegroundRequest, coloursChannels) == 68);

/* ---- Set-up ------------------------------------------------------------------------------ */

/* Debug trace: bit 0 of traceMask a text log ("<dir>/qxtrace_log.txt"), bit 1 image dumps.
 * Returns 0 and does nothing for a negative traceMask; otherwise 1 when the trace's own log
 * entry was written, 0 when not (log bit clear or file not writable). traceDir NULL keeps the
 * previous directory. */
QX_API int qxSetupLib(int traceMask, const char* traceDir);
/* As qxSetupLib, for any mask value. */
QX_API int setDebugTrace(unsigned traceMask, const char* traceDir);

/* The loaded library's version: writes major, minor and patch into the pointers that are
 * non-null and returns major * 10000 + minor * 100 + patch. Never fails. */
QX_API int qxVersion(int* major, int* minor, int* patch);

/* ---- Jobs: progress and cancel ------------------------------------------------------------ */

/* Every job reports progress only to the callback of its own request, on the thread that called
 * it, and never after it has returned. Jobs on different threads run independently: each thread
 * has its own progress and cancel state.
 *
 * Cancel: gives the library a flag for the jobs that the calling thread runs from now on (NULL:
 * none). Any thread may set *flag to nonzero while a job runs; the job stops at its next
 * progress step or piece of work, returns QX_CANCELLED and leaves every host buffer as it came
 * in. The library only reads the flag: clear it before the next job. The jobs that stop so:
 * qxMaskAlpha, qxKeepCutToAlpha, qxRecoverForeground, qxRecoverForegroundCell, qxGrabCut,
 * qxStrokesToAlpha, qxRecoverForegroundFull, and the flows' qxMaskAlphaFlow and
 * qxStrokesToAlphaFlow. A direct factorisation can't be interrupted: while a flag is installed
 * it runs on a thread of its own and the job waits for it, so a cancelled job returns at once and
 * the solve finishes alone on memory it owns (the next direct solve waits for it; unloading the
 * library waits for it). The flows' jobs have no direct factorisation: their iterations look at
 * the flag, and a cancelled one has stopped and freed its memory when it returns. */
#define QX_CANCELLED (-3)
QX_API void qxSetCancelFlag(const volatile int32_t* flag);

/* ---- Tri-map matting ---------------------------------------------------------------------- */

/* Bounding box of the undecided pixels of a tri-map, 12 pixels of margin, with the counts of
 * pixels equal to fgCode and bgCode inside it (is16: 16-bit plane, code c stands for c*128,
 * and values at or beyond fgCode*128 / bgCode*128 count as decided). In an 8-bit plane only the
 * two codes themselves are decided: any other value, one below bgCode too, is undecided. A
 * pixel that matches both codes counts in both counts.
 * Returns 1. No undecided pixel, or a box under 24 rows: box 0,0,0,0 and counts -1 (into the
 * count pointers that are non-null). Otherwise the counts are written only when both count
 * pointers are non-null.
 * Refusal (NULL data or box outputs, width or height < 1, step smaller than a row): returns 0
 * and writes nothing. */
QX_API int qxMaskBBox(int is16, const unsigned char* data, int step, int width, int height,
                      int* outLeft, int* outWidth, int* outTop, int* outHeight,
                      int* outFgCount, int* outBgCount, int reserved, int fgCode, int bgCode);

/* Closed-form alpha from a tri-map, in place on request->mask. unknownPixels: the caller's
 * count of undecided pixels (budget estimate). Codes <= bgCode are background, >= fgCode
 * foreground. The final levels stretch [levelLow, levelHigh] to [0, 255] (the range is formed
 * without overflow: 255 or more leaves the alpha, 0 or less counts as 1). A NaN unknownPixels
 * is taken as every pixel undecided, a count whose estimate falls below 0 as 0; a count so
 * large that the reduced run would have no pixel (infinity) is refused (-1000, nothing written).
 * Returns 1 on success; e - 1000 for an internal failure e (-898 out of memory for an image,
 * -897 guard row overwritten, -888/-887 out of memory for an image over 5000 wide/high,
 * -1001 system too large, -879..-877 solver phase, -875 solver out of memory, -870 array
 * allocation); -1000 for any other failure.
 * Refusal (NULL request, planes or mask; width or height < 1; a step smaller than a row):
 * returns -1000 and writes nothing. */
QX_API int qxMaskAlpha(MaskRequest* request, int reserved, float unknownPixels, int fgCode,
                       int bgCode, int levelHigh, int levelLow);

/* The tri-map job of qxMaskAlpha as the workflows ran it until 0.4.0: without its two finishing
 * steps (the unsharp masking of the solved alpha and the cross bilateral clean-up along colour
 * edges), the closed-form solution as it comes, with a colour model regularised ten times less
 * (1e-8 on the 0..255 scale), window affinities formed through a Cholesky factor of the colour
 * covariance (exact for windows of greys), and its solve refined once. A reduced run solves the
 * same way before its guided doubling (at this regularisation the finishing steps no longer help
 * it). The same run choice, levels, statuses, refusals, progress and cancel. On the alpha-matting
 * benchmark photos its error over the undecided pixels is 13% below qxMaskAlpha's (mean SAD 4.79
 * against 5.50). */
QX_API int qxMaskAlphaPlain(MaskRequest* request, float unknownPixels, int fgCode, int bgCode,
                            int levelHigh, int levelLow);

/* The tri-map job as the workflows run it since 0.4.0: qxMaskAlphaPlain's job (run choice for the
 * memory budget, halving and guided doubling of a reduced run, final levels, statuses, refusals
 * and cancel) with another solve of its run, and without the hard-value rule: an undecided pixel
 * may come back as 0 or 255. Beside the closed-form Laplacian
 * of 3x3 windows it takes information from afar: each undecided pixel's alpha as the mixture of
 * its nearest neighbours' in colour and place (colour mixture), an estimate from the nearest
 * foreground and background colours with its confidence (known to unknown), and links between
 * undecided pixels of one colour wherever they lie. The system over the undecided pixels is solved
 * by preconditioned conjugate gradients, which look at the cancel flag as they go: a cancelled
 * job stops within a fraction of a second and keeps nothing. Runs hold at most 400,000 undecided
 * pixels (a larger job is solved at a reduced size). On the alpha-matting benchmark photos the
 * error over the undecided pixels is about a fifth below qxMaskAlphaPlain's (see README); it takes
 * two to three times as long. Progress comes as kicks before and after the solve and, for a
 * workflow's listener, as the solve goes. */
QX_API int qxMaskAlphaFlow(MaskRequest* request, float unknownPixels, int fgCode, int bgCode,
                           int levelHigh, int levelLow);

/* ---- Keep-cut matting --------------------------------------------------------------------- */

/* Alpha from keep and cut strokes, in place on the region of request->alphaPlane (stroke
 * coding above; all planes are addressed at (roiX, roiY) with their own steps).
 * Engines: a region refinement (regionMode != 0) whose roiWidth * roiHeight, taken as a 32-bit
 * int, is below 937,024 takes the windowed engine: the region plus a fixed frame of regionMode
 * pixels (with no room for a frame, the bounding box of the pixels that are neither 255 nor 1)
 * is solved in one window, or on a pyramid with a grid of overlapping windows when memory is
 * short. Every other call takes the KD-tree engine, which cuts the job into tiles solved one
 * after the other: hiRes 1 at full resolution, any other value at half resolution with one
 * guided doubling (a 1-pixel stroke on an odd row or column may then go unseen).
 * On output painted bytes come back unchanged and computed bytes are even. dstImage receives
 * the source pixel (4 bytes) at 255 and 1 strokes (KD-tree engine; NULL: not written). In a
 * KD-tree refinement a frame of about 2n+2 pixels (full resolution) or n+1 half-size pixels
 * (pyramid) stays fixed, n = regionMode, and an auxPlane byte of 126 reopens its pixel (full
 * resolution only). recoverFlag: qxRecoverForegroundCell runs after the alpha, before the merge.
 * A refinement is then merged with the earlier alpha at unpainted pixels: mergeMode 0 keeps the
 * lower, 1 the higher value; other modes merge nothing.
 * Returns 1 done (also when the windowed engine found too few strokes: it restores the flags and
 * leaves the plane as it was); -1 out of memory, or one tile would hold more than 2,000,000
 * unpainted pixels (add strokes), or a pyramid region under 2 pixels wide or high; -5 too few
 * strokes for the KD-tree (no keep, no cut, or fewer than 3 unpainted pixels; nothing solved,
 * the plane as given); an image failure code as thrown (102 no memory, 112/113 no memory for an
 * image over 5000 wide/high, 103 guard row overwritten, 121..123/125/130 solver); -1000 any
 * other failure. The paint flags are back in the plane however the call ends: bit 0 of each
 * region byte is set from bit 0 of its auxPlane byte, so auxPlane should hold a copy of the
 * coded plane as the host painted it.
 * Refusal (NULL request, srcImage, alphaPlane or auxPlane; NULL dstImage when a KD-tree runs or
 * recoverFlag is set; an image or region size below 1; a region outside the image; a step
 * smaller than a row): returns -1000 and writes nothing. */
QX_API int qxKeepCutToAlpha(KeepCutRequest* request, int hiRes);

/* Alpha from keep and cut strokes at any image size, at the quality of a one-piece closed-form
 * solve of the same strokes, inside the memory budget (request->memoryBudgetMB, or the
 * library's own). Painted pixels come back as their painted alpha; every other pixel is
 * computed. Progress goes to request->progProc only, and never after the call has returned.
 * Returns 1 done (an image painted everywhere comes back as painted); -5 too few strokes (no
 * painted pixel at 128 or above, or none below 128, while some pixel is unpainted); -1 out of
 * memory; -1000 any other failure.
 * Refusal (NULL request, image, strokes or alpha; width or height < 1; imageChannels not 3 or
 * 4; a step smaller than a row): returns -2. On any status but 1 alpha is left as it was. */
QX_API int qxStrokesToAlpha(const StrokeMatteRequest* request);

/* The same job solved as qxMaskAlphaFlow solves a tri-map (the workflows' stroke engine since
 * 0.4.0): non-local colour mixtures, known-to-unknown estimates and links between undecided
 * pixels beside the closed-form Laplacian, by conjugate gradients that stop at once on a cancel;
 * runs hold at most 400,000 undecided pixels (reduced and enlarged guided by the colour above
 * that). It solves twice: first at half size where the run would be at full size, then on the
 * tri-map tightened from that alpha. On strokes painted on the benchmark photos scaled to about
 * 12 MP it has about 40% less error than qxStrokesToAlpha in less than half the time and a
 * quarter of the memory; at their own size about a third less error in a third of the time.
 * Same request, statuses and refusals. */
QX_API int qxStrokesToAlphaFlow(const StrokeMatteRequest* request);

/* ---- Foreground colour recovery ----------------------------------------------------------- */

/* The foreground's own colour at partly transparent pixels of the region, written over bytes
 * 0..2 of dstImage for the region less a frame of 3 pixels (byte 3 and the frame stay).
 * alphaPlane is a plain alpha (0 transparent .. 255 opaque); auxPlane must be readable but
 * doesn't change the result. Solved at a quarter of the region's size in cells sized from the
 * memory budget; alpha >= 251 or <= 4 keeps the source colour. blendEdges (low byte) nonzero:
 * the result is feathered into dstImage's present colours over 64 pixels along the region's
 * edges. Progress goes to the callback already installed (total 20000).
 * Returns 0 done; -879/-878/-877 the direct solver failed in analysis/factorisation/solve (the
 * message "\nERROR during ...: %d" with that code is printed on standard output); -898 out of
 * memory for an image (-888/-887 over 5000 wide/high), -897 guard row overwritten, -870 array
 * allocation, -989 a cell too large for one system (only when the memory status can't be read);
 * -1000 any other failure. dstImage is written only when the call returns 0.
 * Refusal (NULL request, srcImage, alphaPlane, dstImage or auxPlane; full size or region below
 * 1; region outside the full image; a step smaller than a row of the full width): returns -2
 * and writes nothing. */
QX_API int64_t qxRecoverForeground(KeepCutRequest* request, int blendEdges);

/* Foreground recovery as qxKeepCutToAlpha runs it: cells of at most 100 pixels solved where an
 * even (computed) alpha byte lies in 6..249; scale 0.18 when regionMode is 0, else by the full
 * image: <= 200,000 pixels 1.0, < 4,000,000 0.33, otherwise 0.2. Alpha >= 252 or <= 4 keeps the
 * source. The result is laid over dstImage through a smooth window (weight 1 in the centre, 0
 * at the region's edges), for the region less a frame of 1 (regionMode 0) or 3 pixels: put the
 * colours that are to show through there first. Installs request->progProc/progParam (total
 * 20000). auxPlane is not read (may be NULL).
 * Returns 1 done; failures as qxRecoverForeground. Refusal as qxRecoverForeground (auxPlane
 * excepted): returns -2 and writes nothing. */
QX_API int64_t qxRecoverForegroundCell(KeepCutRequest* request, int64_t reserved);

/* The subject's own colours under an alpha from any source, at full resolution: where alpha is
 * partial the background's share is taken out of the colour; where it is 0 or 255 the image's
 * colour is copied as it stands. The colours follow the image where alpha is flat and are
 * smoothed where alpha changes, solved coarse to fine over a pyramid of halved levels. Images
 * larger than the budget allows in one piece are solved in overlapping pieces with the same
 * result. On the alpha-matting composites it has about a third of the error of
 * qxRecoverForeground. Progress goes to request->progProc only.
 * Returns 1 done; -1 the memory budget can't hold even the pieces (at 24 MP the coarse levels
 * alone take about 320 MB), or out of memory; -1000 any other failure. colours is written only
 * when the call returns 1.
 * Refusal (NULL request, image, alpha or colours; channels other than 3 or 4; width or height
 * below 1; a step smaller than a row; a negative budget; colours overlapping image or alpha):
 * returns -2 and writes nothing. */
QX_API int qxRecoverForegroundFull(const ForegroundRequest* request);

/* ---- GrabCut selection ------------------------------------------------------------------- */

/* Interactive hard selection. Codes of request->mask: bit 0 set marks a pixel fixed by the user
 * (1 fixed background, 255 fixed foreground), which comes back unchanged; on other pixels a
 * code below 10 leans to background, above 245 to foreground, 126 is undecided. Only the
 * rectangle (roiLeft, roiTop, roiWidth, roiHeight) is read or written.
 * The first call (request->control NULL) starts a session: it stores a new control in
 * request->control, which later calls on the same rectangle size go on from. The colour models
 * (mixtures of five Gaussians a side) are learned from the labels whenever the session has none
 * yet, so the first cut learns them even with no stroke at all (a bare rectangle: a frame of
 * sure background five working pixels wide just inside it, the rest probable foreground), and
 * again when the number of fixed pixels changed; otherwise a cut refines the models of the cut
 * before.
 * On return mask (and result, when not NULL) hold the selection: 0 and 254 with in-between
 * values along the edge, the fixed codes where the user put them. When the rectangle was
 * reduced for the cut, the pixels the guided doubling does not estimate (every other pixel of
 * its first row and column, its last one to three rows and columns) keep their own code with
 * the low bit cleared. The same request on the same images gives the same selection. mode is
 * not used.
 * Any size works: large rectangles are cut on a reduced copy (longer side at most 400) and the
 * selection brought back guided by the colour edges.
 * Returns 1 done; a thrown image failure as it stands (102 out of memory, 103 guard row
 * overwritten, 112/113 out of memory for an image over 5000 wide/high); -1000 any other
 * failure. On a failure mask is back as it came in and result untouched.
 * Refusal (NULL request, image or mask; width, height, roiWidth or roiHeight < 1; the rectangle
 * not inside the planes; a step smaller than a row; a control that is not a live one of this
 * library or was made for another rectangle size): returns 0 and writes nothing. */
QX_API int qxGrabCut(GrabCutRequest* request, int mode);

/* Ends a session: deletes request->control (when not NULL) and sets the field to NULL, then
 * settles the mask's codes in the rectangle: 0 and 1 become 1, 254 and 255 become 255, every
 * other value loses its low bit. result (when not NULL) receives the same settled mask codes;
 * its own values are not read.
 * Refusal: a NULL request, or a control that is not a live one of this library: nothing
 * deleted, nothing written. Planes that fail the checks of qxGrabCut: the control is deleted,
 * no code is written. */
QX_API void qxGrabCutDeleteBuf(GrabCutRequest* request);

/* A tri-map from the selection in request->result, written into request->mask: result codes
 * 254 and 255 are the subject; a band along its edge (a disc brush of radius bandWidth/2
 * eroding and dilating it, the image's border neither eroding nor growing) becomes 126, the
 * rest 254 (subject) or 0; a pixel whose result code is odd (fixed by the user) takes that code.
 * Refusal (NULL request, mask or result; bandWidth negative or above 32767; the size, rectangle
 * or step checks of qxGrabCut): writes nothing. */
QX_API void qxGrabCutEdgeGen(GrabCutRequest* request, int bandWidth);

/* ---- Brushes and tools -------------------------------------------------------------------- */

/* Hair brush over the stroke (x1,y1)-(x2,y2) with the given radius. Reads request->srcImage
 * (4 bytes a pixel, bytes 0..2 colour), alphaPlane, fullWidth, fullHeight, and the foreground
 * and background colours foreColor and backColor (3 bytes each, reverse pixel order: byte 0 goes
 * with pixel byte 2). In the stroke's box (the ends' bounding box grown by radius, clipped to
 * the image), alpha is the pixel colour's position between the two colours, clamped to 0..1;
 * under the brush dot drawn at the box's upper left corner (2*radius+1 wide), a pixel whose new
 * alpha is the least or greatest of its neighbours (-1,-1) (0,-1) (1,-1) (-1,0) (0,0) (-2,1)
 * (-1,1) is written into alphaPlane with bit 0 set (a painted constraint). Nothing else is
 * written; a box under 3 rows or columns writes nothing.
 * Returns 1 in every case. Nothing is done for an end outside the image (negative coordinates
 * included), a NULL request, image, alpha plane or colour, fullWidth or fullHeight < 1, a step
 * smaller than a row, or a radius over 16383. */
QX_API int64_t qxHairSelect(KeepCutRequest* request, int x1, int y1, int x2, int y2,
                            unsigned radius);

/* Draws one brush segment (cv::line thickness 2*radius+1, 8-connected) into the code plane.
 * mode 0 writes 1, 1 writes 255, 2 writes 126, 3 writes (value & 254) + 1, others 0.
 * Any int coordinates work: an end more than 2^20 pixels beyond the plane is moved along the
 * segment to just outside the brush's reach before drawing (same line; the stroke's edge may
 * then fall one pixel otherwise than cv::line would place it).
 * step 0 means width. Returns 1; refusal (NULL mask, width or height < 1, radius negative or
 * over 16383, step negative or 0 < step < width): returns 0 and writes nothing. */
QX_API int qxDrawLine8u(unsigned char* mask, int step, int width, int height, int x0, int y0,
                        int x1, int y1, int radius, unsigned char mode, unsigned char value);

/* Paints the 8-connected region of the seed's label (mode 0 background, 1 foreground,
 * 2 undecided). rect receives left, top, width, height of what may have changed.
 * Returns 1 done, -3 seed outside the plane, negative coordinates included (rect zeroed,
 * plane untouched), -1 out of memory.
 * Refusal (NULL mask or rect, width or height < 1, step smaller than a row): returns 0 and
 * writes nothing. */
QX_API int qxFloodFillAlpha(unsigned char* mask, int step, int width, int height, int seedX,
                            int seedY, int64_t reserved1, int64_t reserved2, unsigned char mode,
                            int64_t reserved3, int* rect);

/* ---- Display ------------------------------------------------------------------------------ */

/* Paints a preview of an alpha plane onto a 4-byte display image, style 1..6 (any other style
 * does nothing). colour: 3 bytes in reverse pixel order, for styles 3, 4, 6.
 * Returns 1; refusal (NULL image or alpha, NULL colour for styles 3/4/6, high equal to low
 * for styles 3..6, width or height < 1, a step smaller than a row): returns 0 and writes
 * nothing. */
QX_API int qxShowImageAlpha(unsigned char* image, int imageStep, int width, int height,
                            const unsigned char* alpha, int alphaStep, unsigned char high,
                            unsigned char low, int style, const unsigned char* colour);

/* Stretches an alpha plane so that low becomes 0 and high 255; keepFixed keeps odd codes.
 * Returns 1; refusal (NULL alpha, width or height < 1, step smaller than a row, high equal
 * to low): returns 0 and writes nothing. */
QX_API int qxScaleAlpha(unsigned char* alpha, int step, int width, int height,
                        unsigned char high, unsigned char low, int keepFixed);

/* Cross-fades bytes 0..2 of image towards keep by weight (0..1); byte 3 stays.
 * Bad arguments (NULL, sizes < 1, steps smaller than a row) leave the image untouched. */
QX_API void qxShowKeepBlend(unsigned char* image, int imageStep, int width, int height,
                            const unsigned char* keep, int keepStep, int64_t reserved1,
                            int64_t reserved2, float weight);

/* ---- Selection by colour and filters ------------------------------------------------------ */

/* Brush that writes code 255 (foreground != 0) or 1 into unfixed mask pixels under the stroke
 * whose colour lies within tolerance of colour (3 bytes, reverse pixel order): squared distance
 * strictly below tolerance*tolerance, a 32-bit unsigned product. Far stroke ends as qxDrawLine8u.
 * Returns 1; refusal (NULL request, image, mask or colour, width or height < 1, steps smaller
 * than a row, radius negative or over 16383): returns 0 and writes nothing. */
QX_API int qxColorRangeSelect(GrabCutRequest* request, int x0, int y0, int x1, int y1,
                              int radius, const unsigned char* colour, unsigned tolerance,
                              unsigned char foreground);

/* Lowers the saturation of soft-edge pixels of a 4-byte image by strength (0..1).
 * Returns 1; refusal (NULL image or alpha, width or height < 1, steps smaller than a row):
 * returns 0 and writes nothing. */
QX_API int qxDesaturation(unsigned char* image, int imageStep, int width, int height,
                          const unsigned char* alpha, int alphaStep, float strength);

/* Smooths a byte plane: median then Gaussian; mode 0 light, 1 strong, others nothing.
 * Returns 1; refusal (NULL plane, width or height < 1, step smaller than a row): returns 0. */
QX_API int qxfilterIm8u(unsigned char* plane, int step, int width, int height, int mode);

/* ---- Preview ------------------------------------------------------------------------------ */

/* Diagnostic view of a 3-byte image in place: view 0 brightened, 1 luma, 2 chroma, 3 Cb, 4 Cr;
 * level > 1 stretches. Returns 1, or 0 for a view outside 0..4; refusal (NULL image, width or
 * height < 1, step smaller than a row): returns 0 and writes nothing. */
QX_API int qxRGB2YCbCrAutoLevel(unsigned char* image, int step, int width, int height, int view,
                                int level);

/* Brightens a 3-byte image so that its brightest channel mean approaches level; never darkens.
 * Returns 1; refusal (NULL image, width or height < 1, step smaller than a row): returns 0. */
QX_API int qxPreviewAutoLevel(unsigned char* image, int step, int width, int height,
                              float level);

#ifdef __cplusplus
}
#endif

#endif /* QXIVEILON31_H */
