// Pins the memory budget (usableMemInMB) for the length of a test.
#pragma once

#include <cstdint>

#include "runtime/memory.h"

namespace qxtest {

class Budget {
public:
    // A budget of `units` (1000 bytes each), or a failed memory query when `fail`.
    explicit Budget(int units, bool fail = false) {
        const uint64_t bytes = static_cast<uint64_t>(units) * 1300;
        const qx::MemStatus s{bytes, bytes, bytes};
        qx::overrideMemStatus(&s, fail);
    }
    ~Budget() { qx::overrideMemStatus(nullptr); }
    Budget(const Budget&) = delete;
    Budget& operator=(const Budget&) = delete;
};

}  // namespace qxtest
