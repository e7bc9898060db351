#include "measurement.h"

#include <malloc.h>
#include <sys/resource.h>

#include <fstream>
#include <string>

namespace qxmatte {
namespace {

double statusMB(const char* key) {
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
    return 0.0;
}

}  // namespace

void resetPeakResident() {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
}

double peakResidentMB() { return statusMB("VmHWM:"); }
double residentMB() { return statusMB("VmRSS:"); }

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double processCpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

Measurement::Measurement() {
    resetPeakResident();
    base_ = residentMB();
    cpu0_ = processCpuSeconds();
    start_ = std::chrono::steady_clock::now();
}

}  // namespace qxmatte
