#include "flows/flow_solve.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <vector>

#include "flows/flow_pcg.h"
#include "flows/local_laplacian.h"
#include "runtime/progress.h"

namespace qx::flows {
namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}


}  // namespace

void flowAlpha(const FlowImage& image, const FlowOptions& options, unsigned char* alpha,
               int alphaStep, FlowStats* stats) {
    FlowStats local;
    FlowStats& st = stats ? *stats : local;
    st = FlowStats{};
    const PixelSets sets = classifyPixels(image);
    const int n = static_cast<int>(sets.unknown.size());
    st.unknowns = n;
    const FlowWeights& w = options.weights;

    WeightRows mixture, intra, laplacian;
    KnownUnknownEstimate estimate;
    auto t = Clock::now();
    // The pieces, each a stage of the caller's progress span weighed by its share of the time on
    // the benchmark photos (the searches report their slices, the iterations their residual;
    // the system and its coarse level are stages of their own so that the bar moves between
    // the searches and the first iterations).
    ProgressParts parts({0.2, 0.15, 0.1, 0.05, 0.05, 0.05, 0.4});
    ColourMixtureOptions mixtureOptions = options.mixture;
    KnownUnknownOptions knownOptions = options.known;
    UnknownUnknownOptions intraOptions = options.intra;
    mixtureOptions.poll = knownOptions.poll = intraOptions.poll = options.poll;
    if (n > 0 && w.colourMixture != 0.0) mixture = colourMixtureWeights(image, sets, mixtureOptions);
    st.seconds[0] = since(t);
    options.poll();
    parts.next();
    t = Clock::now();
    if (n > 0 && (w.knownUnknown != 0.0 || options.startFromEstimate))
        estimate = knownUnknownFlow(image, sets, knownOptions);
    for (float c : estimate.confidence) st.meanConfidence += c / n;
    st.seconds[1] = since(t);
    options.poll();
    parts.next();
    t = Clock::now();
    if (n > 0 && w.unknownUnknown != 0.0) intra = unknownUnknownWeights(image, sets, intraOptions);
    st.seconds[2] = since(t);
    options.poll();
    parts.next();
    t = Clock::now();
    if (n > 0 && w.local != 0.0) laplacian = localLaplacianRows(image, sets, options.localEpsilon);
    st.seconds[3] = since(t);
    options.poll();
    parts.next();

    t = Clock::now();
    std::vector<double> x(size_t(n), 0.5);
    if (n > 0) {
        FlowTerms terms;
        terms.mixture = &mixture;
        terms.local = &laplacian;
        terms.unknownUnknown = &intra;
        terms.knownUnknown = &estimate;
        const FlowSystem system = assembleFlowSystem(sets, terms, w);
        if (options.startFromEstimate && estimate.alpha.size() == size_t(n))
            for (int i = 0; i < n; ++i) x[size_t(i)] = estimate.alpha[size_t(i)];
        options.poll();
        parts.next();
        const auto tc = Clock::now();
        const std::unique_ptr<CoarseLevel> coarse =
            CoarseLevel::build(system, sets.unknown.data(), image.width, options.coarse);
        st.coarseSeconds = since(tc);
        if (coarse) {
            st.coarseUnknowns = coarse->unknowns();
            st.coarseFactorEntries = coarse->factorEntries();
        }
        options.poll();
        parts.next();
        const PcgResult r = solveFlowPcg(system, x.data(), options.tolerance,
                                         options.maxIterations, options.poll, coarse.get());
        st.iterations = r.iterations;
        st.relativeResidual = r.relativeResidual;
    }
    st.seconds[4] = since(t);

    for (int y = 0; y < image.height; ++y) {
        unsigned char* out = alpha + static_cast<int64_t>(y) * alphaStep;
        for (int xx = 0; xx < image.width; ++xx) {
            const int p = y * image.width + xx;
            const PixelKind k = sets.kind[size_t(p)];
            if (k != PixelKind::Unknown) {
                out[xx] = k == PixelKind::Foreground ? 255 : 0;
                continue;
            }
            const double a = std::clamp(x[size_t(sets.unknownIndex[size_t(p)])], 0.0, 1.0);
            int v = static_cast<int>(std::lround(a * 255.0));
            if (options.hardValueRule) v = std::clamp(v, 1, 254);
            out[xx] = static_cast<unsigned char>(v);
        }
    }
}

}  // namespace qx::flows
