// The weftmap host on photographs far larger than its memory limit: the
// wall time and the peak resident size of the whole process, measured from
// outside. Slow, so it runs only when asked for by name:
//   weftmap_bench --benchmark_filter=LargeFill
// The inputs (the sample photograph's centre square scaled up, and a hole of
// 5% of the picture) are made in a temporary folder, or in
// $WEFTMAP_BENCH_LARGE_WORK, which is then kept with the result.
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/raster_file.hpp>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#ifdef WEFTMAP_BENCH_TOOL

extern char** environ;

namespace WM::bench {
namespace {

namespace host = WM::host;

host::PixelFormat const rgb8{host::Depth::u8, host::Colour::rgb};

// The centre square of the sample photograph, scaled bilinearly to
// side x side and written a band at a time.
void write_photograph(std::string const& path, std::ptrdiff_t side) {
    auto const file = host::read_image_file(WEFTMAP_BENCH_PHOTO);
    auto const photo = host::converted(file.image.view(), rgb8);
    std::ptrdiff_t const square = std::min(photo.width(), photo.height());
    std::ptrdiff_t const left = (photo.width() - square) / 2, top = (photo.height() - square) / 2;
    // Source position and weight of each output column (rows alike).
    std::vector<std::ptrdiff_t> at(side);
    std::vector<double> weight(side);
    for (std::ptrdiff_t i = 0; i < side; ++i) {
        double const s =
            std::clamp((i + 0.5) * double(square) / double(side) - 0.5, 0.0, double(square - 1));
        at[i] = std::min<std::ptrdiff_t>(std::ptrdiff_t(s), square - 2);
        weight[i] = s - double(at[i]);
    }
    host::RasterWriter writer(path, path, host::FileFormat::png, rgb8, {side, side});
    std::ptrdiff_t const rows = 64;
    std::vector<unsigned char> band(std::size_t(side) * 3 * rows);
    for (std::ptrdiff_t y = 0; y < side; y += rows) {
        std::ptrdiff_t const n = std::min(rows, side - y);
        for (std::ptrdiff_t j = 0; j < n; ++j) {
            std::ptrdiff_t const sy = top + at[y + j];
            double const wy = weight[y + j];
            for (std::ptrdiff_t x = 0; x < side; ++x) {
                std::ptrdiff_t const sx = left + at[x];
                double const wx = weight[x];
                for (int c = 0; c < 3; ++c) {
                    auto const p = [&](std::ptrdiff_t u, std::ptrdiff_t v) {
                        return double(photo.view().pixel(u, v)[c]);
                    };
                    double const v = (1 - wy) * ((1 - wx) * p(sx, sy) + wx * p(sx + 1, sy)) +
                                     wy * ((1 - wx) * p(sx, sy + 1) + wx * p(sx + 1, sy + 1));
                    band[(std::size_t(j) * side + x) * 3 + c] = static_cast<unsigned char>(v + 0.5);
                }
            }
        }
        writer.write_rows(host::ConstImageView(band.data(), rgb8, side, n));
    }
    writer.finish();
}

// A hole of 5% of the picture: an ellipse left of the centre, tilted.
void write_hole(std::string const& path, std::ptrdiff_t side) {
    double const a = 0.16 * side, b = 0.05 * double(side) * double(side) / (M_PI * a);
    double const cx = 0.42 * side, cy = 0.55 * side, angle = 0.5;
    host::RasterWriter writer(path, path, host::FileFormat::png, host::mask_format, {side, side});
    std::vector<unsigned char> row(std::size_t(side), 0);
    for (std::ptrdiff_t y = 0; y < side; ++y) {
        for (std::ptrdiff_t x = 0; x < side; ++x) {
            double const u = (x - cx) * std::cos(angle) + (y - cy) * std::sin(angle);
            double const v = -(x - cx) * std::sin(angle) + (y - cy) * std::cos(angle);
            row[std::size_t(x)] = (u * u) / (a * a) + (v * v) / (b * b) <= 1.0 ? 255 : 0;
        }
        writer.write_rows(host::ConstImageView(row.data(), host::mask_format, side, 1));
    }
    writer.finish();
}

struct ChildRun {
    int status = -1;
    double seconds = 0;
    double peak_rss_mib = 0;
};

// Runs `args` with TMPDIR set, its standard output into `log`, and measures
// it from outside: the kernel's count of its peak resident size.
ChildRun run(std::vector<std::string> const& args, std::string const& tmpdir,
             std::string const& log) {
    std::vector<std::string> env_text{"TMPDIR=" + tmpdir};
    for (char** e = environ; *e != nullptr; ++e)
        if (std::string(*e).rfind("TMPDIR=", 0) != 0) env_text.emplace_back(*e);
    std::vector<char*> env, argv;
    for (auto& e : env_text) env.push_back(e.data());
    env.push_back(nullptr);
    std::vector<std::string> arg_text = args;
    for (auto& a : arg_text) argv.push_back(a.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    ChildRun result;
    auto const start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    int const error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return result;
    int status = 0;
    rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid) return result;
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.peak_rss_mib = double(usage.ru_maxrss) / 1024.0;
    return result;
}

// "... two passes: the whole at 2048x2048, then 9 of 81 tiles at full size)"
void count_tiles(std::string const& log, benchmark::State& state) {
    std::ifstream in(log);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    long coarse = 0, filled = 0, tiles = 0;
    auto const at = text.find("the whole at ");
    if (at != std::string::npos &&
        std::sscanf(text.c_str() + at, "the whole at %ldx%*d, then %ld of %ld", &coarse, &filled,
                    &tiles) == 3) {
        state.counters["coarse_side"] = double(coarse);
        state.counters["tiles"] = double(tiles);
        state.counters["tiles_filled"] = double(filled);
    }
}

void BM_LargeFill(benchmark::State& state) {
    if (benchmark::GetBenchmarkFilter().find("LargeFill") == std::string::npos) {
        state.SkipWithError("slow; run it with --benchmark_filter=LargeFill");
        return;
    }
    std::ptrdiff_t const side = state.range(0);
    char const* keep = std::getenv("WEFTMAP_BENCH_LARGE_WORK");
    std::string work;
    if (keep != nullptr && *keep != '\0') {
        work = keep;
    } else {
        std::string pattern = "/tmp/weftmap-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            state.SkipWithError("cannot make a temporary folder");
            return;
        }
        work = pattern;
    }
    std::string const name = work + "/photo" + std::to_string(side);
    std::string const image = name + ".png", hole = name + "-hole.png",
                      output = name + "-filled.png", log = name + ".log";
    write_photograph(image, side);
    write_hole(hole, side);

    double load[1] = {0};
    for (auto _ : state) {
        getloadavg(load, 1);
        ChildRun const r = run(
            {WEFTMAP_BENCH_TOOL, "fill", image, hole, output, "--memory-limit", "512M"}, work, log);
        if (r.status != 0) {
            state.SkipWithError(("weftmap exited with status " + std::to_string(r.status)).c_str());
            break;
        }
        state.SetIterationTime(r.seconds);
        state.counters["peak_rss_MiB"] = r.peak_rss_mib;
        state.counters["load_before"] = load[0];
    }
    count_tiles(log, state);
    if (keep == nullptr || *keep == '\0') {
        for (auto const& f : {image, hole, output, log}) std::remove(f.c_str());
        ::rmdir(work.c_str());
    }
}
BENCHMARK(BM_LargeFill)
    ->Arg(8192)
    ->Arg(16384)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace
}  // namespace WM::bench

#endif  // WEFTMAP_BENCH_TOOL
