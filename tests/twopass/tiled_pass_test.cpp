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

bool has_hole(Tile const& t, Gray const& hole) {
    for (std::ptrdiff_t y = t.origin.y; y < t.origin.y + t.size.y; ++y)
        for (std::ptrdiff_t x = t.origin.x; x < t.origin.x + t.size.x; ++x)
            if (const_view(hole)(x, y)[0] != 0) return true;
    return false;
}

// Mean absolute step between neighbouring hole pixels on the lines where a
// tile starts (over a finished neighbour) and, second, everywhere else.
template <class Pixel>
std::pair<double, double> step_energy(ConstView<Pixel> const& v, Gray const& hole,
                                      TileArray const& tiles) {
    double sum[2] = {0, 0}, count[2] = {0, 0};
    for (std::ptrdiff_t y = 1; y < v.height(); ++y)
        for (std::ptrdiff_t x = 1; x < v.width(); ++x)
            for (bool along_x : {true, false}) {
                if (const_view(hole)(x, y)[0] == 0) continue;
                auto const& b = along_x ? v(x - 1, y) : v(x, y - 1);
                double d = 0;
                for (int c = 0; c < num_channels_v<Pixel>; ++c)
                    d += std::abs(double(channel_value(v(x, y), c)) - double(channel_value(b, c)));
                bool border = false;
                for (Tile const& t : tiles.tiles)
                    border |= (along_x ? t.origin.x : t.origin.y) == (along_x ? x : y);
                sum[border ? 0 : 1] += d;
                count[border ? 0 : 1] += 1;
            }
    return {sum[0] / std::max(count[0], 1.0), sum[1] / std::max(count[1], 1.0)};
}

// A 96 x 80 picture solved at scale 1 in nine 48 x 40 tiles (overlap 4);
// the last row is 8 high and the hole reaches into it. Four tiles hold hole
// pixels: rows 1 and 2, columns 0 and 1.
template <class Pixel>
struct TiledJob {
    TiledJob() : in(Point(96, 80), 48, 60, 14), access(in.picture, in.hole, 2) {
        seed_random(7);
        test::refuse_scales_below(client, access, 1);
    }
    test::HolePicture<Pixel> in;
    test::PyramidAccess<Pixel> access;
    test::RecordingClient<Pixel> client;
    test::OpenTwoPass<Pixel> synthesis{&access, &client};
};

template <class Pixel>
class TiledPassTyped : public ::testing::Test {};
using Representative = ::testing::Types<gray8_pixel_t, rgb16_pixel_t, rgb32f_pixel_t>;
TYPED_TEST_SUITE(TiledPassTyped, Representative, test::PixelNames);

TYPED_TEST(TiledPassTyped, TilesKeepKnownPixelsStitchAndReportTheWholeJob) {
    TiledJob<TypeParam> job;
    test::ScopedCapture diagnostics;
    test::CaptureStdout out;
    job.synthesis.run();
    ASSERT_EQ(out.text(), "coarse scale 1\n");
    EXPECT_EQ(job.access.violations, 0);
    EXPECT_TRUE(job.in.known_pixels_kept(job.access));
    EXPECT_GT(test::psnr_where(const_view(job.access.output), const_view(job.in.picture),
                               const_view(job.in.hole)),
              15.0);

    // Tiles without hole pixels are copied and bind nobody. Every tile is one
    // write and one step of the table.
    auto const& tiles = job.synthesis.tiles;
    ASSERT_EQ(tiles.GetSize(), 9);
    for (Tile const& t : tiles.tiles) EXPECT_EQ(t.done, has_hole(t, job.in.hole));
    EXPECT_TRUE(tiles.tiles[6].done);  // the short last row, 48 x 8
    EXPECT_EQ(job.access.calls_of("setOutputPixels").size(), 9u);
    EXPECT_EQ(job.synthesis.progress_pos, job.synthesis.progress_table.data() + 11);
    EXPECT_TRUE(job.client.monotone_to_one());

    // No seam: the steps where a tile starts over its finished neighbour are
    // no larger than elsewhere (without the constraints, several times).
    auto const [across, elsewhere] = step_energy(const_view(job.access.output), job.in.hole, tiles);
    EXPECT_LT(across, 1.25 * elsewhere) << across << " vs " << elsewhere;

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
    TiledJob<gray8_pixel_t> job;
    auto& synthesis = job.synthesis;
    job.client.abort_when = [&] {
        int done = 0;
        for (Tile const& t : synthesis.tiles.tiles) done += t.done;
        return job.access.deepest_scale < 1 || done >= 2;
    };
    test::CaptureStdout out;
    std::string const text = test::error_text([&] { synthesis.run(); });
    EXPECT_EQ(text.rfind("WEFTMAP_USER_CANCELED", 0), 0u) << text;

    // The visit order up to the tile that was cancelled, copies included.
    std::vector<Tile const*> written;
    for (Tile const& t : synthesis.tiles) {
        if (has_hole(t, job.in.hole) && !t.done) break;
        written.push_back(&t);
    }
    EXPECT_EQ(job.access.calls_of("setOutputPixels").size(), written.size());
    ASSERT_GT(written.size(), 2u);
    ASSERT_LT(written.size(), 9u);
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 96; ++x) {
            bool covered = false;
            for (Tile const* t : written)
                covered |= x >= t->origin.x && x < t->origin.x + t->size.x && y >= t->origin.y &&
                           y < t->origin.y + t->size.y;
            if (!covered) {
                ASSERT_EQ(int(const_view(job.access.output)(x, y)[0]), 0) << x << "," << y;
            }
        }
    // The saved recomposer is put back only at the end.
    EXPECT_TRUE(synthesis.recomposer.const_coarse_size);
    EXPECT_EQ(synthesis.recomposer.half_search_window, 0);
}

