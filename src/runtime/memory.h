// What the library may use of the machine's memory. Jobs size themselves from this budget
// before they allocate (see matting/mask_job.cpp).
#pragma once

#include <cstdint>

namespace qx {

// The three figures the budget is taken from, in bytes.
struct MemStatus {
    uint64_t totalPhys;      // physical memory, or the cgroup limit when lower
    uint64_t availPageFile;  // available memory plus free swap, or what the cgroup has left
    uint64_t availVirtual;   // address space the process may still map
};

// Reads the status from Linux (/proc/meminfo, RLIMIT_AS, cgroup v2 memory.max/current).
// Returns false when the figures cannot be read.
bool queryMemStatus(MemStatus* out);

// Tests replace the machine's figures: a non-null status is reported as it stands, and
// `fail` makes the query fail. Pass nullptr/false to go back to the real figures.
void overrideMemStatus(const MemStatus* status, bool fail = false);

// What a job can still have, in bytes: available memory plus free swap (or what the cgroup has
// left, when less), limited by the address space the process may still map. False when the
// status cannot be read.
bool freeMemory(uint64_t* bytes);

// The budget in units of 1000 bytes: the least of the three figures over 1300 (a safety factor
// of 1.3), capped at 3,500,000; 0 when the status cannot be read.
int usableMemInMB();
// The same budget in bytes (usableMemInMB counts in units of 1000 bytes, not megabytes).
inline double usableMemoryBytes() { return usableMemInMB() * 1000.0; }

// Available physical (page file) and virtual bytes as doubles.
int checkMemInBytes(double* availablePhysical, double* availableVirtual);

// 1 once the out-of-core environment of the solver was set up at load.
int isPardisoOOCOk();

}  // namespace qx
