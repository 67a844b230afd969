#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include <weftmap/correspondence/random.hpp>
#include <weftmap/correspondence/search.hpp>

#include "correspondence/patch_kernels.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = rgb8_pixel_t;
using Engine = test::TestEngine<TranslatePatchCompare<Pixel>>;

TEST(RandomGenerator, StepsAndSeedsAsDefined) {
    RandomGenerator g;
    g.step();
    EXPECT_EQ(std::make_tuple(g.w, g.z, g.rx(), g.ry(), g.r()),
              std::make_tuple(0x144e701cu, 0x229170f6u, 0xe112u, 0xff26u, 0x70f6701cu));
    EXPECT_EQ(draw_in(0xFFFF, 10), 9u);
    EXPECT_EQ(draw_in(0, 10), 0u);
    RandomGenerator const saved = global_random();
    seed_random(12345);
    EXPECT_EQ(std::make_pair(global_random().w, global_random().z),
              std::make_pair(0x00209e33u, 0xb4cfae0au));
    global_random() = saved;
}

TEST(SearchBands, CutTheBoxIntoHorizontalStrips) {
    auto const bands = search_bands(Box{2, 0, 9, 10}, 4);
    ASSERT_EQ(bands.size(), 4u);
    int const expected[] = {0, 2, 5, 7, 10};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(bands[i], (Box{2, expected[i], 9, expected[i + 1]}));
    EXPECT_EQ(search_bands(Box{0, 0, 5, 3}, 4).size(), 1u);  // under one row per band
}

TEST(InitNnf, FieldStaysInsideTheSourceOffMaskedPatchesAndInItsCutWindow) {
    Engine engine;
    RecycledImage<offset_pixel_t> nnf;
    auto const masked = [](int x, int y) { return x == 7 && y >= 5 && y < 10; };
    RegionMasks a_mask =
        test::label_masks(Point(40, 30), [&](int x, int y) { return masked(x, y) ? 255 : 0; });
    engine.init_nnf(Point(40, 30), Point(25, 20), nnf, nullptr, &a_mask, nullptr);
    ASSERT_EQ(nnf.dimensions(), Point(40, 30));
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) {
            auto const p = const_view(nnf)(x, y);
            if (x > 33 || y > 23 || masked(x, y))
                EXPECT_EQ(p, offset_pixel_t(0, 0)) << x << "," << y;
            else
                EXPECT_TRUE(p[0] < 19 && p[1] < 14) << x << "," << y;
        }
    // A source of one patch leaves one choice.
    engine.init_nnf(Point(20, 20), Point(7, 7), nnf, nullptr, nullptr, nullptr);
    for (auto const& p : const_view(nnf)) EXPECT_EQ(p, offset_pixel_t(0, 0));

    // The field of a whole search stays inside its window (Search tests);
    // here the window meets the source border and is cut there, not moved.
    engine.half_search_window = 10;
    engine.current_scale = 1.0;
    int low = 1000, high = -1;
    for (int run = 0; run < 40; ++run) {
        // Patch 0 expects position 0: the window [-10, 10) runs from 0 to 9.
        engine.init_nnf(Point(60, 60), Point(60, 60), nnf, nullptr, nullptr, nullptr);
        low = std::min<int>(low, const_view(nnf)(0, 0)[0]);
        high = std::max<int>(high, const_view(nnf)(0, 0)[0]);
    }
    EXPECT_EQ(std::make_pair(low, high), std::make_pair(0, 9));

    // A negative window counts in hole distance bounds, never below a patch.
    engine.half_search_window = -2;
    engine.hole_max_dist_bound = 8;
    EXPECT_EQ(engine.get_half_search_window(3, 3, 1.0), 16);
    engine.half_search_window = 1;
    EXPECT_EQ(engine.get_half_search_window(3, 3, 1.0), 7);
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
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 30; ++x) {
            auto const p = const_view(nnf)(x, y);
            bool const none = x > 23 || y > 13 || p == forbidden;
            EXPECT_EQ(const_view(dist)(x, y)[0],
                      none ? 0x7fffffff
                           : translate_distance_scalar<Pixel>(
                                 gil::subimage_view(const_view(a), x, y, 7, 7), const_view(b), p[0],
                                 p[1]));
        }

    engine.patch_w = 5;
    EXPECT_EQ(test::error_text([&] {
                  engine.init_dist(const_view(a), const_view(b), view(nnf), dist, nullptr, nullptr,
                                   nullptr);
              }),
              "WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: 5");
}

}  // namespace
}  // namespace WM
