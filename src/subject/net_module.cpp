// The module qxiveilon31-subject.so: reading and running the subject network, on ONNX Runtime
// when it is installed (ort_runtime.h), else on OpenCV's dnn. Built apart from the library (see
// net_module.h for why) and loaded by it on demand.
#include "subject/net_module.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <opencv2/dnn.hpp>
#include <string>

#include "subject/ort_runtime.h"

namespace {

namespace ort = qx::subject::ort;

struct Net {
    std::mutex mutex;          // one pass at a time on one network
    ort::SessionPtr session;   // ONNX Runtime's, when it runs the network
    cv::dnn::Net net;          // otherwise OpenCV's
};

void say(char* message, size_t size, const std::string& text) {
    if (message && size) std::snprintf(message, size, "%s", text.c_str());
}

// OpenCV's messages run to several lines with the source position; the first says what failed.
std::string firstLine(const cv::Exception& e) { return e.err.substr(0, e.err.find('\n')); }

// QX_SUBJECT_RUNTIME=opencv keeps ONNX Runtime out (to compare the two, or to rule it out).
bool openCvOnly() {
    const char* choice = std::getenv("QX_SUBJECT_RUNTIME");
    return choice && std::strcmp(choice, "opencv") == 0;
}

void* load(const char* path, char* message, size_t size) {
    try {
        auto net = std::make_unique<Net>();
        std::string why = "QX_SUBJECT_RUNTIME=opencv";
        if (!openCvOnly()) {
            net->session = ort::open(ort::runtimePath(), path, &why);
            if (net->session) {
                say(message, size, "ONNX Runtime " + ort::version(*net->session));
                return net.release();
            }
            why = "ONNX Runtime: " + why;
        }
        // No runtime, or one that can't take this model: OpenCV's dnn runs it, as it always did.
        net->net = cv::dnn::readNetFromONNX(path);
        net->net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
        net->net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
        say(message, size, "OpenCV dnn (" + why + ")");
        return net.release();
    } catch (const cv::Exception& e) {
        say(message, size, firstLine(e));
    } catch (const std::bad_alloc&) {
        say(message, size, "out of memory while reading the network");
    } catch (const std::exception& e) {
        say(message, size, e.what());
    }
    return nullptr;
}

int forward(void* handle, const unsigned char* rgb, int side, float* mask, char* message,
            size_t size) {
    Net& net = *static_cast<Net*>(handle);
    try {
        if (net.session) {
            std::string why;
            int status;
            {
                std::lock_guard<std::mutex> lock(net.mutex);
                status = ort::forward(*net.session, rgb, side, mask, &why);
            }
            if (status == 1) say(message, size, why);
            return status;
        }
        const cv::Mat image(side, side, CV_8UC3, const_cast<unsigned char*>(rgb));
        // The network was trained on x / 256 - 0.5 per channel, RGB.
        const cv::Mat blob = cv::dnn::blobFromImage(image, 1.0 / 256.0, cv::Size(),
                                                    cv::Scalar::all(128), false, false, CV_32F);
        cv::Mat out;
        {
            std::lock_guard<std::mutex> lock(net.mutex);
            net.net.setInput(blob);
            out = net.net.forward("output");
            // setInput keeps a reference to the blob: let it go before the next call.
            net.net.setInput(cv::Mat());
        }
        if (out.dims != 4 || out.size[0] != 1 || out.size[1] != 1 || out.size[2] != side ||
            out.size[3] != side || out.type() != CV_32F) {
            say(message, size, "the subject model's output is not one " + std::to_string(side) +
                                   "-pixel mask");
            return 1;
        }
        const cv::Mat soft(side, side, CV_32F, out.ptr<float>());
        cv::Mat clipped(side, side, CV_32F, mask);
        cv::min(cv::max(soft, 0.0), 1.0, clipped);
        return 0;
    } catch (const cv::Exception& e) {
        if (e.code == cv::Error::StsNoMem) return 2;
        say(message, size, firstLine(e));
    } catch (const std::bad_alloc&) {
        return 2;
    } catch (const std::exception& e) {
        say(message, size, e.what());
    }
    return 1;
}

void release(void* handle) { delete static_cast<Net*>(handle); }

const QxSubjectNetModule kModule{qx::subject::kNetModuleVersion, load, forward, release};

}  // namespace

extern "C" __attribute__((visibility("default"))) const QxSubjectNetModule* qxSubjectNetModule(
    void) {
    return &kModule;
}
