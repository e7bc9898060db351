#include "runtime/stage_clock.h"

#include <chrono>
#include <mutex>

namespace qx {
namespace {

std::mutex totalsLock;
StageTotals totals;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

const char* stageName(Stage s) {
    switch (s) {
    case Stage::Reduce: return "reduce";
    case Stage::Maps: return "maps";
    case Stage::Laplacian: return "laplacian";
    case Stage::Windows: return "windows";
    case Stage::Assembly: return "assembly";
    case Stage::Solver: return "solver";
    case Stage::Output: return "output";
    case Stage::Enlarge: return "enlarge";
    case Stage::Count: break;
    }
    return "?";
}

StageTotals stageTotals() {
    std::lock_guard<std::mutex> g(totalsLock);
    return totals;
}

void resetStageTotals() {
    std::lock_guard<std::mutex> g(totalsLock);
    totals = StageTotals{};
}

StageClock::StageClock(Stage s) : stage_(s), start_(now()) {}

StageClock::~StageClock() {
    const double elapsed = now() - start_;
    std::lock_guard<std::mutex> g(totalsLock);
    totals.seconds[int(stage_)] += elapsed;
}

}  // namespace qx
