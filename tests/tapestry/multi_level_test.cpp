#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Gray = gray8_pixel_t;
using Lists = std::vector<std::vector<std::uint32_t>>;

TEST(MultiTapestryPlan, FrameListsKeepPositionsZeroAndThreeOfEveryFour) {
    test::SizeOnlySource<Gray> six(Point(100, 80), 6), eight(Point(100, 80), 8);
    EXPECT_EQ(MultiTapestryFactory<Gray>(six, nullptr, 3).frame_lists,
              (Lists{{0, 1, 2, 3, 4, 5}, {0, 3, 4}, {0}}));
    EXPECT_EQ(MultiTapestryFactory<Gray>(eight, nullptr, 3).frame_lists,
              (Lists{{0, 1, 2, 3, 4, 5, 6, 7}, {0, 3, 4, 7}, {0, 7}}));
    MultiTapestryFactory<Gray> none(six, nullptr, 0);
    EXPECT_TRUE(none.frame_lists.empty());
    EXPECT_TRUE(none.widths.empty());
    test::MemoryMultiCache<Gray> cache(Point(32, 120));
    UntiledMultiTapestry<Gray> out;
    none.Construct(cache, true, true);
    none.Construct(out, true, true);
    EXPECT_TRUE(cache.writes.empty());
    EXPECT_TRUE(out.levels.empty());
}

TEST(MultiTapestryPlan, WidthsPositionsAndProgressFollowThePlan) {
    test::SizeOnlySource<Gray> six(Point(100, 80), 6);
    test::RecordingClient<Gray> host;
    test::OpenMultiFactory<Gray> factory(six, &host, 2);
    ASSERT_EQ(factory.widths.size(), 2u);
    ASSERT_EQ(factory.widths[0].size(), 11u);
    EXPECT_EQ(factory.widths[0][0], 350u);
    EXPECT_EQ(factory.widths[0][1], 336u);
    EXPECT_EQ(factory.widths[0][10], 213u);
    EXPECT_EQ(factory.widths[1], (std::vector<std::uint32_t>{200}));
    EXPECT_EQ(factory.height, 120);
    EXPECT_EQ(factory.GetTapestrySize(0, 1), Point(336, 120));
    EXPECT_EQ(factory.TransformPoint(Point(175, 9), 0, 1, 0, 0), Point(100, 9));
    // From a narrower picture to a wider one and back loses less than a pixel.
    for (std::ptrdiff_t x = 0; x <= std::ptrdiff_t(factory.widths[0][4]); ++x) {
        Point const there = factory.TransformPoint(Point(x, 3), 0, 0, 4, 0);
        EXPECT_LE(std::abs(factory.TransformPoint(there, 0, 0, 0, 4).x - x), 1) << x;
    }
    EXPECT_NE(test::error_text([&] { factory.GetTapestrySize(1, 1); }), "");

    // Levels of 4 and 2 tiles, then per tile of level 1 an island search
    // and ten in-betweens.
    factory.PrepareProgressTable(100, true, true);
    ASSERT_EQ(factory.progress_table.size(), 25u);
    EXPECT_FLOAT_EQ(factory.progress_table[1], 4.0f / 28);
    EXPECT_FLOAT_EQ(factory.progress_table[2], 6.0f / 28);
    EXPECT_FLOAT_EQ(factory.progress_table.back(), 1.0f);
    factory.AdvanceProgress();  // the first level is done
    factory.updateProgress(0.5f);
    EXPECT_FLOAT_EQ(host.progress.back(), 5.0f / 28);
    for (int i = 0; i < 40; ++i) factory.AdvanceProgress();  // never past the end
    factory.updateProgress(0.5f);
    EXPECT_FLOAT_EQ(host.progress.back(), 1.0f);
    // Without levels the in-between steps have no entries of their own.
    factory.PrepareProgressTable(100, false, true);
    EXPECT_EQ(factory.progress_table, (std::vector<float>{0.0f}));
    factory.updateProgress(0.5f);
    EXPECT_FLOAT_EQ(host.progress.back(), 0.0f);

    host.cancel = true;
    EXPECT_TRUE(factory.checkAbort());
}

