// Cubic resize through OpenCV, on Mat headers over the caller's buffers (no copies).
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "image/rowloops.h"

namespace qx::prim {

namespace {

int resizeCubic(const uint8_t* src, Size srcSize, int srcStep, Rect srcRect, uint8_t* dst,
                int dstStep, Size dstSize, double xFactor, double yFactor, int channels) {
    using detail::plane;
    if (const int st = detail::checkPlanes(srcSize, {plane(src, srcStep, channels)})) return st;
    if (const int st = detail::checkPlanes(dstSize, {plane(dst, dstStep, channels)})) return st;
    if (!(xFactor > 0) || !(yFactor > 0) || !std::isfinite(xFactor) || !std::isfinite(yFactor))
        return kBadArg;
    // The part of srcRect inside the image is what gets resized.
    const int x0 = std::max(srcRect.x, 0), y0 = std::max(srcRect.y, 0);
    const int x1 = std::min<int64_t>(static_cast<int64_t>(srcRect.x) + srcRect.width,
                                     srcSize.width);
    const int y1 = std::min<int64_t>(static_cast<int64_t>(srcRect.y) + srcRect.height,
                                     srcSize.height);
    if (x1 <= x0 || y1 <= y0) return kSizeErr;
    const int type = CV_8UC(channels);
    try {
        const cv::Mat whole(srcSize.height, srcSize.width, type, const_cast<uint8_t*>(src),
                            static_cast<size_t>(srcStep));
        const cv::Mat in = whole(cv::Rect(x0, y0, x1 - x0, y1 - y0));
        cv::Mat out(dstSize.height, dstSize.width, type, dst, static_cast<size_t>(dstStep));
        // The sizes decide the mapping; OpenCV derives its factors from them.
        cv::resize(in, out, out.size(), 0, 0, cv::INTER_CUBIC);
        if (out.data != dst) return kBadArg;  // would mean OpenCV reallocated: never expected
    } catch (const cv::Exception&) {
        return kBadArg;
    } catch (const std::bad_alloc&) {
        return kNoMem;
    }
    return kOk;
}

}  // namespace

int resizeCubic_8u_C1(const uint8_t* src, Size srcSize, int srcStep, Rect srcRect, uint8_t* dst,
                      int dstStep, Size dstSize, double xFactor, double yFactor) {
    return resizeCubic(src, srcSize, srcStep, srcRect, dst, dstStep, dstSize, xFactor, yFactor,
                       1);
}
int resizeCubic_8u_C4(const uint8_t* src, Size srcSize, int srcStep, Rect srcRect, uint8_t* dst,
                      int dstStep, Size dstSize, double xFactor, double yFactor) {
    return resizeCubic(src, srcSize, srcStep, srcRect, dst, dstStep, dstSize, xFactor, yFactor,
                       4);
}

}  // namespace qx::prim
