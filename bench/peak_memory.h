// Resident memory of the benchmark process, for the reports' peak-memory columns.
#pragma once

#include <fstream>
#include <string>

namespace qxbench {

// Peak resident memory since the last reset, in MB; the reset makes each case its own.
inline void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// A "Vm...:" figure of /proc/self/status in MB ("VmRSS:", "VmHWM:").
inline double statusMB(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string k, rest;
    long kb = 0;
    while (in >> k) {
        if (k == key) {
            in >> kb;
            return kb / 1024.0;
        }
        std::getline(in, rest);
    }
    return 0;
}

}  // namespace qxbench
