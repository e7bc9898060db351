/*
 * A C host built against an installed qxiveilon31 (through pkg-config or find_package): checks
 * that the library it loaded is the version its header names, and that a call works end to end.
 * Exits 0 when all is well; otherwise prints what differs and exits 1.
 */
#include <stdio.h>

#include "qxiveilon31.h"
#include "qxworkflow.h"

int main(void) {
    int major = -1, minor = -1, patch = -1, left = -1, width = -1, top = -1, height = -1;
    int fg = -1, bg = -1, code, x, y, failures = 0;
    static unsigned char plane[40][40];

    code = qxVersion(&major, &minor, &patch);
    printf("qxiveilon31 %d.%d.%d\n", major, minor, patch);
    if (major != QXIVEILON31_VERSION_MAJOR || minor != QXIVEILON31_VERSION_MINOR ||
        patch != QXIVEILON31_VERSION_PATCH) {
        printf("loaded %d.%d.%d, header %d.%d.%d\n", major, minor, patch,
               QXIVEILON31_VERSION_MAJOR, QXIVEILON31_VERSION_MINOR, QXIVEILON31_VERSION_PATCH);
        ++failures;
    }
#ifdef QX_EXPECTED_VERSION
    {
        char text[32];
        snprintf(text, sizeof text, "%d.%d.%d", major, minor, patch);
        for (x = 0; text[x] && text[x] == QX_EXPECTED_VERSION[x]; ++x) {
        }
        if (text[x] != QX_EXPECTED_VERSION[x]) {
            printf("loaded %s, the build says %s\n", text, QX_EXPECTED_VERSION);
            ++failures;
        }
    }
#endif
    if (code != major * 10000 + minor * 100 + patch || qxVersion(NULL, NULL, NULL) != code) {
        printf("qxVersion returned %d\n", code);
        ++failures;
    }

    /* The workflow header installs beside the library's: the default band of a 2000-wide image
     * is 1% of it, and a refusal comes back with its message. */
    {
        QxwJob job = {0};
        if (qxwDefaultBand(2000, 300) != 20 ||
            qxwMatteTrimap(NULL, &plane[0][0], 40, 255, 0, 255, 0, &plane[0][0], 40, &job) !=
                QXW_BAD_INPUT ||
            job.message[0] == 0) {
            printf("qxworkflow.h: band %d, message '%s'\n", qxwDefaultBand(2000, 300),
                   job.message);
            ++failures;
        }
    }

    /* One undecided pixel at (column 20, row 15) of a 40 x 40 background tri-map: a box of
     * 12 pixels around it, 25 x 25 from (8, 3), all of it background but that one pixel. */
    for (y = 0; y < 40; ++y)
        for (x = 0; x < 40; ++x) plane[y][x] = 0;
    plane[15][20] = 128;
    if (qxMaskBBox(0, &plane[0][0], 40, 40, 40, &left, &width, &top, &height, &fg, &bg, 0, 255,
                   0) != 1 ||
        left != 8 || width != 25 || top != 3 || height != 25 || fg != 0 || bg != 624) {
        printf("qxMaskBBox: box %d,%d %dx%d, counts %d %d\n", left, top, width, height, fg, bg);
        ++failures;
    }
    return failures ? 1 : 0;
}
