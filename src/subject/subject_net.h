// The subject-selection network: where its file is, loading it once per process, and one
// forward pass. The network (ISNet, general objects) is not part of the library: the set-up
// script fetches and converts it into the user's cache (scripts/fetch_subject_model.sh).
#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>

namespace qx::subject {

// The network's input side: it sees a square of this many pixels a side.
constexpr int kNetSide = 1024;

// Where the model is looked for: `explicitPath` when not null or empty, else the environment's
// QX_SUBJECT_MODEL when set and not empty, else ${XDG_CACHE_HOME:-$HOME/.cache}/qxiveilon31/
// isnet-fp32.onnx (empty when neither XDG_CACHE_HOME nor HOME is set).
std::string modelPath(const char* explicitPath);

// Empty when the module that runs the network (net_module.h) is loaded or loads now; otherwise
// what each place it was looked for gave. QX_SUBJECT_MODULE, when set, is the only place.
std::string netModuleProblem();

// A loaded network. Forward passes on one network run one at a time (a lock inside); networks
// of different files run side by side.
class SubjectNet;

// The network of the file at `path`, loaded on the first call for that path and kept for the
// process's life, so that later calls (from any thread) don't read the file again. Throws
// cv::Exception when the file is not a network OpenCV can read.
std::shared_ptr<SubjectNet> loadNet(const std::string& path);
// Lets the network of `path` go (a pass running on another thread keeps it until it ends) and
// gives the freed memory back to the system; the next loadNet reads the file again.
void releaseNet(const std::string& path);
// Whether the network of `path` is loaded already (no file is read).
bool netLoaded(const std::string& path);
// What runs `net`, in the module's words: "ONNX Runtime 1.30.0", or "OpenCV dnn (...)" saying
// why not ONNX Runtime (QX_SUBJECT_RUNTIME=opencv, or what the runtime's loading gave).
std::string netRuntime(const SubjectNet& net);

// One forward pass on an 8-bit RGB image of kNetSide x kNetSide: the soft mask, float on 0..1,
// of the same size. A pass can't be interrupted once it has begun: a cancel is seen before and
// after it. Throws cv::Exception when the network's output is not one mask of that size.
cv::Mat forward(SubjectNet& net, const cv::Mat& rgb);

}  // namespace qx::subject
