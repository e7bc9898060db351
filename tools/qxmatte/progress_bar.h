// The progress bar the commands draw on standard error, as a library progress callback.
#pragma once

#include "qxiveilon31.h"

namespace qxmatte {

struct ProgressBar {
    int last = -1;
};

// The bar of this process. It outlives every job: the library keeps the last callback and its
// parameter installed after a job, and some operations report through what stands installed.
// Resets the bar for a new job.
ProgressBar* progressBarForJob();

// qxProgressProc: param is a ProgressBar.
int drawProgress(int current, int total, void* param);
// Clears the bar's line.
void clearProgress();

// Where a workflow's jobs report: a host's own callback (proc with param; the library reports
// only when param is non-null too) when one is given, else the bar when `bar` is set, else
// nowhere.
struct Progress {
    bool bar = false;  // draw a progress bar on standard error
    qxProgressProc proc = nullptr;
    void* param = nullptr;
};

// Puts the chosen callback into a request's fields. Returns true when it is the bar (the caller
// clears it after the job).
bool chooseProgress(const Progress& progress, qxProgressProc* proc, void** param);

}  // namespace qxmatte
