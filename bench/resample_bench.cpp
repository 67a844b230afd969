// Halving a 4096x4096 image with the bilinear filter.
#include "bench_client.hpp"

#include <weftmap/image/resample.hpp>

#include <benchmark/benchmark.h>

namespace WM::bench {
namespace {

template <class Pixel>
void BM_ResampleHalve4096(benchmark::State& state) {
    auto const source = synthetic_image<Pixel>(4096, 4096, 1);
    RecycledImage<Pixel> half;
    for (auto _ : state) {
        resample(const_view(source), half, 2048, 2048, ResampleBilinear, -1);
        benchmark::DoNotOptimize(half.memory());
    }
    state.SetItemsProcessed(state.iterations() * 2048 * 2048);
}

BENCHMARK_TEMPLATE(BM_ResampleHalve4096, rgb8_pixel_t)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_TEMPLATE(BM_ResampleHalve4096, rgb16_pixel_t)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_TEMPLATE(BM_ResampleHalve4096, rgb32f_pixel_t)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace WM::bench
