/*
 * A minimal host: loads the matting library the way an image editor's plug-in does (dlopen and
 * dlsym, no link-time dependency), makes a small synthetic image with a tri-map and a stroke
 * plane, and runs the mask box, the brush, the bucket fill and a preview on them.
 *
 * Usage: qx_host_example [path/to/libqxiveilon31.so]
 * Exits 0 when every call did what a host expects, 1 otherwise.
 */
#define _POSIX_C_SOURCE 200809L

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qxiveilon31.h"

#ifndef QX_DEFAULT_LIBRARY
#define QX_DEFAULT_LIBRARY "libqxiveilon31.so"
#endif

/* Entry types as a plug-in keeps them. */
typedef int (*QxMaskBBoxFn)(int, const unsigned char*, int, int, int, int*, int*, int*, int*,
                            int*, int*, int, int, int);
typedef int (*QxDrawLine8uFn)(unsigned char*, int, int, int, int, int, int, int, int,
                              unsigned char, unsigned char);
typedef int (*QxFloodFillAlphaFn)(unsigned char*, int, int, int, int, int, int64_t, int64_t,
                                  unsigned char, int64_t, int*);
typedef int (*QxVersionFn)(int*, int*, int*);
typedef int (*QxShowImageAlphaFn)(unsigned char*, int, int, int, const unsigned char*, int,
                                  unsigned char, unsigned char, int, const unsigned char*);

/* The types must match the header's declarations: comparing distinct function pointer types
 * is a diagnostic, which -Werror makes fatal. sizeof does not evaluate, so nothing is linked. */
#define QX_SAME_SIGNATURE(fn, type) \
    typedef char qx_signature_##fn[sizeof(&fn == (type)0) ? 1 : -1]
QX_SAME_SIGNATURE(qxMaskBBox, QxMaskBBoxFn);
QX_SAME_SIGNATURE(qxDrawLine8u, QxDrawLine8uFn);
QX_SAME_SIGNATURE(qxFloodFillAlpha, QxFloodFillAlphaFn);
QX_SAME_SIGNATURE(qxShowImageAlpha, QxShowImageAlphaFn);
QX_SAME_SIGNATURE(qxVersion, QxVersionFn);

enum { W = 64, H = 48, PAD = 8, PAD_BYTE = 0xA7 };

/* Rows with padding, as host images often have; the pad must never be written. */
typedef struct Buffer {
    unsigned char* data;
    int step;
    int rowBytes;
} Buffer;

static int makeBuffer(Buffer* b, int bytesPerPixel, unsigned char fill) {
    int y;
    b->rowBytes = W * bytesPerPixel;
    b->step = b->rowBytes + PAD;
    b->data = (unsigned char*)malloc((size_t)b->step * H);
    if (!b->data) return 0;
    memset(b->data, PAD_BYTE, (size_t)b->step * H);
    for (y = 0; y < H; ++y) memset(b->data + (size_t)y * b->step, fill, (size_t)b->rowBytes);
    return 1;
}

static int padsIntact(const Buffer* b) {
    int y, i;
    for (y = 0; y < H; ++y)
        for (i = b->rowBytes; i < b->step; ++i)
            if (b->data[(size_t)y * b->step + i] != PAD_BYTE) return 0;
    return 1;
}

static unsigned char* at(const Buffer* b, int x, int y, int bytesPerPixel) {
    return b->data + (size_t)y * b->step + (size_t)x * bytesPerPixel;
}

/* dlsym gives an object pointer; copying its bytes is the portable way to a function pointer. */
static int resolve(void* lib, const char* name, void* fnOut) {
    void* sym = dlsym(lib, name);
    if (!sym) {
        fprintf(stderr, "missing entry %s\n", name);
        return 0;
    }
    memcpy(fnOut, &sym, sizeof sym);
    return 1;
}

