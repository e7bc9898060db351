// The selection's edge at full resolution. GrabCut decides on a working level whose longer side
// is at most 400 pixels, and the guided up-sampler only moves the edge it is given: a stem or a
// strand narrower than one working pixel is gone before the up-sampler sees it, and the edge
// may sit a pixel or two off the colour edge. Here the pixels along the edge, and the thin
// structures whose colours disagree with their side, are labelled again at full resolution by
// a graph cut of the GrabCut kind (colour models learnt from the sure parts of the selection,
// contrast-weighted links between neighbours), with every other pixel held as it was.
//
// Memory stays bounded whatever the image: the colour models are learnt from a subsample, the
// costs are computed row by row into byte masks, and the graph is cut in strips of rows, each
// holding only its strip's open pixels.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/detail/gcgraph.hpp>
#include <vector>

#include "runtime/fault.h"
#include "runtime/progress.h"
#include "workflow/workflow.h"

namespace qx::workflow {
namespace {

constexpr int kComponents = 5;
// cv::grabCut's smoothness weight; a pixel's links to its 8 neighbours weigh at most 8 * 50.
constexpr double kGamma = 50.0;
// A pixel outside the edge band is reopened when its colour favours the other side by this
// much (a likelihood ratio of e^4, about 55): only colours the other side's model cannot
// explain.
constexpr float kDisagreement = 4.0f;
constexpr int kMaxSamples = 60000;
// Components of a model that take fewer of its colours than this are dropped.
constexpr double kMinShare = 0.02;
constexpr uint64_t kSeed = 0x7265666e65736c63ull;
constexpr int kStripRows = 256;

// A Gaussian mixture over BGR colours: the costs -log p(colour).
class ColourModel {
public:
    // Learns from up to kMaxSamples colours (rows of 3 floats): k-means, then two rounds of
    // assigning each colour to its likeliest component and re-estimating, as cv::grabCut
    // does. Returns false when there are too few colours to learn from.
    bool learn(const cv::Mat& samples) {
        if (samples.rows < kComponents * 4) return false;
        cv::Mat labels;
        cv::Mat centres;
        cv::kmeans(samples, kComponents, labels,
                   cv::TermCriteria(cv::TermCriteria::MAX_ITER, 10, 0.0), 1,
                   cv::KMEANS_PP_CENTERS, centres);
        for (int round = 0; round < 3; ++round) {
            estimate(samples, labels);
            if (round == 2) break;
            for (int i = 0; i < samples.rows; ++i)
                labels.at<int>(i) = likeliest(samples.ptr<float>(i));
        }
        return true;
    }

    // -log of the mixture's density at the colour c.
    float cost(const float c[3]) const {
        double best = -std::numeric_limits<double>::infinity();
        double terms[kComponents];
        for (int k = 0; k < kComponents; ++k) {
            terms[k] = weight_[k] > 0 ? logTerm(k, c) : -std::numeric_limits<double>::infinity();
            best = std::max(best, terms[k]);
        }
        double sum = 0;
        for (int k = 0; k < kComponents; ++k)
            if (weight_[k] > 0) sum += std::exp(terms[k] - best);
        return static_cast<float>(-(best + std::log(sum)));
    }

private:
    // log(weight * N(c; mean, cov)) of component k.
    double logTerm(int k, const float c[3]) const {
        const double d0 = c[0] - mean_[k][0], d1 = c[1] - mean_[k][1], d2 = c[2] - mean_[k][2];
        const double* m = inv_[k];
        const double q = d0 * (m[0] * d0 + 2 * m[1] * d1 + 2 * m[2] * d2) +
                         d1 * (m[3] * d1 + 2 * m[4] * d2) + d2 * m[5] * d2;
        return logNorm_[k] - 0.5 * q;
    }

