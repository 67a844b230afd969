#include "support/random_image.hpp"
#include "support/test_client.hpp"
#include "twopass/test_access.hpp"

#include <weftmap/correspondence/random.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace WM {
namespace {

using Gray = RecycledImage<gray8_pixel_t>;

// Whether the tile holds a hole pixel at full size.
bool has_hole(Tile const& t, Gray const& hole) {
    for (std::ptrdiff_t y = t.origin.y; y < t.origin.y + t.size.y; ++y)
        for (std::ptrdiff_t x = t.origin.x; x < t.origin.x + t.size.x; ++x)
            if (const_view(hole)(x, y)[0] != 0) return true;
    return false;
}

// Mean absolute step between neighbouring pixels inside the hole: on the
// lines where a tile starts over an earlier one, and everywhere else.
struct StepEnergy {
    double across = 0;
    double elsewhere = 0;
};

template <class Pixel>
StepEnergy step_energy(ConstView<Pixel> const& v, Gray const& hole, TileArray const& tiles) {
    auto const on_border = [&](std::ptrdiff_t pos, bool along_x) {
        for (Tile const& t : tiles.tiles)
            if ((along_x ? t.origin.x : t.origin.y) == pos && pos > 0) return true;
        return false;
    };
    double sum[2] = {0, 0}, count[2] = {0, 0};
    for (std::ptrdiff_t y = 1; y < v.height(); ++y)
        for (std::ptrdiff_t x = 1; x < v.width(); ++x) {
            if (const_view(hole)(x, y)[0] == 0) continue;
            for (bool along_x : {true, false}) {
                auto const& a = v(x, y);
                auto const& b = along_x ? v(x - 1, y) : v(x, y - 1);
                double d = 0;
                for (int c = 0; c < num_channels_v<Pixel>; ++c)
                    d += std::abs(double(channel_value(a, c)) - double(channel_value(b, c)));
                int const k = on_border(along_x ? x : y, along_x) ? 0 : 1;
                sum[k] += d;
                count[k] += 1;
            }
        }
    return {sum[0] / std::max(count[0], 1.0), sum[1] / std::max(count[1], 1.0)};
}

// A 96 x 80 picture with a hole of radius 14 in the middle, solved at
// scale 1: nine 48 x 40 tiles, four of them over the hole.
template <class Pixel>
struct TiledJob {
    TiledJob() : in(Point(96, 80), 48, 40, 14, true), access(in.picture, in.hole, 2) {
        seed_random(7);
        test::refuse_scales_below(client, access, 1);
    }
    test::HolePicture<Pixel> in;
    test::PyramidAccess<Pixel> access;
    test::HostClient<Pixel> client;
    test::OpenTwoPass<Pixel> synthesis{&access, &client};
};

template <class Pixel>
class TiledPassTyped : public ::testing::Test {};
using Representative = ::testing::Types<gray8_pixel_t, rgb16_pixel_t, rgb32f_pixel_t>;
TYPED_TEST_SUITE(TiledPassTyped, Representative, test::PixelNames);

TYPED_TEST(TiledPassTyped, TilesKeepKnownPixelsStitchAndReportTheWholeJob) {
    using Pixel = TypeParam;
    TiledJob<Pixel> job;
    auto& access = job.access;
    auto const& in = job.in;
    test::ScopedCapture diagnostics;
    test::CaptureStdout out;
    job.synthesis.run();
    ASSERT_EQ(out.text(), "coarse scale 1\n");
    EXPECT_EQ(access.violations, 0);

    // Known pixels are the picture's own, bit for bit.
    Box const b = access.bounds(0);
    for (int y = b.ymin; y < b.ymax; ++y)
        for (int x = b.xmin; x < b.xmax; ++x)
            if (const_view(in.hole)(x, y)[0] == 0) {
                ASSERT_EQ(const_view(access.output)(x, y), const_view(in.picture)(x, y))
                    << x << "," << y;
            }
    EXPECT_GT(
        test::psnr_where(const_view(access.output), const_view(in.picture), const_view(in.hole)),
        15.0);

    // Tiles without hole pixels were copied, so they bind nobody; the others
    // were recomposed. Each tile is one write and one step of the table.
    auto const& tiles = job.synthesis.tiles;
    ASSERT_EQ(tiles.GetSize(), 9);
    int recomposed = 0;
    for (Tile const& t : tiles.tiles) {
        EXPECT_EQ(t.done, has_hole(t, in.hole)) << t.row << "," << t.col;
        recomposed += t.done;
    }
    EXPECT_EQ(recomposed, 4);
    EXPECT_EQ(access.calls_of("setOutputPixels").size(), 9u);
    EXPECT_EQ(job.synthesis.progress_table.size(), 11u);
    EXPECT_EQ(job.synthesis.progress_pos, job.synthesis.progress_table.data() + 11);
    EXPECT_TRUE(test::monotone_to_one(job.client.progress));

    // No seam: on a picture of slow waves, the steps where a tile starts over
    // its finished neighbour are no larger than elsewhere in the fill
    // (without the constraints they are several times larger).
    auto const e = step_energy(const_view(access.output), in.hole, tiles);
    EXPECT_LT(e.across, 1.25 * e.elsewhere) << e.across << " vs " << e.elsewhere;

    // Each step of the pass publishes its checksum.
    for (char const* label :
         {"multipass_coarse_input:", "multipass_coarse_hole: ",
          "ChooseSourceRegion: raw counter view ", "ChooseSourceRegion: x filtered counter view ",
          "ChooseSourceRegion: y filtered counter view ", "ConstructInitialGuess guess ",
          "ConstructConstraints: hole_buf ", "ConstructConstraints: tconstraint_buf ",
          "TiledPass input: ", "TiledPass valid mask ", "TiledPass target_constraint mask "})
        EXPECT_NE(diagnostics.channel.written.find(std::string("CHECKSUM (test): ") + label),
                  std::string::npos)
            << label;
}

TEST(TiledPass, ACancelKeepsTheTilesWrittenBeforeAndWritesNothingMore) {
    using Pixel = gray8_pixel_t;
    TiledJob<Pixel> job;
    auto& synthesis = job.synthesis;
    auto& access = job.access;
    job.client.abort_when = [&] {
        int done = 0;
        for (Tile const& t : synthesis.tiles.tiles) done += t.done;
        return access.deepest_scale < 1 || done >= 2;
    };
    test::CaptureStdout out;
    std::string const text = test::error_text([&] { synthesis.run(); });
    EXPECT_EQ(text.rfind("WEFTMAP_USER_CANCELED", 0), 0u) << text;

    // The visit order up to the tile that was cancelled.
    std::vector<Tile const*> written;
    for (Tile const& t : synthesis.tiles) {
        if (has_hole(t, job.in.hole) && !t.done) break;
        written.push_back(&t);
    }
    auto const writes = access.calls_of("setOutputPixels");
    ASSERT_EQ(writes.size(), written.size());
    ASSERT_GE(written.size(), 2u);
    ASSERT_LT(written.size(), 9u);
    Box const b = access.bounds(0);
    for (std::size_t i = 0; i < writes.size(); ++i)
        EXPECT_EQ(writes[i].origin, Point(std::max<std::ptrdiff_t>(written[i]->origin.x, b.xmin),
                                          std::max<std::ptrdiff_t>(written[i]->origin.y, b.ymin)));
    auto const covered = [&](int x, int y) {
        for (Tile const* t : written)
            if (x >= t->origin.x && x < t->origin.x + t->size.x && y >= t->origin.y &&
                y < t->origin.y + t->size.y)
                return true;
        return false;
    };
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 96; ++x)
            if (!covered(x, y)) {
                ASSERT_EQ(int(const_view(access.output)(x, y)[0]), 0) << x << "," << y;
            }

