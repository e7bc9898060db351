/*
 * The interactive GrabCut loop of an image editor, as a small C program: the user drags a
 * rectangle and the library cuts; the user paints a cut stroke over something that should not
 * be selected and the library cuts again, going on from the colour models of the first cut;
 * the user is satisfied, the edge becomes an undecided band for the matting stage, and the
 * session ends, which turns the selection into fixed codes.
 *
 * The scene: a round subject and, inside the same rectangle, a small square of the subject's
 * colour that the user does not want.
 *
 * Usage: qx_grabcut_example
 * Exits 0 when each step did what the user expects, 1 otherwise.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qxiveilon31.h"

enum { W = 180, H = 140 };

static int inSubject(int x, int y) {
    const int dx = x - 80, dy = y - 70;
    return dx * dx + dy * dy <= 40 * 40;
}
static int inDistractor(int x, int y) { return x >= 140 && x < 156 && y >= 20 && y < 36; }

static int check(int ok, const char* what) {
    if (!ok) fprintf(stderr, "FAILED: %s\n", what);
    return ok;
}

/* Selected pixels (code 128 or more) of the subject and of the distractor. */
static void count(const unsigned char* plane, int* subject, int* distractor) {
    int x, y;
    *subject = *distractor = 0;
    for (y = 0; y < H; ++y)
        for (x = 0; x < W; ++x) {
            if (plane[y * W + x] < 128) continue;
            if (inSubject(x, y)) ++*subject;
            if (inDistractor(x, y)) ++*distractor;
        }
}

int main(void) {
    unsigned char* image = (unsigned char*)malloc((size_t)W * H * 4);
    unsigned char* codes = (unsigned char*)malloc((size_t)W * H);
    unsigned char* result = (unsigned char*)malloc((size_t)W * H);
    GrabCutRequest request;
    void* firstControl;
    int ok = 1, x, y, subjectArea = 0, subject, distractor, band = 0;
    if (!image || !codes || !result) {
        fprintf(stderr, "out of memory\n");
        free(image);
        free(codes);
        free(result);
        return 1;
    }
    /* A noisy blue-grey background, an orange subject and an orange square. */
    srand(3);
    for (y = 0; y < H; ++y)
        for (x = 0; x < W; ++x) {
            unsigned char* p = image + ((size_t)y * W + x) * 4;
            const int noise = rand() % 21 - 10;
            const int subjectColour = inSubject(x, y) || inDistractor(x, y);
            p[0] = (unsigned char)((subjectColour ? 40 : 150) + noise);
            p[1] = (unsigned char)((subjectColour ? 120 : 130) + noise);
            p[2] = (unsigned char)((subjectColour ? 230 : 110) + noise);
            p[3] = 255;
            subjectArea += inSubject(x, y);
        }
    memset(codes, 126, (size_t)W * H); /* nothing painted yet */

    /* 1. The user drags a rectangle around the subject; the square is inside it too. */
    memset(&request, 0, sizeof request);
    request.image = image;
    request.imageStep = W * 4;
    request.mask = codes;
    request.maskStep = W;
    request.result = result;
    request.resultStep = W;
    request.width = W;
    request.height = H;
    request.roiLeft = 20;
    request.roiTop = 10;
    request.roiWidth = 150;
    request.roiHeight = 120;
    ok &= check(qxGrabCut(&request, 0) == 1, "first cut");
    firstControl = request.control;
    count(result, &subject, &distractor);
    printf("cut 1: %d of %d subject pixels selected, %d of 256 square pixels\n", subject,
           subjectArea, distractor);
    ok &= check(firstControl != NULL, "the first cut starts a session");
    ok &= check(subject > subjectArea * 95 / 100, "cut 1 finds the subject");
    ok &= check(distractor > 200, "cut 1 also takes the square of the same colour");

    /* 2. A cut stroke over the square (code 1: fixed background), then cut again. */
    for (y = 18; y < 38; ++y)
        for (x = 138; x < 158; ++x) codes[y * W + x] = 1;
    ok &= check(qxGrabCut(&request, 0) == 1, "second cut");
    count(result, &subject, &distractor);
    printf("cut 2: %d of %d subject pixels selected, %d of 256 square pixels\n", subject,
           subjectArea, distractor);
    ok &= check(request.control == firstControl, "the second cut goes on in the same session");
    ok &= check(subject > subjectArea * 95 / 100, "cut 2 keeps the subject");
    ok &= check(distractor == 0, "cut 2 drops the square");
    ok &= check(codes[25 * W + 145] == 1, "the stroke comes back as painted");

    /* 3. Satisfied: an undecided band of 6 pixels along the edge for the matting stage. */
    qxGrabCutEdgeGen(&request, 6);
    for (y = 10; y < 130; ++y)
        for (x = 20; x < 170; ++x) band += codes[y * W + x] == 126;
    printf("edge band: %d undecided pixels in the rectangle\n", band);
    ok &= check(band > 0 && codes[70 * W + 80] == 254 && codes[5 * W + 5] == 126,
                "the tri-map: subject inside, nothing outside the rectangle touched");
    ok &= check(codes[70 * W + 41] == 126 || codes[70 * W + 40] == 126, "band on the edge");

    /* 4. End of the session: the control is freed, the codes settle. */
    qxGrabCutDeleteBuf(&request);
    ok &= check(request.control == NULL, "the session is over");
    ok &= check(codes[70 * W + 80] == 255 && codes[25 * W + 145] == 1, "settled codes");

    free(image);
    free(codes);
    free(result);
    printf("%s\n", ok ? "grabcut example: the session went as expected" : "grabcut example: FAILED");
    return ok ? 0 : 1;
}
