#include "frame/fault.h"

#include "frame/progress.h"

namespace qx {
namespace {

bool memoryFault(int failure) {
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

}  // namespace

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
            return memoryFault(failure) ? -1 : -1000;
    }
    return -1000;
}

JobEnd::~JobEnd() { endJob(); }

void checkCancelled() { checkCancel(); }

}  // namespace qx
