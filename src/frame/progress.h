// The library's one progress state. Long operations advance it with progressKick(); the host's
// callback sees (current, total, param). The state is process-global: jobs must not overlap.
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
// 1 when no callback is installed (callback or parameter null).
int progressKick();

// How many steps progressKick() has made since the library was loaded, with or without a
// callback: a step whose work is taken from an earlier one replays that one's reports.
int64_t progressKickCount();

struct ProgressSnapshot {
    qxProgressProc proc;
    void* param;
    int total;
    int current;
    int step;
};
ProgressSnapshot progressState();

}  // namespace qx
