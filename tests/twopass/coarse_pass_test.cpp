#include "support/test_client.hpp"
#include "twopass/test_access.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = gray8_pixel_t;
using Access = test::PyramidAccess<Pixel>;
using Synthesis = test::OpenTwoPass<Pixel>;
using Limit = BaseLimitedByteMemoryAllocator;

TEST(CoarsePass, AMemoryLimitSettlesOnTheFinestScaleThatFitsAndTilesAtItsSize) {
    test::HolePicture<Pixel> const in(Point(128, 96), 64, 48, 14);
    // What a job at scale 2 holds after its coarse pass, measured by refusing
    // the finer scales.
    unsigned long long needed = 0;
    {
        Access access(in.picture, in.hole, 3);
        test::RecordingClient<Pixel> client;
        test::refuse_scales_below(client, access, 2);
        Synthesis synthesis(&access, &client);
        auto const base = Limit::getCurrentAllocatedSize();
        test::CaptureStdout out;
        synthesis.CoarsePass();
        needed = Limit::getCurrentAllocatedSize() - base;
    }
    ASSERT_GT(needed, 0u);

    Access access(in.picture, in.hole, 3);
    test::RecordingClient<Pixel> client;
    Synthesis synthesis(&access, &client);
    test::ScopedMemoryLimit const restore;
    // Half as much again; scale 1 needs about four times as much.
    Limit::setLimit(Limit::getCurrentAllocatedSize() + needed * 3 / 2);
    test::CaptureStdout out;
    synthesis.run();

    EXPECT_EQ(out.text(), "coarse scale 2\n");
    Point const coarse = access.pictures[2].dimensions();
    ASSERT_GT(synthesis.tiles.GetSize(), 1);
    EXPECT_EQ(synthesis.tiles.tiles[0].size, coarse);
    int done = 0;
    for (Tile const& t : synthesis.tiles.tiles) done += t.done;
    EXPECT_GT(done, 0) << "the tiles over the hole were recomposed within the limit";

    // One table entry per step, by area: the coarse job, then every tile.
    auto const& table = synthesis.progress_table;
    ASSERT_EQ(table.size(), synthesis.tiles.tiles.size() + 2);
    double total = double(coarse.x * coarse.y);
    for (Tile const& t : synthesis.tiles.tiles) total += double(t.size.x * t.size.y);
    EXPECT_FLOAT_EQ(table[1], float(coarse.x * coarse.y / total));
    EXPECT_EQ(table.back(), 1.0f);
    EXPECT_TRUE(client.monotone_to_one());
    EXPECT_FALSE(synthesis.recomposer.const_coarse_size) << "tile settings put back";
    EXPECT_EQ(access.violations, 0);
    EXPECT_TRUE(in.known_pixels_kept(access));
}

TEST(CoarsePass, FailuresSayWhichScaleWasAtFault) {
    test::HolePicture<Pixel> const in(Point(64, 48), 32, 24, 8);
    std::string const memory =
        "WEFTMAP_NOT_ENOUGH_MEMORY: not enough memory to recompose coarsest scale.\n";
    {
        Access access(in.picture, in.hole, 3);
        test::RecordingClient<Pixel> client;
        Synthesis synthesis(&access, &client);
        test::ScopedMemoryLimit const restore;
        Limit::setLimit(Limit::getCurrentAllocatedSize() + 1000);
        test::CaptureStdout out;
        EXPECT_EQ(test::error_text<ExceptionMemoryLimit>([&] { synthesis.run(); }), memory);
        EXPECT_EQ(out.text(), "");
        EXPECT_EQ(access.deepest_scale, 2) << "every scale was tried";
        EXPECT_EQ(synthesis.input_buf.dimensions(), Point(0, 0)) << "and given back";
    }
    {
        struct NoScales : Access {
            using Access::Access;
            int getNumScales() override { return 0; }
        } access(in.picture, in.hole, 1);
        Synthesis synthesis(&access, nullptr);
        EXPECT_EQ(test::error_text<ExceptionMemoryLimit>([&] { synthesis.run(); }), memory);
    }
    // Nothing may be sampled: too few patches at a coarse scale is the
    // scale's fault; at full size the picture's.
    for (int scale : {1, 0}) {
        Access access(in.picture, in.hole, 3);
        access.valids = test::pyramid(test::byte_mask(in.picture.dimensions(), 0), 3);
        test::RecordingClient<Pixel> client;
        test::refuse_scales_below(client, access, scale);
        Synthesis synthesis(&access, &client);
        test::CaptureStdout out;
        bool passed_through = false;
        std::string const text = test::error_text([&] {
            try {
                synthesis.run();
            } catch (ExceptionNotEnoughPatches const&) {
                passed_through = true;
                throw;
            }
        });
        EXPECT_EQ(passed_through, scale == 0);
        if (scale != 0) {
            EXPECT_EQ(text,
                      "WEFTMAP_COARSE_TOO_SMALL: Coarse scale input is so small that it doesn't "
                      "have enough valid patches.\n");
        }
        EXPECT_EQ(out.text(), "coarse scale " + std::to_string(scale) + "\n");
        EXPECT_TRUE(access.calls_of("setOutputPixels").empty());
    }
}

}  // namespace
}  // namespace WM
