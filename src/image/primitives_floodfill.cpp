// 8-connected flood fill by spans. The scratch holds a bitmap of filled pixels (so a new value
// that itself lies in the range never refills) and the first part of the span stack; a fill
// whose stack outgrows it continues in memory of its own, refused with kNoMem if that fails.
#include <algorithm>
#include <cstring>

#include "image/rowloops.h"

namespace qx::prim {

namespace {

struct Span {
    int y, xl, xr;
};

constexpr int64_t kInitialSpans = 4096;

int64_t bitmapBytes(Size size) {
    const int64_t bits = static_cast<int64_t>(size.width) * size.height;
    return (bits + 63) / 64 * 8;
}

// Span stack over the caller's scratch, growing into allocated blocks.
class SpanStack {
public:
    SpanStack(Span* initial, int64_t capacity) : data_(initial), cap_(capacity) {}
    ~SpanStack() {
        if (owned_) freeAligned(data_);
    }
    SpanStack(const SpanStack&) = delete;
    SpanStack& operator=(const SpanStack&) = delete;
    bool push(Span s) {
        if (size_ == cap_ && !grow()) return false;
        data_[size_++] = s;
        return true;
    }
    bool empty() const { return size_ == 0; }
    Span pop() { return data_[--size_]; }

private:
    bool grow() {
        const int64_t cap = cap_ * 2;
        auto* p = static_cast<Span*>(allocBlock(cap * static_cast<int64_t>(sizeof(Span))));
        if (!p) return false;
        std::memcpy(p, data_, static_cast<size_t>(size_) * sizeof(Span));
        if (owned_) freeAligned(data_);
        data_ = p;
        cap_ = cap;
        owned_ = true;
        return true;
    }
    Span* data_;
    int64_t cap_;
    int64_t size_ = 0;
    bool owned_ = false;
};

}  // namespace

int floodFillBufferSize(Size size, int* bytes) {
    if (!bytes) return kNullPtr;
    *bytes = 0;
    if (size.width < 1 || size.height < 1) return kSizeErr;
    // 8 bytes more than the parts need: the bitmap's words are aligned inside the buffer.
    const int64_t total =
        8 + bitmapBytes(size) + kInitialSpans * static_cast<int64_t>(sizeof(Span));
    if (total > INT32_MAX) return kSizeErr;
    *bytes = static_cast<int>(total);
    return kOk;
}

int floodFill8_8u_C1I(Point seed, uint8_t newValue, uint8_t minDelta, uint8_t maxDelta,
                      uint8_t* srcDst, int step, Size size, ConnectedComp* region,
                      uint8_t* buffer) {
    if (!region || !buffer) return kNullPtr;
    if (const int st = detail::checkPlanes(size, {detail::plane(srcDst, step)})) return st;
    int needed = 0;
    if (const int st = floodFillBufferSize(size, &needed)) return st;
    *region = ConnectedComp{};
    if (seed.x < 0 || seed.y < 0 || seed.x >= size.width || seed.y >= size.height) return kBadArg;

    const int w = size.width, h = size.height;
    auto row = [&](int y) { return detail::rowAt(srcDst, step, y); };
    const int v0 = row(seed.y)[seed.x];
    if (v0 == newValue) return kOk;
    const int lo = std::max(0, v0 - minDelta), hi = std::min(255, v0 + maxDelta);

    buffer += (8 - reinterpret_cast<uintptr_t>(buffer) % 8) % 8;
    auto* filled = reinterpret_cast<uint64_t*>(buffer);
    std::memset(filled, 0, static_cast<size_t>(bitmapBytes(size)));
    auto bit = [&](int x, int y) {
        const int64_t i = static_cast<int64_t>(y) * w + x;
        return std::pair<int64_t, uint64_t>(i >> 6, uint64_t(1) << (i & 63));
    };
    auto open = [&](int x, int y) {
        const auto [word, mask] = bit(x, y);
        const int v = row(y)[x];
        return (filled[word] & mask) == 0 && v >= lo && v <= hi;
    };

    int64_t area = 0;
    int minX = w, maxX = -1, minY = h, maxY = -1;
    SpanStack stack(reinterpret_cast<Span*>(buffer + bitmapBytes(size)), kInitialSpans);
    // Fills the open run through (x, y), which must be open, and pushes it.
    auto fillRun = [&](int x, int y, int* right) {
        int l = x, r = x;
        while (l > 0 && open(l - 1, y)) --l;
        while (r + 1 < w && open(r + 1, y)) ++r;
        uint8_t* p = row(y);
        for (int i = l; i <= r; ++i) {
            p[i] = newValue;
            const auto [word, mask] = bit(i, y);
            filled[word] |= mask;
        }
        area += r - l + 1;
        minX = std::min(minX, l);
        maxX = std::max(maxX, r);
        minY = std::min(minY, y);
        maxY = std::max(maxY, y);
        *right = r;
        return stack.push({y, l, r});
    };

    int right = 0;
    bool ok = fillRun(seed.x, seed.y, &right);
    while (ok && !stack.empty()) {
        const Span s = stack.pop();
        for (int ny = s.y - 1; ok && ny <= s.y + 1; ny += 2) {
            if (ny < 0 || ny >= h) continue;
            // 8-connected: the run reaches the rows above and below one pixel diagonally.
            const int end = std::min(s.xr + 1, w - 1);
            for (int x = std::max(s.xl - 1, 0); ok && x <= end; ++x) {
                if (!open(x, ny)) continue;
                ok = fillRun(x, ny, &right);
                x = right + 1;  // right + 1 is closed (or past the row)
            }
        }
    }
    region->area = static_cast<double>(area);
    region->value[0] = newValue;
    region->rect = {minX, minY, maxX - minX + 1, maxY - minY + 1};
    return ok ? kOk : kNoMem;
}

}  // namespace qx::prim
