#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = gray8_pixel_t;
using Factory = TapestryFactory<Pixel>;

TEST(TapestryLayout, PlanningFormulasGiveTheWorkedNumbersAndWrapIn32Bits) {
    EXPECT_EQ(Factory::ComputeTapestryWidth(100, 5), 300u);
    EXPECT_EQ(Factory::ComputeFrameWidth(300, 5), 100u);
    EXPECT_EQ(Factory::ComputeTapestryWidth(100, 0), 0u);
    EXPECT_EQ(Factory::ComputeFrameWidth(300, 0), 0u);
    EXPECT_EQ(Factory::ComputeMaxFrames(100, 300), 5u);
    EXPECT_EQ(Factory::ComputeMaxFrames(100, 99), 0u);
    EXPECT_EQ(Factory::ComputeTapestryHeight(80), 120u);
    EXPECT_EQ(Factory::ComputeFrameHeight(120), 80u);
    // Large values enter floating point as unsigned, and products wrap.
    EXPECT_EQ(Factory::ComputeFrameHeight(3000000000u), 2000000000u);
    EXPECT_EQ(Factory::ComputeTapestryWidth(0x80000000u, 3), 0u);
    EXPECT_EQ(Factory::ComputeTapestryHeight(0x80000000u), 0u);
    EXPECT_EQ(
        test::error_text([] { Factory::ComputeMaxFrames(0, 5); }).rfind("WEFTMAP_INVALID_", 0), 0u);
}

TEST(TapestryLayout, FrameOriginsAndDimensionsFollowTheBrickWall) {
    test::SizeOnlySource<Pixel> source(Point(100, 80), 5);
    Factory factory(source, nullptr);
    EXPECT_EQ(factory.FrameOrigin(3), Point(150, 80));
    EXPECT_EQ(factory.FrameOrigin(4), Point(200, 0));
    EXPECT_EQ(factory.FrameOrigin(-1), Point(50, 80));  // truncating division
    EXPECT_EQ(factory.GridDimensions(5), Point(300, 160));
    EXPECT_EQ(factory.Dimensions(-1), factory.Dimensions(5));
    EXPECT_EQ(factory.Dimensions(5), Point(300, 120));
    EXPECT_EQ(factory.Dimensions(4), Point(250, 120));
}

TEST(TapestryLayout, GridPixelsMapBackToTheFrameWhoseRectangleHoldsThem) {
    for (Point size : {Point(100, 80), Point(33, 7)}) {
        test::SizeOnlySource<Pixel> source(size, 7);
        Factory factory(source, nullptr);
        for (int frame = 0; frame < 7; ++frame) {
            Point const o = factory.FrameOrigin(frame);
            for (std::ptrdiff_t y = 0; y < size.y; ++y)
                for (std::ptrdiff_t x = 0; x < size.x; ++x)
                    ASSERT_EQ(int(factory.GetFrameByGridPixel(Point(o.x + x, o.y + y))), frame)
                        << size.x << " " << x << "," << y;
        }
        // Left of a row's first frame, and past the last one.
        EXPECT_EQ(int(factory.GetFrameByGridPixel(Point(size.x / 2 - 1, size.y))), -1);
        EXPECT_EQ(int(factory.GetFrameByGridPixel(Point(-1, 0))), -2);
        EXPECT_EQ(int(factory.GetFrameByGridPixel(factory.FrameOrigin(7))), 7);
    }
    test::SizeOnlySource<Pixel> source(Point(100, 80), 5);
    Factory factory(source, nullptr);
    EXPECT_EQ(factory.GetFrameByGridPixel(Point(149, 80)), 1u);
    EXPECT_EQ(factory.GetFrameByGridPixel(Point(150, 80)), 3u);
    EXPECT_EQ(int(factory.GetFrameByGridPixel(Point(0, 80))), -1);
    EXPECT_EQ(test::error_text([&] { factory.GetFrameByGridPixel(Point(0, 160)); }),
              "WEFTMAP_INTERNAL_ERROR: input tapestry pixel out of bounds");
    EXPECT_EQ(test::error_text([&] { factory.GetFrameByGridPixel(Point(0, -80)); }),
              "WEFTMAP_INTERNAL_ERROR: input tapestry pixel out of bounds");
}

