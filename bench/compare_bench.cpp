// Throughput of the bounded translate kernels, scalar against vector: a fixed
// target patch compared with candidates in a 512x512 source of smooth,
// photograph-like content.
//
// Candidates ("mix"): drawn the way the random search draws them, around the
// good match at radii halving from 256 to 1 ("search"), or uniformly over the
// whole source ("uniform").
// Bound ("best"): the distance of the good match itself, as late in a search
// ("tight"), or the best of 16 random candidates, as right after the random
// initialisation of a field ("early").
#include "bench_client.hpp"

#include "correspondence/patch_kernels.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace WM::bench {
namespace {

constexpr int side = 512;
constexpr int last = side - 7;
constexpr int candidate_count = 8192;
constexpr int match_x = 211;
constexpr int match_y = 143;

enum CandidateMix { SearchMix = 0, UniformMix = 1 };
enum BestKind { TightBest = 0, EarlyBest = 1 };

template <class Pixel, bool Vector>
struct Scene {
    // Same content as the source, other noise: the good match of the target
    // patch lies at the same place in the source, at a noise-sized distance.
    RecycledImage<Pixel> source = synthetic_image<Pixel>(side, side, 1);
    RecycledImage<Pixel> target = synthetic_image<Pixel>(side, side, 2);
    ConstView<Pixel> a_patch = gil::subimage_view(const_view(target), match_x, match_y, 7, 7);
    ConstView<Pixel> b = const_view(source);
    distance_t<Pixel> best;
    std::vector<std::pair<int, int>> candidates;

    Scene(CandidateMix mix, BestKind kind) {
        std::mt19937 rng(3);
        auto uniform = [&] { return int(rng() % (last + 1)); };
        best = full(match_x, match_y);
        if (kind == EarlyBest) {
            best = distance_traits<Pixel>::sentinel;
            for (int i = 0; i < 16; ++i) best = std::min(best, full(uniform(), uniform()));
        }
        for (int i = 0; i < candidate_count; ++i) {
            if (mix == UniformMix) {
                candidates.emplace_back(uniform(), uniform());
                continue;
            }
            int const radius = 256 >> (i % 9);
            std::uniform_int_distribution<int> offset(-radius, radius);
            candidates.emplace_back(std::clamp(match_x + offset(rng), 0, last),
                                    std::clamp(match_y + offset(rng), 0, last));
        }
    }

    distance_t<Pixel> full(int x, int y) const {
        if constexpr (Vector) {
            return translate_distance_vector<Pixel>(a_patch, b, x, y);
        } else {
            return translate_distance_scalar<Pixel>(a_patch, b, x, y);
        }
    }
    distance_t<Pixel> bounded(int x, int y) const {
        if constexpr (Vector) {
            return translate_distance_bounded_vector<Pixel>(a_patch, b, x, y, best);
        } else {
            return translate_distance_bounded_scalar<Pixel>(a_patch, b, x, y, best);
        }
    }
};

// One pass over all candidates, kept out of line so that the loop is laid
// out the same way for every form and type.
template <class Pixel, bool Vector>
[[gnu::noinline]] double sweep(Scene<Pixel, Vector> const& scene) {
    // Folding the results keeps them alive without a memory clobber per call.
    double sum = 0;
    for (auto const& [x, y] : scene.candidates) sum += double(scene.bounded(x, y));
    return sum;
}

template <class Pixel, bool Vector>
void BM_BoundedCompare(benchmark::State& state) {
    auto const mix = static_cast<CandidateMix>(state.range(0));
    auto const kind = static_cast<BestKind>(state.range(1));
    Scene<Pixel, Vector> const scene(mix, kind);
    int passed = 0;
    for (auto const& [x, y] : scene.candidates)
        passed += scene.bounded(x, y) != distance_traits<Pixel>::sentinel;
    for (auto _ : state) benchmark::DoNotOptimize(sweep(scene));
    state.SetItemsProcessed(state.iterations() * candidate_count);
    // Share of candidates that come through the bound.
    state.counters["passed"] = double(passed) / candidate_count;
    state.SetLabel(std::string(mix == SearchMix ? "search" : "uniform") + " mix, " +
                   (kind == TightBest ? "tight" : "early") + " best");
}

// On a shared machine the fastest of several repetitions is the steadiest
// figure; run with --benchmark_repetitions=N to get it as "_min" (its time
// columns; the rate columns of that row are the minimum rate).
double fastest(std::vector<double> const& v) {
    return *std::min_element(v.begin(), v.end());
}

#define WEFTMAP_COMPARE_BENCH(P, V)             \
    BENCHMARK_TEMPLATE(BM_BoundedCompare, P, V) \
        ->Args({SearchMix, TightBest})          \
        ->Args({UniformMix, TightBest})         \
        ->Args({SearchMix, EarlyBest})          \
        ->ComputeStatistics("min", fastest);

#define WEFTMAP_COMPARE_BENCH_FORMS(P) \
    WEFTMAP_COMPARE_BENCH(P, false) WEFTMAP_COMPARE_BENCH(P, true)

WEFTMAP_COMPARE_BENCH_FORMS(gray8_pixel_t)
WEFTMAP_COMPARE_BENCH_FORMS(rgb8_pixel_t)
WEFTMAP_COMPARE_BENCH_FORMS(rgb16_pixel_t)
WEFTMAP_COMPARE_BENCH_FORMS(rgb32f_pixel_t)
WEFTMAP_COMPARE_BENCH_FORMS(cmyk8_pixel_t)

}  // namespace
}  // namespace WM::bench
