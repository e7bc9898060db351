// qxfilterIm8u: smooths a byte plane in place, a cross-shaped median (against isolated specks)
// followed by a 5x5 Gaussian. Each stage works on a region inset far enough that its
// neighbourhood stays inside what the stage before wrote, so a band along the edges (3 pixels in
// the light mode, 4 in the strong one) keeps its input values.
#include <cstdint>

#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "image/img.h"
#include "image/primitives.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

struct FilterStages {
    int medianInset;
    int medianCode;
    int gaussInset;
    int gaussCode;
};
constexpr FilterStages kLight{1, 33, 3, 55};
constexpr FilterStages kStrong{2, 55, 4, 55};

// Narrows both images to the inset region; false when nothing is left of it.
bool insetBoth(GIMG<uint8_t>& a, GIMG<uint8_t>& b, int inset) {
    if (a.width - 2 * inset < 1 || a.height - 2 * inset < 1) return false;
    a.roiRect(inset, inset, -inset, -inset);
    b.roiRect(inset, inset, -inset, -inset);
    return true;
}

void filterPlane(GIMG<uint8_t>& a, const FilterStages& f) {
    GIMG<uint8_t> b(a.width, a.height);
    if (insetBoth(a, b, f.medianInset))
        b.status = prim::medianCross_8u_C1(a.data, a.step, b.data, b.step, b.size(), f.medianCode);
    a.restoreRect();
    b.restoreRect();
    if (insetBoth(a, b, f.gaussInset))
        a.status = prim::filterGauss_8u_C1(b.data, b.step, a.data, a.step, a.size(), f.gaussCode);
    a.restoreRect();
    b.restoreRect();
}

}  // namespace
}  // namespace qx

extern "C" QX_API int qxfilterIm8u(unsigned char* plane, int step, int width, int height,
                                   int mode) {
    if (!qx::validPlane(plane, step, width, height, 1)) return 0;
    if (mode != 0 && mode != 1) return 1;
    return qx::guardedCall(
        [&] {
            qx::GIMG<uint8_t> a(width, height, plane, step);
            qx::filterPlane(a, mode == 0 ? qx::kLight : qx::kStrong);
            return 1;
        },
        0);
}
