#include "frame/progress.h"

#include <algorithm>
#include <climits>
#include <cstdint>

#include "frame/fault.h"
#include "frame/static_tls.h"

namespace qx {
namespace {

struct JobState {
    qxProgressProc proc = nullptr;
    void* param = nullptr;
    int total = 0;
    int current = 0;
    int step = 0;
    int64_t kicks = 0;
    const volatile int32_t* cancel = nullptr;
};

// One state a thread: a host thread's jobs never see another thread's callback.
QX_STATIC_TLS thread_local JobState job;
QX_STATIC_TLS thread_local ProgressSnapshot finished;

}  // namespace

int initProgProc() {
    const volatile int32_t* cancel = job.cancel;
    job = JobState{};
    job.cancel = cancel;  // the host's flag outlives the progress state
    return 1;
}

int setProgProc(qxProgressProc proc, void* param, int total, int step) {
    job.proc = proc;
    job.param = param;
    job.total = total;
    job.step = step;
    job.current = 0;
    return 1;
}

int setProgRange(int total, int step) {
    job.total = total;
    job.step = step;
    return job.current;
}

int progressKick() {
    ++job.kicks;
    checkCancel();
    if (job.proc == nullptr || job.param == nullptr) return 1;
    // 64-bit sum: a step near the int limit must not overflow on the way to the fall-back.
    int next = static_cast<int>(std::min<int64_t>(int64_t(job.current) + job.step, INT_MAX));
    if (next >= job.total) next = job.total / 2;
    job.current = next;
    return job.proc(next, job.total, job.param);
}

int64_t progressKickCount() { return job.kicks; }

ProgressSnapshot progressState() {
    return {job.proc, job.param, job.total, job.current, job.step};
}

void endJob() {
    finished = progressState();
    setProgProc(nullptr, nullptr, 0, 0);
}

ProgressSnapshot finishedJobState() { return finished; }

void setCancelFlag(const volatile int32_t* flag) { job.cancel = flag; }

const volatile int32_t* cancelFlag() { return job.cancel; }

bool flagSet(const volatile int32_t* flag) {
    // The flag is written by another thread; an atomic load keeps the read from being hoisted.
    return flag != nullptr &&
           __atomic_load_n(const_cast<const int32_t*>(flag), __ATOMIC_RELAXED) != 0;
}

bool cancelRequested() { return flagSet(job.cancel); }

void checkCancel() {
    if (cancelRequested()) fail(Fault::Cancelled);
}

}  // namespace qx
