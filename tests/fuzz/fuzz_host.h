// What the fuzz targets share: host buffers fenced by guard bytes, a reader of the fuzzer's
// bytes for sizes, steps and pixels, and the checks made after every call into the library.
//
// Every host buffer is laid out as [guard][rows][guard]. The guards and the pad bytes of each
// row (beyond width * bytes per pixel) hold a marker that no call may change; a call that
// refuses must leave the whole buffer as it was, and an input plane must never change. A broken
// rule prints what broke and aborts, so that libFuzzer keeps the input as a crash.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "runtime/environment.h"
#include "qxiveilon31.h"

// QX_FUZZ_AVOID_KNOWN (build option of the same name): steer the inputs around faults that are
// known and being fixed on their own, so that the targets keep searching for new ones (test
// kAvoidKnown where an input is drawn). None is known now.
#ifndef QX_FUZZ_AVOID_KNOWN
#define QX_FUZZ_AVOID_KNOWN 0
#endif

namespace qxfuzz {

constexpr bool kAvoidKnown = QX_FUZZ_AVOID_KNOWN != 0;

[[noreturn]] inline void fail(const char* what, const char* call) {
    std::fprintf(stderr, "qxfuzz: %s after %s\n", what, call);
    std::fflush(stderr);
    std::abort();
}

inline void expect(bool ok, const char* what, const char* call) {
    if (!ok) fail(what, call);
}

// The fuzzer's bytes as the arguments of a call. Sizes stay small so that one run takes
// milliseconds; integers come now and then from the edges of their type.
class Input {
public:
    Input(const uint8_t* data, size_t size) : fdp_(data, size) {}

    bool flag() { return fdp_.ConsumeBool(); }
    uint8_t byte() { return fdp_.ConsumeIntegral<uint8_t>(); }
    template <class T>
    T range(T lo, T hi) {
        return fdp_.ConsumeIntegralInRange<T>(lo, hi);
    }
    // Mostly in [lo, hi]; one time in eight an extreme or any value of the type.
    int wideInt(int lo, int hi) {
        switch (byte() & 7) {
        case 0: {
            constexpr int kMin = std::numeric_limits<int>::min(), kMax = std::numeric_limits<int>::max();
            static constexpr int kEdges[] = {kMin, kMin + 1, -65536, -1, 0, 32767, 65535, 1 << 30, kMax - 1, kMax};
            if (flag()) return kEdges[range<int>(0, std::size(kEdges) - 1)];
            return fdp_.ConsumeIntegral<int>();
        }
        default:
            return range<int>(lo, hi);
        }
    }
    // A float in [lo, hi], now and then NaN, an infinity, a huge or a negative value.
    float wideFloat(float lo, float hi) {
        switch (byte() & 15) {
        case 0: return std::numeric_limits<float>::quiet_NaN();
        case 1: return flag() ? std::numeric_limits<float>::infinity()
                              : -std::numeric_limits<float>::infinity();
        case 2: return flag() ? 3e38f : -3e38f;
        case 3: return -float(range<int>(0, 1 << 20));
        default: return lo + (hi - lo) * float(range<int>(0, 1000)) / 1000.0f;
        }
    }
    // Pad bytes beyond a row: mostly a few; the step is width * bpp + pad.
    int pad() { return range<int>(0, 9); }
    uint64_t seed() { return fdp_.ConsumeIntegral<uint64_t>(); }
    size_t remaining() { return fdp_.remaining_bytes(); }

    FuzzedDataProvider& fdp() { return fdp_; }

private:
    FuzzedDataProvider fdp_;
};

// A small deterministic generator for pixels beyond what the input spells out.
struct Rng {
    uint64_t s;
    uint32_t next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return uint32_t(s >> 11);
    }
};

// The stroke, tri-map and selection codes the library gives meaning to, and their neighbours.
inline uint8_t codeFromByte(uint8_t b) {
    static constexpr uint8_t kCodes[] = {0, 1, 2, 126, 127, 128, 253, 254, 255, 9, 10, 246, 250};
    if (b < 208) return kCodes[b % std::size(kCodes)];
    return uint8_t(b * 37);
}