static int check(int ok, const char* what) {
    if (!ok) fprintf(stderr, "FAILED: %s\n", what);
    return ok;
}

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : QX_DEFAULT_LIBRARY;
    QxMaskBBoxFn maskBBox;
    QxDrawLine8uFn drawLine;
    QxFloodFillAlphaFn floodFill;
    QxShowImageAlphaFn showAlpha;
    QxVersionFn version;
    int major = 0, minor = 0, patch = 0;
    Buffer image = {0, 0, 0}, trimap = {0, 0, 0}, codes = {0, 0, 0};
    int ok = 1;
    int x, y, left = 0, width = 0, top = 0, height = 0, fgCount = 0, bgCount = 0;
    int rect[4] = {0, 0, 0, 0};
    unsigned char* px;
    /* The library's parallel loops run on the OpenMP runtime, whose worker threads outlive
     * each call. Unmapping the runtime under them crashes the process at a later moment, so the
     * plug-in maps the library once for the life of the process (RTLD_NODELETE); dlclose then
     * only drops the reference. */
    void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!lib) {
        fprintf(stderr, "cannot load %s: %s\n", path, dlerror());
        return 1;
    }
    if (!resolve(lib, "qxMaskBBox", &maskBBox) || !resolve(lib, "qxDrawLine8u", &drawLine) ||
        !resolve(lib, "qxFloodFillAlpha", &floodFill) ||
        !resolve(lib, "qxShowImageAlpha", &showAlpha) || !resolve(lib, "qxVersion", &version)) {
        dlclose(lib);
        return 1;
    }
    /* The plug-in was built against this header: it needs the same major version and at least
     * the header's minor one (entries are only ever added within a major version). */
    version(&major, &minor, &patch);
    printf("loaded %s, version %d.%d.%d\n", path, major, minor, patch);
    if (major != QXIVEILON31_VERSION_MAJOR || minor < QXIVEILON31_VERSION_MINOR) {
        fprintf(stderr, "built for qxiveilon31 %d.%d, loaded %d.%d\n", QXIVEILON31_VERSION_MAJOR,
                QXIVEILON31_VERSION_MINOR, major, minor);
        dlclose(lib);
        return 1;
    }

    if (!makeBuffer(&image, 4, 0) || !makeBuffer(&trimap, 1, 0) || !makeBuffer(&codes, 1, 126)) {
        fprintf(stderr, "out of memory\n");
        ok = 0;
        goto done;
    }
    /* A grey ramp; a tri-map with a foreground block (columns 20..43, rows 14..33) inside a
     * two-pixel undecided band. */
    for (y = 0; y < H; ++y)
        for (x = 0; x < W; ++x) {
            px = at(&image, x, y, 4);
            px[0] = px[1] = px[2] = (unsigned char)(x * 4);
            px[3] = 255;
            if (x >= 18 && x <= 45 && y >= 12 && y <= 35)
                *at(&trimap, x, y, 1) = (x >= 20 && x <= 43 && y >= 14 && y <= 33) ? 255 : 128;
        }

    /* The box: band rows 12..35 and columns 18..45, 12 pixels of margin, cut to the plane. */
    ok &= check(maskBBox(0, trimap.data, trimap.step, W, H, &left, &width, &top, &height,
                         &fgCount, &bgCount, 0, 255, 0) == 1,
                "qxMaskBBox returns 1");
    printf("mask box: left %d top %d, %d x %d; %d foreground, %d background pixels\n", left, top,
           width, height, fgCount, bgCount);
    ok &= check(left == 6 && width == 52 && top == 0 && height == 48, "mask box");
    ok &= check(fgCount == 24 * 20 && bgCount == 52 * 48 - 28 * 24, "mask box counts");

    /* Brush: a keep stroke (radius 2) and a cut stroke (radius 0) into the stroke plane. */
    ok &= check(drawLine(codes.data, codes.step, W, H, 10, 24, 53, 24, 2, 1, 0) == 1, "keep stroke");
    ok &= check(drawLine(codes.data, codes.step, W, H, 0, 5, W - 1, 5, 0, 0, 0) == 1, "cut stroke");
    ok &= check(*at(&codes, 30, 24, 1) == 255 && *at(&codes, 30, 5, 1) == 1 &&
                    *at(&codes, 30, 40, 1) == 126,
                "stroke codes");
    printf("strokes drawn: keep along row 24, cut along row 5\n");

    /* Bucket: everything undecided below the cut stroke and around the keep stroke becomes
     * background; the fixed strokes stop the fill. */
    ok &= check(floodFill(codes.data, codes.step, W, H, 2, 40, 0, 0, 0, 0, rect) == 1,
                "qxFloodFillAlpha returns 1");
    printf("flood fill changed left %d top %d, %d x %d\n", rect[0], rect[1], rect[2], rect[3]);
    ok &= check(rect[0] == 0 && rect[1] == 6 && rect[2] == W && rect[3] == H - 6, "fill rect");
    ok &= check(*at(&codes, 2, 40, 1) == 1 && *at(&codes, 30, 24, 1) == 255 &&
                    *at(&codes, 30, 2, 1) == 126,
                "fill codes");
    ok &= check(floodFill(codes.data, codes.step, W, H, W, 0, 0, 0, 0, 0, rect) == -3,
                "seed outside the plane");

    /* Preview: the code map (style 2) over the image. */
    ok &= check(showAlpha(image.data, image.step, W, H, codes.data, codes.step, 255, 0, 2, NULL) == 1,
                "qxShowImageAlpha returns 1");
    px = at(&image, 30, 24, 4);
    ok &= check(px[0] == 0 && px[1] == 255 && px[2] == 0 && px[3] == 255, "keep shown in byte 1");
    px = at(&image, 30, 2, 4);
    ok &= check(px[0] == 255 && px[1] == 0 && px[2] == 0, "undecided shown in byte 0");
    printf("preview painted (style 2)\n");

    ok &= check(padsIntact(&image) && padsIntact(&trimap) && padsIntact(&codes), "row pads");

done:
    free(image.data);
    free(trimap.data);
    free(codes.data);
    dlclose(lib);
    printf("%s\n", ok ? "host example: all calls succeeded" : "host example: FAILED");
    return ok ? 0 : 1;
}
