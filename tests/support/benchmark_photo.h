// One of the alpha-matting benchmark photos, read from the shared data folder (QX_DATA_DIR):
// colour, truth and tri-map, all empty when the folder is not there. Header only: include it as
// "support/benchmark_photo.h".
#pragma once

#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "qxworkflow.h"

namespace qxtest {

struct BenchmarkPhoto {
    cv::Mat bgr, truth, trimap;
    explicit BenchmarkPhoto(const std::string& name) {
        const std::filesystem::path dir = std::filesystem::path(QX_DATA_DIR) / "alphamatting";
        const std::string file = name + ".png";
        bgr = cv::imread((dir / "input" / file).string(), cv::IMREAD_COLOR);
        truth = cv::imread((dir / "gt" / file).string(), cv::IMREAD_GRAYSCALE);
        trimap = cv::imread((dir / "trimap" / file).string(), cv::IMREAD_GRAYSCALE);
    }
    bool missing() const { return bgr.empty() || truth.empty() || trimap.empty(); }
    QxwImage view() const {
        return {bgr.data, static_cast<int32_t>(bgr.step), 3, bgr.cols, bgr.rows, QXW_BGR};
    }
};

}  // namespace qxtest
