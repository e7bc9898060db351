#include "runtime/progress.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <exception>

#include "runtime/fault.h"
#include "runtime/static_tls.h"

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

// What the listener of finer progress is told (progress.h).
struct FineState {
    ProgressListener listener = nullptr;
    void* param = nullptr;
    int counted = 0;     // the job's counter as it stands with every kick counted
    double sent = -1.0;  // the last position the listener heard
    int depth = 0;       // spans open
    double lo = 0.0, hi = 1.0;  // the innermost open span, as parts of the job
};

// One state a thread: a host thread's jobs never see another thread's callback.
QX_STATIC_TLS thread_local JobState job;
QX_STATIC_TLS thread_local ProgressSnapshot finished;
QX_STATIC_TLS thread_local FineState fine;

// Positions closer than this to the last one heard are not passed on between kicks.
constexpr double kFinest = 2e-3;

void tell(double position, bool always) {
    if (fine.listener == nullptr) return;
    if (!always && !(position - fine.sent >= kFinest)) return;
    fine.sent = position;
    fine.listener(position, fine.param);
}

}  // namespace

int initProgProc() {
    const volatile int32_t* cancel = job.cancel;
    job = JobState{};
    job.cancel = cancel;  // the host's flag outlives the progress state
    fine.counted = 0;
    return 1;
}

int setProgProc(qxProgressProc proc, void* param, int total, int step) {
    job.proc = proc;
    job.param = param;
    job.total = total;
    job.step = step;
    job.current = 0;
    fine.counted = 0;
    fine.sent = -1.0;
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
    // The count goes on without a callback too, for the listener. With a callback it is the
    // callback's own count: both start from 0 with the job.
    // 64-bit sum: a step near the int limit must not overflow on the way to the fall-back.
    int next = static_cast<int>(std::min<int64_t>(int64_t(fine.counted) + job.step, INT_MAX));
    if (next >= job.total) next = job.total / 2;
    fine.counted = next;
    int result = 1;
    if (job.proc != nullptr && job.param != nullptr) {
        job.current = next;
        result = job.proc(next, job.total, job.param);
    }
    if (fine.depth == 0 && job.total > 0) tell(double(next) / job.total, true);
    return result;
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

ProgressListenerScope::ProgressListenerScope(ProgressListener listener, void* param)
    : savedListener_(fine.listener), savedParam_(fine.param) {
    fine.listener = listener;
    fine.param = param;
    fine.sent = -1.0;
}

ProgressListenerScope::~ProgressListenerScope() {
    fine.listener = savedListener_;
    fine.param = savedParam_;
}

bool progressListening() { return fine.listener != nullptr; }

bool progressSpanOpen() { return fine.depth > 0; }

void progressWithin(double part) {
    if (fine.listener == nullptr) return;
    part = std::clamp(part, 0.0, 1.0);  // NaN stays NaN and is not passed on
    if (fine.depth > 0) {
        tell(fine.lo + (fine.hi - fine.lo) * part, false);
    } else if (job.total > 0 && job.step > 0) {
        // The step from where the count stands to the next kick (at most the total).
        const double end = std::min<double>(double(fine.counted) + job.step, job.total);
        tell((fine.counted + (end - fine.counted) * part) / job.total, false);
    }
}

ProgressSpan::ProgressSpan(double lo, double hi, bool job) {
    if (fine.listener == nullptr || (fine.depth == 0 && !job)) return;
    active_ = true;
    exceptions_ = std::uncaught_exceptions();
    savedLo_ = fine.lo;
    savedHi_ = fine.hi;
    lo = std::clamp(lo, 0.0, 1.0);
    hi = std::clamp(hi, lo, 1.0);
    if (fine.depth > 0) {
        const double width = fine.hi - fine.lo;
        fine.hi = fine.lo + width * hi;
        fine.lo = fine.lo + width * lo;
    } else {
        fine.lo = lo;
        fine.hi = hi;
    }
    ++fine.depth;
    tell(fine.lo, true);
}

ProgressSpan::~ProgressSpan() {
    if (!active_) return;
    const double end = fine.hi;
    fine.lo = savedLo_;
    fine.hi = savedHi_;
    --fine.depth;
    if (std::uncaught_exceptions() == exceptions_) tell(end, true);
}

ProgressParts::ProgressParts(std::initializer_list<double> seconds, bool job) {
    for (double s : seconds)
        if (count_ < kMostStages) seconds_[count_++] = s;
    whole_.emplace(0.0, 1.0, job);
    open();
}

ProgressParts::~ProgressParts() {
    part_.reset();
    whole_.reset();
}

void ProgressParts::weigh(int stage, double seconds) {
    if (stage > stage_ && stage < count_) seconds_[stage] = seconds;
}

void ProgressParts::next() {
    if (stage_ + 1 >= count_) return;
    part_.reset();
    ++stage_;
    open();
}

void ProgressParts::open() {
    if (count_ == 0) return;
    double left = 0.0;
    for (int k = stage_; k < count_; ++k) left += std::max(seconds_[k], 0.0);
    const double share = left > 0.0 ? std::max(seconds_[stage_], 0.0) / left : 1.0;
    const double end = stage_ + 1 == count_ ? 1.0 : start_ + (1.0 - start_) * share;
    part_.emplace(start_, end);
    start_ = end;
}

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