    int likeliest(const float c[3]) const {
        int best = 0;
        double bestTerm = -std::numeric_limits<double>::infinity();
        for (int k = 0; k < kComponents; ++k) {
            if (weight_[k] <= 0) continue;
            const double t = logTerm(k, c);
            if (t > bestTerm) bestTerm = t, best = k;
        }
        return best;
    }

    void estimate(const cv::Mat& samples, const cv::Mat& labels) {
        double sum[kComponents][3] = {}, prod[kComponents][6] = {};
        int count[kComponents] = {};
        for (int i = 0; i < samples.rows; ++i) {
            const float* c = samples.ptr<float>(i);
            const int k = labels.at<int>(i);
            ++count[k];
            for (int a = 0, n = 0; a < 3; ++a) {
                sum[k][a] += c[a];
                for (int b = a; b < 3; ++b) prod[k][n++] += double(c[a]) * c[b];
            }
        }
        // A component of a few colours is dropped (its colours go to the others in the next
        // round): k-means seeds far-apart colours, and the few pixels of a thin structure
        // that the cut missed would otherwise get a component of their own in the other
        // side's model, which then explains them as well as their own side does.
        int kept = 0;
        for (int k = 0; k < kComponents; ++k) {
            if (count[k] < kMinShare * samples.rows) count[k] = 0;
            kept += count[k];
        }
        for (int k = 0; k < kComponents; ++k) {
            weight_[k] = kept > 0 ? double(count[k]) / kept : 0.0;
            if (count[k] == 0) continue;
            for (int a = 0; a < 3; ++a) mean_[k][a] = sum[k][a] / count[k];
            double cov[3][3];
            for (int a = 0, n = 0; a < 3; ++a)
                for (int b = a; b < 3; ++b, ++n)
                    cov[a][b] = cov[b][a] = prod[k][n] / count[k] - mean_[k][a] * mean_[k][b];
            // A little white noise keeps a flat component invertible (cv::grabCut adds 0.01;
            // colours are bytes here, and a uniform variance of 1 stands for their rounding).
            for (int a = 0; a < 3; ++a) cov[a][a] += 1.0;
            const double det = cov[0][0] * (cov[1][1] * cov[2][2] - cov[1][2] * cov[2][1]) -
                               cov[0][1] * (cov[1][0] * cov[2][2] - cov[1][2] * cov[2][0]) +
                               cov[0][2] * (cov[1][0] * cov[2][1] - cov[1][1] * cov[2][0]);
            double* m = inv_[k];
            m[0] = (cov[1][1] * cov[2][2] - cov[1][2] * cov[2][1]) / det;
            m[1] = (cov[0][2] * cov[2][1] - cov[0][1] * cov[2][2]) / det;
            m[2] = (cov[0][1] * cov[1][2] - cov[0][2] * cov[1][1]) / det;
            m[3] = (cov[0][0] * cov[2][2] - cov[0][2] * cov[2][0]) / det;
            m[4] = (cov[0][2] * cov[1][0] - cov[0][0] * cov[1][2]) / det;
            m[5] = (cov[0][0] * cov[1][1] - cov[0][1] * cov[1][0]) / det;
            logNorm_[k] = std::log(weight_[k]) - 0.5 * std::log(det) - 1.5 * std::log(2 * CV_PI);
        }
    }

