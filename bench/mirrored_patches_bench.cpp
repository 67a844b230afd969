// The kit's tests of a fill's hole surroundings, which every fill without a
// caller's choice runs: whether they are mirror symmetric, and whether they
// are layered in rows. A large hole in a large picture, the most rim and
// axes they compare.
#include "kit_pictures.hpp"

#include <weftmap/host/mirrored_patches.hpp>
#include <weftmap/host/row_bands.hpp>

#include <benchmark/benchmark.h>

namespace WM::bench {
namespace {

namespace host = WM::host;

host::Size const size{1280, 960};

host::Image noise() {
    return noise_rgb8(size, 3);
}

host::Image large_hole() {
    host::Image hole(host::mask_format, size);
    for (std::ptrdiff_t y = 200; y < 760; ++y)
        for (std::ptrdiff_t x = 400; x < 900; ++x) *hole.view().pixel(x, y) = 255;
    return hole;
}

void BM_MirrorSide(benchmark::State& state) {
    host::Image const image = noise(), hole = large_hole();
    for (auto _ : state) {
        host::MirrorSide const side = host::mirror_side(image.view(), hole.view());
        if (side != host::MirrorSide::none) state.SkipWithError("noise found symmetric");
        benchmark::DoNotOptimize(side);
    }
}
BENCHMARK(BM_MirrorSide)->Unit(benchmark::kMillisecond);

void BM_RowBands(benchmark::State& state) {
    host::Image const image = noise(), hole = large_hole();
    for (auto _ : state) {
        host::Image const labels = host::row_bands(image.view(), hole.view(), nullptr);
        if (!labels.empty()) state.SkipWithError("noise found layered");
        benchmark::DoNotOptimize(labels.empty());
    }
}
BENCHMARK(BM_RowBands)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace WM::bench
