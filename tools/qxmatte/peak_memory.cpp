#include "peak_memory.h"

#include <malloc.h>

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

}  // namespace qxmatte