// One host plane of width x height pixels of bpp bytes with rows `step` bytes apart, inside
// guard bytes. A step the fuzzer made too small (a call must refuse it) still gets a body of
// whole rows, so that a call that wrongly accepts it is caught by the checks, not by chance.
class HostPlane {
public:
    static constexpr size_t kGuard = 64;
    static constexpr uint8_t kMark = 0xA5;

    HostPlane(int width, int height, int bpp, int step)
        : width_(std::max(width, 0)), height_(std::max(height, 0)), bpp_(bpp), step_(step) {
        rowBytes_ = size_t(width_) * bpp_;
        const size_t pitch = std::max<size_t>(rowBytes_, step_ > 0 ? size_t(step_) : 0);
        body_ = pitch * height_;
        mem_.assign(body_ + 2 * kGuard, kMark);
    }
    HostPlane(const HostPlane&) = delete;
    HostPlane& operator=(const HostPlane&) = delete;

    uint8_t* data() { return mem_.data() + kGuard; }
    int step() const { return step_; }
    bool stepValid() const { return step_ >= 0 && size_t(step_) >= rowBytes_; }

    // Pixel bytes: a run of the input's bytes (mapped to codes when `codes`), then a generator
    // seeded from the input, with a flat or a two-region picture now and then so that the
    // solvers see structure, not only noise.
    void fill(Input& in, bool codes) {
        const int kind = in.range<int>(0, 3);
        Rng rng{in.seed() | 1};
        const uint8_t a = codes ? codeFromByte(in.byte()) : in.byte();
        const uint8_t b = codes ? codeFromByte(in.byte()) : in.byte();
        const int split = in.range<int>(0, std::max(width_, 1));
        std::vector<uint8_t> given = in.fdp().ConsumeBytes<uint8_t>(std::min<size_t>(in.remaining() / 2, body_));
        size_t k = 0;
        for (int y = 0; y < height_; ++y)
            for (size_t i = 0; i < rowBytes_; ++i) {
                const bool fromA = (kind == 2) ? (int(i / bpp_) < split + (y & 3))
                                               : (int(i / bpp_) < split);
                uint8_t v;
                bool raw = true;
                if (k < given.size()) v = given[k++];
                else if (kind == 0 || (kind == 3 && (rng.next() & 7) == 0)) v = uint8_t(rng.next());
                else {
                    v = (kind == 1 || fromA) ? a : b;
                    raw = false;
                }
                if (codes && raw) v = codeFromByte(v);
                at(i, y) = v;
            }
        snapshot();
    }
    void fillValue(uint8_t v) {
        for (int y = 0; y < height_; ++y)
            for (size_t i = 0; i < rowBytes_; ++i) at(i, y) = v;
        snapshot();
    }

    void snapshot() { before_ = mem_; }
    bool unchanged() const { return mem_ == before_; }
    bool guardsIntact() const {
        for (size_t i = 0; i < kGuard; ++i)
            if (mem_[i] != kMark || mem_[kGuard + body_ + i] != kMark) return false;
        return true;
    }
    // Bytes of a row beyond its pixels (only meaningful with a valid step).
    bool padsIntact() const {
        if (!stepValid()) return unchanged();
        for (int y = 0; y < height_; ++y)
            for (size_t i = rowBytes_; i < size_t(step_); ++i)
                if (mem_[kGuard + size_t(y) * step_ + i] != kMark) return false;
        return true;
    }
    // Pixels outside the rectangle (x, y, w, h) are as at the last snapshot.
    bool unchangedOutside(int x, int y, int w, int h) const {
        if (!stepValid()) return unchanged();
        for (int r = 0; r < height_; ++r)
            for (size_t i = 0; i < rowBytes_; ++i) {
                const int c = int(i / bpp_);
                if (r >= y && r < y + h && c >= x && c < x + w) continue;
                const size_t o = kGuard + size_t(r) * step_ + i;
                if (mem_[o] != before_[o]) return false;
            }
        return true;
    }
    // The pixel bytes, row after row without pads (for comparisons before and after a call).
    std::vector<uint8_t> pixels() {
        std::vector<uint8_t> v;
        v.reserve(rowBytes_ * height_);
        for (int y = 0; y < height_; ++y)
            for (size_t i = 0; i < rowBytes_; ++i) v.push_back(at(i, y));
        return v;
    }
    // Byte `b` of every pixel, row after row.
    std::vector<uint8_t> channel(int b) {
        std::vector<uint8_t> v;
        for (int y = 0; y < height_; ++y)
            for (int x = 0; x < width_; ++x) v.push_back(at(size_t(x) * bpp_ + b, y));
        return v;
    }
    // f(x, y, was, now) for every byte of a plane of 1 byte a pixel; `was` from pixels().
    template <class F>
    void eachPixel(const std::vector<uint8_t>& before, F f) {
        for (int y = 0, k = 0; y < height_; ++y)
            for (int x = 0; x < width_; ++x, ++k) f(x, y, before[k], at(x, y));
    }
    uint8_t& at(size_t byteInRow, int y) {
        const size_t pitch = stepValid() ? size_t(step_) : rowBytes_;
        return mem_[kGuard + size_t(y) * pitch + byteInRow];
    }