    // The tile settings stay: the saved recomposer is put back only at the end.
    EXPECT_TRUE(synthesis.recomposer.const_coarse_size);
    EXPECT_EQ(synthesis.recomposer.half_search_window, 0);
}

TEST(TiledPass, AHoleReachingTheShortLastRowIsFilledThere) {
    // Tiles of the last row are 8 rows high, less than where a tile's
    // pyramid would otherwise start.
    using Pixel = gray8_pixel_t;
    test::HolePicture<Pixel> const in(Point(96, 80), 48, 62, 14, true);
    test::PyramidAccess<Pixel> access(in.picture, in.hole, 2);
    test::HostClient<Pixel> client;
    test::refuse_scales_below(client, access, 1);
    test::OpenTwoPass<Pixel> synthesis(&access, &client);
    test::CaptureStdout out;
    ASSERT_NO_THROW(synthesis.run());
    for (Tile const& t : synthesis.tiles.tiles) EXPECT_EQ(t.done, has_hole(t, in.hole));
    EXPECT_TRUE(synthesis.tiles.tiles[6].done);
    EXPECT_EQ(synthesis.tiles.tiles[6].size, Point(48, 8));
    Box const b = access.bounds(0);
    for (int y = b.ymin; y < b.ymax; ++y)
        for (int x = b.xmin; x < b.xmax; ++x)
            if (const_view(in.hole)(x, y)[0] == 0) {
                ASSERT_EQ(const_view(access.output)(x, y), const_view(in.picture)(x, y));
            }
}

