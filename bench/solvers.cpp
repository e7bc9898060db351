// The sparse solvers on matting-like systems: a side x side grid whose pixels are coupled within
// a 5 x 5 neighbourhood (the reach of 3 x 3 windows), a weighted graph Laplacian over it, and a
// constraint of weight 255 on two columns at each side (background left, foreground right).
//
//   bench_solvers --benchmark_filter=Ordering   fill-reducing orderings compared (MUMPS)
//   bench_solvers --benchmark_filter=Direct     direct solve at three sizes, both backends
//   bench_solvers --benchmark_filter=Large      1 MP: AMD against the nested dissections
//   bench_solvers --benchmark_filter=Cg         the two-stage Jacobi CG of the matting path
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "solver/cg_solver.h"
#include "solver/direct_solver.h"

namespace {

struct System {
    int n = 0;
    std::vector<int> ia, ja;
    std::vector<float> a;
    std::vector<float> b;
};

// A weight in [0.05, 1) that depends only on the pair of pixels.
float weight(uint32_t p, uint32_t q) {
    uint32_t h = p * 2654435761u ^ (q + 0x9e3779b9u + (p << 6) + (p >> 2));
    h ^= h >> 15;
    h *= 0x2c1b3c6du;
    h ^= h >> 12;
    return 0.05f + 0.95f * float(h & 0xffff) / 65536.0f;
}

System mattingLike(int side) {
    System s;
    s.n = side * side;
    std::vector<float> diag(size_t(s.n), 0.0f);
    // Off-diagonal couplings of the upper triangle, row by row in raster order.
    std::vector<std::vector<std::pair<int, float>>> rows(size_t(s.n));
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) {
            const int p = y * side + x;
            for (int dy = 0; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx) {
                    if (dy == 0 && dx <= 0) continue;
                    const int yy = y + dy, xx = x + dx;
                    if (yy >= side || xx < 0 || xx >= side) continue;
                    const int q = yy * side + xx;
                    const float w = weight(uint32_t(p), uint32_t(q));
                    rows[size_t(p)].push_back({q, -w});
                    diag[size_t(p)] += w;
                    diag[size_t(q)] += w;
                }
        }
    s.b.assign(size_t(s.n), 0.0f);
    s.ia.push_back(1);
    for (int p = 0; p < s.n; ++p) {
        const int x = p % side;
        const bool known = x < 2 || x >= side - 2;
        s.ja.push_back(p + 1);
        s.a.push_back(diag[size_t(p)] + (known ? 255.0f : 0.0f));
        if (known && x >= side - 2) s.b[size_t(p)] = 255.0f;
        for (const auto& [q, v] : rows[size_t(p)]) {
            s.ja.push_back(q + 1);
            s.a.push_back(v);
        }
        s.ia.push_back(int(s.ja.size()) + 1);
    }
    return s;
}

const System& cached(int side) {
    static std::vector<std::pair<int, System>> cache;
    for (const auto& [k, s] : cache)
        if (k == side) return s;
    cache.emplace_back(side, mattingLike(side));
    return cache.back().second;
}

using qx::detail::Backend;
using qx::detail::DirectSolveOptions;
using qx::detail::Ordering;

// Solver phases in seconds, the factor's size and speed, the solver's peak memory.
void runDirect(benchmark::State& state, const DirectSolveOptions& o) {
    const System& s = cached(int(state.range(0)));
    qx::detail::DirectSolveStats stats;
    std::vector<float> b;
    double analyse = 0, factor = 0, solve = 0;
    for (auto _ : state) {
        b = s.b;
        qx::detail::directSolve(o, s.n, s.a.data(), s.ia.data(), s.ja.data(), b.data(), nullptr, 1,
                                -2, &stats);
        benchmark::DoNotOptimize(b.data());
        analyse += stats.analysisSeconds, factor += stats.factorSeconds;
        solve += stats.solveSeconds;
    }
    const double runs = double(state.iterations());
    state.counters["n"] = s.n;
    state.counters["factorMEntries"] = stats.factorEntries / 1e6;
    state.counters["GFlop"] = stats.factorFlops / 1e9;
    state.counters["GFlop/s"] = stats.factorFlops / 1e9 / (factor / runs);
    state.counters["peakMB"] = double(stats.peakBytes) / 1e6;
    state.counters["analyse_s"] = analyse / runs;
    state.counters["factor_s"] = factor / runs;
    state.counters["solve_s"] = solve / runs;
    state.counters["refine"] = stats.refinementSteps;
    state.counters["fellBack"] = stats.fellBack;
}

