// A clean alpha, and the subject's colours, from a photo and a coarse mask of any source (a
// segmentation model, a rough brush, another editor's selection).
//
// The undecided band is made from the mask and the image, not a fixed width:
//  - where the mask is soft (21..234) it is undecided as it stands;
//  - along the mask's hard edge (128) the band is wide where the image has little contrast and
//    narrow where a strong image edge agrees with it: 6 / (1 + gradient / 12) pixels, 3 or 6
//    (a widest of 10 left a wider band than the edge needs on clean outlines: 0.711 of the
//    coarse mask's SAD on the benchmark photos against 0.690);
//  - near the edge (50 pixels), pixels whose colour is closer to the other side's colours (six
//    k-means centres each, from the sure pixels near the edge) are undecided too: hair outside
//    the mask, holes inside it;
//  - after each solve, band pixels still mixed where the band meets a sure pixel mean the edge
//    goes on: the band grows by 10 pixels there and the solve runs again (four times at most),
//    on the band near what it took, the rest set to the side the last solve gave it.
//    These solves are qxMaskAlpha's, sharpened: the plain solve's softer edge would grow the band
//    where it needn't;
//  - the alpha is the plain solve (the workflows' tri-map job) of the last band: closer to the
//    truth than the sharpened one (0.711 of the coarse mask's SAD against 0.743 with the same
//    band), at the cost of one more solve.
// On an image over 1.5 MP the band is made (first tri-map and growing solves) on a copy of
// 1.5 MP and scaled back up; the last solve and the colours are the full image's.
// The full-resolution recovery gives the colours.
#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "workflow/workflow.h"

