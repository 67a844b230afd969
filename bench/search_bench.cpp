// One pass of the field search on a 1024x1024 RGB8 pair, from a random field.
#include "bench_client.hpp"

#include <weftmap/correspondence/weftmap.hpp>

#include <benchmark/benchmark.h>
#include <tbb/global_control.h>

namespace WM::bench {
namespace {

using Pixel = rgb8_pixel_t;

// Arguments: threads (also the band count), vector kernels (1) or scalar (0).
void BM_SearchPass1024(benchmark::State& state) {
    int const threads = static_cast<int>(state.range(0));
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
    auto const saved_bands = client().threadCount;
    auto const saved_kernels = client().useVectorKernels;
    client().threadCount = threads;
    client().useVectorKernels = static_cast<unsigned char>(state.range(1));

    auto const target = synthetic_image<Pixel>(1024, 1024, 1);
    auto const source = synthetic_image<Pixel>(1024, 1024, 2);
    NullProgress<Pixel> progress;
    Weftmap<TranslatePatchCompare<Pixel>> engine(&progress);
    engine.nn_iters = 1;
    RecycledImage<offset_pixel_t> nnf;
    RecycledImage<int_gray_pixel_t> dist;
    for (auto _ : state) {
        state.PauseTiming();
        engine.init_nnf(target.dimensions(), source.dimensions(), nnf, nullptr, nullptr, nullptr);
        engine.init_dist(const_view(target), const_view(source), view(nnf), dist, nullptr, nullptr,
                         nullptr);
        state.ResumeTiming();
        engine.search(const_view(target), const_view(source), view(nnf), view(dist), nullptr,
                      nullptr, nullptr, 0, 0, 0, nullptr);
    }
    double const pixels = 1018.0 * 1018.0;
    state.counters["ns_per_pixel"] =
        benchmark::Counter(pixels * double(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    client().threadCount = saved_bands;
    client().useVectorKernels = saved_kernels;
}
BENCHMARK(BM_SearchPass1024)
    ->ArgNames({"threads", "vector"})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({2, 0})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace WM::bench
