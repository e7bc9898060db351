#include "flows/flow_image.h"

#include <cstddef>
#include <cstdint>

#include "runtime/progress.h"

namespace qx::flows {

PixelSets classifyPixels(const FlowImage& image) {
    PixelSets s;
    const int n = image.pixels();
    s.kind.resize(static_cast<size_t>(n));
    s.unknownIndex.assign(static_cast<size_t>(n), -1);
    for (int y = 0; y < image.height; ++y) {
        const unsigned char* t = image.tri + static_cast<int64_t>(y) * image.triStep;
        for (int x = 0; x < image.width; ++x) {
            const int p = y * image.width + x;
            if (t[x] <= image.bgCode) {
                s.kind[size_t(p)] = PixelKind::Background;
                s.background.push_back(p);
            } else if (t[x] >= image.fgCode) {
                s.kind[size_t(p)] = PixelKind::Foreground;
                s.foreground.push_back(p);
            } else {
                s.kind[size_t(p)] = PixelKind::Unknown;
                s.unknownIndex[size_t(p)] = static_cast<int>(s.unknown.size());
                s.unknown.push_back(p);
            }
        }
    }
    return s;
}

std::vector<int> pixelsNearUnknown(const FlowImage& image, const PixelSets& sets, int radius) {
    const int w = image.width, h = image.height;
    // Horizontal then vertical spread of the undecided mark.
    std::vector<unsigned char> rowMark(size_t(w) * h, 0), mark(size_t(w) * h, 0);
    for (int y = 0; y < h; ++y) {
        int last = -1000000;
        for (int x = 0; x < w; ++x) {
            if (sets.kind[size_t(y) * w + x] == PixelKind::Unknown) last = x;
            if (x - last <= radius) rowMark[size_t(y) * w + x] = 1;
        }
        last = 1000000;
        for (int x = w - 1; x >= 0; --x) {
            if (sets.kind[size_t(y) * w + x] == PixelKind::Unknown) last = x;
            if (last - x <= radius) rowMark[size_t(y) * w + x] = 1;
        }
    }
    for (int x = 0; x < w; ++x) {
        int last = -1000000;
        for (int y = 0; y < h; ++y) {
            if (rowMark[size_t(y) * w + x]) last = y;
            if (y - last <= radius) mark[size_t(y) * w + x] = 1;
        }
        last = 1000000;
        for (int y = h - 1; y >= 0; --y) {
            if (rowMark[size_t(y) * w + x]) last = y;
            if (last - y <= radius) mark[size_t(y) * w + x] = 1;
        }
    }
    std::vector<int> out;
    for (int p = 0; p < w * h; ++p)
        if (mark[size_t(p)]) out.push_back(p);
    return out;
}

void Poll::operator()() const {
    checkCancel();
    if (fn) fn(param);
}

}  // namespace qx::flows