TEST(TiledPass, FinishedNeighboursFixTheirStripsUnderRampsThatCombineByMinimum) {
    // A 140 x 112 picture of (3x + y) % 200 with hole bounds x 20..119,
    // y 10..99; a 3 x 3 grid of 50 x 40 tiles with overlap 5 x 4.
    RecycledImage<gray8_pixel_t> picture(Point(140, 112));
    for (int y = 0; y < 112; ++y)
        for (int x = 0; x < 140; ++x) view(picture)(x, y) = gray8_pixel_t((3 * x + y) % 200);
    Gray hole = test::byte_mask(Point(140, 112), 0);
    test::paint(view(hole), Box{20, 10, 120, 100}, gray8_pixel_t(255));
    test::PyramidAccess<gray8_pixel_t> access(picture, hole, 1);
    gil::fill_pixels(view(access.output), gray8_pixel_t(250));
    test::OpenTwoPass<gray8_pixel_t> s(&access, nullptr);
    s.tiles.InitTiles(Point(50, 40), Point(140, 112), 0.1f);
    s.hole_buf.recreate(Point(50, 40));
    Tile const& middle = s.tiles.tiles[4];
    ASSERT_EQ(middle.origin, Point(45, 36));
    s.tiles.tiles[3].done = s.tiles.tiles[1].done = true;  // left and up

    // 8.8 ramps: 65280 / 5 = 13056 per column, 65280 / 4 = 16320 per row.
    int const left[] = {0, 51, 102, 153, 204}, up[] = {0, 63, 127, 191},
              right[] = {255, 204, 153, 102, 51};
    for (bool right_done : {false, true}) {
        s.tiles.tiles[5].done = right_done;
        gil::fill_pixels(view(s.hole_buf), gray8_pixel_t(255));
        access.calls.clear();
        s.ConstructConstraints(middle, true, false);
        for (int j = 0; j < 40; ++j)
            for (int i = 0; i < 50; ++i) {
                int const along_x = i < 5 ? left[i] : right_done && i >= 45 ? right[i - 45] : 255;
                ASSERT_EQ(int(const_view(s.hole_buf)(i, j)[0]),
                          std::min(along_x, j < 4 ? up[j] : 255));
                bool const strip = i < 5 || j < 4 || (right_done && i >= 45);
                int const fixed = strip ? 250 : (3 * (45 + i) + 36 + j) % 200;
                ASSERT_EQ(int(const_view(s.tconstraint_buf)(i, j)[0]), fixed);
            }
        // Left, right, up: each from its neighbour's side of the strip.
        auto const reads = access.calls_of("getOutputPixels");
        ASSERT_EQ(reads.size(), right_done ? 3u : 2u);
        EXPECT_EQ(reads[0].size, Point(5, 40));
        if (right_done) {
            EXPECT_EQ(reads[1].origin, Point(90, 36));
        }
        EXPECT_EQ(reads.back().origin, Point(45, 36));
        EXPECT_EQ(reads.back().size, Point(50, 4));
    }

    // Without a constraint image a source window must not sample the hole.
    s.valid_buf.recreate(Point(30, 20));
    Tile window = middle;
    window.source_origin = Point(5, 0);
    for (bool a_constraint : {false, true}) {
        s.ConstructMasks(window, false, a_constraint, false);
        for (int y = 0; y < 20; ++y)
            for (int x = 0; x < 30; ++x)
                ASSERT_EQ(int(const_view(s.valid_buf)(x, y)[0]),
                          !a_constraint && x >= 15 && y >= 10 ? 0 : 255);
        for (auto p : const_view(s.tconstraint_mask_buf)) ASSERT_EQ(int(p[0]), 255);
    }
}

