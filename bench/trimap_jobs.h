// What the tri-map reports share: a tri-map made from a truth, today's workflow and the
// closed-form job the workflows ran before the flows (qxMaskAlphaPlain over the whole image).
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "qxiveilon31.h"
#include "qxworkflow.h"

namespace bench {

// image: 8-bit BGR; trimap: 8-bit, 0 background, 255 foreground, the rest undecided. Writes the
// alpha (trimap's size); false when the job failed.
inline bool closedFormJob(const cv::Mat& image, const cv::Mat& trimap, cv::Mat& alpha) {
    std::vector<cv::Mat> planes;
    cv::split(image, planes);
    unsigned char* ptrs[3] = {planes[0].data, planes[1].data, planes[2].data};
    alpha = trimap.clone();
    MaskRequest req{};
    req.planes = ptrs;
    req.planeStep = static_cast<int32_t>(planes[0].step);
    req.mask = alpha.data;
    req.maskStep = static_cast<int32_t>(alpha.step);
    req.width = image.cols;
    req.height = image.rows;
    const float unknown = static_cast<float>(cv::countNonZero((trimap > 0) & (trimap < 255)));
    return qxMaskAlphaPlain(&req, unknown, 255, 0, 255, 0) == 1;
}

// Undecided where the truth is soft (0 < a < 255), grown by a disc of `radius`; decided by the
// truth elsewhere (255 at 128 and above, else 0).
inline cv::Mat truthTrimap(const cv::Mat& truth, int radius) {
    const cv::Mat soft = (truth > 0) & (truth < 255);
    cv::Mat grown;
    cv::dilate(soft, grown, cv::getStructuringElement(cv::MORPH_ELLIPSE,
                                                      cv::Size(2 * radius + 1, 2 * radius + 1)));
    cv::Mat tri(truth.size(), CV_8UC1);
    for (int y = 0; y < truth.rows; ++y)
        for (int x = 0; x < truth.cols; ++x)
            tri.at<uchar>(y, x) =
                grown.at<uchar>(y, x) ? 128 : (truth.at<uchar>(y, x) >= 128 ? 255 : 0);
    return tri;
}

// The tri-map workflow (qxwMatteTrimap) on a BGR image; false with its message on a failure.
inline bool workflowTrimapJob(const cv::Mat& image, const cv::Mat& trimap, cv::Mat& alpha,
                              std::string* message = nullptr) {
    const QxwImage img{image.data, static_cast<int32_t>(image.step), 3, image.cols, image.rows,
                       QXW_BGR};
    alpha.create(image.size(), CV_8UC1);
    QxwJob job{};
    const bool ok = qxwMatteTrimap(&img, trimap.data, static_cast<int>(trimap.step), 255, 0, 255,
                                   0, alpha.data, static_cast<int>(alpha.step), &job) == QXW_OK;
    if (!ok && message) *message = job.message;
    return ok;
}

}  // namespace bench
