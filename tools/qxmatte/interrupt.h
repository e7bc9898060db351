// SIGINT and SIGTERM stop the running job: the signal raises the jobs' cancel flag, the
// workflow returns QXW_CANCELLED at its next progress step, and the command exits with
// 128 + the signal without writing anything. The library leaves a factorisation in progress
// to finish on its own thread; the command doesn't wait for it at exit (exitNow). Should a job
// still not have stopped 0.6 s after the signal, an alarm removes the temporaries being written,
// if any, and ends the process with the same status.
#pragma once

#include <cstdint>

namespace qxmatte {

void installInterrupt();
// The flag for QxwJob.cancel.
const volatile int32_t* cancelFlag();
// The signal that stopped the command, or 0.
int interruptedBy();
// Temporaries being written (at most 8): removed if the alarm ends the process.
void registerTemporary(const char* path);
void clearTemporaries();
// The command's end: returns status, or after a signal flushes the output and ends the process
// at once, without the exit handlers (which would wait for work the library left running).
int exitNow(int status);

}  // namespace qxmatte
