// The flows' neighbour searches on one benchmark photo at full size (GT04 and its tri-map, 178,728
// undecided pixels; a synthetic scene of the same size when the photos are absent): the k-d
// trees' builds, and each term's searches as its stage runs them.
//
//   bench_flows_search --benchmark_filter=Build     the trees over the background / undecided pixels
//   bench_flows_search --benchmark_filter=Stage     known-to-unknown (7 a side from 64 points,
//                                                   and 4 from 32), intra-unknown (Rows/0),
//                                                   mixture (Rows/1), local Laplacian (Rows/2)
//
// Each stage labels its result with a checksum of what it found ("sum"): two builds that find the same
// neighbours give the same sum, so a change meant to be only faster can be checked here.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "flow_photo.h"
#include "flows/colour_mixture.h"
#include "flows/feature_space.h"
#include "flows/known_unknown.h"
#include "flows/local_laplacian.h"
#include "flows/unknown_unknown.h"

namespace {

using namespace qx::flows;
using namespace flow_bench;

// Arg 0: the tree over the background pixels (as the known-to-unknown estimate builds it),
// 1: over the undecided ones (the intra-unknown links', the mixture's is the same and more).
void BM_Build(benchmark::State& state) {
    const Photo& p = photo();
    const std::vector<int>& pixels = state.range(0) == 0 ? p.sets.background : p.sets.unknown;
    const std::vector<float> pts = pixelFeatures(p.image, pixels, 1.0f);
    for (auto _ : state) {
        KdTree tree;
        tree.build(pts.data(), int(pixels.size()), pixels);
        benchmark::DoNotOptimize(tree.size());
    }
    state.counters["points"] = double(pixels.size());
}
BENCHMARK(BM_Build)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_StageKnownUnknown(benchmark::State& state) {
    const Photo& p = photo();
    KnownUnknownOptions o;
    if (state.range(0) > 0) {
        o.neighbours = int(state.range(0));
        o.maxChecks = int(state.range(1));
    }
    double sum = 0;
    for (auto _ : state) {
        const KnownUnknownEstimate e = knownUnknownFlow(p.image, p.sets, o);
        sum = 0;
        for (size_t i = 0; i < e.alpha.size(); ++i) sum += e.alpha[i] * double(i % 97 + 1);
    }
    report(state, sum);
}
BENCHMARK(BM_StageKnownUnknown)->Args({0, 0})->Args({4, 32})->Unit(benchmark::kMillisecond)
    ->UseRealTime();

double rowsSum(const WeightRows& w) {
    double sum = 0;
    for (size_t e = 0; e < w.cols.size(); ++e) sum += double(w.cols[e] % 101) * w.weights[e];
    return sum;
}

// Arg 0: the intra-unknown links, 1: the colour mixture's rows, 2: the local Laplacian's rows
// (no search; for scale).
void BM_StageRows(benchmark::State& state) {
    const Photo& p = photo();
    double sum = 0;
    for (auto _ : state)
        sum = rowsSum(state.range(0) == 0   ? unknownUnknownWeights(p.image, p.sets, {})
                      : state.range(0) == 1 ? colourMixtureWeights(p.image, p.sets, {})
                                            : localLaplacianRows(p.image, p.sets, 1e-8));
    report(state, sum);
}
BENCHMARK(BM_StageRows)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
