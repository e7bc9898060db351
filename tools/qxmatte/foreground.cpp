#include "foreground.h"

#include <cmath>
#include <opencv2/imgproc.hpp>

#include "foreground/shared_sample.h"
#include "keepcut.h"

namespace qxmatte {

cv::Mat toFourBytes(const cv::Mat& bgr) {
    cv::Mat out;
    cv::cvtColor(bgr, out, cv::COLOR_BGR2BGRA);
    return out;
}

namespace {

// Sampling is not part of the C interface: the tool links the library's image toolbox for it.
cv::Mat recoverBySampling(const cv::Mat& image, const cv::Mat& alpha) {
    cv::Mat out(image.size(), CV_8UC3);
    try {
        if (qx::recoverForegroundBySampling(image.data, static_cast<int>(image.step), 3,
                                            image.cols, image.rows, alpha.data,
                                            static_cast<int>(alpha.step), out.data,
                                            static_cast<int>(out.step)) == 1)
            return out;
    } catch (...) {
    }
    return {};
}

}  // namespace

cv::Mat recoverForeground(const cv::Mat& image, const cv::Mat& alpha, ForegroundMethod method) {
    if (method == ForegroundMethod::Sampling) return recoverBySampling(image, alpha);
    cv::Mat src = toFourBytes(image);
    cv::Mat dst = src.clone();  // rows the recovery leaves alone keep the image's colours
    cv::Mat plainAlpha = alpha.clone();
    cv::Mat aux(alpha.size(), CV_8UC1, cv::Scalar(0));
    KeepCutRequest req = wholeImageRequest(src, plainAlpha, dst, aux);
    qxRecoverForeground(&req, 0);
    cv::Mat out;
    cv::cvtColor(dst, out, cv::COLOR_BGRA2BGR);
    return out;
}

double foregroundError(const cv::Mat& recovered, const cv::Mat& truthForeground,
                       const cv::Mat& truthAlpha) {
    double sum = 0.0;
    for (int y = 0; y < truthAlpha.rows; ++y) {
        const auto* r = recovered.ptr<cv::Vec3b>(y);
        const auto* f = truthForeground.ptr<cv::Vec3b>(y);
        const auto* a = truthAlpha.ptr<unsigned char>(y);
        for (int x = 0; x < truthAlpha.cols; ++x) {
            if (a[x] == 0 || a[x] == 255) continue;
            double d = 0.0;
            for (int c = 0; c < 3; ++c) d += std::abs(int(r[x][c]) - int(f[x][c])) / 255.0;
            sum += a[x] / 255.0 * d;
        }
    }
    return sum / 1000.0;
}

}  // namespace qxmatte
