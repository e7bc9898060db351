#include "keepcut/solve_alpha_window.h"

#include <cstdlib>

namespace qx {

int solveAlphaWindow(CFMatt& matt, unsigned char* const* planes, int planeStep, int width,
                     int height, unsigned char* known, int knownStep, unsigned char* alpha,
                     int alphaStep) {
    Plane8 knownView(width, height, known, knownStep);
    Plane8 alphaView(width, height, alpha, alphaStep);
    Plane8 core(width, height);
    Copy(knownView, core);
    ErodeMap3x3(core);

    int count = 0;
    const int status = matt.compMatLap(core, planes, planeStep, &count);
    if (status != 0) return status;

    // alphaMain erodes core once more: its zeros are then the pixels of the system, in the
    // raster order of the solution array.
    matt.alphaMain(width, height, count, knownView, core, alphaView);
    outAlpha(matt.alpha, width, height, knownView, core, alphaView);
    std::free(matt.alpha);
    matt.alpha = nullptr;
    return 0;
}

}  // namespace qx
