// SIGINT and SIGTERM stop the running job: the signal raises the jobs' cancel flag, the
// workflow returns QXW_CANCELLED at its next progress step, and the command exits with
// 128 + the signal without writing anything. A job that can't stop at once (a direct
// factorisation in progress) is not waited for: after 0.6 s an alarm removes the temporaries being written,
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

}  // namespace qxmatte
