// The boundary of every exported call: floating-point mode for the call's length and no C++
// exception crossing into the host.
#pragma once

#include <new>

#include "frame/fpmode.h"

namespace qx {

// Runs body(); a thrown int e becomes onInt(e), any other exception `otherStatus`.
template <typename Body, typename OnInt>
int guardedCall(Body&& body, OnInt&& onInt, int otherStatus) {
    FpModeGuard fp;
    try {
        return body();
    } catch (int e) {
        return onInt(e);
    } catch (...) {
        return otherStatus;
    }
}

}  // namespace qx