TEST(TapestryLayout, FrameNumbersAndTileRangesAreCheckedAndComputedOverTheWall) {
    test::SizeOnlySource<Pixel> source(Point(100, 80), 5);
    Factory factory(source, nullptr);
    std::string const refused =
        "WEFTMAP_INVALID_PARAMETERS: Invalid frame numbers in Tapestry::Construct request";
    EXPECT_EQ(test::error_text([&] { factory.ValidateFrameNumber(-1); }), refused);
    EXPECT_EQ(test::error_text([&] { factory.ValidateFrameNumber(6); }), refused);
    EXPECT_EQ(test::error_text([&] { factory.ValidateFrameNumber(5); }), "");  // an end position
    unsigned begin = 0, end = 0;
    factory.ComputeTileRange(64, 0, 5, begin, end);
    EXPECT_EQ(std::make_pair(begin, end), std::make_pair(0u, 5u));  // 300 columns
    factory.ComputeTileRange(64, 3, 2, begin, end);
    EXPECT_EQ(std::make_pair(begin, end), std::make_pair(2u, 5u));  // columns 150 to 299
    EXPECT_EQ(test::error_text([&] { factory.ComputeTileRange(64, 3, 3, begin, end); }), refused);
    EXPECT_EQ(test::error_text([&] { factory.ComputeTileRange(64, 1, 0x7fffffff, begin, end); }),
              refused);  // the end wraps negative
}

TEST(TapestryLayout, TheLayoutPaintsFramesZerosBeyondThemAndMarksTheJoins) {
    auto const picture = test::pan_picture(Point(20, 10), 4, 5, 3);
    test::PanSource<Pixel> source(picture, Point(20, 10), 3, 5);
    test::OpenTapestryFactory<Pixel> factory(source, nullptr);
    factory.PreallocateTileBuffers(Point(40, 15));  // 50 x 20 with the margins
    factory.input_buf.recreate(Point(50, 20));
    gil::fill_pixels(view(factory.input_buf), Pixel(99));  // stale pixels must not survive
    factory.InitializeLayout(Point(5, 0));
    auto const input = const_view(factory.input_buf);
    auto const valid = const_view(factory.valid_buf);
    // Frame 0 at (-5, 0), frame 1 at (5, 10), frame 2 at (15, 0).
    EXPECT_EQ(input(0, 0), const_view(picture)(5, 0));
    EXPECT_EQ(input(0, 10), Pixel(0));  // left of frame 1: no frame
    EXPECT_EQ(input(5, 10), const_view(picture)(5, 0));
    EXPECT_EQ(input(34, 9), const_view(picture)(10 + 19, 9));
    EXPECT_EQ(input(35, 0), Pixel(0));  // past frame 2
    EXPECT_EQ(input(49, 19), Pixel(0));
    for (std::ptrdiff_t x = 0; x < 50; ++x) {
        EXPECT_EQ(valid(x, 9), Pixel(0));
        EXPECT_EQ(valid(x, 10), Pixel(0));
        bool const top_join = x == 15 || x == 16 || x == 35 || x == 36;
        // Frames past the end are still walls: frame 5's edge is marked too.
        bool const bottom_join = x == 5 || x == 6 || x == 25 || x == 26 || x == 45 || x == 46;
        EXPECT_EQ(valid(x, 0), Pixel(top_join ? 0 : 255)) << x;
        EXPECT_EQ(valid(x, 19), Pixel(bottom_join ? 0 : 255)) << x;
    }
}

TEST(TapestryConstruct, RefusesAnOverlapWiderThanTheTileAndTheViewForm) {
    test::SizeOnlySource<Pixel> source(Point(100, 80), 5);
    Factory factory(source, nullptr);
    test::RecordingTileCache<Pixel> narrow(Point(24, 120));
    EXPECT_EQ(test::error_text([&] { factory.Construct(narrow, 0, -1); }),
              "WEFTMAP_INTERNAL_ERROR: tile overlap greater than tile width");
    // A tile of 25 is wide enough; a cache holding every tile logs only skips.
    struct FullCache : test::RecordingTileCache<Pixel> {
        using RecordingTileCache::RecordingTileCache;
        bool TileExists(int) const override { return true; }
    } full(Point(25, 120));
    {
        test::ScopedCapture capture(false);
        factory.Construct(full, 0, -1);
        EXPECT_NE(
            capture.channel.written.find("Beginning tiled tapestry construction, tiles 0 to 12"),
            std::string::npos);
        EXPECT_NE(capture.channel.written.find("Skipping preexisting tile 11"), std::string::npos);
        EXPECT_EQ(capture.channel.written.find("Constructing tile"), std::string::npos);
    }
    EXPECT_TRUE(full.writes.empty());
    EXPECT_EQ(test::error_text([&] { factory.Construct(full, 2, 4); }),
              "WEFTMAP_INVALID_PARAMETERS: Invalid frame numbers in Tapestry::Construct request");
    RecycledImage<Pixel> image(Point(300, 120));
    View<Pixel> v = view(image);
    EXPECT_EQ(test::error_text([&] { factory.Construct(v, 0, -1); }), "WEFTMAP_NOT_IMPLEMENTED");
}

}  // namespace
}  // namespace WM