    double weight_[kComponents] = {};
    double mean_[kComponents][3] = {};
    double inv_[kComponents][6] = {};  // upper triangle of the inverse covariance
    double logNorm_[kComponents] = {};
};

// Colours of the pixels where `where` is set, every `stride`-th in each direction.
cv::Mat sampleColours(const cv::Mat& bgr, const cv::Mat& where) {
    const int64_t n = cv::countNonZero(where);
    const int stride = std::max<int>(1, static_cast<int>(std::ceil(std::sqrt(
                                            static_cast<double>(n) / kMaxSamples))));
    cv::Mat samples(0, 3, CV_32F);
    samples.reserve(static_cast<size_t>(n / (int64_t(stride) * stride) + 16));
    for (int y = 0; y < bgr.rows; y += stride) {
        const uchar* w = where.ptr<uchar>(y);
        const cv::Vec3b* c = bgr.ptr<cv::Vec3b>(y);
        for (int x = 0; x < bgr.cols; x += stride)
            if (w[x]) {
                const float row[3] = {float(c[x][0]), float(c[x][1]), float(c[x][2])};
                samples.push_back(cv::Mat(1, 3, CV_32F, const_cast<float*>(row)));
            }
    }
    return samples;
}

// The forward half of the 8-neighbourhood, and its link weight factors (1 / distance).
constexpr int kDx[4] = {-1, -1, 0, 1}, kDy[4] = {0, -1, -1, -1};
const double kDist[4] = {1.0, 1.0 / std::sqrt(2.0), 1.0, 1.0 / std::sqrt(2.0)};

double colourDistance2(const cv::Vec3b& a, const cv::Vec3b& b) {
    const double d0 = a[0] - b[0], d1 = a[1] - b[1], d2 = a[2] - b[2];
    return d0 * d0 + d1 * d1 + d2 * d2;
}

// Re-labels the open pixels of the rows [y0, y1) of the crop by one graph cut; the rows
// [s0, s1) around them (s0 <= y0, y1 <= s1) are in the graph too, so that the strip's edge
// does not show, and every pixel that is not open holds its label as a terminal for its
// neighbours. Writes `out` in [y0, y1) only.
void cutStrip(const cv::Mat& bgr, const cv::Mat& open, const cv::Mat& labels,
              const ColourModel& fg, const ColourModel& bg, double beta, int s0, int s1, int y0,
              int y1, cv::Mat& out) {
    const int w = bgr.cols;
    std::vector<int> index(static_cast<size_t>(s1 - s0) * w, -1);
    int nodes = 0;
    for (int y = s0; y < s1; ++y) {
        const uchar* o = open.ptr<uchar>(y);
        for (int x = 0; x < w; ++x)
            if (o[x]) index[size_t(y - s0) * w + x] = nodes++;
    }
    if (nodes == 0) return;
    cv::detail::GCGraph<float> graph(nodes, 8 * nodes);
    for (int y = s0; y < s1; ++y) {
        const uchar* o = open.ptr<uchar>(y);
        const cv::Vec3b* c = bgr.ptr<cv::Vec3b>(y);
        for (int x = 0; x < w; ++x) {
            if (!o[x]) continue;
            const int v = graph.addVtx();
            const float col[3] = {float(c[x][0]), float(c[x][1]), float(c[x][2])};
            // Source = subject: cutting the source link costs the subject's cost.
            double toSource = bg.cost(col), toSink = fg.cost(col);
            for (int n = 0; n < 8; ++n) {
                const int dx = n < 4 ? kDx[n] : -kDx[n - 4], dy = n < 4 ? kDy[n] : -kDy[n - 4];
                const int qx = x + dx, qy = y + dy;
                if (qx < 0 || qx >= w || qy < 0 || qy >= bgr.rows) continue;
                const double weight =
                    kGamma * kDist[n % 4] *
                    std::exp(-beta * colourDistance2(c[x], bgr.at<cv::Vec3b>(qy, qx)));
                const bool inStrip = qy >= s0 && qy < s1;
                const int q = inStrip ? index[size_t(qy - s0) * w + qx] : -1;
                if (q >= 0) {
                    if (n < 4) graph.addEdges(v, q, float(weight), float(weight));
                } else if (labels.at<uchar>(qy, qx)) {
                    toSource += weight;  // a held subject pixel pulls towards the subject
                } else {
                    toSink += weight;
                }
            }
            graph.addTermWeights(v, float(toSource), float(toSink));
        }
    }
    graph.maxFlow();
    for (int y = y0; y < y1; ++y) {
        uchar* d = out.ptr<uchar>(y);
        for (int x = 0; x < w; ++x) {
            const int v = index[size_t(y - s0) * w + x];
            if (v >= 0) d[x] = graph.inSourceSegment(v) ? 255 : 0;
        }
    }
}

// Pixels that `after` adds to `before` and that cannot reach a pixel of `before` through
// added pixels (8-connected) are dropped: a colour that looks like the subject's far from it
// is not the subject.
void dropDetached(const cv::Mat& before, cv::Mat& after) {
    std::vector<cv::Point> queue;
    cv::Mat state(after.size(), CV_8UC1, cv::Scalar(0));  // 1 added, 2 reached
    for (int y = 0; y < after.rows; ++y) {
        const uchar* b = before.ptr<uchar>(y);
        const uchar* a = after.ptr<uchar>(y);
        uchar* s = state.ptr<uchar>(y);
        for (int x = 0; x < after.cols; ++x) s[x] = (a[x] && !b[x]) ? 1 : 0;
    }
    for (int y = 0; y < after.rows; ++y)
        for (int x = 0; x < after.cols; ++x) {
            if (state.at<uchar>(y, x) != 1) continue;
            bool touches = false;
            for (int dy = -1; dy <= 1 && !touches; ++dy)
                for (int dx = -1; dx <= 1 && !touches; ++dx) {
                    const int qx = x + dx, qy = y + dy;
                    if (qx >= 0 && qy >= 0 && qx < after.cols && qy < after.rows)
                        touches = before.at<uchar>(qy, qx) != 0;
                }
            if (!touches) continue;
            state.at<uchar>(y, x) = 2;
            queue.emplace_back(x, y);
            while (!queue.empty()) {
                const cv::Point p = queue.back();
                queue.pop_back();
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int qx = p.x + dx, qy = p.y + dy;
                        if (qx < 0 || qy < 0 || qx >= after.cols || qy >= after.rows) continue;
                        uchar& s = state.at<uchar>(qy, qx);
                        if (s == 1) s = 2, queue.emplace_back(qx, qy);
                    }
            }
        }
    for (int y = 0; y < after.rows; ++y) {
        const uchar* s = state.ptr<uchar>(y);
        uchar* a = after.ptr<uchar>(y);
        for (int x = 0; x < after.cols; ++x)
            if (s[x] == 1) a[x] = 0;
    }
}

}  // namespace

