#include "keepcut.h"

#include <climits>
#include <cstdlib>
#include <opencv2/imgproc.hpp>

#include "image/base_tools.h"

#include "foreground.h"
#include "progress_bar.h"
#include "qxiveilon31.h"

namespace qxmatte {

cv::Mat encodeStrokes(const cv::Mat& strokes) {
    cv::Mat coded(strokes.size(), CV_8UC1);
    for (int y = 0; y < strokes.rows; ++y) {
        const unsigned char* s = strokes.ptr<unsigned char>(y);
        unsigned char* c = coded.ptr<unsigned char>(y);
        for (int x = 0; x < strokes.cols; ++x)
            c[x] = s[x] == kKeepStroke ? 255 : s[x] == kCutStroke ? 1 : 128;
    }
    return coded;
}

bool parseVectorStroke(const std::string& text, bool keep, VectorStroke* out) {
    long v[5];
    const char* p = text.c_str();
    for (int i = 0; i < 5; ++i) {
        char* end = nullptr;
        v[i] = std::strtol(p, &end, 10);
        if (end == p || v[i] < INT_MIN || v[i] > INT_MAX) return false;
        if (i < 4 && *end != ',') return false;
        if (i == 4 && *end != '\0') return false;
        p = end + 1;
    }
    if (v[4] < 0) return false;
    *out = {int(v[0]), int(v[1]), int(v[2]), int(v[3]), int(v[4]), keep};
    return true;
}

void paintStrokes(cv::Mat& strokes, const std::vector<VectorStroke>& list) {
    // The library's clipped rasteriser: any coordinates are safe, only what touches the image
    // is drawn.
    for (const VectorStroke& s : list)
        qx::drawLineW(strokes.data, static_cast<int>(strokes.step), strokes.cols, strokes.rows,
                      s.x0, s.y0, s.x1, s.y1, s.radius, s.keep ? kKeepStroke : kCutStroke);
}

KeepCutRequest wholeImageRequest(cv::Mat& src, cv::Mat& alpha, cv::Mat& dst, cv::Mat& aux) {
    KeepCutRequest req{};
    req.srcImage = src.data;
    req.srcStep = static_cast<int32_t>(src.step);
    req.alphaPlane = alpha.data;
    req.alphaStep = static_cast<int32_t>(alpha.step);
    req.dstImage = dst.data;
    req.dstStep = static_cast<int32_t>(dst.step);
    req.auxPlane = aux.data;
    req.auxStep = static_cast<int32_t>(aux.step);
    req.fullWidth = req.roiWidth = alpha.cols;
    req.fullHeight = req.roiHeight = alpha.rows;
    return req;
}

KeepCutResult matteWithStrokes(const cv::Mat& image, const cv::Mat& strokes,
                               const KeepCutOptions& opt) {
    KeepCutResult r;
    cv::Mat src = toFourBytes(image);
    cv::Mat dst = src.clone();  // what shows through where the recovered colours fade out
    cv::Mat plane = encodeStrokes(strokes);
    cv::Mat aux = plane.clone();  // the host's record of its strokes

    KeepCutRequest req = wholeImageRequest(src, plane, dst, aux);
    req.recoverFlag = opt.recover ? 1 : 0;
    const bool bar =
        chooseProgress(opt.progress, &req.progProc, &req.progParam);
    r.status = qxKeepCutToAlpha(&req, opt.hiRes ? 1 : 0);
    if (bar) clearProgress();
    switch (r.status) {
        case 1:
            break;
        case -5:
            r.error = "too few strokes: paint at least one keep (255) and one cut (0) stroke, "
                      "and leave at least 3 pixels unpainted";
            r.badInput = true;
            return r;
        case -1:
            r.error = "an area without enough strokes is too large to solve in one piece, or "
                      "memory ran out: add keep and cut strokes across the subject";
            return r;
        default:
            r.error = "keep-cut matting failed with status " + std::to_string(r.status);
            return r;
    }
    // Back from the stroke coding: keep strokes 255, cut strokes 0, computed alpha as it is.
    r.alpha = cv::Mat(plane.size(), CV_8UC1);
    for (int y = 0; y < plane.rows; ++y) {
        const unsigned char* p = plane.ptr<unsigned char>(y);
        unsigned char* a = r.alpha.ptr<unsigned char>(y);
        for (int x = 0; x < plane.cols; ++x)
            a[x] = static_cast<unsigned char>((p[x] & 0xFE) + ((p[x] >> 1) & 1));
    }
    if (opt.recover) cv::cvtColor(dst, r.foreground, cv::COLOR_BGRA2BGR);
    r.ok = true;
    return r;
}

}  // namespace qxmatte
