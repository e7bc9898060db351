// The closed-form solve of one tri-map, end to end, and the sharpening of its result.
#include <algorithm>
#include <cstdlib>

#include "runtime/progress.h"
#include "runtime/stage_clock.h"
#include "matting/cfmatt.h"

namespace qx {
namespace {

constexpr int64_t kMinPixels = 10;
constexpr int64_t kMaxPixels = 25000000;

}  // namespace

template <typename Build>
int CFMatt::compAlphaInner(int width, int height, Plane8& mask, Build&& build) {
    const int64_t pixels = static_cast<int64_t>(width) * height;
    if (width < 1 || height < 1 || pixels < kMinPixels || pixels > kMaxPixels) return 2;

    Plane8 known(width, height);
    Plane8 core(width, height);
    const double p = double(pixels);
    double n = expectedUnknowns > 0.0 ? expectedUnknowns : p;
    ProgressParts parts({SolveSeconds::pass(p), SolveSeconds::laplacian(n),
                         SolveSeconds::assembly(n) + SolveSeconds::solver(n), SolveSeconds::pass(p)});
    {
        const StageClock clock(Stage::Maps);
        Plane8 fgMap(width, height);
        compMap(1, mask, known, fgMap);
    }
    if (progressSpanOpen()) {  // the undecided pixels, to weigh the stages to come
        double knownSum = 0.0;
        prim::sum_8u_C1(known.data, known.step, known.size(), &knownSum);
        n = std::max(p - knownSum / 255.0, 1.0);
        parts.weigh(1, SolveSeconds::laplacian(n));
        parts.weigh(2, SolveSeconds::assembly(n) + SolveSeconds::solver(n));
    }
    progressKick();
    parts.next();

    Copy(known, core);
    ErodeMap3x3(core);
    int count = 0;
    int result = 0;
    {
        const StageClock clock(Stage::Laplacian);
        result = build(core, &count);
    }
    if (result != 0) return result;
    progressKick();
    parts.next();

    alphaMain(width, height, count, known, core, mask);
    progressKick();
    parts.next();

    const StageClock clock(Stage::Output);
    outAlpha(alpha, width, height, known, core, mask);
    std::free(alpha);
    alpha = nullptr;
    return 0;
}

int CFMatt::CompAlpha(unsigned char* const* planes, int planeStep, int width, int height,
                      Plane8& mask) {
    return compAlphaInner(width, height, mask, [&](Plane8& core, int* count) {
        return compMatLap(core, planes, planeStep, count);
    });
}

int CFMatt::CompAlpha(GIMG<float>* const* planes, int width, int height, Plane8& mask) {
    return compAlphaInner(width, height, mask, [&](Plane8& core, int* count) {
        return compMatLap(core, planes, count);
    });
}

int CFMatt::CompAlpha(unsigned char* const* planes, int planeStep, int width, int height,
                      unsigned char* mask, int maskStep) {
    const double p = double(width) * height;
    ProgressParts parts({SolveSeconds::whole(expectedUnknowns > 0.0 ? expectedUnknowns : p, p) +
                             2 * SolveSeconds::pass(p),
                         sharpen > 0.2f ? SolveSeconds::sharpen(p) : 0.0});
    Plane8 work(width, height);
    Plane8 caller(width, height, mask, maskStep);
    Copy(caller, work);
    CompAlpha(planes, planeStep, width, height, work);
    progressKick();
    parts.next();
    const StageClock clock(Stage::Output);
    if (sharpen > 0.2f) SharpenAlpha(work);
    Copy(work, caller);
    return 0;
}

void CFMatt::SharpenAlpha(Plane8& m) {
    const int w = m.width, h = m.height;
    Plane8 smooth(w, h), low(w, h), high(w, h);

    // smooth: 5x5 Gaussian inside a frame of 2, the frame copied as it is.
    smooth.status = prim::filterGauss_8u_C1(m.ptr(2, 2), m.step, smooth.ptr(2, 2), smooth.step,
                                            {w - 4, h - 4}, 55);
    copyFrame(m, smooth, 2);
    // low / high: 3x3 minimum and maximum inside a frame of 1.
    low.status = prim::erode3x3_8u_C1(m.ptr(1, 1), m.step, low.ptr(1, 1), low.step, {w - 2, h - 2});
    high.status = prim::dilate3x3_8u_C1(m.ptr(1, 1), m.step, high.ptr(1, 1), high.step, {w - 2, h - 2});
    copyFrame(m, low, 1);
    copyFrame(m, high, 1);

    // Local range, then a per-pixel weight in units of 1/64: at least 1.0, more where flat.
    Sub(low, high);
    Set(static_cast<unsigned char>(255), low);
    Sub(high, low);
    int gain = static_cast<int>(64.0f * sharpen);
    if (gain > 255) gain = 255;
    low.status = prim::mulC_8u_C1IS(static_cast<uint8_t>(std::max(gain, 0)), low.data, low.step,
                                    low.size(), 8);
    low.status = prim::addC_8u_C1IS(64, low.data, low.step, low.size(), 0);

    // The two one-sided differences from the blur, each weighted, added back around it.
    high.status = prim::sub_8u_C1S(m.data, m.step, smooth.data, smooth.step, high.data,
                                   high.step, high.size(), 0);
    Mul(low, high, 6);
    Sub(smooth, m);
    Mul(low, m, 6);
    Add(m, smooth);
    Sub(high, smooth);
    Copy(smooth, m);
}

}  // namespace qx
