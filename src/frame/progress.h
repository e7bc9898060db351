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
