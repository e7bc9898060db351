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

// The callback a workflow installs for a job: the host's own (hostProc with hostParam) when one
// is given, else the bar when `bar` is set, else none. Returns true when the bar was chosen (the
// caller clears it after the job).
bool chooseProgress(bool bar, qxProgressProc hostProc, void* hostParam, qxProgressProc* proc,
                    void** param);

}  // namespace qxmatte
