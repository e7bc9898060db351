// The flows' system over one benchmark photo's undecided pixels (bench/flow_photo.h): its
// assembly, its product, its coarse level and its conjugate gradients, each timed on the terms
// the tri-map workflow's full-size second solve gives it (no colour mixture; the
// known-to-unknown estimate from 4 neighbours a side) or, with Arg 1, every term.
//
//   bench_flows_solve --benchmark_filter=Assemble   the terms into the system
//   bench_flows_solve --benchmark_filter=Product    y = A x, once
//   bench_flows_solve --benchmark_filter=Coarse     the coarse level's matrix and factor
//   bench_flows_solve --benchmark_filter=Solve      the conjugate gradients to the workflow's
//                                                   tolerance, from 0.5, with the coarse level
//
// The product and the solve label their result with a checksum ("sum") and the solve with its
// iterations: a change meant to be only faster gives the same sum, or one that differs in its
// last digits where the sums are added in another order.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "flow_photo.h"
#include "flows/coarse_level.h"
#include "flows/colour_mixture.h"
#include "flows/flow_pcg.h"
#include "flows/flow_solve.h"
#include "flows/flow_system.h"
#include "flows/known_unknown.h"
#include "flows/local_laplacian.h"
#include "flows/unknown_unknown.h"

namespace {

using namespace qx::flows;
using namespace flow_bench;

// The terms as flowAlpha makes them, once for each shape.
struct Terms {
    WeightRows mixture, intra, laplacian;
    KnownUnknownEstimate estimate;
    FlowOptions options;
    FlowTerms view() const {
        FlowTerms t;
        t.mixture = &mixture;
        t.local = &laplacian;
        t.unknownUnknown = &intra;
        t.knownUnknown = &estimate;
        return t;
    }
};

const Terms& terms(bool everyTerm) {
    static std::unique_ptr<Terms> made[2];
    std::unique_ptr<Terms>& t = made[everyTerm ? 1 : 0];
    if (!t) {
        const Photo& p = photo();
        t = std::make_unique<Terms>();
        t->options.tolerance = 1e-3;
        if (everyTerm) {
            t->mixture = colourMixtureWeights(p.image, p.sets, t->options.mixture);
        } else {
            t->options.weights.colourMixture = 0.0;
            t->options.known.neighbours = 4;
            t->options.known.maxChecks = 32;
        }
        t->estimate = knownUnknownFlow(p.image, p.sets, t->options.known);
        t->intra = unknownUnknownWeights(p.image, p.sets, t->options.intra);
        t->laplacian = localLaplacianRows(p.image, p.sets, t->options.localEpsilon);
    }
    return *t;
}

FlowSystem system(const Terms& t) {
    return assembleFlowSystem(photo().sets, t.view(), t.options.weights);
}

void BM_Assemble(benchmark::State& state) {
    const Terms& t = terms(state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(system(t).n);
}
BENCHMARK(BM_Assemble)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Product(benchmark::State& state) {
    const FlowSystem s = system(terms(state.range(0) != 0));
    std::vector<double> x(size_t(s.n)), y(size_t(s.n)), scratch, partial;
    for (int i = 0; i < s.n; ++i) x[size_t(i)] = double(i % 89) / 89.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.apply(x.data(), y.data(), scratch, partial));
    }
    double sum = 0;
    for (double v : y) sum += v;
    report(state, sum);
}
BENCHMARK(BM_Product)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Coarse(benchmark::State& state) {
    const Terms& t = terms(state.range(0) != 0);
    const FlowSystem s = system(t);
    for (auto _ : state) {
        const auto level =
            CoarseLevel::build(s, photo().sets.unknown.data(), photo().image.width, t.options.coarse);
        benchmark::DoNotOptimize(level.get());
    }
}
BENCHMARK(BM_Coarse)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Solve(benchmark::State& state) {
    const Terms& t = terms(state.range(0) != 0);
    const FlowSystem s = system(t);
    const auto level =
        CoarseLevel::build(s, photo().sets.unknown.data(), photo().image.width, t.options.coarse);
    std::vector<double> x;
    PcgResult r;
    for (auto _ : state) {
        x.assign(size_t(s.n), 0.5);
        r = solveFlowPcg(s, x.data(), t.options.tolerance, t.options.maxIterations, {}, level.get());
    }
    double sum = 0;
    for (int i = 0; i < s.n; ++i) sum += x[size_t(i)] * double(i % 97 + 1);
    report(state, sum);
    state.counters["iterations"] = r.iterations;
}
BENCHMARK(BM_Solve)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
