// The parts of a host's planes that a job writes in place. While the calling thread has a
// cancel flag installed they are copied at the job's start, so that a cancelled job can put
// them back: a host that can cancel gets its buffers back as they came in.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "runtime/progress.h"

namespace qx {

class HostSnapshot {
public:
    // rows of rowBytes bytes, `step` apart, from p (nothing kept when p is null).
    void add(unsigned char* p, int64_t step, int64_t rowBytes, int64_t rows) {
        if (p == nullptr || cancelFlag() == nullptr || rowBytes <= 0 || rows <= 0) return;
        Region r{p, step, rowBytes, rows, std::vector<unsigned char>(size_t(rowBytes * rows))};
        for (int64_t y = 0; y < rows; ++y)
            std::memcpy(r.copy.data() + y * rowBytes, p + y * step, size_t(rowBytes));
        regions_.push_back(std::move(r));
    }
    void restore() const {
        for (const Region& r : regions_)
            for (int64_t y = 0; y < r.rows; ++y)
                std::memcpy(r.p + y * r.step, r.copy.data() + y * r.rowBytes, size_t(r.rowBytes));
    }

private:
    struct Region {
        unsigned char* p;
        int64_t step, rowBytes, rows;
        std::vector<unsigned char> copy;
    };
    std::vector<Region> regions_;
};

}  // namespace qx
