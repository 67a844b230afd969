// Whole runs: a hole fill and a retarget of a photograph.
#include "bench_client.hpp"

#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <weftmap/host/image.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/synthesis.hpp>

#include <benchmark/benchmark.h>

#include <boost/gil/algorithm.hpp>

#include <chrono>
#include <ctime>

namespace WM::bench {
namespace {

using Pixel = rgb8_pixel_t;
using Recomposer = WeftmapRecomposer<TranslatePatchCompare<Pixel>>;

// An irregular hole of about 10% of the picture: overlapping discs along a
// random walk, as a brushed object mask looks.
RecycledImage<gray8_pixel_t> irregular_hole(Point const& size, unsigned seed) {
    RecycledImage<gray8_pixel_t> hole(size);
    boost::gil::fill_pixels(view(hole), gray8_pixel_t(0));
    std::mt19937 rng(seed);
    double const target = 0.10 * double(size.x * size.y);
    double const r = 0.04 * double(std::min(size.x, size.y));
    double cx = size.x * 0.5, cy = size.y * 0.5;
    std::uniform_real_distribution<double> turn(-0.8, 0.8);
    double heading = 0.0;
    long covered = 0;
    while (covered < target) {
        heading += turn(rng);
        cx = std::clamp(cx + r * 0.6 * std::cos(heading), r, size.x - r);
        cy = std::clamp(cy + r * 0.6 * std::sin(heading), r, size.y - r);
        for (std::ptrdiff_t y = std::max<std::ptrdiff_t>(0, std::ptrdiff_t(cy - r));
             y <= std::min<std::ptrdiff_t>(size.y - 1, std::ptrdiff_t(cy + r)); ++y)
            for (std::ptrdiff_t x = std::max<std::ptrdiff_t>(0, std::ptrdiff_t(cx - r));
                 x <= std::min<std::ptrdiff_t>(size.x - 1, std::ptrdiff_t(cx + r)); ++x) {
                auto& m = view(hole)(x, y);
                if (m[0] == 0 && (x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r) {
                    m[0] = 255;
                    ++covered;
                }
            }
    }
    return hole;
}

// CPU seconds of the whole process, every thread.
double process_cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// The embedded photograph scaled to `size`.
RecycledImage<Pixel> photograph(Point const& size) {
    auto const file = host::read_image_file(WEFTMAP_BENCH_PHOTO);
    auto const rgb = host::converted(file.image.view(), {host::Depth::u8, host::Colour::rgb});
    RecycledImage<Pixel> original(Point(rgb.width(), rgb.height()));
    gil::copy_pixels(gil::interleaved_view(rgb.width(), rgb.height(),
                                           reinterpret_cast<Pixel const*>(rgb.view().data),
                                           rgb.view().row_stride),
                     view(original));
    RecycledImage<Pixel> scaled;
    resample<Pixel>(const_view(original), scaled, size, ResampleBilinear, -1);
    return scaled;
}

// Times `run(recomposer, source, hole, output)` on fresh copies of `picture`
// and `hole` (runs change both in place) and reports the library memory the
// run held at its peak, the CPU seconds of all threads and the cores kept
// busy (CPU time over wall time).
template <class Run>
void time_runs(benchmark::State& state, RecycledImage<Pixel> const& picture,
               RecycledImage<gray8_pixel_t> const& hole, RecomposerMode mode, Run const& run) {
    double cpu = 0.0, walls = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        auto source = picture;
        auto mask = hole;
        auto const held = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
        client().allocator.peak = held;
        state.ResumeTiming();
        double const cpu0 = process_cpu_seconds();
        auto const wall0 = std::chrono::steady_clock::now();
        NullProgress<Pixel> progress;
        Recomposer recomposer(&progress, mode);
        RecycledImage<Pixel> output;
        run(recomposer, view(source), view(mask), output);
        benchmark::DoNotOptimize(output.memory());
        double const wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
        cpu += process_cpu_seconds() - cpu0;
        walls += wall;
        state.counters["library_MB"] = double(client().allocator.peak - held) / (1 << 20);
    }
    state.counters["cpu_s"] = cpu / double(state.iterations());
    state.counters["cores"] = walls > 0.0 ? cpu / walls : 0.0;
}

void BM_HoleFill(benchmark::State& state) {
    Point const size(state.range(0), state.range(0));
    time_runs(state, photograph(size), irregular_hole(size, 11), RecomposerModeHoleFill,
              [](Recomposer& r, View<Pixel> const& source, GrayView const& mask,
                 RecycledImage<Pixel>& output) {
                  std::vector<Constraint> constraints;
                  r.recompose(source, constraints, output, &mask, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr);
              });
}
BENCHMARK(BM_HoleFill)->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Retarget70(benchmark::State& state) {
    Point const size(state.range(0), state.range(0));
    time_runs(state, photograph(size), RecycledImage<gray8_pixel_t>(), RecomposerModeTapestry,
              [&](Recomposer& r, View<Pixel> const& source, GrayView const&,
                  RecycledImage<Pixel>& output) {
                  std::vector<Constraint> constraints;
                  r.retarget(source, constraints, output, Point(size.x * 7 / 10, size.y), 0.98,
                             nullptr, nullptr, nullptr, nullptr);
              });
}
BENCHMARK(BM_Retarget70)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same retarget as a host asks the kit for it, with the kit's policies.
void BM_KitRetarget70(benchmark::State& state) {
    Point const size(state.range(0), state.range(0));
    auto const picture = photograph(size);
    host::ConstImageView const image(reinterpret_cast<unsigned char const*>(picture.memory()),
                                     {host::Depth::u8, host::Colour::rgb}, size.x, size.y);
    double cpu = 0.0;
    for (auto _ : state) {
        double const cpu0 = process_cpu_seconds();
        auto const output = host::retarget(image, {size.x * 7 / 10, size.y});
        benchmark::DoNotOptimize(output.view().data);
        cpu += process_cpu_seconds() - cpu0;
    }
    state.counters["cpu_s"] = cpu / double(state.iterations());
}
BENCHMARK(BM_KitRetarget70)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace WM::bench
