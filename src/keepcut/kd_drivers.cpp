// The two KD-tree drivers. Both unpack the region into colour planes, turn the stroke-coded
// alpha plane into a known map and a plain alpha, check the strokes (or, in a refinement, fix a
// frame), solve the tree leaf by leaf and put the result back into the stroke coding.
#include "runtime/fault.h"
#include "keepcut/kd_drivers.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "runtime/progress.h"
#include "runtime/static_tls.h"
#include "keepcut/kd_tree.h"
#include "resample/mask_pyr.h"

namespace qx {

namespace {

using Byte = unsigned char;

// OpenCV's limit on a line's thickness. A frame at least this thick covers every region that
// is less than about 16,000 pixels high or wide, as any thicker one would.
constexpr int64_t kMaxFrameThickness = 32767;

// The working images of a driver, all of the region's size: the region of the alpha plane
// (written in place), the three colour planes (bytes 0, 1, 2 of the source pixels, stacked in
// one allocation so that they share their row step), the known map and the strokes as they
// came in.
struct DriverImages {
    int width, height;
    Byte* src;  // region origin in the source, 4 bytes a pixel
    int srcStep;
    Byte* dst;  // region origin in dstImage, 4 bytes a pixel (null if the host gave none)
    int dstStep;
    GIMG<Byte> alphaMat;
    GIMG<Byte> planeStack;
    GIMG<Byte> plane0, plane1, plane2;
    GIMG<Byte> known;
    GIMG<Byte> savedStrokes;

    explicit DriverImages(const KeepCutRequest* r)
        : width(r->roiWidth),
          height(r->roiHeight),
          src(pixelAt(r->srcImage, r->srcStep, r->roiX, r->roiY, 4)),
          srcStep(r->srcStep),
          dst(pixelAt(r->dstImage, r->dstStep, r->roiX, r->roiY, 4)),
          dstStep(r->dstStep),
          alphaMat(width, height, pixelAt(r->alphaPlane, r->alphaStep, r->roiX, r->roiY, 1),
                   r->alphaStep),
          planeStack(width, 3 * height),
          plane0(width, height, planeStack.row(0), planeStack.step),
          plane1(width, height, planeStack.row(height), planeStack.step),
          plane2(width, height, planeStack.row(2 * height), planeStack.step),
          known(width, height),
          savedStrokes(width, height) {
        GIMG<Byte>* planes[3] = {&plane0, &plane1, &plane2};
        for (int c = 0; c < 3; ++c)
            prim::extractChannel_8u_C4C1(src + c, srcStep, planes[c]->data, planes[c]->step,
                                         {width, height});
        Copy(alphaMat, savedStrokes);
        normalise();
    }

    // Painted pixels become known; every byte becomes plain alpha (255 stays, 1 becomes 0).
    void normalise() {
#pragma omp parallel for schedule(static)
        for (int y = 0; y < height; ++y) {
            Byte* a = alphaMat.row(y);
            Byte* k = known.row(y);
            for (int x = 0; x < width; ++x) {
                const int v = a[x];
                k[x] = (v & 1) ? 255 : 0;
                a[x] = static_cast<Byte>((v & 0xFE) + ((v >> 1) & 1));
            }
        }
    }

    // Puts the paint flags back from the strokes as they came in.
    void restoreFlags() {
#pragma omp parallel for schedule(static)
        for (int y = 0; y < height; ++y) {
            Byte* a = alphaMat.row(y);
            const Byte* s = savedStrokes.row(y);
            for (int x = 0; x < width; ++x) a[x] = static_cast<Byte>((s[x] & 1) + (a[x] & 0xFE));
        }
    }

    // Back into the stroke coding: painted pixels take their input byte, and at full strokes
    // the source pixel goes to dstImage; computed pixels lose bit 0.
    void putResult() {
#pragma omp parallel for schedule(static)
        for (int y = 0; y < height; ++y) {
            Byte* a = alphaMat.row(y);
            const Byte* s = savedStrokes.row(y);
            const Byte* in = src + static_cast<int64_t>(y) * srcStep;
            Byte* out = dst ? dst + static_cast<int64_t>(y) * dstStep : nullptr;
            for (int x = 0; x < width; ++x) {
                if (s[x] & 1) {
                    a[x] = s[x];
                    if ((s[x] == 1 || s[x] == 255) && out) std::memcpy(out + 4 * x, in + 4 * x, 4);
                } else {
                    a[x] = a[x] & 0xFE;
                }
            }
        }
    }

