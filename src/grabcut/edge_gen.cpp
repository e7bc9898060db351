// qxGrabCutEdgeGen: a tri-map from a hard selection. An undecided band of about bandWidth
// pixels is laid along the selection's edge, for the matting stage to resolve; pixels the user
// fixed keep their codes.
#include <algorithm>
#include <cstdint>
#include <opencv2/imgproc.hpp>

#include "frame/export_guard.h"
#include "grabcut/grabcut_request.h"
#include "image/img.h"

namespace qx {
namespace {

// cv::circle draws radii up to this; a band wider than the region changes nothing anyway.
constexpr int kMaxBandWidth = 32767;

// The thresholded selection in the inner rectangle of a copy framed by r pixels of `frame`,
// then eroded (or dilated) in place by the disc brush. The frame keeps the image's edge from
// eroding (255) or growing (0).
void morphFramed(const GIMG<unsigned char>& hard, int r, const cv::Mat& brush, bool dilate,
                 GIMG<unsigned char>& framed) {
    const int w = hard.width, h = hard.height;
    Set(static_cast<unsigned char>(dilate ? 0 : 255), framed);
    prim::copy_8u_C1(hard.data, hard.step, framed.ptr(r, r), framed.step, {w, h});
    const int d = 2 * r + 1;
    if (dilate)
        prim::dilate_8u_C1I(framed.ptr(r, r), framed.step, {w, h}, brush.data, {d, d}, {r, r});
    else
        prim::erode_8u_C1I(framed.ptr(r, r), framed.step, {w, h}, brush.data, {d, d}, {r, r});
}

void edgeGen(const GrabCutRequest& request, int bandWidth) {
    const int w = request.roiWidth, h = request.roiHeight;
    // A disc that reaches across the whole region erodes and dilates it fully; a larger one
    // gives the same tri-map at a higher cost.
    const int r = static_cast<int>(std::min<int64_t>(bandWidth / 2, int64_t(w) + h));
    const int d = 2 * r + 1;
    cv::Mat brush(d, d, CV_8UC1, cv::Scalar(0));
    cv::circle(brush, cv::Point(r, r), r, cv::Scalar(255), -1, cv::LINE_8, 0);

    const unsigned char* result = atRoi(request.result, request.resultStep, request, 1);
    GIMG<unsigned char> hard(w, h);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < h; ++y) {
        const unsigned char* p = result + static_cast<int64_t>(y) * request.resultStep;
        unsigned char* t = hard.row(y);
        for (int x = 0; x < w; ++x) t[x] = p[x] >= 254 ? 255 : 0;
    }
    GIMG<unsigned char> eroded(w + 2 * r, h + 2 * r);
    GIMG<unsigned char> dilated(w + 2 * r, h + 2 * r);
    morphFramed(hard, r, brush, false, eroded);
    morphFramed(hard, r, brush, true, dilated);

    unsigned char* mask = atRoi(request.mask, request.maskStep, request, 1);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < h; ++y) {
        const unsigned char* e = eroded.ptr(r, r + y);
        const unsigned char* g = dilated.ptr(r, r + y);
        const unsigned char* p = result + static_cast<int64_t>(y) * request.resultStep;
        unsigned char* m = mask + static_cast<int64_t>(y) * request.maskStep;
        for (int x = 0; x < w; ++x) {
            const int diff = g[x] - e[x];
            unsigned char v;
            if (diff == 255)
                v = 127;  // the band
            else if (diff < 130 && e[x] == 0)
                v = 0;
            else
                v = g[x];
            // User-fixed pixels win; everything else leaves with a clear low bit.
            m[x] = (p[x] & 1) ? p[x] : static_cast<unsigned char>(v & 254);
        }
    }
}

}  // namespace
}  // namespace qx

extern "C" QX_API void qxGrabCutEdgeGen(GrabCutRequest* request, int bandWidth) {
    if (request == nullptr || bandWidth < 0 || bandWidth > qx::kMaxBandWidth ||
        !qx::roiInside(*request) ||
        !qx::validCodePlane(request->mask, request->maskStep, *request) ||
        !qx::validCodePlane(request->result, request->resultStep, *request))
        return;
    const GrabCutRequest r = *request;
    qx::guardedCall(
        [&] {
            qx::edgeGen(r, bandWidth);
            return 1;
        },
        [](int) { return 0; }, 0);
}
