// Aligned allocation of planes and blocks, with failure injection for the tests.
#include <atomic>
#include <cstdlib>

#include "image/rowloops.h"

namespace qx::prim {

namespace {

constexpr int64_t kAlign = 64;
// Larger requests are refused outright: they could only come from a corrupt size, and the
// allocator's own arithmetic must never wrap.
constexpr int64_t kMaxBytes = int64_t(1) << 46;

std::atomic<int> pendingFailures{0};

void* alignedBytes(int64_t bytes) {
    if (bytes < 1 || bytes > kMaxBytes) return nullptr;
    if (takeInjectedFailure()) return nullptr;
    const int64_t rounded = (bytes + kAlign - 1) / kAlign * kAlign;
    return std::aligned_alloc(static_cast<size_t>(kAlign), static_cast<size_t>(rounded));
}

}  // namespace

bool takeInjectedFailure() {
    int n = pendingFailures.load(std::memory_order_relaxed);
    while (n > 0)
        if (pendingFailures.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) return true;
    return false;
}

void failNextAllocations(int count) {
    pendingFailures.store(count > 0 ? count : 0, std::memory_order_relaxed);
}

void* allocPlane(int widthBytes, int height, int* step) {
    if (step) *step = 0;
    if (step == nullptr || widthBytes < 1 || height < 1) return nullptr;
    const int64_t pitch = (static_cast<int64_t>(widthBytes) + 31) / 32 * 32;
    if (pitch > INT32_MAX) return nullptr;
    void* p = alignedBytes(pitch * height);
    if (p) *step = static_cast<int>(pitch);
    return p;
}

void* allocBlock(int64_t bytes) { return alignedBytes(bytes); }

void freeAligned(void* p) { std::free(p); }

}  // namespace qx::prim
