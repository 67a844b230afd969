#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Gray = gray8_pixel_t;
using Lists = std::vector<std::vector<std::uint32_t>>;

TEST(MultiTapestryPlan, FrameListsWidthsPositionsAndProgressFollowThePlan) {
    auto six = test::sizes_only<Gray>(Point(100, 80), 6),
         eight = test::sizes_only<Gray>(Point(100, 80), 8);
    EXPECT_EQ(MultiTapestryFactory<Gray>(six, nullptr, 3).frame_lists,
              (Lists{{0, 1, 2, 3, 4, 5}, {0, 3, 4}, {0}}));
    EXPECT_EQ(MultiTapestryFactory<Gray>(eight, nullptr, 3).frame_lists,
              (Lists{{0, 1, 2, 3, 4, 5, 6, 7}, {0, 3, 4, 7}, {0, 7}}));
    MultiTapestryFactory<Gray> none(six, nullptr, 0);
    test::MemoryMultiCache<Gray> empty(Point(32, 120));
    UntiledMultiTapestry<Gray> nothing;
    none.Construct(empty, true, true);
    none.Construct(nothing, true, true);
    EXPECT_TRUE(none.frame_lists.empty() && empty.writes.empty() && nothing.levels.empty());

    test::RecordingClient<Gray> host;
    test::OpenMultiFactory<Gray> factory(six, &host, 2);
    EXPECT_EQ(factory.widths[0].size(), 11u);
    EXPECT_EQ(std::make_tuple(factory.widths[0][0], factory.widths[0][1], factory.widths[1]),
              std::make_tuple(350u, 336u, std::vector<std::uint32_t>{200}));
    EXPECT_EQ(factory.GetTapestrySize(0, 1), Point(336, 120));
    EXPECT_EQ(factory.TransformPoint(Point(175, 9), 0, 1, 0, 0), Point(100, 9));
    for (std::ptrdiff_t x = 0; x <= 300; ++x) {  // narrower to wider and back: within a pixel
        Point const there = factory.TransformPoint(Point(x, 3), 0, 0, 4, 0);
        ASSERT_LE(std::abs(factory.TransformPoint(there, 0, 0, 0, 4).x - x), 1) << x;
    }
    EXPECT_NE(test::error_text([&] { factory.GetTapestrySize(1, 1); }), "");

    // Levels of 4 and 2 tiles, then per tile of level 1 an island search and
    // ten in-betweens: 28 steps.
    factory.PrepareProgressTable(100, true, true);
    ASSERT_EQ(factory.progress_table.size(), 25u);
    EXPECT_FLOAT_EQ(factory.progress_table[2], 6.0f / 28);
    factory.AdvanceProgress();  // the first level is done
    factory.updateProgress(0.5f);
    EXPECT_FLOAT_EQ(host.progress.back(), 4.0f / 28 + 0.5f * 2.0f / 28);
    for (int i = 0; i < 40; ++i) factory.AdvanceProgress();  // never past the end
    factory.updateProgress(0.5f);
    EXPECT_FLOAT_EQ(host.progress.back(), 1.0f);
    factory.PrepareProgressTable(100, false, true);  // in-between steps have no entries then
    factory.updateProgress(0.5f);
    EXPECT_EQ(std::make_pair(factory.progress_table.size(), host.progress.back()),
              std::make_pair(std::size_t(1), 0.0f));
    host.cancel = true;
    EXPECT_TRUE(factory.checkAbort());
}

// The coarser picture is the finer one seen from (dx, dy) further along a
// pan, so what it shows maps rigidly into the finer one.
struct PanIslands : ::testing::Test {
    test::PanSource<Gray> source = test::sizes_only<Gray>(Point(32, 24), 6);
    test::OpenMultiFactory<Gray> factory{source, nullptr, 2};
    RecycledImage<Gray> wide = test::pan_picture(Point(96, 36), 1, 40, 4);
    RecycledImage<Gray> finer{Point(96, 36)}, coarser{Point(48, 36)};
    std::vector<int> find(int dx, int dy) {  // the islands' component sizes
        gil::copy_pixels(gil::subimage_view(const_view(wide), 0, 0, 96, 36), view(finer));
        for (std::ptrdiff_t y = 0; y < 36; ++y)
            for (std::ptrdiff_t x = 0; x < 48; ++x)
                view(coarser)(x, y) =
                    const_view(wide)(x + dx, std::min<std::ptrdiff_t>(y + dy, 35));
        test::Reproducible repeat;
        factory.FindIslands(view(finer), view(coarser));
        std::vector<int> sizes;
        for (Island const& island : factory.islands) {
            auto const s = *island.field_at;
            EXPECT_EQ(std::make_pair(s[0] - island.x, s[1] - island.y), std::make_pair(dx, dy));
            sizes.push_back(int(std::count(view(factory.island_labels).begin(),
                                           view(factory.island_labels).end(), *island.label_at)));
        }
        return sizes;
    }
};