    // The rules every call keeps for a buffer it may write.
    void checkWritable(const char* call) const {
        expect(guardsIntact(), "guard bytes around a host buffer written", call);
        expect(padsIntact(), "pad byte of a host row written", call);
    }
    void checkUntouched(const char* call) const {
        checkWritable(call);
        expect(unchanged(), "a buffer the call must not write was written", call);
    }

private:
    int width_, height_, bpp_, step_;
    size_t rowBytes_ = 0, body_ = 0;
    std::vector<uint8_t> mem_, before_;
};

// The checks above on several buffers at once; a snapshot of several.
template <class... Buffers>
void untouched(const char* call, const Buffers&... buffers) {
    (buffers.checkUntouched(call), ...);
}
template <class... Buffers>
void writable(const char* call, const Buffers&... buffers) {
    (buffers.checkWritable(call), ...);
}
template <class... Buffers>
void snapshotAll(Buffers&... buffers) {
    (buffers.snapshot(), ...);
}

// A call that had to refuse reports `code` and leaves every given buffer as it was.
template <class Status, class... Buffers>
bool refused(bool refuse, Status rc, Status code, const char* call, const Buffers&... buffers) {
    if (!refuse) return false;
    expect(rc == code, "refusal not reported", call);
    untouched(call, buffers...);
    return true;
}

// Width, height and step of a plane as a hostile host might give them: mostly sane (1..max,
// a few pad bytes), now and then zero, negative or a step smaller than a row.
struct PlaneShape {
    int width, height, step;
};

inline int stepFor(Input& in, int width, int bpp) {
    const int row = width * bpp;
    switch (in.range<int>(0, 15)) {
    case 0: return row > 0 ? row - 1 : -1;
    case 1: return -in.range<int>(1, 1 << 20);
    case 2: return 0;
    default: return row + in.pad();
    }
}

// A rectangle inside a plane of w x h, one time in eight anything (outside, empty, negative).
inline void rectFor(Input& in, int w, int h, int& x, int& y, int& rw, int& rh) {
    if (in.range<int>(0, 7) == 0) {
        x = in.wideInt(-2, w), y = in.wideInt(-2, h);
        rw = in.wideInt(-1, w + 2), rh = in.wideInt(-1, h + 2);
        return;
    }
    x = in.range<int>(0, std::max(w - 1, 0)), y = in.range<int>(0, std::max(h - 1, 0));
    rw = in.range<int>(1, std::max(w - x, 1)), rh = in.range<int>(1, std::max(h - y, 1));
}

inline PlaneShape shapeFor(Input& in, int maxW, int maxH, int bpp) {
    PlaneShape s{};
    const bool hostile = in.range<int>(0, 15) == 0;
    s.width = hostile ? in.range<int>(-2, 1) : in.range<int>(1, maxW);
    s.height = hostile ? in.range<int>(-2, 1) : in.range<int>(1, maxH);
    s.step = stepFor(in, std::max(s.width, 0), bpp);
    return s;
}

inline bool validShape(int width, int height, int step, int bpp) {
    return width >= 1 && height >= 1 && int64_t(step) >= int64_t(width) * bpp;
}

// A progress callback that counts its calls.
inline int progressProbe(int, int, void* calls) { return ++*static_cast<int*>(calls), 0; }

}  // namespace qxfuzz

// The library's load-time entry, as the shared object's loader runs it for a host.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qx::libraryEntry(1);
    return 0;
}