    // Too few strokes to solve (on the given known map and alpha, the region's or a reduced
    // one): the flags go back and the call ends with -5.
    void checkStrokes(const GIMG<Byte>& knownMap, const GIMG<Byte>& alphaMap) {
        int64_t keepCount = 0, cutCount = 0, unknownCount = 0;
        const int w = knownMap.width, h = knownMap.height;
#pragma omp parallel for schedule(static) reduction(+ : keepCount, cutCount, unknownCount)
        for (int y = 0; y < h; ++y) {
            const Byte* k = knownMap.row(y);
            const Byte* a = alphaMap.row(y);
            for (int x = 0; x < w; ++x) {
                if (k[x] == 0) {
                    ++unknownCount;
                } else {
                    keepCount += a[x] == 255;
                    cutCount += a[x] == 0;
                }
            }
        }
        if (unknownCount < 3 || cutCount < 1 || keepCount < 1) {
            restoreFlags();
            fail(Fault::TooFewStrokes);
        }
    }
};

// Marks a frame around the map as known: a rectangle line of the given thickness centred on
// the map's edge.
void drawKnownFrame(GIMG<Byte>& knownMap, int64_t thickness) {
    cv::Mat view(knownMap.height, knownMap.width, CV_8UC1, knownMap.data,
                 static_cast<size_t>(knownMap.step));
    const int t = static_cast<int>(std::min(thickness, kMaxFrameThickness));
    cv::rectangle(view, cv::Point(0, 0), cv::Point(knownMap.width - 1, knownMap.height - 1),
                  cv::Scalar(255), t, 8, 0);
}

// Pixels the host set back to undecided (126 in auxPlane) are unknown, frame and paint flags
// notwithstanding.
void reopenPixels(const KeepCutRequest* r, GIMG<Byte>& knownMap) {
    if (r->auxPlane == nullptr) return;
    const Byte* aux = pixelAt(r->auxPlane, r->auxStep, r->roiX, r->roiY, 1);
    const int w = knownMap.width, h = knownMap.height;
#pragma omp parallel for schedule(static)
    for (int y = 0; y < h; ++y) {
        const Byte* b = aux + static_cast<int64_t>(y) * r->auxStep;
        Byte* k = knownMap.row(y);
        for (int x = 0; x < w; ++x)
            if (b[x] == 126) k[x] = 0;
    }
}

QX_STATIC_TLS thread_local int lastLeafCount = 0;

// Cuts and solves the tree over the given images; progressScale is the share of the progress
// scale (of 20000) that the walk takes; memUnits the budget the leaves' colour recovery plans for.
void solveTree(Byte* knownMap, int knownStep, Byte* const* planes, int planeStep, Byte* alpha,
               int alphaStep, Byte* colour, int colourStep, int width, int height,
               int progressScale, int memUnits) {
    CFMatt matt;  // handed to the tree only: each leaf makes its own
    KDTree tree(knownMap, knownStep, planes, planeStep, alpha, alphaStep, colour, colourStep,
                width, height, &matt);
    tree.memUnits = memUnits;
    tree.constructTree(tree.root);
    lastLeafCount = tree.leafCount;
    tree.checkMemoryUsage(tree.root);
    setProgRange(20000, progressScale / (tree.leafCount * 9));
    tree.traverseTree(tree.root, 1);
    tree.traverseTree(tree.root, 0);
}

}  // namespace

int lastKDTreeLeafCount() { return lastLeafCount; }

void computeAlphaKDTreeHiRes(KeepCutRequest* request, int memUnits) {
    lastLeafCount = 0;
    setProgProc(request->progProc, request->progParam, 20000, 10);
    DriverImages im(request);

    if (request->regionMode == 0) {
        im.checkStrokes(im.known, im.alphaMat);
    } else {
        drawKnownFrame(im.known, 4 * static_cast<int64_t>(request->regionMode) + 3);
        reopenPixels(request, im.known);
    }

    Byte* planes[3] = {im.plane0.data, im.plane1.data, im.plane2.data};
    solveTree(im.known.data, im.known.step, planes, im.plane0.step, im.alphaMat.data,
              im.alphaMat.step, im.dst, im.dstStep, im.width, im.height, 20000, memUnits);
    im.putResult();
}

void computeAlphaKDTreePyramid(KeepCutRequest* request, int memUnits) {
    // Halving needs two pixels each way; a thinner region is refused before anything changes.
    lastLeafCount = 0;
    if (request->roiWidth < 2 || request->roiHeight < 2) fail(Fault::SizeLimit);
    setProgProc(request->progProc, request->progParam, 20000, 10);
    DriverImages im(request);

    GIMG<Byte>* planeViews[3] = {&im.plane0, &im.plane1, &im.plane2};
    CMaskPyr pyramid;
    if (pyramid.build(planeViews, &im.known, &im.alphaMat, 1) != 0) {
        im.restoreFlags();
        fail(Fault::SizeLimit);
    }
    GIMG<Byte>& known1 = *pyramid.getKnown(1);
    GIMG<Byte>& alpha1 = *pyramid.getAlpha(1);
    const int halfWidth = alpha1.width, halfHeight = alpha1.height;

    if (request->regionMode == 0) {
        im.checkStrokes(known1, alpha1);
    } else {
        drawKnownFrame(known1, 2 * static_cast<int64_t>(request->regionMode) + 1);
    }

    // The tree's colour image: the reduced planes in bytes 0..2 (byte 3 isn't set). Level 1
    // is never as high as the region here, so it is never shared with dstImage.
    IMG<Byte, 4> colour(halfWidth, halfHeight);
    for (int c = 0; c < 3; ++c) {
        const GIMG<Byte>* p = pyramid.getPlane(c, 1);
        prim::insertChannel_8u_C1C4(p->data, p->step, colour.data + c, colour.step,
                                    {halfWidth, halfHeight});
    }

    Byte* planes[3] = {pyramid.getPlane(0, 1)->data, pyramid.getPlane(1, 1)->data,
                       pyramid.getPlane(2, 1)->data};
    const int planeStep = pyramid.getPlane(0, 1)->step;
    // The reduced planes are made alike and share their step; the tree needs one.
    if (pyramid.getPlane(1, 1)->step != planeStep || pyramid.getPlane(2, 1)->step != planeStep)
        fail(Fault::ImageMemory);
    solveTree(known1.data, known1.step, planes, planeStep, alpha1.data, alpha1.step, colour.data,
              colour.step, halfWidth, halfHeight, 10000, memUnits);

    pyramid.upSampling();
    im.putResult();
    progressKick();
}

}  // namespace qx
