// Voting a 1024x1024 RGB8 image from a field: the low-memory single-field
// vote and the two-field vote.
#include "bench_client.hpp"

#include <weftmap/correspondence/weftmap.hpp>

#include <benchmark/benchmark.h>

#include <random>

namespace WM::bench {
namespace {

using Pixel = rgb8_pixel_t;

RecycledImage<offset_pixel_t> random_field(Point const& size, Point const& source, unsigned seed) {
    RecycledImage<offset_pixel_t> field(size);
    std::mt19937 rng(seed);
    for (auto& p : view(field))
        p = offset_pixel_t(static_cast<unsigned short>(rng() % (source.x - 6)),
                           static_cast<unsigned short>(rng() % (source.y - 6)));
    return field;
}

// Argument: 0 for the target field alone, 1 for both fields.
void BM_Vote1024(benchmark::State& state) {
    bool const both = state.range(0) != 0;
    Point const size(1024, 1024);
    auto const source = synthetic_image<Pixel>(size.x, size.y, 3);
    auto const nnf = random_field(size, size, 4);
    auto const bnn = random_field(size, size, 5);
    NullProgress<Pixel> progress;
    Weftmap<TranslatePatchCompare<Pixel>> engine(&progress);
    RecycledImage<Pixel> out(size);
    OffsetView const nnf_view = view(const_cast<RecycledImage<offset_pixel_t>&>(nnf));
    OffsetView const bnn_view = view(const_cast<RecycledImage<offset_pixel_t>&>(bnn));
    for (auto _ : state) {
        engine.vote(const_view(source), nnf_view, view(out), both ? &bnn_view : nullptr, nullptr,
                    nullptr, 0.5, 0.5, nullptr, nullptr, nullptr, nullptr, nullptr, false);
        benchmark::DoNotOptimize(out.memory());
    }
    state.counters["ns_per_pixel"] =
        benchmark::Counter(double(size.x * size.y) * double(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Vote1024)
    ->ArgName("both_fields")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace WM::bench
