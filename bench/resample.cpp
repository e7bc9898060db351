// Guided doubling and the cross bilateral filter on a 3-megapixel image (2000 x 1500), the
// sizes a reduced mask job brings back to full resolution.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "image/img.h"
#include "resample/cblf.h"
#include "resample/mask_pyr.h"
#include "resample/upsample2x.h"

namespace {

constexpr int kW = 2000;
constexpr int kH = 1500;

// Smooth colour with some texture, so that the weights vary as in a photograph.
void fillColour(qx::GIMG<unsigned char>& img, int channel, std::mt19937& rng) {
    std::uniform_int_distribution<int> noise(-6, 6);
    for (int y = 0; y < img.height; ++y) {
        unsigned char* r = img.row(y);
        for (int x = 0; x < img.width; ++x) {
            const int v = ((x / 97 + y / 61 + channel) % 4) * 60 + (x * (channel + 1)) % 23 + noise(rng);
            r[x] = static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v);
        }
    }
}

struct Scene {
    qx::GIMG<unsigned char> c0{kW, kH}, c1{kW, kH}, c2{kW, kH};
    qx::GIMG<unsigned char> alpha{kW, kH}, smallAlpha{kW / 2, kH / 2};
    Scene() {
        std::mt19937 rng(17);
        fillColour(c0, 0, rng);
        fillColour(c1, 1, rng);
        fillColour(c2, 2, rng);
        for (int y = 0; y < smallAlpha.height; ++y)
            for (int x = 0; x < smallAlpha.width; ++x)
                *smallAlpha.ptr(x, y) = static_cast<unsigned char>(x * 255 / smallAlpha.width);
        qx::Copy(c0, alpha);
    }
};

void BM_UpSampleQX2X(benchmark::State& state) {
    Scene s;
    qx::GIMG<unsigned char>* small[1] = {&s.smallAlpha};
    qx::GIMG<unsigned char>* big[1] = {&s.alpha};
    qx::GIMG<unsigned char>* guide[3] = {&s.c0, &s.c1, &s.c2};
    for (auto _ : state) {
        benchmark::DoNotOptimize(qx::CUpSampleQX2X(small, big, 1, guide, 3, 10.0f));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kW) * kH);
}
BENCHMARK(BM_UpSampleQX2X)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CBLFRGB(benchmark::State& state) {
    Scene s;
    const int radius = static_cast<int>(state.range(0));
    unsigned char* planes[1] = {s.alpha.data};
    unsigned char* refs[3] = {s.c0.data, s.c1.data, s.c2.data};
    for (auto _ : state) {
        benchmark::DoNotOptimize(qx::CBLFRGB(kW, kH, planes, s.alpha.step, 1, refs, s.c0.step, 3,
                                             radius, 10.0f, 0.825f, 1e-6f));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kW) * kH);
}
BENCHMARK(BM_CBLFRGB)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DnsampleQX2X(benchmark::State& state) {
    Scene s;
    qx::GIMG<unsigned char> half(kW / 2, kH / 2);
    const int filter = static_cast<int>(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(qx::CDnsampleQX2X(s.c0, half, filter));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(kW) * kH);
}
BENCHMARK(BM_DnsampleQX2X)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MaskPyrBuildAndUp(benchmark::State& state) {
    Scene s;
    qx::GIMG<unsigned char> known(kW, kH);
    qx::Set(static_cast<unsigned char>(255), known);
    qx::GIMG<unsigned char>* planes[3] = {&s.c0, &s.c1, &s.c2};
    for (auto _ : state) {
        qx::CMaskPyr pyr;
        pyr.build(planes, &known, &s.alpha, 3);
        pyr.upSampling();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MaskPyrBuildAndUp)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
