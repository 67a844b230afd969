#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/correspondence/random.hpp>
#include <weftmap/correspondence/search.hpp>
#include <weftmap/correspondence/weftmap.hpp>

#include "correspondence/patch_kernels.hpp"

#include <gtest/gtest.h>

#include <boost/gil/algorithm.hpp>

namespace WM {
namespace {

using Pixel = rgb8_pixel_t;
using Engine = test::TestEngine<TranslatePatchCompare<Pixel>>;

TEST(RandomGenerator, StepsAndSeedsAsDefined) {
    RandomGenerator g;
    g.step();
    EXPECT_EQ(g.w, 0x144e701cu);
    EXPECT_EQ(g.z, 0x229170f6u);
    EXPECT_EQ(g.rx(), 0xe112u);
    EXPECT_EQ(g.ry(), 0xff26u);
    EXPECT_EQ(g.r(), 0x70f6701cu);
    EXPECT_EQ(draw_in(0xFFFF, 10), 9u);
    EXPECT_EQ(draw_in(0, 10), 0u);

    RandomGenerator const saved = global_random();
    seed_random(0);
    EXPECT_EQ(global_random().w, 0x2c4050fbu);
    EXPECT_EQ(global_random().z, 0x312250fbu);
    seed_random(12345);
    EXPECT_EQ(global_random().w, 0x00209e33u);
    EXPECT_EQ(global_random().z, 0xb4cfae0au);
    global_random() = saved;
}

TEST(SearchBands, CutTheBoxIntoHorizontalStrips) {
    auto const bands = search_bands(Box{2, 0, 9, 10}, 4);
    ASSERT_EQ(bands.size(), 4u);
    int const expected[] = {0, 2, 5, 7, 10};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(bands[i], (Box{2, expected[i], 9, expected[i + 1]}));
    EXPECT_EQ(search_bands(Box{0, 0, 5, 3}, 4).size(), 1u);  // under one row per band
    EXPECT_EQ(search_bands(Box{0, 0, 5, 30}, 1).size(), 1u);
    EXPECT_EQ(search_radius_ratio(0.5), 32768);
    EXPECT_EQ(search_radius_ratio(0.75), 49152);
}

TEST(InitNnf, FieldStaysInsideTheSourceAndOffMaskedPatches) {
    Engine engine;
    RecycledImage<offset_pixel_t> nnf;
    RegionMasks a_mask = test::label_masks(
        Point(40, 30), [](int x, int y) { return x == 7 && y >= 5 && y < 10 ? 255 : 0; });
    engine.init_nnf(Point(40, 30), Point(25, 20), nnf, nullptr, &a_mask, nullptr);
    ASSERT_EQ(nnf.dimensions(), Point(40, 30));
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) {
            auto const p = const_view(nnf)(x, y);
            bool const skipped = x > 33 || y > 23 || (x == 7 && y >= 5 && y < 10);
            if (skipped) {
                EXPECT_EQ(p, offset_pixel_t(0, 0)) << x << "," << y;
            } else {
                EXPECT_LT(p[0], 19);
                EXPECT_LT(p[1], 14);
            }
        }

