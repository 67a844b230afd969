// The kit's test of whether a fill's hole sits in mirror symmetric
// surroundings, which every fill without a caller's choice runs: a large
// hole in a large picture, the most rim and axes it compares.
#include <weftmap/host/mirrored_patches.hpp>

#include <benchmark/benchmark.h>

#include <cstdint>

namespace WM::bench {
namespace {

namespace host = WM::host;

void BM_MirrorSide(benchmark::State& state) {
    host::Size const size{1280, 960};
    host::Image image(host::PixelFormat{host::Depth::u8, host::Colour::rgb}, size);
    std::uint32_t seed = 3;
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x)
            for (int c = 0; c < 3; ++c) {
                seed = seed * 1664525u + 1013904223u;
                image.view().pixel(x, y)[c] = static_cast<unsigned char>(seed >> 24);
            }
    host::Image hole(host::mask_format, size);
    for (std::ptrdiff_t y = 200; y < 760; ++y)
        for (std::ptrdiff_t x = 400; x < 900; ++x) *hole.view().pixel(x, y) = 255;
    for (auto _ : state) {
        host::MirrorSide const side = host::mirror_side(image.view(), hole.view());
        if (side != host::MirrorSide::none) state.SkipWithError("noise found symmetric");
        benchmark::DoNotOptimize(side);
    }
}
BENCHMARK(BM_MirrorSide)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace WM::bench
