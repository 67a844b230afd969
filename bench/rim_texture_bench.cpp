// The kit's rebuilding of a smooth fill from blocks of the texture around
// it: the cost when it acts (an 80-pixel hole in grain), and the cost of its
// measures alone on a fill it leaves as it is (a thin hole across a large
// picture, the widest window the measures take).
#include "kit_pictures.hpp"

#include <weftmap/host/rim_texture.hpp>

#include <benchmark/benchmark.h>

#include <cstring>

namespace WM::bench {
namespace {

namespace host = WM::host;

host::Image grain(host::Size size) {
    return noise_rgb8(size, 5, 90, 61);
}

void BM_TextureLikeRimRebuild(benchmark::State& state) {
    host::Size const size{640, 480};
    host::Image const image = grain(size);
    host::Image hole(host::mask_format, size);
    host::Image smooth = host::Image::copy_of(image.view());
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x)
            if ((x - 320) * (x - 320) + (y - 240) * (y - 240) <= 40 * 40) {
                *hole.view().pixel(x, y) = 255;
                std::memset(smooth.view().pixel(x, y), 120, 3);
            }
    for (auto _ : state) {
        host::Image result = host::texture_like_rim(image.view(), hole.view(), smooth.view());
        if (result.empty()) state.SkipWithError("the hole was not rebuilt");
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_TextureLikeRimRebuild)->Unit(benchmark::kMillisecond);

void BM_TextureLikeRimMeasuresOnly(benchmark::State& state) {
    host::Size const size{1280, 960};
    host::Image const image = grain(size);
    host::Image hole(host::mask_format, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = y * 4 / 3; x < y * 4 / 3 + 4 && x < size.width; ++x)
            *hole.view().pixel(x, y) = 255;
    for (auto _ : state) {
        // The fill keeps the grain: the measures run and the fill stays.
        host::Image result = host::texture_like_rim(image.view(), hole.view(), image.view());
        if (!result.empty()) state.SkipWithError("the fill was rebuilt");
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_TextureLikeRimMeasuresOnly)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace WM::bench
