// Tapestries made by the weftmap host, as a user runs it: the wall time and
// the peak resident size of the whole process, for 60 and 240 frames of a
// pan, one level or three with ten in-betweens. The peak must not grow with
// the frame count. Slow, so it runs only when asked for by name:
//   weftmap_bench --benchmark_filter=Tapestry
// The frames (384x288, a horizontal pan over the sample photograph, two
// pixels a frame) are made in a temporary folder once per frame count.
#include <weftmap/host/image_file.hpp>
#include <weftmap/image/resample.hpp>

#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#ifdef WEFTMAP_BENCH_TOOL

extern char** environ;

namespace WM::bench {
namespace {

namespace host = WM::host;
namespace fs = std::filesystem;

constexpr std::ptrdiff_t frame_width = 384, frame_height = 288, pan_step = 2;

// The photograph scaled to cover the pan, cut into `count` frames.
std::string pan_frames(std::ptrdiff_t count) {
    static std::map<std::ptrdiff_t, std::string> made;
    if (made.count(count)) return made[count];
    std::string const folder =
        (fs::temp_directory_path() /
         ("weftmap-bench-pan-" + std::to_string(::getpid()) + "-" + std::to_string(count)))
            .string();
    fs::create_directories(folder);
    host::PixelFormat const rgb8{host::Depth::u8, host::Colour::rgb};
    auto const photo =
        host::converted(host::read_image_file(WEFTMAP_BENCH_PHOTO).image.view(), rgb8);
    double const scale =
        std::max(double(frame_height) / double(photo.height()),
                 double(frame_width + (count - 1) * pan_step) / double(photo.width()));
    RecycledImage<rgb8_pixel_t> scaled;
    resample<rgb8_pixel_t>(
        gil::interleaved_view(photo.width(), photo.height(),
                              reinterpret_cast<rgb8_pixel_t const*>(photo.view().data),
                              photo.view().row_stride),
        scaled,
        Point(std::ptrdiff_t(std::ceil(photo.width() * scale)),
              std::ptrdiff_t(std::ceil(photo.height() * scale))),
        ResampleBilinear, -1);
    host::ConstImageView const all(reinterpret_cast<unsigned char const*>(scaled.memory()), rgb8,
                                   scaled.width(), scaled.height());
    std::ptrdiff_t const top = (scaled.height() - frame_height) / 2;
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/frame_%04td.png", i);
        host::write_image_file(folder + name, name, host::FileFormat::png,
                               all.crop(i * pan_step, top, frame_width, frame_height));
    }
    return made[count] = folder;
}

// Runs the host; its peak resident size in KiB, or -1 when it failed.
long run_tool(std::vector<std::string> const& args) {
    std::vector<char*> argv{const_cast<char*>(WEFTMAP_BENCH_TOOL)};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawn(&child, WEFTMAP_BENCH_TOOL, nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    int status = 0;
    rusage usage = {};
    if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return -1;
    return usage.ru_maxrss;
}

// state.range(0) frames, state.range(1) levels (with 10 in-betweens).
void BM_TapestryProcess(benchmark::State& state) {
    if (benchmark::GetBenchmarkFilter().find("Tapestry") == std::string::npos) {
        state.SkipWithError("slow; run it with --benchmark_filter=Tapestry");
        return;
    }
    std::ptrdiff_t const frames = state.range(0);
    int const levels = int(state.range(1));
    std::string const input = pan_frames(frames);
    std::string const output = input + "-tapestry";
    long peak = 0;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove_all(output);
        state.ResumeTiming();
        peak = std::max(peak, run_tool({"tapestry", input, output, "--quiet", "--levels",
                                        std::to_string(levels), "--inbetweens", "10"}));
        if (peak < 0) {
            state.SkipWithError("the weftmap host failed");
            break;
        }
    }
    state.counters["peak_RSS_MB"] = double(peak) / 1024.0;
    state.counters["frames"] = double(frames);
    fs::remove_all(output);
}
BENCHMARK(BM_TapestryProcess)
    ->ArgsProduct({{60, 240}, {1, 3}})
    ->ArgNames({"frames", "levels"})
    ->Unit(benchmark::kSecond)
    ->UseRealTime()
    ->Iterations(1);

}  // namespace
}  // namespace WM::bench

#endif