    // A source of one patch leaves one choice.
    engine.init_nnf(Point(20, 20), Point(7, 7), nnf, nullptr, nullptr, nullptr);
    for (auto const& p : const_view(nnf)) EXPECT_EQ(p, offset_pixel_t(0, 0));
}

TEST(InitNnf, WindowIsCutAtTheSourceBorderNotMoved) {
    Engine engine;
    engine.half_search_window = 10;
    engine.current_scale = 1.0;
    RecycledImage<offset_pixel_t> nnf;
    int low = 1000, high = -1;
    for (int run = 0; run < 40; ++run) {
        engine.init_nnf(Point(60, 60), Point(60, 60), nnf, nullptr, nullptr, nullptr);
        // Patch 0 expects position 0: the window runs from 0 to 9.
        int const x = const_view(nnf)(0, 0)[0];
        low = std::min(low, x);
        high = std::max(high, x);
        for (int y = 0; y <= 53; ++y)
            for (int x = 0; x <= 53; ++x) {
                auto const p = const_view(nnf)(x, y);
                // The draw covers [expected - h, expected + h).
                ASSERT_GE(int(p[0]) - x, -10);
                ASSERT_LT(int(p[0]) - x, 10);
                ASSERT_GE(int(p[1]) - y, -10);
                ASSERT_LT(int(p[1]) - y, 10);
            }
    }
    EXPECT_EQ(low, 0);
    EXPECT_EQ(high, 9);

    // A negative window counts in hole distance bounds.
    engine.half_search_window = -2;
    engine.hole_max_dist_bound = 8;
    EXPECT_EQ(engine.get_half_search_window(3, 3, 1.0), 16);
    engine.half_search_window = 1;
    EXPECT_EQ(engine.get_half_search_window(3, 3, 1.0), 7);  // never below the patch
    engine.half_search_window = 0;
    EXPECT_EQ(engine.get_half_search_window(3, 3, 1.0), 0);
}

TEST(InitNnf, SampleRegionsKeepLabelsApart) {
    Engine engine;
    Point const size(30, 24);
    RegionMasks regions = test::label_masks(size, [](int x, int) { return x < 15 ? 1 : 2; });
    auto excluded = test::byte_mask(size, 0);
    view(excluded)(3, 3) = gray8_pixel_t(255);

    SampleRegions samples;
    samples.build(&view(excluded), &regions, 24, 18);
    EXPECT_EQ(samples.region_size(1), 15u * 18 - 1);
    EXPECT_EQ(samples.region_size(2), 9u * 18);
    EXPECT_EQ(samples.last_label, 2);

    for (int window : {0, 6}) {
        engine.half_search_window = window;
        RecycledImage<offset_pixel_t> nnf;
        engine.init_nnf(size, size, nnf, &regions, nullptr, &samples);
        for (int y = 0; y < 18; ++y)
            for (int x = 0; x < 24; ++x) {
                auto const p = const_view(nnf)(x, y);
                EXPECT_EQ(regions.view(p[0], p[1]), regions.view(x, y)) << x << "," << y;
                EXPECT_NE(p, offset_pixel_t(3, 3));
            }
    }
    // An empty label falls back to the label handled last.
    SampleRegions only_two;
    only_two.build(&view(excluded), nullptr, 24, 18);
    EXPECT_EQ(only_two.region_size(0), 24u * 18 - 1);
    auto const p = only_two.draw(5);
    EXPECT_LT(p[0], 24);
}

TEST(InitDist, MatchesTheKernelAndLeavesForbiddenPairsAtTheSentinel) {
    Engine engine;
    auto const a = test::random_image<Pixel>(30, 20, 1);
    auto const b = test::random_image<Pixel>(25, 22, 2);
    RecycledImage<offset_pixel_t> nnf;
    engine.init_nnf(a.dimensions(), b.dimensions(), nnf, nullptr, nullptr, nullptr);
    auto b_mask = test::byte_mask(b.dimensions(), 0);
    auto const forbidden = const_view(nnf)(4, 4);
    view(b_mask)(forbidden[0], forbidden[1]) = gray8_pixel_t(1);

    RecycledImage<int_gray_pixel_t> dist;
    engine.init_dist(const_view(a), const_view(b), view(nnf), dist, &view(b_mask), nullptr,
                     nullptr);
    int constexpr sentinel = 0x7fffffff;
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 30; ++x) {
            int const d = const_view(dist)(x, y)[0];
            auto const p = const_view(nnf)(x, y);
            if (x > 23 || y > 13 || p == forbidden) {
                EXPECT_EQ(d, sentinel);
            } else {
                EXPECT_EQ(d, translate_distance_scalar<Pixel>(
                                 boost::gil::subimage_view(const_view(a), x, y, 7, 7),
                                 const_view(b), p[0], p[1]));
            }
        }

    engine.patch_w = 5;
    EXPECT_EQ(test::error_text([&] {
                  engine.init_dist(const_view(a), const_view(b), view(nnf), dist, nullptr, nullptr,
                                   nullptr);
              }),
              "WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: 5");
    engine.patch_w = 7;
    RecycledImage<offset_pixel_t> small(Point(3, 3));
    EXPECT_THROW(engine.init_dist(const_view(a), const_view(b), view(small), dist, nullptr, nullptr,
                                  nullptr),
                 Exception);
}

}  // namespace
}  // namespace WM