// Levels made from a pan: the coarser picture is the finer one seen from
// `shift` further along, so everything it shows maps rigidly into the finer.
struct PanIslands : ::testing::Test {
    test::SizeOnlySource<Gray> source{Point(32, 24), 6};
    test::OpenMultiFactory<Gray> factory{source, nullptr, 2};
    RecycledImage<Gray> wide = test::pan_picture(Point(96, 36), 1, 40, 4);
    RecycledImage<Gray> finer{Point(96, 36)}, coarser{Point(48, 36)};
    void SetUp() override {
        gil::copy_pixels(gil::subimage_view(const_view(wide), 0, 0, 96, 36), view(finer));
    }
    void shift_coarser(int dx, int dy) {
        for (std::ptrdiff_t y = 0; y < 36; ++y)
            for (std::ptrdiff_t x = 0; x < 48; ++x)
                view(coarser)(x, y) =
                    const_view(wide)(x + dx, std::min<std::ptrdiff_t>(y + dy, 35));
    }
    void find() {
        test::Reproducible repeat;
        factory.FindIslands(view(finer), view(coarser));
    }
    // Pixels of each island's component.
    std::vector<int> sizes() const {
        std::vector<int> result;
        for (Island const& island : factory.islands) {
            int const label = (*island.label_at)[0];
            int count = 0;
            for (auto const& p : const_view(factory.island_labels)) count += p[0] == label;
            result.push_back(count);
        }
        return result;
    }
};

TEST_F(PanIslands, IslandsLandWhereThePanPutsThem) {
    shift_coarser(23, 0);
    find();
    ASSERT_FALSE(factory.islands.empty());
    auto const& biggest = factory.islands.front();
    EXPECT_EQ(factory.island_field.dimensions(), coarser.dimensions());
    EXPECT_GT(sizes().front(), 42 * 30 / 2);
    for (Island const& island : factory.islands) {
        auto const s = *island.field_at;
        EXPECT_EQ(int(s[0]) - island.x, 23);
        EXPECT_EQ(int(s[1]) - island.y, 0);
        EXPECT_EQ(island.field_at, view(factory.island_field).xy_at(island.x, island.y));
    }
    EXPECT_EQ((*biggest.label_at)[0], 1);  // the first seed in row-major order
}

TEST_F(PanIslands, SizeAndShiftLimitsDropComponentsAtTheirBounds) {
    shift_coarser(23, 0);
    factory.min_island_size = 0;
    find();
    ASSERT_FALSE(factory.islands.empty());
    int const size = sizes().front();
    factory.min_island_size = size;  // exactly that many pixels: dropped
    find();
    EXPECT_TRUE(factory.islands.empty() || sizes().front() != size);
    factory.min_island_size = size - 1;
    find();
    ASSERT_FALSE(factory.islands.empty());
    EXPECT_EQ(sizes().front(), size);

    shift_coarser(5, 3);
    factory.min_island_size = 100;
    factory.max_island_shift = 3;  // a vertical shift of 3 is too far
    find();
    EXPECT_TRUE(factory.islands.empty());
    factory.max_island_shift = 4;
    find();
    ASSERT_FALSE(factory.islands.empty());
    auto const s = *factory.islands.front().field_at;
    EXPECT_EQ(int(s[1]) - factory.islands.front().y, 3);
}

// A pan of 6 frames of 32 x 24: level 0 is 112 wide, level 1 (frames 0,
// 3, 4) 64 wide; two in-betweens.
struct PanLevels : ::testing::Test {
    Point const frame{32, 24};
    test::PanSource<Gray> source{test::pan_picture(frame, 6, 9, 17), frame, 6, 9};
    test::RecordingClient<Gray> host;
    test::OpenMultiFactory<Gray> factory{source, &host, 2};
    void SetUp() override {
        factory.inbetweens = 2;
        factory.replan();
    }
};