void refineSelection(const cv::Mat& bgr, const cv::Mat& fixed, const cv::Rect& area,
                     double reduction, cv::Mat& selection, Relay& relay) {
    const cv::Rect box = area & cv::Rect(0, 0, bgr.cols, bgr.rows);
    if (box.width < 3 || box.height < 3 || reduction <= 1.0) return;
    const cv::Mat image = bgr(box);
    cv::Mat labels = selection(box).clone();
    const cv::Mat held = fixed.empty() ? cv::Mat(box.size(), CV_8UC1, cv::Scalar(0))
                                       : cv::Mat(fixed(box) != 0);

    // The band: pixels within about one and a half working pixels of the edge.
    const int r = std::max(2, static_cast<int>(std::lround(1.5 * reduction)));
    const cv::Mat round = disc(r);
    cv::Mat grown, shrunk;
    cv::dilate(labels, grown, round, {-1, -1}, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
    cv::erode(labels, shrunk, round, {-1, -1}, 1, cv::BORDER_CONSTANT, cv::Scalar(255));
    const cv::Mat sureFg = shrunk & ~held, sureBg = ~grown & ~held;
    relay.reportPart(0.05);

    ColourModel fg, bg;
    {
        cv::RNG& rng = cv::theRNG();
        const uint64_t callersState = rng.state;
        rng.state = kSeed;
        bool ok = false;
        try {
            ok = fg.learn(sampleColours(image, sureFg | (held & labels))) &&
                 bg.learn(sampleColours(image, sureBg | (held & ~labels)));
        } catch (...) {
            rng.state = callersState;
            throw;
        }
        rng.state = callersState;
        if (!ok) return;  // a side too small to model: the selection stands
    }
    relay.reportPart(0.2);

    // Open pixels: the band, and outside it the thin runs of colour that the other side
    // explains far better. Only thin ones: a run that survives an opening by a disc about two
    // working pixels across was there for the cut to see, and whatever the cut made of it
    // stands (its colour models saw the region around it; these here saw only the sure parts).
    cv::Mat open = grown & ~shrunk, disagree(box.size(), CV_8UC1, cv::Scalar(0));
#pragma omp parallel for schedule(static)
    for (int y = 0; y < box.height; ++y) {
        const cv::Vec3b* c = image.ptr<cv::Vec3b>(y);
        const uchar* l = labels.ptr<uchar>(y);
        const uchar* o = open.ptr<uchar>(y);
        uchar* d = disagree.ptr<uchar>(y);
        for (int x = 0; x < box.width; ++x) {
            if (o[x]) continue;
            const float col[3] = {float(c[x][0]), float(c[x][1]), float(c[x][2])};
            const float favoursFg = bg.cost(col) - fg.cost(col);
            d[x] = (l[x] ? -favoursFg : favoursFg) > kDisagreement ? 255 : 0;
        }
    }
    {
        const int t = std::max(1, static_cast<int>(std::lround(reduction)));
        cv::Mat wide;
        cv::morphologyEx(disagree, wide, cv::MORPH_OPEN, disc(t));
        cv::Mat thin = disagree & ~wide;
        cv::dilate(thin, thin, cv::Mat());  // and their edges
        open |= thin;
    }
    open &= ~held;
    relay.reportPart(0.35);

    // beta as cv::grabCut sets it: the inverse of twice the mean squared colour difference of
    // neighbours over the whole area (not only the open pixels, which sit on edges: their
    // mean would make every contrast look small and the links cut thin structures away).
    double sum = 0;
    int64_t pairs = 0;
#pragma omp parallel for schedule(static) reduction(+ : sum, pairs)
    for (int y = 1; y < box.height; ++y) {
        const cv::Vec3b* c = image.ptr<cv::Vec3b>(y);
        for (int x = 1; x + 1 < box.width; ++x) {
            for (int n = 0; n < 4; ++n)
                sum += colourDistance2(c[x], image.at<cv::Vec3b>(y + kDy[n], x + kDx[n]));
            pairs += 4;
        }
    }
    const double beta = sum > 0 ? 1.0 / (2.0 * sum / double(pairs)) : 0.0;

    cv::Mat cut = labels.clone();
    const int strips = (box.height + kStripRows - 1) / kStripRows;
    const int overlap = 2 * r;
    std::atomic<int> done{0};
    // An exception must not leave a parallel region: the first is kept and thrown after it.
    // The cancel flag is the calling thread's: the team reads it through this pointer, and the
    // job stops after the strips under way.
    std::exception_ptr failure;
    qx::checkCancel();
    const volatile int32_t* cancel = qx::cancelFlag();
#pragma omp parallel for schedule(dynamic)
    for (int i = 0; i < strips; ++i) {
        if (qx::flagSet(cancel)) continue;
        const std::exception_ptr f = qx::thrownBy([&] {
            const int y0 = i * kStripRows, y1 = std::min(box.height, y0 + kStripRows);
            cutStrip(image, open, labels, fg, bg, beta, std::max(0, y0 - overlap),
                     std::min(box.height, y1 + overlap), y0, y1, cut);
        });
        if (f) {
#pragma omp critical(qx_refine_failure)
            if (!failure) failure = f;
        }
        const int finished = ++done;
        // Reports go to the host on its own thread only, which is the team's thread 0.
        if (omp_get_thread_num() == 0) relay.reportPart(0.35 + 0.6 * finished / strips);
    }
    if (failure) std::rethrow_exception(failure);
    qx::checkCancel();
    dropDetached(labels, cut);
    cut.copyTo(selection(box));
    relay.reportPart(1.0);
}

}  // namespace qx::workflow
