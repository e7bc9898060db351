#include "grabcut/grabcut_control.h"

#include <cstdint>
#include <mutex>
#include <new>
#include <unordered_set>

namespace qx {
namespace {

// Live controls. A host pointer that is not in this set is refused without being read.
std::mutex& registryLock() {
    static std::mutex m;
    return m;
}
std::unordered_set<const void*>& registry() {
    static std::unordered_set<const void*> live;
    return live;
}

cv::Mat* newMat() { return new (std::nothrow) cv::Mat(); }

}  // namespace

GrabCutControl::GrabCutControl(int w, int h)
    : width(w), height(h), constsSum(0.0), bgdModel(nullptr), fgdModel(nullptr), mask(nullptr),
      maskReady(0) {
    fgdModel = newMat();
    bgdModel = newMat();
    mask = newMat();
    if (mask != nullptr && w > 0 && h > 0) {
        try {
            mask->create(h, w, CV_8UC1);
        } catch (...) {
            delete mask;
            mask = nullptr;
        }
    }
}

GrabCutControl::~GrabCutControl() {
    delete fgdModel;
    delete bgdModel;
    delete mask;
}

namespace {
cv::Mat copyOf(const cv::Mat* m) { return m ? m->clone() : cv::Mat(); }
void putBack(const cv::Mat& from, cv::Mat* to) {
    if (to) from.copyTo(*to);
}
}  // namespace

ControlSnapshot::ControlSnapshot(const GrabCutControl& c)
    : constsSum_(c.constsSum), bgdModel_(copyOf(c.bgdModel)), fgdModel_(copyOf(c.fgdModel)),
      mask_(copyOf(c.mask)), maskReady_(c.maskReady) {}

void ControlSnapshot::restore(GrabCutControl& c) const {
    c.constsSum = constsSum_;
    putBack(bgdModel_, c.bgdModel);
    putBack(fgdModel_, c.fgdModel);
    putBack(mask_, c.mask);
    c.maskReady = maskReady_;
}

GrabCutControl* grabcutCreateBuf(int width, int height) {
    auto* control = new (std::nothrow) GrabCutControl(width, height);
    if (control == nullptr) return nullptr;
    try {
        std::lock_guard<std::mutex> lock(registryLock());
        registry().insert(control);
    } catch (...) {
        delete control;
        return nullptr;
    }
    return control;
}

bool GrabCutDeleteBuf(GrabCutControl* control) {
    {
        std::lock_guard<std::mutex> lock(registryLock());
        if (registry().erase(control) == 0) return false;
    }
    delete control;
    return true;
}

bool isLiveGrabCutControl(const void* p) {
    if (p == nullptr) return false;
    std::lock_guard<std::mutex> lock(registryLock());
    return registry().count(p) != 0;
}

bool isConstsChanged(const unsigned char* flags, int flagStep, GrabCutControl* control) {
    double sum = 0.0;
    for (int y = 0; y < control->height; ++y) {
        const unsigned char* f = flags + static_cast<int64_t>(y) * flagStep;
        int64_t row = 0;
        for (int x = 0; x < control->width; ++x) row += f[x];
        sum += static_cast<double>(row);
    }
    const auto now = static_cast<uint32_t>(static_cast<long long>(sum + 0.5));
    const auto before = static_cast<uint32_t>(static_cast<long long>(control->constsSum));
    if (now == before) return false;
    control->constsSum = sum;
    return true;
}

}  // namespace qx
