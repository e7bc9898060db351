// The one-click's tri-map, made from the network's soft mask.
//
// The network is soft where it is unsure, but it paints hair, fur and frayed edges mostly as
// opaque subject: what its mask gets wrong lies mostly on the inner side of its edge. So the
// band reaches much further in than out. Sure subject is the mask at kSure and above, where it
// lies at least a twentieth of the view's longer side inside its own edge; sure background is
// the mask at kClear and below, a fiftieth outside it (on the benchmark photos, 40 and 16
// pixels).
//
// A part of the subject thinner than twice that reach (a limb, an ear, a tail) would lose its
// sure core altogether and be solved as a whole, mostly into background: it keeps its middle,
// the pixels at least half as far from the edge as the farthest one within the reach (and at
// least a hundred-and-sixtieth of the side in). In a thick part this asks the same distance as
// the reach, so only thin parts change. The background side is treated alike (a gap between
// arms).
//
// The band is made at no more than the network's own resolution (its mask has no finer detail)
// and scaled up: the reach is a few hundred pixels on a large photo, where dilating by it at
// full size takes over a minute.
#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "workflow/workflow.h"

namespace qx::workflow {
namespace {

constexpr int kSure = 235, kClear = 20;
constexpr double kInward = 1.0 / 20, kOutward = 1.0 / 50, kLeast = 1.0 / 160;
constexpr int kWorkingSide = 1024;

// The pixels of `side` (8-bit, non-zero in) at least `reach` inside its edge, or in a part
// thinner than twice the reach, at least half as far in as the farthest pixel within the reach
// and at least `least` in. The image's border is not an edge: a subject the frame cuts keeps
// its core up to the frame.
cv::Mat sureCore(const cv::Mat& side, int reach, int least) {
    cv::Mat depth, deepest;
    cv::distanceTransform(side, depth, cv::DIST_L2, cv::DIST_MASK_5);  // the border is no edge
    cv::dilate(depth, deepest, disc(reach));
    return (depth >= reach) | ((depth >= least) & (depth >= 0.5 * deepest));
}

}  // namespace

cv::Mat subjectTrimap(const cv::Mat& soft, int viewSide) {
    const double shrink = viewSide > kWorkingSide ? double(kWorkingSide) / viewSide : 1.0;
    cv::Mat small = soft;
    if (shrink < 1.0) {
        const cv::Size size(std::max(1, static_cast<int>(std::lround(soft.cols * shrink))),
                            std::max(1, static_cast<int>(std::lround(soft.rows * shrink))));
        cv::resize(soft, small, size, 0, 0, cv::INTER_AREA);
    }
    const double side = viewSide * shrink;
    auto reach = [&](double part) {
        return std::max(1, static_cast<int>(std::lround(part * side)));
    };
    const int least = reach(kLeast);
    cv::Mat trimap(small.size(), CV_8UC1, cv::Scalar(128));
    trimap.setTo(255, sureCore(small >= kSure, reach(kInward), least));
    trimap.setTo(0, sureCore(small <= kClear, reach(kOutward), least));
    if (shrink < 1.0) cv::resize(trimap, trimap, soft.size(), 0, 0, cv::INTER_NEAREST);
    return trimap;
}

}  // namespace qx::workflow