// A 140 x 112 picture whose hole bounds cover x 20..119, y 10..99, and a
// 3 x 3 grid of 50 x 40 tiles (overlap 5 x 4); the middle tile starts at
// (45, 36).
struct GridHost {
    using Pixel = gray8_pixel_t;
    GridHost() : access(picture(), hole(), 2), synthesis(&access, &client) {
        gil::fill_pixels(view(access.output), Pixel(250));
        synthesis.tiles.InitTiles(Point(50, 40), Point(140, 112), 0.1f);
        synthesis.hole_buf.recreate(Point(50, 40));
    }
    static RecycledImage<Pixel> picture() {
        RecycledImage<Pixel> p(Point(140, 112));
        for (int y = 0; y < 112; ++y)
            for (int x = 0; x < 140; ++x) view(p)(x, y) = Pixel((3 * x + y) % 200);
        return p;
    }
    static Gray hole() {
        auto mask = test::byte_mask(Point(140, 112), 0);
        test::paint(view(mask), Box{20, 10, 120, 100}, gray8_pixel_t(255));
        return mask;
    }
    Tile& tile(int row, int col) { return synthesis.tiles.tiles[3 * row + col]; }

    test::PyramidAccess<Pixel> access;
    test::HostClient<Pixel> client;
    test::OpenTwoPass<Pixel> synthesis;
};

TEST(TiledPass, FinishedNeighboursFixTheirStripsUnderRampsThatCombineByMinimum) {
    GridHost host;
    auto& s = host.synthesis;
    ASSERT_EQ(s.tiles.rows, 3);
    ASSERT_EQ(s.tiles.cols, 3);
    Tile const& middle = host.tile(1, 1);
    ASSERT_EQ(middle.origin, Point(45, 36));
    host.tile(1, 0).done = true;  // left
    host.tile(0, 1).done = true;  // up
    // The right and lower neighbours are not done: a copied tile binds nobody.

    gil::fill_pixels(view(s.hole_buf), gray8_pixel_t(255));
    s.ConstructConstraints(middle, true, false);
    // 8.8 ramps: 65280 / 5 = 13056 per column, 65280 / 4 = 16320 per row.
    int const left[] = {0, 51, 102, 153, 204};
    int const up[] = {0, 63, 127, 191};
    auto const hole = const_view(s.hole_buf);
    auto const fixed = const_view(s.tconstraint_buf);
    for (int j = 0; j < 40; ++j)
        for (int i = 0; i < 50; ++i) {
            int const ramp = std::min(i < 5 ? left[i] : 255, j < 4 ? up[j] : 255);
            ASSERT_EQ(int(hole(i, j)[0]), ramp) << i << "," << j;
            int const expected = i < 5 || j < 4 ? 250 : (3 * (45 + i) + 36 + j) % 200;
            ASSERT_EQ(int(fixed(i, j)[0]), expected) << i << "," << j;
        }
    auto const reads = host.access.calls_of("getOutputPixels");
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0].origin, Point(45, 36));
    EXPECT_EQ(reads[0].size, Point(5, 40));
    EXPECT_EQ(reads[1].origin, Point(45, 36));
    EXPECT_EQ(reads[1].size, Point(50, 4));

    // A finished right neighbour ramps down towards its side.
    host.tile(1, 2).done = true;
    gil::fill_pixels(view(s.hole_buf), gray8_pixel_t(255));
    s.ConstructConstraints(middle, true, false);
    int const right[] = {255, 204, 153, 102, 51};
    for (int j = 0; j < 40; ++j)
        for (int i = 45; i < 50; ++i)
            ASSERT_EQ(int(hole(i, j)[0]), std::min(right[i - 45], j < 4 ? up[j] : 255));
    auto const again = host.access.calls_of("getOutputPixels");
    ASSERT_EQ(again.size(), 5u);  // left, right, up
    EXPECT_EQ(again[3].origin, Point(90, 36));
    EXPECT_EQ(again[3].size, Point(5, 40));

    // Masks: without a constraint image the window must not sample the hole.
    s.valid_buf.recreate(Point(30, 20));
    Tile window = middle;
    window.source_origin = Point(5, 0);
    for (bool a_constraint : {false, true}) {
        s.ConstructMasks(window, false, a_constraint, false);
        for (int y = 0; y < 20; ++y)
            for (int x = 0; x < 30; ++x)
                ASSERT_EQ(int(const_view(s.valid_buf)(x, y)[0]),
                          !a_constraint && x + 5 >= 20 && y >= 10 ? 0 : 255);
        EXPECT_EQ(s.tconstraint_mask_buf.dimensions(), middle.size);
        for (auto p : const_view(s.tconstraint_mask_buf)) ASSERT_EQ(int(p[0]), 255);
    }
}

