// qxGrabCut and qxGrabCutDeleteBuf: the host's interactive selection. The host paints codes,
// calls qxGrabCut, paints again and calls again; the control in its request carries the colour
// models from one cut to the next. qxGrabCutDeleteBuf ends the session and turns the hard
// selection into fixed codes for the matting stage that follows.
#include <cstdint>
#include <optional>

#include "runtime/export_guard.h"
#include "runtime/fault.h"
#include "runtime/progress.h"
#include "grabcut/codes.h"
#include "grabcut/grabcut_request.h"
#include "grabcut/grabcut_session.h"
#include "grabcut/pyramid_cut.h"
#include "image/img.h"

namespace qx {

void cut(GrabCutRequest& request, int mode) {
    const int w = request.roiWidth, h = request.roiHeight;
    const prim::Size size{w, h};
    setProgProc(request.progProc, request.progParam, 10000, 10);

    GIMG<unsigned char> maskView(w, h, atRoi(request.mask, request.maskStep, request, 1),
                                 request.maskStep);
    GIMG<unsigned char> saved(w, h);
    Copy(maskView, saved);
    // A cancelled cut leaves the session as it was: the control's models and labels (or no
    // control, when this cut would have made it).
    auto* const control = static_cast<GrabCutControl*>(request.control);
    std::optional<ControlSnapshot> session;
    if (cancelFlag() != nullptr && control != nullptr) session.emplace(*control);
    try {
        GIMG<unsigned char> flags(w, h);
        {
            // Planes 0, 1, 2 take bytes 2, 1, 0 of each pixel; byte 3 is not read.
            GIMG<unsigned char> p0(w, h), p1(w, h), p2(w, h);
            const unsigned char* image = atRoi(request.image, request.imageStep, request, 4);
            prim::extractChannel_8u_C4C1(image + 2, request.imageStep, p0.data, p0.step, size);
            prim::extractChannel_8u_C4C1(image + 1, request.imageStep, p1.data, p1.step, size);
            prim::extractChannel_8u_C4C1(image + 0, request.imageStep, p2.data, p2.step, size);

#pragma omp parallel for schedule(static)
            for (int y = 0; y < h; ++y) {
                unsigned char* m = maskView.row(y);
                unsigned char* f = flags.row(y);
                for (int x = 0; x < w; ++x) {
                    f[x] = (m[x] & 1) ? 255 : 0;
                    m[x] = workingCode(m[x]);
                }
            }
            GIMG<unsigned char>* planes[3] = {&p0, &p1, &p2};
            qxMapAlphaProcGrabCut(planes, &flags, &maskView,
                                  reinterpret_cast<GrabCutControl**>(&request.control), mode,
                                  true);
            // The last look at the flag before the host's planes are written: a flag set
            // during the cut (whose one report comes after the models are learnt) stops here.
            checkCancel();
        }
        // Working values lose their low bit; user-fixed pixels come back as they were.
        prim::andC_8u_C1I(254, maskView.data, maskView.step, size);
        prim::copyMasked_8u_C1(saved.data, saved.step, maskView.data, maskView.step, size,
                               flags.data, flags.step);
    } catch (const Failure& e) {
        Copy(saved, maskView);
        if (e.fault == Fault::Cancelled) {
            if (session) {
                session->restore(*control);
            } else if (control == nullptr && request.control != nullptr) {
                GrabCutDeleteBuf(static_cast<GrabCutControl*>(request.control));
                request.control = nullptr;
            }
        }
        throw;
    } catch (...) {
        Copy(saved, maskView);
        throw;
    }
    if (request.result != nullptr)
        prim::copy_8u_C1(maskView.data, maskView.step,
                         atRoi(request.result, request.resultStep, request, 1),
                         request.resultStep, size);
}

namespace {

// The codes of a finished session, in mask and (when given) result; nothing for planes that
// fail the checks.
void settleCodes(const GrabCutRequest& r) {
    if (!roiInside(r) || !validCodePlane(r.mask, r.maskStep, r) ||
        (r.result != nullptr && !validCodePlane(r.result, r.resultStep, r)))
        return;
    unsigned char* mask = atRoi(r.mask, r.maskStep, r, 1);
    unsigned char* result = r.result ? atRoi(r.result, r.resultStep, r, 1) : nullptr;
#pragma omp parallel for schedule(static)
    for (int y = 0; y < r.roiHeight; ++y) {
        unsigned char* m = mask + static_cast<int64_t>(y) * r.maskStep;
        unsigned char* o = result ? result + static_cast<int64_t>(y) * r.resultStep : nullptr;
        for (int x = 0; x < r.roiWidth; ++x) {
            const unsigned char v = settledCode(m[x]);
            m[x] = v;
            if (o) o[x] = v;
        }
    }
}

}  // namespace

bool endSession(GrabCutRequest& request) {
    if (request.control != nullptr) {
        if (!GrabCutDeleteBuf(static_cast<GrabCutControl*>(request.control))) return false;
        request.control = nullptr;
    }
    settleCodes(request);
    return true;
}

}  // namespace qx

extern "C" QX_API int qxGrabCut(GrabCutRequest* request, int mode) {
    if (request == nullptr || !qx::roiInside(*request) ||
        !qx::validPlane(request->image, request->imageStep, request->width, request->height, 4) ||
        !qx::validCodePlane(request->mask, request->maskStep, *request) ||
        (request->result != nullptr &&
         !qx::validCodePlane(request->result, request->resultStep, *request)))
        return 0;
    return qx::guardedExport(qx::Export::GrabCut, [&] {
        // A control that is not one of ours, or was made for another size, is refused before
        // anything is written.
        if (request->control != nullptr &&
            !qx::grabCutControlFits(request->control, request->roiWidth, request->roiHeight))
            return 0;
        qx::cut(*request, mode);
        return 1;
    });
}

extern "C" QX_API void qxGrabCutDeleteBuf(GrabCutRequest* request) {
    if (request == nullptr) return;
    qx::guardedCall([&] { return qx::endSession(*request) ? 1 : 0; }, 0);
}