TEST(TiledPass, TheCoarseFieldChoosesTheSourceWindowAndHoleDepthTheOrder) {
    using Pixel = gray8_pixel_t;
    test::PyramidAccess<Pixel> access(test::uniform<Pixel>(Point(80, 60), 9),
                                      test::byte_mask(Point(80, 60), 255), 2);
    test::OpenTwoPass<Pixel> s(&access, nullptr);
    auto& r = s.recomposer;
    // The end of a coarse job at scale 1: 40 x 30 masks and field.
    s.counter_buf.recreate(Point(40, 30));
    r._tmask.recreate(Point(40, 30));
    r._target_nnf_buf.recreate(Point(40, 30));
    auto const match = [&](int x, int y, int sx, int sy) {
        r._tmask.view(x, y) = gray8_pixel_t(0);
        view(r._target_nnf_buf)(x, y) = offset_pixel_t(sx, sy);
    };
    auto const choose = [&] {
        Tile tile;
        tile.size = Point(20, 20);
        s.ChooseSourceRegion(tile, 1, Point(40, 30));  // a 20 x 15 window at scale 1
        gil::fill_pixels(r._tmask.view, gray8_pixel_t(255));
        return std::pair(tile.source_origin, tile.source_size);
    };
    gil::fill_pixels(r._tmask.view, gray8_pixel_t(255));
    EXPECT_EQ(choose(), std::pair(Point(0, 0), Point(0, 0))) << "nothing synthesized: no window";

    // Two matches of one count each. The first window in row-major order
    // holding either starts at (0, 6); with the half patch (3) that is
    // 2 * (0 + 3) - 3, 2 * (6 + 3) - 3 at full size.
    match(0, 0, 30, 20);
    match(1, 0, 8, 20);
    EXPECT_EQ(choose(), std::pair(Point(3, 15), Point(40, 30)));
    // All drawn from the far corner: (43, 33) is pushed back inside.
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x) match(x, y, 39, 29);
    EXPECT_EQ(choose(), std::pair(Point(40, 30), Point(40, 30)));

    // Priorities: the deepest hole distance under each tile's coarse
    // rectangle, signed, smallest first. A 2 x 2 grid whose coarse
    // rectangles start at x 0 / 18 and y 0 / 13.
    s.tiles.InitTiles(Point(40, 30), Point(76, 56), 0.1f);
    RecycledImage<int_gray_pixel_t> depth(Point(40, 30));
    gil::fill_pixels(view(depth), int_gray_pixel_t(-1));
    view(depth)(5, 5) = int_gray_pixel_t(9);    // tile (0, 0) only
    view(depth)(25, 5) = int_gray_pixel_t(2);   // tile (0, 1) only
    view(depth)(30, 20) = int_gray_pixel_t(4);  // tile (1, 1) only
    r._distance_view = DistanceInsetView(view(depth));
    s.SortTiles(1);
    std::vector<int> visits;
    for (Tile const& t : s.tiles) visits.push_back(100 * t.priority + 10 * t.row + t.col);
    EXPECT_EQ(visits, (std::vector<int>{-100 + 10, 200 + 1, 400 + 11, 900 + 0}));
}

}  // namespace
}  // namespace WM
