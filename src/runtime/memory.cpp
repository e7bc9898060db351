#include "runtime/memory.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "runtime/environment.h"

namespace qx {
namespace {

std::mutex overrideLock;
bool overrideActive = false;
bool overrideFail = false;
MemStatus overrideValue{};

// Reads "Key:  value kB" lines of /proc/meminfo.
bool readMeminfo(uint64_t* total, uint64_t* available, uint64_t* swapFree) {
    std::ifstream in("/proc/meminfo");
    if (!in) return false;
    std::string key;
    uint64_t value = 0;
    std::string unit;
    bool haveTotal = false, haveAvail = false;
    *swapFree = 0;
    while (in >> key >> value) {
        std::getline(in, unit);
        if (key == "MemTotal:") { *total = value * 1024; haveTotal = true; }
        else if (key == "MemAvailable:") { *available = value * 1024; haveAvail = true; }
        else if (key == "SwapFree:") { *swapFree = value * 1024; }
    }
    return haveTotal && haveAvail;
}

// A cgroup v2 file holding a number, or "max".
bool readCgroupValue(const std::string& path, uint64_t* value) {
    std::ifstream in(path);
    std::string text;
    if (!(in >> text) || text == "max") return false;
    try {
        *value = std::stoull(text);
    } catch (...) {
        return false;
    }
    return true;
}

// The process's cgroup v2 folder, from the "0::/path" line of /proc/self/cgroup.
std::string cgroupDir() {
    std::ifstream in("/proc/self/cgroup");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("0::", 0) == 0) return "/sys/fs/cgroup" + line.substr(3);
    }
    return {};
}

}  // namespace

bool queryMemStatus(MemStatus* out) {
    {
        std::lock_guard<std::mutex> lock(overrideLock);
        if (overrideActive) {
            if (overrideFail) return false;
            *out = overrideValue;
            return true;
        }
    }
    uint64_t total = 0, available = 0, swapFree = 0;
    if (!readMeminfo(&total, &available, &swapFree)) return false;
    MemStatus s{total, available + swapFree, 0};

    // A container's limit counts when it is lower than the machine's figures.
    const std::string dir = cgroupDir();
    uint64_t limit = 0, current = 0;
    if (!dir.empty() && readCgroupValue(dir + "/memory.max", &limit)) {
        s.totalPhys = std::min(s.totalPhys, limit);
        if (readCgroupValue(dir + "/memory.current", &current)) {
            const uint64_t left = limit > current ? limit - current : 0;
            s.availPageFile = std::min(s.availPageFile, left);
        }
    }

    // Address space: the RLIMIT_AS headroom, or the x86-64 user address space (128 TiB).
    uint64_t space = uint64_t(1) << 47;
    rlimit rl{};
    if (getrlimit(RLIMIT_AS, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY) {
        uint64_t used = 0;
        std::ifstream statm("/proc/self/statm");
        uint64_t pages = 0;
        if (statm >> pages) used = pages * 4096;
        space = rl.rlim_cur > used ? rl.rlim_cur - used : 0;
    }
    s.availVirtual = space;
    *out = s;
    return true;
}

void overrideMemStatus(const MemStatus* status, bool fail) {
    std::lock_guard<std::mutex> lock(overrideLock);
    overrideActive = status != nullptr || fail;
    overrideFail = fail;
    if (status) overrideValue = *status;
}

bool freeMemory(uint64_t* bytes) {
    MemStatus s{};
    if (!queryMemStatus(&s)) return false;
    *bytes = std::min(s.availPageFile, s.availVirtual);
    return true;
}

int usableMemInMB() {
    MemStatus s{};
    if (!queryMemStatus(&s)) return 0;
    const uint64_t m = std::min({s.totalPhys, s.availPageFile, s.availVirtual});
    const int64_t u = static_cast<int64_t>(m) / 1300;
    if (u > 3500000) return 3500000;
    return static_cast<int>(u);
}

int checkMemInBytes(double* availablePhysical, double* availableVirtual) {
    MemStatus s{};
    queryMemStatus(&s);
    if (availablePhysical) *availablePhysical = static_cast<double>(s.availPageFile);
    if (availableVirtual) *availableVirtual = static_cast<double>(s.availVirtual);
    return 1;
}

int isPardisoOOCOk() { return oocReady(); }

}  // namespace qx
