// The boundary of the exports that answer every failure with one status (the brushes, tools,
// previews, mask box and edge band): floating-point mode for the call's length and no C++
// exception crossing into the host. Exports whose status depends on the failure go through
// guardedExport() in runtime/fault.h.
#pragma once

#include "runtime/fpmode.h"

namespace qx {

// Runs body(); anything it throws becomes `failureStatus`.
template <typename Body>
int guardedCall(Body&& body, int failureStatus) {
    FpModeGuard fp;
    try {
        return body();
    } catch (...) {
        return failureStatus;
    }
}

}  // namespace qx
