// The library's internal failures, by name. They travel as their integer value, because
// several exports hand the value on to the host as it stands; statusFor() below is the one
// place where each export's status is made from a failure.
#pragma once

#include <new>

#include "frame/fpmode.h"

namespace qx {

enum class Fault : int {
    TooFewStrokes = -5,            // a keep-cut job without both kinds of stroke
    SizeLimit = -1,                // a job larger than its engine takes in one piece
    TransposeTooLarge = 11,        // a recovery cell beyond what the sparse transpose takes
    ImageMemory = 102,             // no memory for a working image
    GuardRow = 103,                // an owned image's guard row was overwritten
    FilterSize = 108,              // a Gaussian kernel size out of range, or no memory for it
    WideImageMemory = 112,         // no memory for an image over 5000 pixels wide
    HighImageMemory = 113,         // no memory for an image over 5000 pixels high
    SolverAnalysis = 121,          // the direct solver's phases
    SolverFactorisation = 122,
    SolverSolve = 123,
    SolverMemory = 125,            // the direct solver ran out of memory
    ArrayMemory = 130,             // no memory for an array of a solve
    TraceBuffer = 404,             // no memory for a trace dump's row
};

[[noreturn]] inline void fail(Fault f) { throw static_cast<int>(f); }

// The exports whose status is made from the failure (the others return one fixed status for
// any failure).
enum class Export {
    MaskAlpha,         // qxMaskAlpha: the value - 1000; -1000 for anything else
    ForegroundRecovery,  // qxRecoverForeground(Cell): the same, no memory as an array failure
    KeepCut,           // qxKeepCutToAlpha: the value as it stands; -1 no memory; -1000 else
    GrabCut,           // qxGrabCut: the value as it stands; -1000 else
    StrokesToAlpha,    // qxStrokesToAlpha: -1 for any memory failure; -1000 else
    ForegroundFull,    // qxRecoverForegroundFull: the same
};

// What reached an export's boundary: a fault's value, or one of these two.
constexpr int kNoMemory = -2147483647 - 1;  // std::bad_alloc
constexpr int kUnknownFailure = -2147483647;  // any other exception

int statusFor(Export which, int failure);

// Runs body() with the library's floating-point mode; whatever it throws becomes the export's
// status through statusFor().
template <typename Body>
int guardedExport(Export which, Body&& body) {
    FpModeGuard fp;
    try {
        return body();
    } catch (int e) {
        return statusFor(which, e);
    } catch (const std::bad_alloc&) {
        return statusFor(which, kNoMemory);
    } catch (...) {
        return statusFor(which, kUnknownFailure);
    }
}

}  // namespace qx
