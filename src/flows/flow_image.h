// The box the flow solve works on, as the workflows' tri-map job cuts it: three 8-bit colour
// planes with a common row step and a tri-map (at or below bgCode background, at or above fgCode
// foreground, anything between undecided), all of width x height.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <vector>

#include "runtime/fault.h"
#include "runtime/progress.h"

namespace qx::flows {

struct FlowImage {
    int width = 0, height = 0;
    const unsigned char* planes[3] = {nullptr, nullptr, nullptr};
    int planeStep = 0;
    const unsigned char* tri = nullptr;
    int triStep = 0;
    unsigned char fgCode = 255, bgCode = 0;
    // The size the place coordinates are divided by (0: the box's own). A box cut from a larger
    // image passes the image's size so that the features mean what they mean on the whole image.
    int referenceWidth = 0, referenceHeight = 0;

    int pixels() const { return width * height; }
    unsigned char colour(int c, int p) const {
        return planes[c][static_cast<int64_t>(p / width) * planeStep + p % width];
    }
    unsigned char code(int p) const {
        return tri[static_cast<int64_t>(p / width) * triStep + p % width];
    }
};

// What each pixel of the box is to the solve.
enum class PixelKind : unsigned char { Background = 0, Foreground = 1, Unknown = 2 };

// The box's pixels sorted by kind, each list in raster order, with each pixel's kind and, for an
// undecided pixel, its number among the unknowns (-1 for a decided one).
struct PixelSets {
    std::vector<PixelKind> kind;
    std::vector<int> unknownIndex;
    std::vector<int> unknown, foreground, background;
};

PixelSets classifyPixels(const FlowImage& image);

// What the long loops call between slices of their work, on the calling thread: the cancel flag
// is looked at (Fault::Cancelled is thrown), then the caller's function, if any, is called.
// Progress goes through the frame's spans (runtime/progress.h), not through the poll.
struct Poll {
    void (*fn)(void*) = nullptr;
    void* param = nullptr;
    void operator()() const;
};

// body(first, last) over runs of up to kSliceRun consecutive indices covering [0, count), each
// run on one thread from its first index up, spread over the threads in up to eight slices of
// at least 4096; after each slice the part done is reported, and between two slices poll() is
// called. The runs do not depend on the number of threads, so a body that carries something
// from one index to the next within its run gives the same result on any number of them. What
// body throws (a memory failure) ends the work after the runs under way and is thrown here.
constexpr int kSliceRun = 256;
template <class Body>
void forSlices(int count, const Poll& poll, Body&& body) {
    const int slice = std::max(4096, count / 8 + 1);
    for (int first = 0; first < count; first += slice) {
        const int last = std::min(count, first + slice);
        const int runs = (last - first + kSliceRun - 1) / kSliceRun;
        std::exception_ptr failed;
        std::atomic<bool> stop{false};
#pragma omp parallel for schedule(dynamic, 1)
        for (int r = 0; r < runs; ++r) {
            if (stop.load(std::memory_order_relaxed)) continue;
            const std::exception_ptr f = qx::thrownBy(
                [&] { body(first + r * kSliceRun, std::min(last, first + (r + 1) * kSliceRun)); });
            if (!f) continue;
            stop = true;
#pragma omp critical(qx_flows_slices)
            if (!failed) failed = f;
        }
        if (failed) std::rethrow_exception(failed);
        progressWithin(double(last) / count);
        if (last < count) poll();
    }
}

// The box pixels within `radius` (Chebyshev distance) of an undecided pixel, the undecided ones
// included, in raster order.
std::vector<int> pixelsNearUnknown(const FlowImage& image, const PixelSets& sets, int radius);

}  // namespace qx::flows
