// Placeholder until the keep-cut entry lands.
#include "qxiveilon31.h"

extern "C" QX_API int qxKeepCutToAlpha(KeepCutRequest*, int) { return -1000; }