const char* orderingName(int o) {
    static const char* names[] = {"AMD", "METIS", "NESDIS", "SCOTCH", "PORD", "AMF"};
    return names[o];
}

void BM_Ordering(benchmark::State& state) {
    DirectSolveOptions o;
    o.ordering = static_cast<Ordering>(state.range(1));
    runDirect(state, o);
    state.SetLabel(orderingName(int(state.range(1))));
}
BENCHMARK(BM_Ordering)
    ->ArgsProduct({{316, 548}, {0, 3, 4, 5}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

// MUMPS in single precision against CHOLMOD in double, both with the BLAS on one thread.
void BM_Direct(benchmark::State& state) {
    DirectSolveOptions o;
    o.backend = state.range(1) == 0 ? Backend::Mumps : Backend::Cholmod;
    runDirect(state, o);
    state.SetLabel(state.range(1) == 0 ? "MUMPS" : "CHOLMOD");
}
BENCHMARK(BM_Direct)
    ->ArgsProduct({{224, 316, 448}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

// The BLAS with its own worker threads (which spin between calls), and OpenMP's idle workers left
// spinning, against the calling thread alone.
void BM_DirectBlasThreads(benchmark::State& state) {
    DirectSolveOptions o;
    o.quietThreads = state.range(1) == 0;
    runDirect(state, o);
    state.SetLabel(state.range(1) == 0 ? "one thread" : "BLAS threads");
}
BENCHMARK(BM_DirectBlasThreads)
    ->ArgsProduct({{316, 448}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

// A million unknowns, towards the size of keep-cut tiles and reduced 12-24 MP runs: does a nested
// dissection pay here?
void BM_Large(benchmark::State& state) {
    DirectSolveOptions o;
    o.ordering = static_cast<Ordering>(state.range(1));
    runDirect(state, o);
    state.SetLabel(orderingName(int(state.range(1))));
}
BENCHMARK(BM_Large)
    ->ArgsProduct({{1000}, {0, 3, 4, 5}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

// The iterative path of the matting code: Jacobi CG to 1e-3, then on to 1e-5, at most
// min(n, 500) iterations each.
void BM_CgJacobi(benchmark::State& state) {
    const System& s = cached(int(state.range(0)));
    std::vector<double> a(s.a.begin(), s.a.end()), b(s.b.begin(), s.b.end());
    std::vector<double> x(size_t(s.n)), tmp(4 * size_t(s.n));
    int iterations = 0;
    for (auto _ : state) {
        for (int i = 0; i < s.n; ++i) x[size_t(i)] = b[size_t(i)] / 255.0;
        const int limit = s.n < 500 ? s.n : 500;
        iterations = qx::cgSolver_jacobi(s.n, a.data(), s.ia.data(), s.ja.data(), b.data(),
                                         x.data(), tmp.data(), limit, 1e-3);
        iterations += qx::cgSolver_jacobi(s.n, a.data(), s.ia.data(), s.ja.data(), b.data(),
                                          x.data(), tmp.data(), limit, 1e-5);
        benchmark::DoNotOptimize(x.data());
    }
    state.counters["n"] = s.n;
    state.counters["iterations"] = iterations;
}
BENCHMARK(BM_CgJacobi)->Arg(224)->Arg(316)->Arg(448)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
