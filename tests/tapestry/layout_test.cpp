#include "tapestry/tapestry_fixtures.hpp"
#include "tapestry/tile_geometry.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Gray = gray8_pixel_t;
using Factory = TapestryFactory<Gray>;
std::string const bad_frames =
    "WEFTMAP_INVALID_PARAMETERS: Invalid frame numbers in Tapestry::Construct request";

TEST(TapestryLayout, PlanningFormulasGiveTheWorkedNumbersAndWrapIn32Bits) {
    EXPECT_EQ(Factory::ComputeTapestryWidth(100, 5), 300u);
    EXPECT_EQ(Factory::ComputeFrameWidth(300, 5), 100u);
    EXPECT_EQ(Factory::ComputeTapestryWidth(100, 0) + Factory::ComputeFrameWidth(300, 0), 0u);
    EXPECT_EQ(Factory::ComputeMaxFrames(100, 300), 5u);
    EXPECT_EQ(Factory::ComputeMaxFrames(100, 99), 0u);
    EXPECT_EQ(Factory::ComputeTapestryHeight(80), 120u);
    EXPECT_EQ(Factory::ComputeFrameHeight(120), 80u);
    EXPECT_EQ(Factory::ComputeFrameHeight(3000000000u), 2000000000u);  // not read as negative
    EXPECT_EQ(Factory::ComputeTapestryWidth(0x80000000u, 3), 0u);      // wraps
    EXPECT_NE(test::error_text([] { Factory::ComputeMaxFrames(0, 5); }), "");
}

TEST(TapestryLayout, GridPixelsMapBackToTheFrameWhoseBrickHoldsThem) {
    auto source = test::sizes_only<Gray>(Point(100, 80), 5);
    Factory factory(source, nullptr);
    EXPECT_EQ(factory.FrameOrigin(3), Point(150, 80));
    EXPECT_EQ(factory.FrameOrigin(-1), Point(50, 80));  // truncating division
    EXPECT_EQ(factory.Dimensions(-1), Point(300, 120));
    EXPECT_EQ(factory.Dimensions(4), Point(250, 120));
    EXPECT_EQ(factory.GridDimensions(5), Point(300, 160));
    for (Point p : {Point(0, 160), Point(0, -80)})
        EXPECT_EQ(test::error_text([&] { factory.GetFrameByGridPixel(p); }),
                  "WEFTMAP_INTERNAL_ERROR: input tapestry pixel out of bounds");
    // Every pixel of every brick, for an even and an odd frame width: the
    // pixels left of frame 1 belong to frame -1.
    for (Point size : {Point(100, 80), Point(33, 7)}) {
        auto wall = test::sizes_only<Gray>(size, 7);
        Factory f(wall, nullptr);
        for (int frame = -2; frame < 9; ++frame) {
            Point const o = frame == -1 ? Point(size.x / 2 - size.x, size.y) : f.FrameOrigin(frame);
            for (std::ptrdiff_t y = 0; y < size.y; ++y)
                for (std::ptrdiff_t x = 0; x < size.x; ++x)
                    ASSERT_EQ(int(f.GetFrameByGridPixel(Point(o.x + x, o.y + y))), frame) << x;
        }
    }
    EXPECT_EQ(test::error_text([&] { factory.ValidateFrameNumber(-1); }), bad_frames);
    EXPECT_EQ(test::error_text([&] { factory.ValidateFrameNumber(6); }), bad_frames);
    EXPECT_EQ(test::error_text([&] { factory.ValidateFrameNumber(5); }), "");  // an end position
    unsigned begin = 0, end = 0;
    factory.ComputeTileRange(64, 3, 2, begin, end);  // columns 150 to 299
    EXPECT_EQ(std::make_pair(begin, end), std::make_pair(2u, 5u));
    EXPECT_EQ(test::error_text([&] { factory.ComputeTileRange(64, 1, 0x7fffffff, begin, end); }),
              bad_frames);  // the end wraps negative
}

TEST(TapestryLayout, TheWallHoldsFramesZerosElsewhereAndMarksEveryJoin) {
    auto const picture = test::pan_picture(Point(20, 10), 4, 5, 3);
    test::PanSource<Gray> source(picture, Point(20, 10), 3, 5);
    test::OpenTapestryFactory<Gray> factory(source, nullptr);
    factory.PreallocateTileBuffers(Point(40, 15));        // 50 x 20 with the margins
    gil::fill_pixels(view(factory.input_buf), Gray(99));  // stale pixels must not survive
    factory.InitializeLayout(Point(5, 0));                // frames 0, 1, 2 at x -5, 5 (lower), 15
    auto const input = const_view(factory.input_buf);
    EXPECT_EQ(input(0, 0), const_view(picture)(5, 0));
    EXPECT_EQ(input(5, 10), const_view(picture)(5, 0));
    EXPECT_EQ(input(34, 9), const_view(picture)(29, 9));
    for (Point empty : {Point(0, 10), Point(35, 0), Point(49, 19)})
        EXPECT_EQ(input(empty.x, empty.y), Gray(0));
    for (std::ptrdiff_t x = 0; x < 50; ++x) {
        auto const valid = [&](std::ptrdiff_t y) {
            return int(const_view(factory.valid_buf)(x, y)[0]);
        };
        EXPECT_EQ(valid(9) + valid(10), 0);  // the join between the rows
        // Left edges of frames 2 and 4 above, 1, 3 and 5 (past the end) below.
        EXPECT_EQ(valid(0), x == 15 || x == 16 || x == 35 || x == 36 ? 0 : 255) << x;
        EXPECT_EQ(valid(19), x % 20 == 5 || x % 20 == 6 ? 0 : 255) << x;
    }
}

TEST(TapestryConstruct, RefusesBadRequestsAndOnlySkipsTilesThatExist) {
    auto source = test::sizes_only<Gray>(Point(100, 80), 5);
    Factory factory(source, nullptr);
    test::MemoryMultiCache<Gray> narrow(Point(24, 120));
    MultiTileCacheAdaptor<Gray> narrow_level(0, 0, &narrow);
    EXPECT_EQ(test::error_text([&] { factory.Construct(narrow_level, 0, -1); }),
              "WEFTMAP_INTERNAL_ERROR: tile overlap greater than tile width");
    struct FullCache : test::MemoryMultiCache<Gray> {
        using MemoryMultiCache::MemoryMultiCache;
        bool TileExists(unsigned, unsigned, unsigned) const override { return true; }
    } all(Point(25, 120));  // wide enough
    MultiTileCacheAdaptor<Gray> full(0, 0, &all);
    {
        test::ScopedCapture capture(false);
        factory.Construct(full, 0, -1);
        auto const& log = capture.channel.written;
        EXPECT_NE(log.find("Beginning tiled tapestry construction, tiles 0 to 12\n"), log.npos);
        EXPECT_NE(log.find("Skipping preexisting tile 11\n"), log.npos);
        EXPECT_EQ(log.find("Constructing tile"), log.npos);
    }
    EXPECT_TRUE(all.writes.empty());
    EXPECT_EQ(test::error_text([&] { factory.Construct(full, 2, 4); }), bad_frames);
    RecycledImage<Gray> image(Point(300, 120));
    View<Gray> v = view(image);
    EXPECT_EQ(test::error_text([&] { factory.Construct(v, 0, -1); }), "WEFTMAP_NOT_IMPLEMENTED");
}

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
