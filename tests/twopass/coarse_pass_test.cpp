#include "support/test_client.hpp"
#include "twopass/test_access.hpp"

#include <weftmap/image/memory.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = gray8_pixel_t;
using Access = test::PyramidAccess<Pixel>;
using Synthesis = test::OpenTwoPass<Pixel>;

// Pixels outside the hole that the access holds as output must be the
// picture's own.
template <class P>
void expect_known_pixels_kept(test::PyramidAccess<P> const& access, RecycledImage<P> const& truth,
                              RecycledImage<gray8_pixel_t> const& hole) {
    Box const b = access.bounds(0);
    for (int y = b.ymin; y < b.ymax; ++y)
        for (int x = b.xmin; x < b.xmax; ++x)
            if (const_view(hole)(x, y)[0] == 0) {
                ASSERT_EQ(const_view(access.output)(x, y), const_view(truth)(x, y))
                    << x << "," << y;
            }
}

TEST(CoarsePass, AJobThatFitsWholeIsSolvedOnceWithoutTiles) {
    test::HolePicture<Pixel> const in(Point(64, 48), 32, 24, 8);
    Access access(in.picture, in.hole, 3);
    test::HostClient<Pixel> client;
    Synthesis synthesis(&access, &client);
    test::CaptureStdout out;
    synthesis.run();

    EXPECT_EQ(out.text(), "coarse scale 0\n");
    EXPECT_EQ(synthesis.tiles.GetSize(), 0);
    EXPECT_EQ(synthesis.counter_buf.dimensions(), Point(0, 0));
    EXPECT_EQ(synthesis.temp_mask_buf.dimensions(), Point(0, 0));
    EXPECT_EQ(synthesis.tile_output_buf.dimensions(), Point(0, 0));
    EXPECT_EQ(synthesis.progress_table, (std::vector<float>{0.0f, 1.0f}));
    EXPECT_TRUE(test::monotone_to_one(client.progress));
    EXPECT_EQ(access.violations, 0);
    EXPECT_EQ(access.calls_of("setOutputPixels").size(), 1u);
    expect_known_pixels_kept(access, in.picture, in.hole);
    // Only the finest scale was visited.
    EXPECT_EQ(access.deepest_scale, 0);
}

TEST(CoarsePass, AMemoryLimitSettlesOnTheFinestScaleThatFitsAndTilesAtItsSize) {
    test::HolePicture<Pixel> const in(Point(128, 96), 64, 48, 14);
    // The bytes a job at scale 2 holds once its buffers are reserved,
    // measured by refusing the finer scales.
    unsigned long long needed = 0;
    {
        Access access(in.picture, in.hole, 3);
        test::HostClient<Pixel> client;
        test::refuse_scales_below(client, access, 2);
        Synthesis synthesis(&access, &client);
        auto const base = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
        access.on_call = [&](test::AccessCall const& call) {
            if (call.op == "getInputPixels" && needed == 0)
                needed = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize() - base;
        };
        test::CaptureStdout out;
        synthesis.CoarsePass();
        EXPECT_EQ(out.text(), "coarse scale 2\n");
    }
    ASSERT_GT(needed, 0u);

    Access access(in.picture, in.hole, 3);
    test::HostClient<Pixel> client;
    Synthesis synthesis(&access, &client);
    test::ScopedMemoryLimit const restore;
    // Half as much again: scale 1 needs about four times as much.
    BaseLimitedByteMemoryAllocator::setLimit(
        BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize() + needed * 3 / 2);
    test::CaptureStdout out;
    synthesis.run();

    EXPECT_EQ(out.text(), "coarse scale 2\n");
    Point const coarse_target = access.pictures[2].dimensions();
    ASSERT_GT(synthesis.tiles.GetSize(), 1);
    EXPECT_EQ(synthesis.tiles.tiles[0].size, coarse_target);
    EXPECT_EQ(synthesis.output_buf.dimensions(), coarse_target);
    int done = 0;
    for (Tile const& t : synthesis.tiles.tiles) done += t.done;
    EXPECT_GT(done, 0) << "the tiles over the hole were recomposed within the limit";

    // One table entry per step: the coarse job, then every tile, by area.
    auto const& table = synthesis.progress_table;
    ASSERT_EQ(table.size(), synthesis.tiles.tiles.size() + 2);
    double total = double(coarse_target.x * coarse_target.y);
    for (Tile const& t : synthesis.tiles.tiles) total += double(t.size.x * t.size.y);
    EXPECT_EQ(table[0], 0.0f);
    EXPECT_FLOAT_EQ(table[1], float(coarse_target.x * coarse_target.y / total));
    EXPECT_EQ(table.back(), 1.0f);
    EXPECT_TRUE(test::monotone_to_one(client.progress));

    // The tile settings were put back after the last tile.
    EXPECT_FALSE(synthesis.recomposer.const_coarse_size);
    EXPECT_EQ(access.violations, 0);
    expect_known_pixels_kept(access, in.picture, in.hole);
}

