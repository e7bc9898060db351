// Progress and cancel of the job running on the calling thread. Long operations advance the
// progress with progressKick(); the host's callback sees (current, total, param). The state
// belongs to the thread that runs the job: two host threads run two jobs at once, each
// reporting only to its own callback. Kicks must come from the job's own thread (none is made
// inside a parallel region).
//
// Cancel: a host hands the library a flag for the jobs its thread runs (qxSetCancelFlag); any
// thread may set it. Every progress step, and checkCancel() between the pieces of long work,
// ends the job with Fault::Cancelled once it is set.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>

#include "qxiveilon31.h"

namespace qx {

int initProgProc();
int setProgProc(qxProgressProc proc, void* param, int total, int step);
// Stores total and step, keeps the current value, and returns it.
int setProgRange(int total, int step);
// One step. At or past the total the value falls back to total / 2 and climbs again, so a job
// that overruns its estimate never reports the total itself. Returns the callback's result, or
// 1 when no callback is installed (callback or parameter null). Throws Fault::Cancelled when
// the thread's cancel flag is set.
int progressKick();

// How many steps progressKick() has made on this thread, with or without a callback: a step
// whose work is taken from an earlier one replays that one's reports.
int64_t progressKickCount();

struct ProgressSnapshot {
    qxProgressProc proc;
    void* param;
    int total;
    int current;
    int step;
};
ProgressSnapshot progressState();
// Ends the thread's job: the callback is taken out, and the state it ended with is kept for
// finishedJobState() (tests read which totals a job chose).
void endJob();
ProgressSnapshot finishedJobState();

// Finer progress, for the workflows alone. An export's callback hears the kicks above and
// nothing else: hosts of the exports count on those calls. A workflow wants a position that
// also moves through the long steps (a factorisation of several seconds is one kick), so its
// relay installs a listener for the thread, and only the listener hears what follows. It is
// told the job's position as a fraction of the whole job, 0 to 1, always from the job's thread:
// - a kick puts it where the job's counter then stands (current / total, counted as with a
//   callback installed, the fall-back included), with or without the export's callback;
// - between kicks, the work in hand says how far it has got through the step it is in:
//   progressWithin(part). A direct solve's wait reports its elapsed time against an estimate,
//   an iterative solver could report its iterations or residual against its limit;
// - a job that knows where its time goes lays its stages out in spans (ProgressSpan,
//   ProgressParts). While a span is open, kicks no longer move the listener, and
//   progressWithin() is a part of the innermost span.
// The position may go back (a counter falling back, a new job on the thread); the listener
// keeps its own record monotone.
using ProgressListener = void (*)(double fraction, void* param);

// Installs a listener for the calling thread for the scope's life, and puts the one before it
// back at its end.
class ProgressListenerScope {
public:
    ProgressListenerScope(ProgressListener listener, void* param);
    ~ProgressListenerScope();
    ProgressListenerScope(const ProgressListenerScope&) = delete;
    ProgressListenerScope& operator=(const ProgressListenerScope&) = delete;

private:
    ProgressListener savedListener_;
    void* savedParam_;
};

// Whether the calling thread has a listener; whether one of the thread's spans is open.
bool progressListening();
bool progressSpanOpen();

// The part (0..1) of the current step, or of the innermost span, that the work has done. Cheap
// without a listener. The listener hears a position only once it has moved by a thousandth of
// the job, so a loop may call it every iteration. Never throws (a loop checks its cancel flag
// itself, or kicks).
void progressWithin(double part);

// A stage of a job for the listener: [lo, hi] of the innermost open span. With no span open, a
// span of `job` covers [lo, hi] of the whole job; any other span does nothing, so that code a job
// without spans also runs (a keep-cut tile's solve) leaves its kicks in charge. Opening reports
// the start; the end is reported when the span closes, unless an exception is unwinding.
class ProgressSpan {
public:
    ProgressSpan(double lo, double hi, bool job = false);
    ~ProgressSpan();
    ProgressSpan(const ProgressSpan&) = delete;
    ProgressSpan& operator=(const ProgressSpan&) = delete;

private:
    bool active_ = false;
    int exceptions_ = 0;
    double savedLo_ = 0.0, savedHi_ = 0.0;
};

// Consecutive stages of the innermost span (or of the whole job, for `job`, as above), each
// weighed by its expected seconds (only their ratios matter). The first stage opens with the
// object; next() ends the stage in hand and opens the next; the last ends with the object. A
// stage takes its weight's share of what the stages before it left, so weigh() may set the
// weight of a stage that has not begun once more is known.
class ProgressParts {
public:
    explicit ProgressParts(std::initializer_list<double> seconds, bool job = false);
    ~ProgressParts();
    ProgressParts(const ProgressParts&) = delete;
    ProgressParts& operator=(const ProgressParts&) = delete;
    void weigh(int stage, double seconds);
    void next();

private:
    void open();
    static constexpr int kMostStages = 8;
    double seconds_[kMostStages] = {};
    int count_ = 0, stage_ = 0;
    double start_ = 0.0;  // where the stage in hand began, as a part of the whole
    std::optional<ProgressSpan> whole_, part_;
};

// The calling thread's cancel flag (NULL: none).
void setCancelFlag(const volatile int32_t* flag);
const volatile int32_t* cancelFlag();
// Whether a flag (of any thread; NULL: none) is set, read as another thread may write it.
bool flagSet(const volatile int32_t* flag);
// flagSet(cancelFlag()).
bool cancelRequested();
// Throws Fault::Cancelled when the flag is set.
void checkCancel();

}  // namespace qx
