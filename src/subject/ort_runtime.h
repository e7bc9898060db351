// ONNX Runtime as the subject module's first choice for running the network (a pass takes about
// two thirds of OpenCV dnn's time). Nothing of it is needed to build: the runtime is looked for
// when a network is loaded and opened with dlopen; when it is absent or refuses the model, the
// module runs the network on OpenCV's dnn instead (net_module.cpp). Part of the module only.
#pragma once

#include <memory>
#include <string>

namespace qx::subject::ort {

class Session;
struct SessionDeleter {
    void operator()(Session* session) const;
};
using SessionPtr = std::unique_ptr<Session, SessionDeleter>;

// Where the runtime is looked for: the environment's QX_ONNXRUNTIME when set and not empty, else
// libonnxruntime.so.1 in the user's cache folder (where scripts/fetch_onnxruntime.sh puts it).
// Never beside a model the caller names: a folder a model is read from need not be one whose
// libraries may be loaded.
std::string runtimePath();

// A session of the network at `modelPath` on the runtime at `runtimePath`, with as many threads
// as the process may use cores; null with *why saying what stopped it (no library there, not the
// runtime, a runtime too old, the model refused). The library, once it loaded, stays loaded.
SessionPtr open(const std::string& runtimePath, const std::string& modelPath, std::string* why);

// The runtime's own version, "1.30.0" say.
const std::string& version(const Session& session);

// One pass on an 8-bit RGB square of `side` pixels a side into `mask`, clipped to 0..1, with the
// preprocessing of the OpenCV path. 0: done; 1: failed (*message says why); 2: out of memory.
// One pass at a time on a session: the caller holds the lock.
int forward(Session& session, const unsigned char* rgb, int side, float* mask,
            std::string* message);

}  // namespace qx::subject::ort
