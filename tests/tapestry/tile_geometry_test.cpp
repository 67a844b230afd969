#include "tapestry/tile_geometry.hpp"

#include "support/helpers.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

TEST(TapestryTileGeometry, TheTileHoleRampsAcrossOnTheLeftAndDownOnTheRight) {
    auto hole = test::byte_mask(Point(40, 36), 0);
    auto const at = [&](int x, int y) { return int(const_view(hole)(x, y)[0]); };
    tapestry_detail::build_tile_hole(view(hole), true, true, 8);
    for (int y : {0, 35})  // from fixed at the left neighbour's edge to free
        EXPECT_EQ(std::make_tuple(at(0, y), at(1, y), at(7, y), at(8, y), at(31, y)),
                  std::make_tuple(0, 31, 223, 255, 255));
    for (int x = 32; x < 40; ++x)  // a whole row at a time, fading downwards
        EXPECT_EQ(std::make_tuple(at(x, 0), at(x, 1), at(x, 35)),
                  std::make_tuple(255, (65280 - 1813) >> 8, (65280 - 35 * 1813) >> 8));
    tapestry_detail::build_tile_hole(view(hole), true, true, 0);  // no overlap, no strips
    EXPECT_EQ(at(0, 0) + at(39, 35), 510);
}

TEST(TapestryTileGeometry, TheIndexMapBandCopiesInteriorPixelsWithItsShorterBottomRow) {
    RecycledImage<rgb8_pixel_t> map(Point(10, 9));
    auto const m = view(map);
    for (std::ptrdiff_t y = 0; y < 9; ++y)
        for (std::ptrdiff_t x = 0; x < 10; ++x) m(x, y) = IndexMapPixel(std::uint32_t(x + 10 * y));
    tapestry_detail::fill_index_map_band(m, 7);  // interior: x 3..6, y 3..5
    auto const value = [&](int x, int y) { return int(IndexMapValue(m(x, y))); };
    EXPECT_EQ(std::make_tuple(value(0, 0), value(4, 0), value(9, 1), value(1, 4), value(8, 4),
                              value(5, 4)),
              std::make_tuple(33, 34, 36, 43, 46, 45));
    // The bottom band takes the corner from column W - 7 + 1 = 4 on.
    EXPECT_EQ(std::make_tuple(value(3, 8), value(4, 8), value(5, 6)), std::make_tuple(53, 56, 56));
    EXPECT_EQ(tapestry_detail::truncate_u32(4294967296.0 + 5.5), 5u);
    EXPECT_EQ(tapestry_detail::truncate_i32(-2.9) + tapestry_detail::tile_overlap(31), 5);
}

}  // namespace
}  // namespace WM
