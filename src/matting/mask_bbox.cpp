// qxMaskBBox: the box of the undecided pixels of a tri-map, with a margin, so that the host can
// cut the image down before it asks for alpha; and the counts of the decided pixels inside it.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "runtime/args.h"
#include "runtime/export_guard.h"
#include "matting/mask_bbox.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

constexpr int kMargin = 12;
constexpr int kMinBoxHeight = 24;

// 8-bit codes: only the exact codes are decided.
struct Codes8 {
    using Pixel = uint8_t;
    int fg;
    int bg;
    bool isForeground(int v) const { return v == fg; }
    bool isBackground(int v) const { return v == bg; }
};
// 16-bit values, code c standing for c * 128: the ranges at and beyond the codes are decided.
struct Values16 {
    using Pixel = uint16_t;
    int64_t fg;
    int64_t bg;
    bool isForeground(int v) const { return v >= fg; }
    bool isBackground(int v) const { return v <= bg; }
};

template <class Coding>
class TriMap {
public:
    TriMap(const unsigned char* data, int step, int width, int height, Coding coding)
        : data_(data), step_(step), width_(width), height_(height), coding_(coding) {}

    int value(int x, int y) const {
        typename Coding::Pixel v;
        std::memcpy(&v, data_ + y * step_ + static_cast<int64_t>(x) * sizeof v, sizeof v);
        return v;
    }
    bool isForeground(int x, int y) const { return coding_.isForeground(value(x, y)); }
    bool isBackground(int x, int y) const { return coding_.isBackground(value(x, y)); }
    bool undecided(int x, int y) const {
        const int v = value(x, y);
        return !coding_.isForeground(v) && !coding_.isBackground(v);
    }

    // First and last undecided column of row y; false when the row has none.
    bool undecidedSpan(int y, int* first, int* last) const {
        int x = 0;
        while (x < width_ && !undecided(x, y)) ++x;
        if (x == width_) return false;
        *first = x;
        x = width_ - 1;
        while (!undecided(x, y)) --x;
        *last = x;
        return true;
    }
    bool rowUndecided(int y) const {
        int first, last;
        return undecidedSpan(y, &first, &last);
    }

    void box(int* outLeft, int* outWidth, int* outTop, int* outHeight, int* outFgCount,
             int* outBgCount) const {
        int top = height_;
        for (int y = 0; y < height_; ++y) {
            if (rowUndecided(y)) {
                top = std::max(y - kMargin, 0);
                break;
            }
        }
        // The bottom scan stops short of `top`: it looks at rows height-1 down to top+1 only,
        // so a lone undecided row 0 gives a box of one row.
        int bottom = top;
        if (top < height_ - 1) {
            for (int y = height_ - 1; y > top; --y) {
                if (rowUndecided(y)) {
                    bottom = y + kMargin;
                    break;
                }
            }
        }
        bottom = std::min(bottom, height_ - 1);
        const int boxHeight = bottom - top + 1;
        if (boxHeight < kMinBoxHeight) {
            *outLeft = *outWidth = *outTop = *outHeight = 0;
            if (outFgCount) *outFgCount = -1;
            if (outBgCount) *outBgCount = -1;
            return;
        }

        // The first undecided column over rows top..bottom is the least first column of the
        // rows, the last one the greatest last column; one pass in memory order finds both.
        int firstColumn = width_;
        int lastColumn = -1;
        for (int y = top; y <= bottom; ++y) {
            int first, last;
            if (undecidedSpan(y, &first, &last)) {
                firstColumn = std::min(firstColumn, first);
                lastColumn = std::max(lastColumn, last);
            }
        }
        if (firstColumn == width_) return;  // no column: nothing is written
        const int left = std::max(firstColumn - kMargin, 0);
        // The right scan looks at columns width-1 down to left+1; when it finds nothing the
        // box is one column wide.
        const int right = lastColumn > left ? std::min(lastColumn + kMargin, width_ - 1) : left;
        *outLeft = left;
        *outTop = top;
        *outWidth = right - left + 1;
        *outHeight = boxHeight;

        if (!outFgCount || !outBgCount) return;
        int fg = 0;
        int bg = 0;
        for (int y = top; y <= bottom; ++y) {
            for (int x = left; x <= right; ++x) {
                const int v = value(x, y);
                fg += coding_.isForeground(v);
                bg += coding_.isBackground(v);
            }
        }
        *outFgCount = fg;
        *outBgCount = bg;
    }

private:
    const unsigned char* data_;
    int64_t step_;
    int width_;
    int height_;
    Coding coding_;
};

}  // namespace

void maskBox8(const unsigned char* data, int step, int width, int height, int fgCode,
              int bgCode, int* left, int* boxWidth, int* top, int* boxHeight, int* fgCount,
              int* bgCount) {
    TriMap<Codes8>(data, step, width, height, Codes8{fgCode, bgCode})
        .box(left, boxWidth, top, boxHeight, fgCount, bgCount);
}

}  // namespace qx

extern "C" QX_API int qxMaskBBox(int is16, const unsigned char* data, int step, int width,
                                 int height, int* outLeft, int* outWidth, int* outTop,
                                 int* outHeight, int* outFgCount, int* outBgCount, int,
                                 int fgCode, int bgCode) {
    if (!qx::validPlane(data, step, width, height, is16 ? 2 : 1) || !outLeft || !outWidth ||
        !outTop || !outHeight)
        return 0;
    return qx::guardedCall(
        [&] {
            if (is16) {
                const qx::Values16 coding{int64_t(fgCode) * 128, int64_t(bgCode) * 128};
                qx::TriMap<qx::Values16>(data, step, width, height, coding)
                    .box(outLeft, outWidth, outTop, outHeight, outFgCount, outBgCount);
            } else {
                qx::maskBox8(data, step, width, height, fgCode, bgCode, outLeft, outWidth, outTop,
                             outHeight, outFgCount, outBgCount);
            }
            return 1;
        },
        0);
}
