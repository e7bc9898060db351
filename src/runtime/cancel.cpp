// qxSetCancelFlag: the host's way to stop the jobs of one of its threads.
#include "runtime/progress.h"
#include "qxiveilon31.h"

extern "C" QX_API void qxSetCancelFlag(const volatile int32_t* flag) { qx::setCancelFlag(flag); }
