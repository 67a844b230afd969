#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace WM {
namespace {

using Gray = gray8_pixel_t;

// A pan of 6 frames of 32 x 24 over a smooth picture is a tapestry 112 x 36:
// 5 tiles of 24, overlapping by 8.
struct PanTapestry : ::testing::Test {
    Point const frame{32, 24}, tile{24, 36};
    std::ptrdiff_t const ov = 8;
    test::PanSource<Gray> source{test::pan_picture(frame, 6, 11, 21, 6), frame, 6, 11};
};

using Built = std::vector<std::pair<unsigned, unsigned>>;
Built const all_five{{0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 4}};

TEST_F(PanTapestry, TilesMeetWithoutSeamsAndResumingBuildsOnlyTheMissingOnes) {
    test::MemoryMultiCache<Gray> whole(tile), resumed(tile);
    MultiTileCacheAdaptor<Gray> whole_level(0, 0, &whole), level(0, 0, &resumed);
    test::RecordingClient<Gray> host;
    {
        test::Reproducible repeat;
        TapestryFactory<Gray>(source, &host).Construct(whole_level, 0, -1);
    }
    EXPECT_EQ(whole.built(ov), all_five);
    EXPECT_TRUE(host.monotone_to_one());
    // Tiles made apart would show seams at the tile borders and ov to their
    // left, where a neighbour's strip was rewritten.
    auto const picture = whole.picture(5);
    double seams = 0, inside = 0;
    for (std::ptrdiff_t x = 1; x < 112; ++x) {
        double step = 0;
        for (std::ptrdiff_t y = 0; y < 36; ++y)
            step +=
                std::abs(const_view(picture)(x, y)[0] - const_view(picture)(x - 1, y)[0]) / 36.0;
        (x % tile.x == 0 || (x + ov) % tile.x == 0 ? seams : inside) += step;
    }
    seams /= 8, inside /= 103;
    EXPECT_GT(inside, 1.0);  // not a flat picture
    EXPECT_LT(seams, 1.5 * inside) << seams << " " << inside;

    {
        test::Reproducible repeat;
        resumed.fail_at_tile = 3;  // interrupts tile 2 when it asks for its right neighbour
        EXPECT_EQ(test::error_text(
                      [&] { TapestryFactory<Gray>(source, nullptr).Construct(level, 0, -1); }),
                  "WEFTMAP_USER_CANCELED");
        test::ScopedCapture capture(false);
        TapestryFactory<Gray>(source, nullptr).Construct(level, 0, -1);
        EXPECT_NE(
            capture.channel.written.find("Skipping preexisting tile 1\nConstructing tile 2\n"),
            std::string::npos);
    }
    EXPECT_EQ(resumed.built(ov), all_five);
    EXPECT_TRUE(gil::equal_pixels(const_view(picture), const_view(resumed.picture(5))));

    // Rebuilding a middle tile binds both neighbours and rewrites both strips.
    resumed.tiles.erase({0, 0, 2});
    resumed.writes.clear();
    resumed.reads.clear();
    test::ScopedCapture capture;
    TapestryFactory<Gray>(source, nullptr).Construct(level, 0, -1);
    using A = test::MemoryMultiCache<Gray>::Access;
    EXPECT_EQ(resumed.reads, (std::vector<A>{{0, 0, 1, tile.x - ov}, {0, 0, 3, -(ov + tile.x)}}));
    EXPECT_EQ(resumed.writes,
              (std::vector<A>{{0, 0, 2, -ov}, {0, 0, 1, tile.x - ov}, {0, 0, 3, -(ov + tile.x)}}));
    for (char const* label :
         {"Input tile layout: ", "Valid_mask tile layout: ", "tile constraints: ", "tile hole: ",
          "retargeted tile buffer with overlap: "})
        EXPECT_NE(capture.channel.written.find(label), std::string::npos) << label;
}

TEST_F(PanTapestry, OnlyUheckAbortAsksTheHostAndProgressIsPlacedPerTile) {
    test::RecordingClient<Gray> host;
    host.cancel = true;
    TapestryFactory<Gray> factory(source, &host);
    EXPECT_FALSE(static_cast<ClientBase<Gray>&>(factory).checkAbort());
    EXPECT_EQ(host.abort_polls, 0);
    EXPECT_TRUE(factory.uheckAbort());
    EXPECT_EQ(host.abort_polls, 1);
    EXPECT_FALSE(TapestryFactory<Gray>(source, nullptr).uheckAbort());
    factory.progress_scale = 0.25f;
    factory.progress_offset = 0.5f;
    factory.updateProgress(0.5f);
    EXPECT_FLOAT_EQ(host.progress.back(), 0.625f);
}

TEST(TapestryIndexMap, NamesTheFrameEachPixelCameFromInFullSequenceNumbers) {
    Point const frame(32, 24);
    test::PanSource<Gray> numbered(test::numbered_frames(frame, 5), frame, 5, 32);
    auto const check = [&](TapestryFrameSource<Gray> const& source, std::vector<int> const& shown) {
        test::Reproducible repeat;
        TapestryFactory<Gray> factory(source, nullptr);
        factory.recomposer.generate_index_map = true;
        RecycledImage<Gray> out;
        RecycledImage<rgb8_pixel_t> map;
        test::ScopedCapture capture;
        factory.Construct(out, map, 0, -1);
        for (char const* label : {"single tile output: ", "single reverse index map output: ",
                                  "output buffer: ", "output reverse index map: "})
            EXPECT_NE(capture.channel.written.find(label), std::string::npos) << label;
        ASSERT_EQ(map.dimensions(), out.dimensions());
        int named = 0, right = 0, unnamed = 0, black = 0;
        for (std::ptrdiff_t y = 0; y < out.height(); ++y)
            for (std::ptrdiff_t x = 0; x < out.width(); ++x) {
                int const value = int(IndexMapValue(const_view(map)(x, y)));
                int seen = -1;  // the shown frame (or the empty wall's black) of the nearest grey
                for (int f : shown)
                    if (std::abs(const_view(out)(x, y)[0] - test::numbered_level(f)) <
                        std::abs(const_view(out)(x, y)[0] -
                                 (seen < 0 ? 0 : test::numbered_level(seen))))
                        seen = f;
                ASSERT_TRUE(value == 0 || std::count(shown.begin(), shown.end(), value - 1))
                    << value;
                (value == 0 ? unnamed : named) += 1;
                (value == 0 ? black : right) += seen == value - 1;
            }
        // Pixels blend their neighbours' patches, so a few near a change of
        // frame look like the neighbour.
        EXPECT_GT(named, out.width() * out.height() * 95 / 100);
        EXPECT_GT(right, named * 95 / 100) << right << " of " << named;
        EXPECT_GT(black, unnamed / 2) << black << " of " << unnamed;
    };
    check(numbered, {0, 1, 2, 3, 4});
    std::vector<unsigned> const subset{1, 3, 4};
    SubFrameSource<Gray> sub(&numbered, &subset);
    check(sub, {1, 3, 4});
}

template <class Pixel>
class TapestryTyped : public ::testing::Test {};
TYPED_TEST_SUITE(TapestryTyped, test::AllPixelTypes, test::PixelNames);

TYPED_TEST(TapestryTyped, ATextureTapestryKeepsItsSizeAndBrightness) {
    RecycledImage<TypeParam> picture(Point(28, 12));
    test::paint_texture(view(picture));
    test::PanSource<TypeParam> source(picture, Point(16, 12), 3, 6);
    RecycledImage<TypeParam> out;
    // One band and a fixed seed: a run in bands may land further from the
    // mean now and then.
    test::Reproducible repeat;
    TapestryFactory<TypeParam>(source, nullptr).Construct(out, 0, -1);
    ASSERT_EQ(out.dimensions(), Point(32, 18));
    auto const mean = [](auto const& v) {
        double sum = 0;
        for (auto const& p : v)
            for (int c = 0; c < num_channels_v<TypeParam>; ++c) sum += double(channel_value(p, c));
        return sum / double(v.width() * v.height()) / test::channel_top<TypeParam>();
    };
    EXPECT_NEAR(mean(const_view(out)), mean(const_view(picture)), 0.1 * num_channels_v<TypeParam>);
}

}  // namespace
}  // namespace WM
