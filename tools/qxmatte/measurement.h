// Time and resident memory of this process, for the demo's, the cut-out's and the benchmarks'
// reports.
#pragma once

#include <chrono>

namespace qxmatte {

// Starts a new memory measurement: gives freed heap back to the system and resets the peak, so
// that the next peakResidentMB() reports what happened since.
void resetPeakResident();
// Peak and current resident memory in MB (from /proc/self/status).
double peakResidentMB();
double residentMB();

// Wall time since `start`, in seconds.
double secondsSince(std::chrono::steady_clock::time_point start);
// Processor time of all the process's threads, user and system, in seconds: on a shared machine
// the work done, where wall time also counts the waits for a core.
double processCpuSeconds();

// One measured run, started when made: the peak is reset (heap that earlier runs freed but the
// allocator kept would hide this run's growth), and the resident memory and both clocks noted.
class Measurement {
public:
    Measurement();
    double seconds() const { return secondsSince(start_); }
    double cpuSeconds() const { return processCpuSeconds() - cpu0_; }
    // The peak resident memory since the start, less what was resident then.
    double peakAboveStartMB() const { return peakResidentMB() - base_; }

private:
    double base_;
    double cpu0_;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace qxmatte
