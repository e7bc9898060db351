// The seam between the library and the module that runs the subject network. The network's
// reader (OpenCV's dnn, with protobuf under it, or ONNX Runtime where it is installed) is a large
// set of libraries that only the subject calls need, so it lives in a module of its own,
// qxiveilon31-subject.so, which the library loads on the first subject call (subject_net.cpp)
// instead of linking: every other job, and every host's start-up, goes without it. The module
// and the library are built together, so the table below is their whole contract; `version`
// changes with it.
#pragma once

#include <cstddef>

extern "C" {

struct QxSubjectNetModule {
    int version;
    // The network of the file at `path`, or null with the reader's words in message. On success
    // message names what runs it ("ONNX Runtime 1.30.0", or "OpenCV dnn (why not the former)").
    void* (*load)(const char* path, char* message, size_t messageSize);
    // One pass on an 8-bit RGB square of `side` pixels a side (rows packed) into `mask` (side *
    // side floats on 0..1). 0: done; 1: the network failed or gave no mask of that size
    // (message says why); 2: out of memory.
    int (*forward)(void* net, const unsigned char* rgb, int side, float* mask, char* message,
                   size_t messageSize);
    void (*release)(void* net);
};

// The module's one symbol.
const QxSubjectNetModule* qxSubjectNetModule(void);
}

namespace qx::subject {
constexpr int kNetModuleVersion = 1;
constexpr const char* kNetModuleEntry = "qxSubjectNetModule";
}  // namespace qx::subject
