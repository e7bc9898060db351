#include "subject/subject_net.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <opencv2/dnn.hpp>

namespace qx::subject {

class SubjectNet {
public:
    explicit SubjectNet(const std::string& path) : net_(cv::dnn::readNetFromONNX(path)) {
        net_.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
        net_.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
    }
    cv::Mat run(const cv::Mat& blob) {
        std::lock_guard<std::mutex> lock(mutex_);
        net_.setInput(blob);
        cv::Mat out = net_.forward("output");
        // setInput keeps a reference to the blob; the next pass replaces it, so the last
        // input's memory is not held between calls.
        net_.setInput(cv::Mat());
        return out;
    }

private:
    std::mutex mutex_;
    cv::dnn::Net net_;
};

namespace {

std::mutex cacheMutex;
std::map<std::string, std::shared_ptr<SubjectNet>>& cache() {
    static auto* nets = new std::map<std::string, std::shared_ptr<SubjectNet>>;  // lives to exit
    return *nets;
}

}  // namespace

std::string modelPath(const char* explicitPath) {
    if (explicitPath && *explicitPath) return explicitPath;
    const char* env = std::getenv("QX_SUBJECT_MODEL");
    if (env && *env) return env;
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    std::string dir;
    if (xdg && *xdg) {
        dir = xdg;
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        dir = std::string(home) + "/.cache";
    } else {
        return {};
    }
    return dir + "/qxiveilon31/isnet-fp32.onnx";
}

std::shared_ptr<SubjectNet> loadNet(const std::string& path) {
    // One lock over the whole load: two threads asking for a network at once load it once.
    std::lock_guard<std::mutex> lock(cacheMutex);
    auto& nets = cache();
    auto found = nets.find(path);
    if (found != nets.end()) return found->second;
    auto net = std::make_shared<SubjectNet>(path);
    nets.emplace(path, net);
    return net;
}

bool netLoaded(const std::string& path) {
    std::lock_guard<std::mutex> lock(cacheMutex);
    return cache().count(path) != 0;
}

cv::Mat forward(SubjectNet& net, const cv::Mat& rgb) {
    CV_Assert(rgb.type() == CV_8UC3 && rgb.rows == kNetSide && rgb.cols == kNetSide);
    // The network was trained on x / 256 - 0.5 per channel, RGB.
    const cv::Mat blob = cv::dnn::blobFromImage(rgb, 1.0 / 256.0, cv::Size(), cv::Scalar::all(128),
                                                false, false, CV_32F);
    const cv::Mat out = net.run(blob);
    if (out.dims != 4 || out.size[0] != 1 || out.size[1] != 1 || out.size[2] != kNetSide ||
        out.size[3] != kNetSide)
        CV_Error(cv::Error::StsUnmatchedSizes, "the subject model's output is not one " +
                                                   std::to_string(kNetSide) + "-pixel mask");
    cv::Mat mask(kNetSide, kNetSide, CV_32F, const_cast<float*>(out.ptr<float>()));
    cv::Mat clipped;
    cv::min(cv::max(mask, 0.0), 1.0, clipped);  // a copy: out's memory goes with it
    return clipped;
}

}  // namespace qx::subject