namespace qx::workflow {
namespace {

constexpr int kSoftLow = 20, kSoftHigh = 235;
constexpr int kBandWidths[] = {3, 6};
constexpr float kWidest = 6.f, kNarrowest = 3.f, kContrast = 12.f;
constexpr int kColourReach = 50, kCentres = 6, kSamples = 20000;
constexpr int kGrowSteps = 4, kGrowBy = 10;
// A growing step solves again only the band within this many pixels of what it took, the rest
// set to the side the last solve gave it: the whole band's solve at every step was most of
// refine's time, and the band beyond this reach hardly moves. Within 20 pixels the band's
// edge came out different enough to cost 3% of the benchmark's SAD; at 40 nothing.
constexpr int kLocalReach = 40;
// Above this many pixels the band is made on a copy of this size (its growing solves are most of
// a large image's time: about two minutes at 12 MP at full size), then scaled back up.
constexpr double kBandPixels = 1.5e6;
// The share of the progress for making the first band from the mask and the image: about a
// seventh of the job's time at 6 MP.
constexpr double kFirstShare = 0.15;

// Up to kSamples pixels of `where` (every n-th), as float rows for k-means.
cv::Mat samples(const cv::Mat& bgr, const cv::Mat& where) {
    const int count = cv::countNonZero(where);
    const int every = std::max(1, count / kSamples);
    cv::Mat out(0, 3, CV_32F);
    int seen = 0;
    for (int y = 0; y < bgr.rows; ++y) {
        const cv::Vec3b* p = bgr.ptr<cv::Vec3b>(y);
        const unsigned char* w = where.ptr<unsigned char>(y);
        for (int x = 0; x < bgr.cols; ++x)
            if (w[x] && seen++ % every == 0) {
                const float row[3] = {float(p[x][0]), float(p[x][1]), float(p[x][2])};
                out.push_back(cv::Mat(1, 3, CV_32F, const_cast<float*>(row)));
            }
    }
    return out;
}

// The centres of a side's colours, from a fixed seed so that the same input gives the same band.
cv::Mat centres(const cv::Mat& bgr, const cv::Mat& where) {
    cv::Mat pts = samples(bgr, where);
    if (pts.rows < kCentres * 4) return cv::Mat();
    cv::RNG& rng = cv::theRNG();
    const uint64_t saved = rng.state;
    rng.state = 0x5EEDC0DEull;
    cv::Mat labels, c;
    cv::kmeans(pts, kCentres, labels,
               cv::TermCriteria(cv::TermCriteria::MAX_ITER + cv::TermCriteria::EPS, 20, 1.0), 2,
               cv::KMEANS_PP_CENTERS, c);
    rng.state = saved;
    return c;
}

float nearest(const cv::Mat& c, const cv::Vec3b& p) {
    float best = 1e30f;
    for (int i = 0; i < c.rows; ++i) {
        const float* r = c.ptr<float>(i);
        const float d0 = p[0] - r[0], d1 = p[1] - r[1], d2 = p[2] - r[2];
        best = std::min(best, d0 * d0 + d1 * d1 + d2 * d2);
    }
    return best;
}

// The first tri-map (0, 128, 255) from the mask and the image, reporting its parts through the
// relay's current span (on a large image this takes a second or more).
cv::Mat firstTrimap(const cv::Mat& bgr, const cv::Mat& mask, Relay& relay) {
    const cv::Mat hard = mask >= 128;
    cv::Mat undecided = (mask > kSoftLow) & (mask < kSoftHigh);
    cv::Mat grown, shrunk;
    cv::dilate(hard, grown, cv::Mat());
    cv::erode(hard, shrunk, cv::Mat());
    const cv::Mat edge = grown != shrunk;
    relay.reportPart(0.1);

    // Band width from the image's contrast.
    cv::Mat grey, gx, gy, magnitude;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    cv::Sobel(grey, gx, CV_32F, 1, 0, 3);
    cv::Sobel(grey, gy, CV_32F, 0, 1, 3);
    cv::magnitude(gx, gy, magnitude);
    cv::GaussianBlur(magnitude, magnitude, cv::Size(), 2.0);
    cv::Mat width = kWidest / (1.f + magnitude * (0.25f / kContrast));
    relay.reportPart(0.3);
    double part = 0.3;
    for (int k : kBandWidths) {
        part += 0.2 / std::size(kBandWidths);
        relay.reportPart(part);
        const cv::Mat seeds = edge & (width >= float(std::max<float>(k, kNarrowest)) - 1e-3f);
        if (cv::countNonZero(seeds) == 0) continue;
        cv::Mat reach;
        cv::dilate(seeds, reach, disc(k));
        undecided |= reach;
    }

    // Colours of the other side near the edge.
    // The widest dilation, in strips of rows so that progress moves through it (each strip reads
    // the rows around it from the whole plane: the same result as one call).
    cv::Mat near(edge.size(), edge.type());
    const cv::Mat reachDisc = disc(kColourReach);
    const int strips = 8;
    for (int i = 0; i < strips; ++i) {
        const cv::Range rows(edge.rows * i / strips, edge.rows * (i + 1) / strips);
        cv::Mat part = near.rowRange(rows);
        cv::dilate(edge.rowRange(rows), part, reachDisc);
        relay.reportPart(0.6 + 0.1 * (i + 1) / strips);
    }
    const cv::Mat sureFg = hard & ~undecided & near, sureBg = ~hard & ~undecided & near;
    const cv::Mat fg = centres(bgr, sureFg), bg = centres(bgr, sureBg);
    relay.reportPart(0.7);
    if (!fg.empty() && !bg.empty()) {
        for (int y = 0; y < bgr.rows; ++y) {
            if (y % 64 == 0) relay.reportPart(0.7 + 0.3 * y / bgr.rows);
            const cv::Vec3b* p = bgr.ptr<cv::Vec3b>(y);
            const unsigned char* n = near.ptr<unsigned char>(y);
            const unsigned char* h = hard.ptr<unsigned char>(y);
            unsigned char* u = undecided.ptr<unsigned char>(y);
            for (int x = 0; x < bgr.cols; ++x) {
                if (!n[x] || u[x]) continue;
                const float df = nearest(fg, p[x]), db = nearest(bg, p[x]);
                if (h[x] ? db < df : df < db) u[x] = 255;
            }
        }
    }
    cv::Mat trimap = hard & 255;
    trimap.setTo(128, undecided);
    return trimap;
}

// Band pixels still mixed where the band meets a sure pixel: the band grows there, and `added`
// holds the pixels it took. False when there is none.
bool growBand(cv::Mat& trimap, const cv::Mat& alpha, cv::Mat* added) {
    const cv::Mat band = trimap == 128;
    cv::Mat around;
    cv::dilate(~band, around, cv::Mat());  // band pixels next to a sure one
    const cv::Mat open = band & around & (alpha > 12) & (alpha < 243);
    if (cv::countNonZero(open) == 0) return false;
    cv::Mat grown;
    cv::dilate(open, grown, disc(kGrowBy));
    *added = grown & ~band;
    if (cv::countNonZero(*added) == 0) return false;
    trimap.setTo(128, *added);
    return true;
}

// The tri-map a growing step solves: the band within kLocalReach of what it just took stays
// undecided, the rest of the band is set to the side the last solve put it on.
cv::Mat localTrimap(const cv::Mat& trimap, const cv::Mat& added, const cv::Mat& sharp) {
    cv::Mat near;
    cv::dilate(added, near, disc(kLocalReach));
    cv::Mat local = trimap.clone();
    const cv::Mat settled = (trimap == 128) & ~near;
    local.setTo(255, settled & (sharp >= 128));
    local.setTo(0, settled & (sharp < 128));
    return local;
}

// The band for the last solve: the first tri-map, grown while the sharpened solves find the
// edge going on past it. `sharp` is the last sharpened solve (empty when the tri-map has nothing
// undecided); the relay's span runs from the first tri-map to the end of the growing.
QxwStatus growBandFor(const cv::Mat& bgr, const cv::Mat& mask, double growEnd, cv::Mat* band,
                      cv::Mat* sharp, Relay& relay, QxwJob* job) {
    relay.span(0.0, kFirstShare);
    cv::Mat trimap = firstTrimap(bgr, mask, relay);
    *band = trimap;
    // Nothing undecided: a mask of hard 0 and 255 with no edge the band could take.
    if (cv::countNonZero(trimap == 128) == 0) return QXW_OK;
    cv::Mat added;  // what the last step took; empty before the first solve
    for (int step = 0; step <= kGrowSteps; ++step) {
        // Each solve a share of what is left: the first solve is the largest part of the work.
        const double from = kFirstShare + (growEnd - kFirstShare) * (1.0 - std::pow(0.5, step));
        const double to = kFirstShare + (growEnd - kFirstShare) * (1.0 - std::pow(0.5, step + 1));
        relay.span(from, step == kGrowSteps ? growEnd : to);
        cv::Mat solved;
        QxwStatus s = QXW_BAD_INPUT;
        if (!added.empty()) {
            // After the first solve only the band around what was taken is solved again, into
            // the last solve.
            const cv::Mat local = localTrimap(trimap, added, *sharp);
            s = matteTrimap(bgr, local, 255, 0, 255, 0, &solved, relay, job,
                            TrimapSolve::Finished);
            if (s == QXW_OK) solved.copyTo(*sharp, local == 128);
        }
        // The first solve, and a local band the job refuses (too few rows): the whole band.
        if (s != QXW_OK && s != QXW_CANCELLED) {
            s = matteTrimap(bgr, trimap, 255, 0, 255, 0, &solved, relay, job,
                            TrimapSolve::Finished);
            if (s == QXW_OK) *sharp = solved;
        }
        if (s != QXW_OK) {
            if (step == 0 || s == QXW_CANCELLED) return s;
            break;  // a grown band the job refuses: keep the last solve
        }
        *band = trimap.clone();
        if (step == kGrowSteps || !growBand(trimap, *sharp, &added)) break;
    }
    return QXW_OK;
}

}  // namespace

QxwStatus refineMask(const cv::Mat& bgr, const cv::Mat& coarse, cv::Mat* alpha, cv::Mat* colours,
                     Relay& relay, QxwJob* job) {
    double lo = 0.0, hi = 0.0;
    cv::minMaxLoc(coarse, &lo, &hi);
    if (lo == hi)
        return finishJob(job, QXW_BAD_INPUT,
                         "the mask is all one value (" + std::to_string(int(lo)) +
                             "): there is no edge to refine");
    // A binary mask saved as 0 and 1 means what 0 and 255 mean.
    const cv::Mat mask = hi == 1 ? cv::Mat(coarse * 255) : coarse;
    const double solveShare = colours ? 0.8 : 1.0;
    // The growing solves share [kFirstShare, growEnd]; the last, plain solve takes the rest.
    const double growEnd = kFirstShare + (solveShare - kFirstShare) * 0.8;
    // The alpha out, with its colours when asked for.
    auto deliver = [&](const cv::Mat& result) {
        if (colours) {
            relay.span(solveShare, 1.0);
            const QxwStatus s = recoverForeground(bgr, result, QXW_FG_FULL, colours, relay, job);
            if (s != QXW_OK) return s;
        }
        *alpha = result;
        return finishJob(job, QXW_OK);
    };
    // A large image's band is made on a copy of kBandPixels, and brought back to full size for
    // the last solve and the colours.
    const double pixels = double(bgr.total());
    cv::Mat band, sharp;
    QxwStatus s;
    if (pixels > kBandPixels) {
        const double f = std::sqrt(kBandPixels / pixels);
        cv::Mat smallBgr, smallMask;
        cv::resize(bgr, smallBgr, cv::Size(), f, f, cv::INTER_AREA);
        cv::resize(mask, smallMask, smallBgr.size(), 0, 0, cv::INTER_AREA);
        s = growBandFor(smallBgr, smallMask, growEnd, &band, &sharp, relay, job);
        if (s != QXW_OK) return s;
        cv::resize(band, band, bgr.size(), 0, 0, cv::INTER_NEAREST);
        if (!sharp.empty()) cv::resize(sharp, sharp, bgr.size(), 0, 0, cv::INTER_LINEAR);
    } else {
        s = growBandFor(bgr, mask, growEnd, &band, &sharp, relay, job);
        if (s != QXW_OK) return s;
    }
    if (sharp.empty()) return deliver(band);
    relay.span(growEnd, solveShare);
    // The last band is solved as a person's tri-map is, twice, the first at half size:
    // bench_refine 0.569 of the coarse masks' SAD against 0.579 for one full-size solve, the
    // network's masks 0.651 of the raw mask's against 0.691.
    cv::Mat plain;
    s = matteTrimap(bgr, band, 255, 0, 255, 0, &plain, relay, job, TrimapSolve::FlowsAgain);
    if (s == QXW_CANCELLED) return s;
    // A band the plain job refuses keeps the sharpened solve of the same band.
    return deliver(s == QXW_OK ? plain : sharp);
}

}  // namespace qx::workflow

extern "C" QX_API QxwStatus qxwRefineMask(const QxwImage* image, const unsigned char* mask,
                                          int maskStride, unsigned char* alpha, int alphaStride,
                                          const QxwColourOut* colours, QxwJob* job) {
    using namespace qx::workflow;
    startJob(job);
    std::string err = checkImage(image);
    if (err.empty()) err = checkPlane(mask, maskStride, *image, "mask");
    if (err.empty()) err = checkPlane(alpha, alphaStride, *image, "alpha");
    if (err.empty()) err = checkColours(colours, *image);
    return runEntry(job, err, "refine", [&](Relay& relay) {
        cv::Mat a, fg;
        const QxwStatus s = refineMask(toBgr(*image), planeView(mask, maskStride, *image), &a,
                                       colours ? &fg : nullptr, relay, job);
        if (s != QXW_OK) return s;
        copyPlaneOut(a, alpha, alphaStride);
        if (colours) copyColoursOut(fg, *image, *colours);
        return QXW_OK;
    });
}
