#include "measurement.h"

#include <malloc.h>
#include <sys/resource.h>

#include <cmath>
#include <fstream>
#include <vector>
#include <string>

namespace qxmatte {
namespace {

double statusMB(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string k, rest;
    long kb = 0;
    while (in >> k) {
        if (k == key) {
            in >> kb;
            return kb / 1024.0;
        }
        std::getline(in, rest);
    }
    return 0.0;
}

}  // namespace

void resetPeakResident() {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
}

double peakResidentMB() { return statusMB("VmHWM:"); }
double residentMB() { return statusMB("VmRSS:"); }

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double processCpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

Measurement::Measurement() {
    resetPeakResident();
    base_ = residentMB();
    cpu0_ = processCpuSeconds();
    start_ = std::chrono::steady_clock::now();
}

Accuracy measureAccuracy(const cv::Mat& alpha, const cv::Mat& truth, const cv::Mat& trimap,
                         int fgCode, int bgCode) {
    Accuracy acc;
    double sad = 0.0, sq = 0.0;
    for (int y = 0; y < alpha.rows; ++y) {
        const unsigned char* a = alpha.ptr<unsigned char>(y);
        const unsigned char* g = truth.ptr<unsigned char>(y);
        const unsigned char* t = trimap.ptr<unsigned char>(y);
        for (int x = 0; x < alpha.cols; ++x) {
            if (t[x] <= bgCode || t[x] >= fgCode) continue;
            const double d = (a[x] - g[x]) / 255.0;
            sad += std::fabs(d);
            sq += d * d;
            ++acc.pixels;
        }
    }
    acc.sad = sad / 1000.0;
    acc.mse = acc.pixels ? sq / acc.pixels * 1000.0 : 0.0;
    return acc;
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

cv::Mat withAlpha(const cv::Mat& bgr, const cv::Mat& alpha) {
    std::vector<cv::Mat> channels;
    cv::split(bgr, channels);
    channels.push_back(alpha);
    cv::Mat out;
    cv::merge(channels, out);
    return out;
}

}  // namespace qxmatte
