#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace WM {
namespace {

using Gray = gray8_pixel_t;

// A pan of 6 frames of 32 x 24, 11 pixels apart: a tapestry 112 x 36,
// in tiles of 24 (5 tiles) with an overlap of 8.
struct PanTapestry : ::testing::Test {
    Point const frame{32, 24};
    test::PanSource<Gray> source{test::pan_picture(frame, 6, 11, 21), frame, 6, 11};
    Point const tile{24, 36};
    std::ptrdiff_t const overlap = 8;
};

// The mean absolute step between neighbouring columns x - 1 and x.
double column_step(ConstView<Gray> const& v, std::ptrdiff_t x) {
    double sum = 0;
    for (std::ptrdiff_t y = 0; y < v.height(); ++y)
        sum += std::abs(int(v(x, y)[0]) - int(v(x - 1, y)[0]));
    return sum / double(v.height());
}

TEST_F(PanTapestry, ResumingBuildsOnlyTheMissingTilesAndGivesTheUninterruptedPicture) {
    test::RecordingTileCache<Gray> whole(tile);
    {
        test::Reproducible repeat;
        TapestryFactory<Gray> factory(source, nullptr);
        factory.Construct(whole, 0, -1);
    }
    EXPECT_EQ(whole.built(overlap), (std::vector<int>{0, 1, 2, 3, 4}));
    // Each tile after the first binds its left neighbour and rewrites its strip.
    EXPECT_EQ(whole.writes.size(), 9u);
    EXPECT_EQ(whole.writes[2], std::make_tuple(0, tile.x - overlap));

    test::RecordingTileCache<Gray> resumed(tile);
    {
        test::Reproducible repeat;
        resumed.fail_at_tile = 3;  // interrupts tile 2 when it asks for its right neighbour
        TapestryFactory<Gray> first(source, nullptr);
        EXPECT_EQ(test::error_text([&] { first.Construct(resumed, 0, -1); }),
                  "WEFTMAP_USER_CANCELED");
        TapestryFactory<Gray> second(source, nullptr);
        test::ScopedCapture capture(false);
        second.Construct(resumed, 0, -1);
        EXPECT_NE(capture.channel.written.find("Skipping preexisting tile 1\n"), std::string::npos);
        EXPECT_NE(capture.channel.written.find("Constructing tile 2\n"), std::string::npos);
    }
    EXPECT_EQ(resumed.built(overlap), (std::vector<int>{0, 1, 2, 3, 4}));
    auto const a = whole.picture(5), b = resumed.picture(5);
    EXPECT_TRUE(gil::equal_pixels(const_view(a), const_view(b)));

    // Rebuilding a middle tile binds both neighbours and rewrites both strips.
    resumed.tiles.erase(2);
    resumed.writes.clear();
    resumed.reads.clear();
    TapestryFactory<Gray> again(source, nullptr);
    {
        test::ScopedCapture capture;
        again.Construct(resumed, 0, -1);
        EXPECT_NE(capture.channel.written.find("tile constraints: "), std::string::npos);
        EXPECT_NE(capture.channel.written.find("tile hole: "), std::string::npos);
    }
    using W = test::RecordingTileCache<Gray>::Write;
    EXPECT_EQ(resumed.reads, (std::vector<W>{{1, tile.x - overlap}, {3, -(overlap + tile.x)}}));
    EXPECT_EQ(resumed.writes,
              (std::vector<W>{{2, -overlap}, {1, tile.x - overlap}, {3, -(overlap + tile.x)}}));
}

TEST_F(PanTapestry, NeighbouringTilesMeetWithoutAVisibleSeam) {
    // A smooth picture, on which tiles made apart would show their seams:
    // at the tile borders, and ov to their left where a neighbour's strip
    // was rewritten.
    test::PanSource<Gray> smooth(test::pan_picture(frame, 6, 11, 21, 6), frame, 6, 11);
    test::RecordingTileCache<Gray> cache(tile);
    test::RecordingClient<Gray> host;
    test::Reproducible repeat;
    TapestryFactory<Gray> factory(smooth, &host);
    factory.Construct(cache, 0, -1);
    auto const picture = cache.picture(5);
    auto const v = const_view(picture);
    double seams = 0, inside = 0;
    int seam_count = 0, inside_count = 0;
    for (std::ptrdiff_t x = 1; x < 112; ++x)
        if (x % tile.x == 0 || (x + overlap) % tile.x == 0)
            seams += column_step(v, x), ++seam_count;
        else
            inside += column_step(v, x), ++inside_count;
    seams /= seam_count;
    inside /= inside_count;
    EXPECT_GT(inside, 1.0);  // not a flat picture
    EXPECT_LT(seams, 1.5 * inside) << seams << " " << inside;
    // Progress rises through the tiles to the end.
    ASSERT_FALSE(host.progress.empty());
    EXPECT_TRUE(std::is_sorted(host.progress.begin(), host.progress.end()));
    EXPECT_NEAR(host.progress.back(), 1.0f, 1e-6);
    EXPECT_GE(host.progress.front(), 0.0f);
}

TEST_F(PanTapestry, CancellationIsForwardedByUheckAbortOnlyAndProgressIsPlacedPerTile) {
    test::RecordingClient<Gray> host;
    host.cancel = true;
    TapestryFactory<Gray> factory(source, &host);
    ClientBase<Gray>& as_client = factory;
    EXPECT_FALSE(as_client.checkAbort());
    EXPECT_EQ(host.abort_polls, 0);
    EXPECT_TRUE(factory.uheckAbort());
    EXPECT_EQ(host.abort_polls, 1);
    host.cancel = false;
    EXPECT_FALSE(factory.uheckAbort());
    TapestryFactory<Gray> orphan(source, nullptr);
    EXPECT_FALSE(orphan.uheckAbort());

    factory.progress_scale = 0.25f;
    factory.progress_offset = 0.5f;
    factory.updateProgress(0.5f);
    EXPECT_FLOAT_EQ(host.progress.back(), 0.625f);
}

// The frame among `shown` (or -1 for the empty wall's black) whose grey is
// nearest.
int looks_like(int level, std::vector<int> const& shown) {
    int best = -1;
    for (int f : shown)
        if (std::abs(level - test::numbered_level(f)) <
            std::abs(level - (best < 0 ? 0 : test::numbered_level(best))))
            best = f;
    return best;
}

TEST(TapestryIndexMap, NamesTheFrameEachPixelCameFromInFullSequenceNumbers) {
    Point const frame(32, 24);
    test::NumberedSource numbered(frame, 5);
    auto const check = [&](TapestryFrameSource<Gray> const& source, std::vector<int> const& shown) {
        test::Reproducible repeat;
        TapestryFactory<Gray> factory(source, nullptr);
        factory.recomposer.generate_index_map = true;
        RecycledImage<Gray> out;
        RecycledImage<rgb8_pixel_t> map;
        {
            test::ScopedCapture capture;
            factory.Construct(out, map, 0, -1);
            for (char const* label : {"single tile output: ", "single reverse index map output: ",
                                      "output buffer: ", "output reverse index map: "})
                EXPECT_NE(capture.channel.written.find(label), std::string::npos) << label;
            // One tile as wide as the picture: never bound to a neighbour.
            EXPECT_EQ(capture.channel.written.find("tile constraints: "), std::string::npos);
        }
        ASSERT_EQ(map.dimensions(), out.dimensions());
        int named = 0, right = 0, unnamed = 0, black = 0;
        for (std::ptrdiff_t y = 0; y < out.height(); ++y)
            for (std::ptrdiff_t x = 0; x < out.width(); ++x) {
                int const value = int(IndexMapValue(const_view(map)(x, y)));
                int const seen = looks_like(const_view(out)(x, y)[0], shown);
                if (value == 0) {
                    ++unnamed;
                    black += seen == -1;
                    continue;
                }
                ASSERT_NE(std::find(shown.begin(), shown.end(), value - 1), shown.end()) << value;
                ++named;
                right += seen == value - 1;
            }
        // Pixels blend their neighbours' patches, so a few near a change of
        // frame look like the neighbour; no frame is named only where the
        // empty wall shows through.
        EXPECT_GT(named, out.width() * out.height() * 95 / 100);
        EXPECT_GT(right, named * 95 / 100) << right << " of " << named;
        EXPECT_GT(black, unnamed / 2) << black << " of " << unnamed;
    };
    check(numbered, {0, 1, 2, 3, 4});
    std::vector<unsigned> const subset{1, 3, 4};
    SubFrameSource<Gray> sub(&numbered, &subset);
    check(sub, {1, 3, 4});
}

}  // namespace
}  // namespace WM
