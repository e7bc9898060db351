// The measures of the demo's and the benchmarks' reports: time and resident memory of this
// process, and the accuracy of an alpha and of recovered colours against a known truth.
#pragma once

#include <chrono>
#include <opencv2/core.hpp>

namespace qxmatte {

// Starts a new memory measurement: gives freed heap back to the system and resets the peak, so
// that the next peakResidentMB() reports what happened since.
void resetPeakResident();
// Peak and current resident memory in MB (from /proc/self/status).
double peakResidentMB();
double residentMB();

// Wall time since `start`, in seconds.
double secondsSince(std::chrono::steady_clock::time_point start);
// Processor time of all the process's threads, user and system, in seconds: on a shared machine
// the work done, where wall time also counts the waits for a core.
double processCpuSeconds();

// One measured run, started when made: the peak is reset (heap that earlier runs freed but the
// allocator kept would hide this run's growth), and the resident memory and both clocks noted.
class Measurement {
public:
    Measurement();
    double seconds() const { return secondsSince(start_); }
    double cpuSeconds() const { return processCpuSeconds() - cpu0_; }
    // The peak resident memory since the start, less what was resident then.
    double peakAboveStartMB() const { return peakResidentMB() - base_; }

private:
    double base_;
    double cpu0_;
    std::chrono::steady_clock::time_point start_;
};

// SAD (in thousands) and MSE (times 1000) over the pixels the tri-map marks undecided
// (strictly between bgCode and fgCode), alpha on the 0..1 scale.
struct Accuracy {
    double sad = 0.0;
    double mse = 0.0;
    long pixels = 0;
};
Accuracy measureAccuracy(const cv::Mat& alpha, const cv::Mat& truth, const cv::Mat& trimap,
                         int fgCode = 255, int bgCode = 0);

// Foreground error against a known foreground: over the pixels with 0 < truthAlpha < 255, the
// sum of alpha * (|dB| + |dG| + |dR|) on the 0..1 scale, in thousands.
double foregroundError(const cv::Mat& recovered, const cv::Mat& truthForeground,
                       const cv::Mat& truthAlpha);

// Colours (BGR) with alpha as a 4-channel BGRA cut-out.
cv::Mat withAlpha(const cv::Mat& bgr, const cv::Mat& alpha);

}  // namespace qxmatte