TEST_F(PanIslands, IslandsLandWhereThePanPutsThemAndLimitsDropThemAtTheirBounds) {
    factory.min_island_size = 0;
    auto const sizes = find(23, 0);
    ASSERT_FALSE(sizes.empty());
    EXPECT_GT(sizes.front(), 42 * 30 / 2);
    EXPECT_EQ((*factory.islands.front().label_at)[0], 1);  // the first seed in row-major order
    factory.min_island_size = sizes.front();               // exactly that many pixels: dropped
    auto const fewer = find(23, 0);
    EXPECT_TRUE(fewer.empty() || fewer.front() != sizes.front());
    factory.min_island_size = sizes.front() - 1;
    EXPECT_EQ(find(23, 0).front(), sizes.front());

    factory.min_island_size = 100;
    factory.max_island_shift = 3;  // a vertical shift of 3 is too far
    EXPECT_TRUE(find(5, 3).empty());
    factory.max_island_shift = 4;
    EXPECT_FALSE(find(5, 3).empty());
}

// A pan of 6 frames of 32 x 24: level 0 is 112 wide, level 1 (frames 0,
// 3, 4) 64 wide; two in-betweens.
struct PanLevels : ::testing::Test {
    Point const frame{32, 24};
    test::PanSource<Gray> source{test::pan_picture(frame, 6, 9, 17), frame, 6, 9};
    test::RecordingClient<Gray> host;
    test::OpenMultiFactory<Gray> factory{source, &host, 2};
    void SetUp() override { factory.inbetweens = 2, factory.replan(); }
};

TEST_F(PanLevels, UntiledInbetweensHaveThePlannedWidths) {
    test::Reproducible repeat;
    factory.generate_index_map = true;
    UntiledMultiTapestry<Gray> out;
    factory.Construct(out, true, true);
    ASSERT_EQ(std::make_pair(out.levels[0].size(), out.levels[1].size()),
              std::make_pair(std::size_t(3), std::size_t(1)));
    // 2/3 * 112 + 64/3 and 1/3 * 112 + 128/3 fall just short of 96 and 80.
    EXPECT_EQ(factory.widths[0], (std::vector<std::uint32_t>{112, 95, 79}));
    for (unsigned i = 0; i < 3; ++i)
        EXPECT_EQ(out.levels[0][i].dimensions(), factory.GetTapestrySize(0, i));
    EXPECT_EQ(out.levels[1][0].dimensions(), factory.GetTapestrySize(1, 0));
    for (auto const& p : const_view(out.index_maps[1]))  // level 1's frames, in full numbers
        EXPECT_TRUE(IndexMapValue(p) == 0 || IndexMapValue(p) == 1 || IndexMapValue(p) == 4 ||
                    IndexMapValue(p) == 5);
    EXPECT_TRUE(host.monotone_to_one());
    RecycledImage<Gray> low(Point(30, 30)), result;
    View<Gray> c = view(low);
    EXPECT_EQ(test::error_text([&] {
                  factory.ConstructAnimationFrame(result, view(out.levels[0][0]),
                                                  view(out.levels[0][0]), c, 1, nullptr, nullptr);
              }),
              "WEFTMAP_INTERNAL_ERROR: mismatch between buffer heights of different levels");
}

TEST_F(PanLevels, TiledRunsBuildEveryPictureAndResumeOnlyWhatIsMissing) {
    test::MemoryMultiCache<Gray> cache(Point(32, 36));
    cache.widths = factory.widths;
    {
        test::Reproducible repeat;
        test::ScopedCapture capture;
        factory.Construct(cache, true, true);
        for (char const* line :
             {"Constructing discrete tapestry level 1\n",
              "Constructing animation tiles level 1 tile 1\n", "  inbetween  2\n",
              "coarser level tile buffer: ", "finer level tile buffer: ",
              "adjacent tile constraints: ", "islands inbetween 2: ", "islands mask 2: ",
              "inbetween 2: ", "current inbetween tile: "})
            EXPECT_NE(capture.channel.written.find(line), std::string::npos) << line;
    }
    for (unsigned i = 0; i <= 2; ++i)
        for (unsigned t = 0; t < cache.GetTileCount(0, i); ++t)
            EXPECT_TRUE(cache.TileExists(0, i, t)) << i << t;
    EXPECT_TRUE(cache.TileExists(1, 0, 1) && cache.AdjacentTileExists(1, 0) &&
                cache.AdjacentTileExists(1, 1));
    EXPECT_FLOAT_EQ(host.progress.back(), 1.0f);

    cache.tiles.erase({0, 0, 2});
    cache.tiles.erase({1, 0, 1});
    cache.writes.clear();
    factory.Construct(cache, true, false);
    EXPECT_EQ(cache.built(8), (std::vector<std::pair<unsigned, unsigned>>{{0, 2}, {1, 1}}));
    EXPECT_EQ(test::error_text([&] { factory.ConstructAnimationTiles(cache, 1, 5); }),
              "WEFTMAP_INTERNAL_ERROR: ConstructAnimationTiles: level 1 tile 5 doesn't exist");
}

}  // namespace
}  // namespace WM
