// The subject's soft mask for an image of any size: the image brought down to the network's
// square (area interpolation), one forward pass, the mask brought back up to the image's size
// (linear interpolation).
#pragma once

#include <cstdint>
#include <functional>
#include <opencv2/core.hpp>
#include <string>

namespace qx::subject {

enum class MaskStatus {
    Ok,
    NoModel,      // no file where the model is looked for
    BadModel,     // the file is there but is not a network that gives a mask
    NoModule,     // the library's module that runs the network can't be loaded (detail: why)
    NoMemory      // less memory is free than the job needs (bytes: what it needs)
};

struct MaskResult {
    MaskStatus status = MaskStatus::Ok;
    std::string path;    // where the model was looked for
    std::string detail;  // BadModel: what the reader said; NoModule: what the loader said
    uint64_t bytes = 0;  // NoMemory: the bytes the job needs
};

// The bytes a mask job needs beyond the image: the network's working memory, its weights when
// it is not loaded yet, and the full-size planes of an image of width x height.
uint64_t maskJobBytes(int width, int height, bool loaded);

// The soft mask (8-bit, 0 background, 255 subject) of a BGR image into *mask. modelPath as
// subject_net.h's modelPath. budgetBytes: the memory the job may use (0: the library's budget,
// qx::usableMemInMB); NoMemory when maskJobBytes is more. report(part) hears the job's position
// from 0 to 1 (before and after the forward pass, around the resizes); the thread's cancel flag
// is looked at before and after the pass (qx::checkCancel throws). *mask is written only when
// the status is Ok.
MaskResult subjectMask(const cv::Mat& bgr, const char* modelPath, double budgetBytes,
                       const std::function<void(double)>& report, cv::Mat* mask);

}  // namespace qx::subject
