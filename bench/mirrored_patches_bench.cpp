// The kit's tests of a fill's hole and its surroundings, which every fill
// without a caller's choice runs: whether they are mirror symmetric, whether
// they are layered in rows, and how deep a hole at the picture's side is.
// A large hole in a large picture, the most rim and axes they compare.
#include "kit_pictures.hpp"

#include <weftmap/host/mirrored_patches.hpp>
#include <weftmap/host/row_bands.hpp>
#include <weftmap/host/search_window.hpp>

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

// A hole the picture's right side cuts: two distance maps of the picture.
void BM_SideSearchWindow(benchmark::State& state) {
    host::Image hole(host::mask_format, size);
    for (std::ptrdiff_t y = 200; y < 760; ++y)
        for (std::ptrdiff_t x = 1000; x < size.width; ++x) *hole.view().pixel(x, y) = 255;
    for (auto _ : state) {
        int const window = host::side_hole_search_window(hole.view());
        if (window != 1120) state.SkipWithError("the side hole got another window");
        benchmark::DoNotOptimize(window);
    }
}
BENCHMARK(BM_SideSearchWindow)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace WM::bench
