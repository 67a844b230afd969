// Calls made before any client is registered, in a process of their own
// (every other test binary registers its client first): each fails with a
// tagged exception that says what is missing, and nothing crashes.
#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"

#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

std::string const no_client =
    "WEFTMAP_INVALID_PARAMETERS: no client is registered; call Initialize with one before any "
    "other call";

TEST(BeforeInitialize, CallsFailWithATaggedExceptionAndInitializeRefusesNull) {
    ASSERT_EQ(GetClientProcs(), nullptr);
    EXPECT_EQ(test::error_text([] { Initialize(nullptr); }),
              "WEFTMAP_INVALID_PARAMETERS: Initialize needs a client; it was given null");
    EXPECT_EQ(GetClientProcs(), nullptr);

    EXPECT_EQ(test::error_text([] { RecycledImage<gray8_pixel_t> image(Point(8, 8)); }), no_client);
    debug_log("nothing to write to %d\n", 1);  // no channel: silent

    gray8_pixel_t pixels[16 * 16] = {};
    unsigned char mask[16 * 16] = {};
    mask[8 * 16 + 8] = 255;
    auto const source = gil::interleaved_view(16, 16, pixels, 16);
    auto const hole = gil::interleaved_view(16, 16, reinterpret_cast<gray8_pixel_t*>(mask), 16);
    test::RecordingClient<gray8_pixel_t> client;
    WeftmapRecomposer<TranslatePatchCompare<gray8_pixel_t>> r(&client, RecomposerModeHoleFill);
    std::vector<Constraint> constraints;
    RecycledImage<gray8_pixel_t> output;
    EXPECT_EQ(test::error_text([&] {
                  r.recompose(source, constraints, output, &hole, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr);
              }),
              no_client);
}

}  // namespace
}  // namespace WM
