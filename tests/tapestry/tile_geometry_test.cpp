#include "tapestry/tile_geometry.hpp"

#include "support/helpers.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

TEST(TapestryTileGeometry, TheTileHoleRampsAcrossOnTheLeftAndDownOnTheRight) {
    auto hole = test::byte_mask(Point(40, 36), 0);
    auto const at = [&](int x, int y) { return int(const_view(hole)(x, y)[0]); };
    tapestry_detail::build_tile_hole(view(hole), true, false, 8);
    for (int y : {0, 35}) {
        EXPECT_EQ(at(0, y), 0);  // fixed at the neighbour's edge
        EXPECT_EQ(at(1, y), 31);
        EXPECT_EQ(at(7, y), 223);
        EXPECT_EQ(at(8, y), 255);
        EXPECT_EQ(at(39, y), 255);
    }
    // The right strip fades from top to bottom, a whole row at a time.
    tapestry_detail::build_tile_hole(view(hole), false, true, 8);
    EXPECT_EQ(at(0, 0), 255);
    EXPECT_EQ(at(31, 20), 255);
    for (int x = 32; x < 40; ++x) {
        EXPECT_EQ(at(x, 0), 255);
        EXPECT_EQ(at(x, 1), (65280 - 1813) >> 8);
        EXPECT_EQ(at(x, 35), (65280 - 35 * 1813) >> 8);
    }
    tapestry_detail::build_tile_hole(view(hole), true, true, 8);
    EXPECT_EQ(at(3, 35), 95);
    EXPECT_EQ(at(36, 35), 7);
    // No overlap, no strips.
    tapestry_detail::build_tile_hole(view(hole), true, true, 0);
    EXPECT_EQ(at(0, 0), 255);
    EXPECT_EQ(at(39, 35), 255);
}

TEST(TapestryTileGeometry, TheIndexMapBandCopiesInteriorPixelsWithItsShorterBottomRow) {
    RecycledImage<rgb8_pixel_t> map(Point(10, 9));
    auto const m = view(map);
    for (std::ptrdiff_t y = 0; y < 9; ++y)
        for (std::ptrdiff_t x = 0; x < 10; ++x) m(x, y) = IndexMapPixel(std::uint32_t(x + 10 * y));
    tapestry_detail::fill_index_map_band(m, 7);  // interior: x 3..6, y 3..5
    auto const value = [&](int x, int y) { return int(IndexMapValue(m(x, y))); };
    EXPECT_EQ(value(0, 0), 33);
    EXPECT_EQ(value(4, 0), 34);
    EXPECT_EQ(value(6, 2), 36);
    EXPECT_EQ(value(9, 1), 36);
    EXPECT_EQ(value(1, 4), 43);
    EXPECT_EQ(value(8, 4), 46);
    EXPECT_EQ(value(5, 4), 45);  // interior untouched
    EXPECT_EQ(value(3, 8), 53);
    // The bottom band takes the corner from column W - 7 + 1 = 4 on.
    EXPECT_EQ(value(4, 8), 56);
    EXPECT_EQ(value(5, 6), 56);
    EXPECT_EQ(value(9, 8), 56);
}

TEST(TapestryTileGeometry, TruncationKeepsTheLow32BitsAndRefusesNothing) {
    EXPECT_EQ(tapestry_detail::truncate_i32(-2.9), -2);
    EXPECT_EQ(tapestry_detail::truncate_u32(4294967296.0 + 5.5), 5u);
    EXPECT_EQ(tapestry_detail::truncate_u32(1e30), 0u);
    EXPECT_EQ(tapestry_detail::as_float(0xffffffffu), 4294967296.0f);
    EXPECT_EQ(tapestry_detail::tile_overlap(100), 25);
    EXPECT_EQ(tapestry_detail::tile_overlap(31), 7);
}

}  // namespace
}  // namespace WM
