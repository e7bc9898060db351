#include "frame/progress.h"

#include <mutex>

namespace qx {
namespace {

qxProgressProc progProc = nullptr;
void* progParam = nullptr;
int progTotal = 0;
int progCurrent = 0;
int progStep = 0;

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
    if (progProc == nullptr || progParam == nullptr) return 1;
    std::lock_guard<std::mutex> lock(progressLock());
    int next = progCurrent + progStep;
    if (next >= progTotal) next = progTotal / 2;
    progCurrent = next;
    return progProc(next, progTotal, progParam);
}

ProgressSnapshot progressState() {
    std::lock_guard<std::mutex> lock(progressLock());
    return {progProc, progParam, progTotal, progCurrent, progStep};
}

}  // namespace qx