TEST(TiledPass, TheCoarseFieldChoosesTheSourceWindowAndHoleDepthTheOrder) {
    using Pixel = gray8_pixel_t;
    auto const picture = test::uniform<Pixel>(Point(80, 60), 9);
    test::PyramidAccess<Pixel> access(picture, test::byte_mask(Point(80, 60), 255), 2);
    test::HostClient<Pixel> client;
    test::OpenTwoPass<Pixel> s(&access, &client);
    auto& r = s.recomposer;
    // The end of a coarse job at scale 1: 40 x 30 masks and field.
    s.counter_buf.recreate(Point(40, 30));
    r._tmask.recreate(Point(40, 30));
    r._target_nnf_buf.recreate(Point(40, 30));
    auto const reset = [&] {
        gil::fill_pixels(r._tmask.view, gray8_pixel_t(255));
        gil::fill_pixels(view(r._target_nnf_buf), offset_pixel_t(0, 0));
    };
    Point const window(40, 30);  // 20 x 15 at the coarse scale
    Tile tile;
    tile.size = Point(20, 20);

    // Two matches of one count each: windows with either tie, and the first
    // of them in row-major order wins. A window whose top-left is (0, 6)
    // holds the match at (8, 20); with the half patch (3) the window starts
    // at 2 * (0 + 3) - 3, 2 * (6 + 3) - 3 at full size.
    reset();
    r._tmask.view(0, 0) = gray8_pixel_t(0);
    view(r._target_nnf_buf)(0, 0) = offset_pixel_t(30, 20);
    r._tmask.view(1, 0) = gray8_pixel_t(0);
    view(r._target_nnf_buf)(1, 0) = offset_pixel_t(8, 20);
    s.ChooseSourceRegion(tile, 1, window);
    EXPECT_EQ(tile.source_origin, Point(3, 15));
    EXPECT_EQ(tile.source_size, Point(40, 30));

    // Everything drawn from the far corner: the window is pushed back inside.
    reset();
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x) {
            r._tmask.view(x, y) = gray8_pixel_t(0);
            view(r._target_nnf_buf)(x, y) = offset_pixel_t(39, 29);
        }
    s.ChooseSourceRegion(tile, 1, window);
    EXPECT_EQ(tile.source_origin, Point(40, 30));  // 43, 33 before clamping

    // Nothing synthesized under the tile: no window.
    reset();
    s.ChooseSourceRegion(tile, 1, window);
    EXPECT_EQ(tile.source_origin, Point(0, 0));
    EXPECT_EQ(tile.source_size, Point(0, 0));

    // Priorities: the deepest hole distance under each tile's coarse
    // rectangle. A 2 x 2 grid; coarse rectangles start at x 0 / 18, y 0 / 13.
    s.tiles.InitTiles(Point(40, 30), Point(76, 56), 0.1f);
    ASSERT_EQ(s.tiles.GetSize(), 4);
    RecycledImage<int_gray_pixel_t> depth(Point(40, 30));
    gil::fill_pixels(view(depth), int_gray_pixel_t(-1));
    view(depth)(5, 5) = int_gray_pixel_t(9);    // tile (0, 0) only
    view(depth)(25, 5) = int_gray_pixel_t(2);   // tile (0, 1) only
    view(depth)(30, 20) = int_gray_pixel_t(4);  // tile (1, 1) only
    r._distance_view = DistanceInsetView(view(depth));
    s.SortTiles(1);
    std::vector<int> priorities, rows_cols;
    for (Tile const& t : s.tiles) {
        priorities.push_back(t.priority);
        rows_cols.push_back(10 * t.row + t.col);
    }
    EXPECT_EQ(priorities, (std::vector<int>{-1, 2, 4, 9}));
    EXPECT_EQ(rows_cols, (std::vector<int>{10, 1, 11, 0}));

    // No distance map at all: every priority is 0.
    r._distance_view = DistanceInsetView();
    s.SortTiles(1);
    for (Tile const& t : s.tiles.tiles) EXPECT_EQ(t.priority, 0);
}

}  // namespace
}  // namespace WM
