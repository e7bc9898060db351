#include "runtime/fault.h"

#include <cstdlib>
#include <cstring>

#include "runtime/progress.h"
#include "runtime/static_tls.h"

namespace qx {
namespace {

QX_STATIC_TLS thread_local FailureNote threadNote;

}  // namespace

bool isMemoryFailure(int failure) {
    switch (failure) {
        case kNoMemory:
        case int(Fault::ImageMemory):
        case int(Fault::WideImageMemory):
        case int(Fault::HighImageMemory):
        case int(Fault::SolverMemory):
        case int(Fault::ArrayMemory):
            return true;
        default:
            return false;
    }
}

int statusFor(Export which, int failure) {
    switch (which) {
        case Export::MaskAlpha:
            return failure == kNoMemory || failure == kUnknownFailure ? -1000 : failure - 1000;
        case Export::ForegroundRecovery:
            if (failure == kNoMemory) failure = int(Fault::ArrayMemory);
            return failure == kUnknownFailure ? -1000 : failure - 1000;
        case Export::KeepCut:
            if (failure == kNoMemory) return -1;
            return failure == kUnknownFailure ? -1000 : failure;
        case Export::GrabCut:
            return failure == kNoMemory || failure == kUnknownFailure ? -1000 : failure;
        case Export::StrokesToAlpha:
        case Export::ForegroundFull:
            return isMemoryFailure(failure) ? -1 : -1000;
    }
    return -1000;
}

int failureOf(Export which, int status) {
    if (status == kCancelledStatus) return int(Fault::Cancelled);
    switch (which) {
        case Export::MaskAlpha:
            if (status == 1) return 0;
            return status == -1000 ? kUnknownFailure : status + 1000;
        case Export::ForegroundRecovery:
            if (status == 0 || status == 1) return 0;
            if (status == -2) return kRefused;
            return status == -1000 ? kUnknownFailure : status + 1000;
        case Export::KeepCut:
            if (status == 1) return 0;
            return status == -1000 ? kUnknownFailure : status;
        case Export::GrabCut:
            if (status == 1) return 0;
            if (status == 0) return kRefused;
            return status == -1000 ? kUnknownFailure : status;
        case Export::StrokesToAlpha:
        case Export::ForegroundFull:
            if (status == 1) return 0;
            if (status == -2) return kRefused;
            if (status == -5 && which == Export::StrokesToAlpha) return int(Fault::TooFewStrokes);
            return status == -1 ? kNoMemory : kUnknownFailure;
    }
    return kUnknownFailure;
}

FailureNote lastFailure() { return threadNote; }

void noteFailure(int failure, const char* message) {
    const uint64_t bytes = allocationBytes(message);
    threadNote = {failure, isMemoryFailure(failure) || bytes > 0 || memoryMessage(message),
                  bytes};
}

uint64_t allocationBytes(const char* message) {
    static constexpr char kSaid[] = "Failed to allocate ";
    const char* at = message ? std::strstr(message, kSaid) : nullptr;
    if (!at) return 0;
    at += sizeof kSaid - 1;
    char* end = nullptr;
    const unsigned long long bytes = std::strtoull(at, &end, 10);
    return end != at && std::strncmp(end, " bytes", 6) == 0 ? bytes : 0;
}

bool memoryMessage(const char* message) {
    return message &&
           (allocationBytes(message) > 0 || std::strstr(message, "Insufficient memory") ||
            std::strstr(message, "bad_alloc"));
}

JobEnd::~JobEnd() { endJob(); }

void checkCancelled() { checkCancel(); }

}  // namespace qx