TEST(CoarsePass, FailuresSayWhichScaleWasAtFault) {
    test::HolePicture<Pixel> const in(Point(64, 48), 32, 24, 8);
    char const* const memory_message =
        "WEFTMAP_NOT_ENOUGH_MEMORY: not enough memory to recompose coarsest scale.\n";
    {
        SCOPED_TRACE("no scale fits");
        Access access(in.picture, in.hole, 3);
        test::HostClient<Pixel> client;
        Synthesis synthesis(&access, &client);
        test::ScopedMemoryLimit const restore;
        BaseLimitedByteMemoryAllocator::setLimit(
            BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize() + 1000);
        test::CaptureStdout out;
        EXPECT_EQ(test::error_text<ExceptionMemoryLimit>([&] { synthesis.run(); }), memory_message);
        EXPECT_EQ(out.text(), "");
        EXPECT_EQ(access.deepest_scale, 2) << "every scale was tried";
        EXPECT_EQ(synthesis.input_buf.dimensions(), Point(0, 0)) << "and released";
    }
    {
        SCOPED_TRACE("no scale at all");
        struct NoScales : Access {
            using Access::Access;
            int getNumScales() override { return 0; }
        } access(in.picture, in.hole, 1);
        test::HostClient<Pixel> client;
        Synthesis synthesis(&access, &client);
        EXPECT_EQ(test::error_text<ExceptionMemoryLimit>([&] { synthesis.run(); }), memory_message);
    }
    // Nothing may be sampled: too few patches, at whichever scale.
    for (int scale : {1, 0}) {
        SCOPED_TRACE(scale);
        Access access(in.picture, in.hole, 3);
        access.offer.valid = true;
        access.set_valid(test::byte_mask(in.picture.dimensions(), 0));
        test::HostClient<Pixel> client;
        test::refuse_scales_below(client, access, scale);
        Synthesis synthesis(&access, &client);
        test::CaptureStdout out;
        if (scale != 0) {
            std::string text;
            try {
                synthesis.run();
            } catch (ExceptionNotEnoughPatches const&) {
                ADD_FAILURE() << "a coarse scale must not pass the patch count on";
            } catch (Exception const& e) {
                text = static_cast<char const*>(e);
            }
            EXPECT_EQ(text,
                      "WEFTMAP_COARSE_TOO_SMALL: Coarse scale input is so small that it doesn't "
                      "have enough valid patches.\n");
        } else {
            EXPECT_THROW(synthesis.run(), ExceptionNotEnoughPatches);
        }
        EXPECT_EQ(out.text(), "coarse scale " + std::to_string(scale) + "\n");
        EXPECT_TRUE(access.calls_of("setOutputPixels").empty());
    }
}

}  // namespace
}  // namespace WM
