// Flush-to-zero and denormals-are-zero for the length of one exported call. Denormal floats
// slow the numeric loops by orders of magnitude; the host's own mode is put back on return.
#pragma once

namespace qx {

class FpModeGuard {
public:
    FpModeGuard();
    ~FpModeGuard();
    FpModeGuard(const FpModeGuard&) = delete;
    FpModeGuard& operator=(const FpModeGuard&) = delete;

private:
    unsigned saved_;
    bool outer_;
};

// The calling thread's MXCSR flush-to-zero and denormals-are-zero bits, for tests.
bool flushToZeroOn();
bool denormalsAreZeroOn();

}  // namespace qx
