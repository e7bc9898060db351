// The library's internal failures, by name. They are thrown as a Failure and caught at the
// export's boundary, where several exports hand the fault's value on to the host as it stands;
// statusFor() below is the one place where each export's status is made from a failure.
#pragma once

#include <cstdint>
#include <exception>
#include <new>

#include "runtime/fpmode.h"

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

// What a job throws when it fails: one of the faults above. It is not a std::exception, so that
// a handler for those never takes a fault for a library's error message.
struct Failure {
    Fault fault;
    int value() const { return static_cast<int>(fault); }
};

[[noreturn]] inline void fail(Fault f) { throw Failure{f}; }

// What f throws, kept (nothing when it returns): a failure may not leave an OpenMP task or
// parallel region, so it is carried out and thrown after it.
template <class F>
std::exception_ptr thrownBy(F&& f) {
    try {
        f();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

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

// The failure an export's status stands for, as far as the status tells: a fault's value,
// kNoMemory or kUnknownFailure; kRefused for a refused request; 0 for success. A status that
// stands for several failures gives one of them (qxKeepCutToAlpha's -1: SizeLimit, also no
// memory; qxMaskAlpha's -1000: kUnknownFailure, also no memory): the thread's failure note
// below tells them apart.
constexpr int kRefused = -2147483646;
int failureOf(Export which, int status);

// True for the failures that mean memory ran out.
bool isMemoryFailure(int failure);

// What the calling thread's last job export (guardedExport) met: the failure it caught (0 when
// it returned without one) and, for an exception whose message says memory ran out (OpenCV's
// "Failed to allocate N bytes"), memory set and the bytes asked for (0: not said).
struct FailureNote {
    int failure = 0;
    bool memory = false;
    uint64_t bytes = 0;
};
FailureNote lastFailure();
void noteFailure(int failure, const char* message = nullptr);

// The bytes an allocation failure's message names ("Failed to allocate N bytes"); 0 for none.
uint64_t allocationBytes(const char* message);
// True when an exception's message says memory ran out.
bool memoryMessage(const char* message);

// Takes the job's progress callback out when an export returns, however it returns: nothing
// calls the host back after its job.
// Throws Fault::Cancelled when the calling thread's cancel flag is set (runtime/progress.h).
void checkCancelled();

struct JobEnd {
    JobEnd() = default;
    JobEnd(const JobEnd&) = delete;
    JobEnd& operator=(const JobEnd&) = delete;
    ~JobEnd();
};

// Runs body() with the library's floating-point mode; whatever it throws becomes the export's
// status through statusFor() (a cancelled job: kCancelledStatus), and the thread's failure note.
template <typename Body>
int guardedExport(Export which, Body&& body) {
    FpModeGuard fp;
    JobEnd end;
    try {
        checkCancelled();  // a job whose flag is already set does not start
        const int status = body();
        noteFailure(0);
        return status;
    } catch (const Failure& f) {
        noteFailure(f.value());
        return f.fault == Fault::Cancelled ? kCancelledStatus : statusFor(which, f.value());
    } catch (const std::bad_alloc&) {
        noteFailure(kNoMemory);
        return statusFor(which, kNoMemory);
    } catch (const std::exception& e) {
        noteFailure(kUnknownFailure, e.what());
        return statusFor(which, kUnknownFailure);
    } catch (...) {
        noteFailure(kUnknownFailure);
        return statusFor(which, kUnknownFailure);
    }
}

}  // namespace qx
