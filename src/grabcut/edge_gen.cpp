// qxGrabCutEdgeGen: a tri-map from a hard selection. An undecided band of about bandWidth
// pixels is laid along the selection's edge, for the matting stage to resolve; pixels the user
// fixed keep their codes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>
#include <opencv2/imgproc.hpp>

#include "runtime/export_guard.h"
#include "grabcut/grabcut_request.h"
#include "grabcut/grabcut_session.h"

namespace qx {
namespace {

// cv::circle draws radii up to this; a band wider than the region changes nothing anyway.
constexpr int kMaxBandWidth = 32767;

// The disc brush as horizontal runs of set pixels, rows nearest the centre first: a pixel near
// the selection's edge meets the other side within a few rows.
struct Run {
    int dy, from, to;
};
std::vector<Run> brushRuns(const cv::Mat& brush, int r) {
    std::vector<Run> runs;
    for (int j = 0; j < brush.rows; ++j) {
        const unsigned char* b = brush.ptr<unsigned char>(j);
        for (int i = 0; i < brush.cols;) {
            if (b[i] == 0) {
                ++i;
                continue;
            }
            int k = i;
            while (k + 1 < brush.cols && b[k + 1] != 0) ++k;
            runs.push_back({j - r, i - r, k - r});
            i = k + 1;
        }
    }
    std::stable_sort(runs.begin(), runs.end(),
                     [](const Run& a, const Run& b) { return std::abs(a.dy) < std::abs(b.dy); });
    return runs;
}

// Counts of selected pixels over rectangles: a summed-area table of the thresholded selection.
// Unsigned 32-bit sums wrap, but every count asked for is below 2^32, so the differences are
// exact.
class SelectedCounts {
public:
    SelectedCounts(const unsigned char* result, int step, int w, int h)
        : w_(w), h_(h), sums_((static_cast<size_t>(w) + 1) * (static_cast<size_t>(h) + 1), 0) {
        for (int y = 0; y < h; ++y) {
            const unsigned char* p = result + static_cast<int64_t>(y) * step;
            uint32_t row = 0;
            for (int x = 0; x < w; ++x) {
                row += p[x] >= 254 ? 1u : 0u;
                at(x + 1, y + 1) = at(x + 1, y) + row;
            }
        }
    }
    bool selected(int x, int y) const { return count(x, y, x, y) != 0; }
    // Selected pixels in columns x0..x1 of rows y0..y1, the rectangle cut to the region; its
    // area after the cut goes to *area.
    uint32_t count(int x0, int y0, int x1, int y1, int64_t* area = nullptr) const {
        x0 = std::max(x0, 0);
        y0 = std::max(y0, 0);
        x1 = std::min(x1, w_ - 1);
        y1 = std::min(y1, h_ - 1);
        if (x0 > x1 || y0 > y1) {
            if (area) *area = 0;
            return 0;
        }
        if (area) *area = int64_t(x1 - x0 + 1) * (y1 - y0 + 1);
        return at(x1 + 1, y1 + 1) - at(x0, y1 + 1) - at(x1 + 1, y0) + at(x0, y0);
    }

private:
    uint32_t& at(int x, int y) { return sums_[static_cast<size_t>(y) * (w_ + 1) + x]; }
    uint32_t at(int x, int y) const { return sums_[static_cast<size_t>(y) * (w_ + 1) + x]; }
    int w_, h_;
    std::vector<uint32_t> sums_;
};

// Erosion and dilation of the thresholded selection by the brush at one pixel, as a padded
// copy would give them: outside the region the erosion sees selected pixels (a 255 frame) and
// the dilation unselected ones (a 0 frame), so only the brush's part inside the region counts.
// Returns the band code 127, 255 or 0 before the low bit is cleared.
unsigned char bandCode(const SelectedCounts& c, const std::vector<Run>& runs, int r, int x, int y) {
    int64_t area = 0;
    const uint32_t around = c.count(x - r, y - r, x + r, y + r, &area);
    if (around == static_cast<uint64_t>(area)) return 255;  // eroded and dilated both 255
    if (around == 0) return 0;                                // both 0
    if (runs.empty()) return 127;  // a disc over the whole region, which is mixed
    const bool centre = c.selected(x, y);  // the brush holds its own centre
    for (const Run& run : runs) {
        int64_t len = 0;
        const uint32_t n = c.count(x + run.from, y + run.dy, x + run.to, y + run.dy, &len);
        // A selected centre meeting an unselected pixel: eroded 0, dilated 255. An unselected
        // centre meeting a selected one: the same.
        if (centre ? n != static_cast<uint64_t>(len) : n != 0) return 127;
    }
    return centre ? 255 : 0;
}

}  // namespace

void edgeGen(const GrabCutRequest& request, int bandWidth) {
    if (bandWidth < 0 || bandWidth > kMaxBandWidth) return;
    const int w = request.roiWidth, h = request.roiHeight;
    const unsigned char* result = atRoi(request.result, request.resultStep, request, 1);
    const SelectedCounts counts(result, request.resultStep, w, h);
    int r = bandWidth / 2;
    // A disc that reaches from every pixel to every other erodes the region to its minimum and
    // dilates it to its maximum: a square of side 2r + 1 around any pixel covers the region
    // then, and the square test below decides every pixel without drawing the disc.
    const double diagonal = std::hypot(double(w), double(h));
    const bool wholeRegion = r > diagonal + 2;
    if (wholeRegion) r = static_cast<int>(std::min<double>(r, 4.0 * (double(w) + h)));
    std::vector<Run> runs;
    if (!wholeRegion) {
        const int d = 2 * r + 1;
        cv::Mat brush(d, d, CV_8UC1, cv::Scalar(0));
        cv::circle(brush, cv::Point(r, r), r, cv::Scalar(255), -1, cv::LINE_8, 0);
        runs = brushRuns(brush, r);
    }

    unsigned char* mask = atRoi(request.mask, request.maskStep, request, 1);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < h; ++y) {
        const unsigned char* p = result + static_cast<int64_t>(y) * request.resultStep;
        unsigned char* m = mask + static_cast<int64_t>(y) * request.maskStep;
        for (int x = 0; x < w; ++x) {
            const unsigned char v = bandCode(counts, runs, r, x, y);
            // User-fixed pixels win; everything else leaves with a clear low bit.
            m[x] = (p[x] & 1) ? p[x] : static_cast<unsigned char>(v & 254);
        }
    }
}

}  // namespace qx

extern "C" QX_API void qxGrabCutEdgeGen(GrabCutRequest* request, int bandWidth) {
    if (request == nullptr || bandWidth < 0 || bandWidth > qx::kMaxBandWidth ||
        !qx::roiInside(*request) ||
        !qx::validCodePlane(request->mask, request->maskStep, *request) ||
        !qx::validCodePlane(request->result, request->resultStep, *request))
        return;
    const GrabCutRequest r = *request;
    qx::guardedCall(
        [&] {
            qx::edgeGen(r, bandWidth);
            return 1;
        },
        0);
}
