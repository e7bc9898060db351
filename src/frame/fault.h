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
    Cancelled = 150,               // the host set the job's cancel flag
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

// What every export that can be cancelled returns when it was.
constexpr int kCancelledStatus = -3;

int statusFor(Export which, int failure);

// Takes the job's progress callback out when an export returns, however it returns: nothing
// calls the host back after its job.
// Throws Fault::Cancelled when the calling thread's cancel flag is set (frame/progress.h).
void checkCancelled();

struct JobEnd {
    JobEnd() = default;
    JobEnd(const JobEnd&) = delete;
    JobEnd& operator=(const JobEnd&) = delete;
    ~JobEnd();
};

// Runs body() with the library's floating-point mode; whatever it throws becomes the export's
// status through statusFor() (a cancelled job: kCancelledStatus).
template <typename Body>
int guardedExport(Export which, Body&& body) {
    FpModeGuard fp;
    JobEnd end;
    try {
        checkCancelled();  // a job whose flag is already set does not start
        return body();
    } catch (int e) {
        return e == int(Fault::Cancelled) ? kCancelledStatus : statusFor(which, e);
    } catch (const std::bad_alloc&) {
        return statusFor(which, kNoMemory);
    } catch (...) {
        return statusFor(which, kUnknownFailure);
    }
}

}  // namespace qx