TEST_F(PanLevels, UntiledInbetweensHaveThePlannedWidths) {
    test::Reproducible repeat;
    factory.generate_index_map = true;
    UntiledMultiTapestry<Gray> out;
    factory.Construct(out, true, true);
    ASSERT_EQ(out.levels.size(), 2u);
    ASSERT_EQ(out.levels[0].size(), 3u);
    ASSERT_EQ(out.levels[1].size(), 1u);
    // 2/3 * 112 + 64/3 and 1/3 * 112 + 128/3 fall just short of 96 and 80.
    EXPECT_EQ(factory.widths[0], (std::vector<std::uint32_t>{112, 95, 79}));
    for (unsigned i = 0; i < 3; ++i)
        EXPECT_EQ(out.levels[0][i].dimensions(), factory.GetTapestrySize(0, i)) << i;
    EXPECT_EQ(out.levels[1][0].dimensions(), factory.GetTapestrySize(1, 0));
    // Level 1's index map names only its own frames, as full-sequence numbers.
    for (auto const& p : const_view(out.index_maps[1])) {
        auto const v = IndexMapValue(p);
        EXPECT_TRUE(v == 0 || v == 1 || v == 4 || v == 5) << v;
    }
    EXPECT_FLOAT_EQ(host.progress.back(), 1.0f);
    EXPECT_TRUE(std::is_sorted(host.progress.begin(), host.progress.end()));
}

TEST_F(PanLevels, TiledRunsBuildEveryPictureAndResumeOnlyWhatIsMissing) {
    test::MemoryMultiCache<Gray> cache(Point(32, 36));
    cache.widths = factory.widths;
    {
        test::Reproducible repeat;
        test::ScopedCapture capture;
        factory.Construct(cache, true, true);
        for (char const* line :
             {"Constructing discrete tapestry level 1\n", "Constructing tile 1\n",
              "Constructing animation tiles level 1 tile 1\n", "  inbetween  2\n",
              "coarser level tile buffer: ", "finer level tile buffer: ",
              "adjacent tile constraints: ", "islands inbetween 2: ", "islands mask 2: ",
              "inbetween 2: ", "current inbetween tile: ", "tile constraints: ", "tile hole: ",
              "Input tile layout: ", "Valid_mask tile layout: ",
              "retargeted tile buffer with overlap: "})
            EXPECT_NE(capture.channel.written.find(line), std::string::npos) << line;
    }
    // Level tiles, then the in-betweens of both level 1 tiles.
    for (unsigned t = 0; t < 4; ++t) EXPECT_TRUE(cache.TileExists(0, 0, t)) << t;
    for (unsigned t = 0; t < 2; ++t) EXPECT_TRUE(cache.TileExists(1, 0, t)) << t;
    for (unsigned i = 1; i <= 2; ++i)
        for (unsigned t = 0; t < cache.GetTileCount(0, i); ++t)
            EXPECT_TRUE(cache.TileExists(0, i, t)) << i << " " << t;
    EXPECT_TRUE(cache.AdjacentTileExists(1, 0));
    EXPECT_TRUE(cache.AdjacentTileExists(1, 1));
    EXPECT_FLOAT_EQ(host.progress.back(), 1.0f);

    // Without tile 2 of level 0 and tile 1 of level 1, a resumed run builds
    // those two alone.
    cache.tiles.erase({0, 0, 2});
    cache.tiles.erase({1, 0, 1});
    cache.writes.clear();
    factory.Construct(cache, true, false);
    std::vector<std::pair<unsigned, unsigned>> built;
    for (auto const& w : cache.writes)
        if (w.x == -8) built.emplace_back(w.level, w.tile);
    EXPECT_EQ(built, (std::vector<std::pair<unsigned, unsigned>>{{0, 2}, {1, 1}}));

    EXPECT_EQ(test::error_text([&] { factory.ConstructAnimationTiles(cache, 1, 5); }),
              "WEFTMAP_INTERNAL_ERROR: ConstructAnimationTiles: level 1 tile 5 doesn't exist");
}

TEST_F(PanLevels, AnInbetweenNeedsLevelsOfOneHeight) {
    RecycledImage<Gray> finer(Point(40, 36)), coarser(Point(30, 30)), out;
    View<Gray> c = view(coarser);
    EXPECT_EQ(test::error_text([&] {
                  factory.ConstructAnimationFrame(out, view(finer), view(finer), c, 1, nullptr,
                                                  nullptr);
              }),
              "WEFTMAP_INTERNAL_ERROR: mismatch between buffer heights of different levels");
}

}  // namespace
}  // namespace WM
