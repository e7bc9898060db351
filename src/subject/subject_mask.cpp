#include "subject/subject_mask.h"

#include <opencv2/imgproc.hpp>
#include <sys/stat.h>

#include "runtime/memory.h"
#include "runtime/progress.h"
#include "subject/subject_net.h"

namespace qx::subject {
namespace {

// Measured on the converted ISNet with OpenCV 4.6: a process that loads it and runs one pass
// peaks at about 0.8 GB resident, of which the weights (read and parsed) are about 0.3 GB.
constexpr uint64_t kPassBytes = 700ull << 20, kWeightsBytes = 300ull << 20;
// A full-size float mask and the 8-bit one, and a colour copy at the input.
constexpr uint64_t kBytesPerPixel = 4 + 1 + 3;

bool regularFile(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

uint64_t maskJobBytes(int width, int height, bool loaded) {
    return kPassBytes + (loaded ? 0 : kWeightsBytes) +
           kBytesPerPixel * static_cast<uint64_t>(width) * static_cast<uint64_t>(height);
}

MaskResult subjectMask(const cv::Mat& bgr, const char* explicitPath, double budgetBytes,
                       const std::function<void(double)>& report, cv::Mat* mask) {
    MaskResult result;
    result.path = modelPath(explicitPath);
    if (!regularFile(result.path)) {
        result.status = MaskStatus::NoModel;
        return result;
    }
    const bool loaded = netLoaded(result.path);
    const uint64_t needs = maskJobBytes(bgr.cols, bgr.rows, loaded);
    if (budgetBytes <= 0.0) budgetBytes = qx::usableMemoryBytes();
    if (budgetBytes > 0.0 && budgetBytes < static_cast<double>(needs)) {
        result.status = MaskStatus::NoMemory;
        result.bytes = needs;
        return result;
    }
    result.detail = netModuleProblem();
    if (!result.detail.empty()) {
        result.status = MaskStatus::NoModule;
        return result;
    }
    qx::checkCancel();
    report(0.0);
    std::shared_ptr<SubjectNet> net;
    try {
        net = loadNet(result.path);
    } catch (const cv::Exception& e) {
        result.status = MaskStatus::BadModel;
        result.detail = e.err.substr(0, e.err.find('\n'));
        return result;
    }
    // Loading reads 176 MB and builds the graph: about a tenth of a first call's time.
    const double loadEnd = loaded ? 0.0 : 0.1;
    report(loadEnd);
    cv::Mat rgb, small;
    cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
    cv::resize(rgb, small, cv::Size(kNetSide, kNetSide), 0, 0, cv::INTER_AREA);
    rgb.release();
    qx::checkCancel();
    report(loadEnd + 0.05);
    cv::Mat soft;
    try {
        soft = forward(*net, small);  // about 3 s on 2 cores; it can't be interrupted
    } catch (const cv::Exception& e) {
        if (e.code == cv::Error::StsNoMem) throw;
        result.status = MaskStatus::BadModel;
        result.detail = e.err.substr(0, e.err.find('\n'));
        return result;
    }
    qx::checkCancel();
    report(0.92);
    cv::Mat full;
    cv::resize(soft, full, bgr.size(), 0, 0, cv::INTER_LINEAR);
    full.convertTo(*mask, CV_8U, 255.0);
    report(1.0);
    return result;
}

}  // namespace qx::subject
