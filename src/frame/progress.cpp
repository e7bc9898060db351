#include "frame/progress.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <mutex>

namespace qx {
namespace {

qxProgressProc progProc = nullptr;
void* progParam = nullptr;
int progTotal = 0;
int progCurrent = 0;
int progStep = 0;
int64_t kickCount = 0;

// One lock for the state and the callback, shared by all threads of the process.
std::mutex& progressLock() {
    static std::mutex m;
    return m;
}

}  // namespace

int initProgProc() {
    std::lock_guard<std::mutex> lock(progressLock());
    progProc = nullptr;
    progParam = nullptr;
    progTotal = progCurrent = progStep = 0;
    return 1;
}

int setProgProc(qxProgressProc proc, void* param, int total, int step) {
    std::lock_guard<std::mutex> lock(progressLock());
    progProc = proc;
    progParam = param;
    progTotal = total;
    progStep = step;
    progCurrent = 0;
    return 1;
}

int setProgRange(int total, int step) {
    std::lock_guard<std::mutex> lock(progressLock());
    progTotal = total;
    progStep = step;
    return progCurrent;
}

int progressKick() {
    // The callback and its parameter are read under the lock: another thread may be installing
    // a job's callback at the same moment.
    std::lock_guard<std::mutex> lock(progressLock());
    ++kickCount;
    if (progProc == nullptr || progParam == nullptr) return 1;
    // 64-bit sum: a step near the int limit must not overflow on the way to the fall-back.
    int next = static_cast<int>(std::min<int64_t>(int64_t(progCurrent) + progStep, INT_MAX));
    if (next >= progTotal) next = progTotal / 2;
    progCurrent = next;
    return progProc(next, progTotal, progParam);
}

int64_t progressKickCount() {
    std::lock_guard<std::mutex> lock(progressLock());
    return kickCount;
}

ProgressSnapshot progressState() {
    std::lock_guard<std::mutex> lock(progressLock());
    return {progProc, progParam, progTotal, progCurrent, progStep};
}

}  // namespace qx
