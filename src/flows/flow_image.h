// The box the flow solve works on, as the workflows' tri-map job cuts it: three 8-bit colour
// planes with a common row step and a tri-map (at or below bgCode background, at or above fgCode
// foreground, anything between undecided), all of width x height.
#pragma once

#include <cstdint>
#include <vector>

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

// The box pixels within `radius` (Chebyshev distance) of an undecided pixel, the undecided ones
// included, in raster order.
std::vector<int> pixelsNearUnknown(const FlowImage& image, const PixelSets& sets, int radius);

}  // namespace qx::flows
