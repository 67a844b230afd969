#include "recomposer/recomposer_fixture.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

using Gray = RecycledImage<gray8_pixel_t>;

using test::disc_hole;
using test::fill;
using test::texture;

template <class Compare>
void check_fill_keeps_known_pixels() {
    using Pixel = typename Compare::pixel_t;
    auto const truth = texture<Pixel>(56, 48);
    auto const hole = disc_hole(truth.dimensions(), 30, 22, 7);
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<Compare> r(&client, RecomposerModeHoleFill);
    auto const output = fill(r, truth, hole);
    ASSERT_FALSE(client.progress.empty());
    EXPECT_FLOAT_EQ(client.progress.back(), 1.0f);
    ASSERT_EQ(output.dimensions(), truth.dimensions());
    bool filled = false;
    for (std::ptrdiff_t y = 0; y < truth.height(); ++y)
        for (std::ptrdiff_t x = 0; x < truth.width(); ++x) {
            if (const_view(hole)(x, y)[0] == 0)
                ASSERT_EQ(const_view(output)(x, y), const_view(truth)(x, y)) << x << "," << y;
            else
                filled |= const_view(output)(x, y) != Pixel();  // not left black
        }
    EXPECT_TRUE(filled);
    // The gain/bias patch transform clamps to 255 whatever the channel, so
    // on 16-bit pictures it cannot reproduce the texture.
    if (!is_gain_bias_compare_v<Compare> ||
        !std::is_same_v<channel_base_t<Pixel>, unsigned short>) {
        EXPECT_GT(test::psnr_where(const_view(output), const_view(truth), const_view(hole)), 20.0);
    }
}

template <class Pixel>
class SynthesisTyped : public ::testing::Test {};
TYPED_TEST_SUITE(SynthesisTyped, test::AllPixelTypes, test::PixelNames);

TYPED_TEST(SynthesisTyped, HoleFillKeepsEveryKnownPixelWithBothComparators) {
    check_fill_keeps_known_pixels<TranslatePatchCompare<TypeParam>>();
    check_fill_keeps_known_pixels<GainBiasPatchCompare<TypeParam>>();
}

TEST(Synthesis, RetargetReturnsTheRequestedSizeAndKeepsARepeatedTexture) {
    using Pixel = rgb16_pixel_t;
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> recomposer(&client, RecomposerModeTapestry);
    auto const source = texture<Pixel>(90, 60);
    auto const output = test::retarget(recomposer, source, Point(63, 60));
    ASSERT_EQ(output.dimensions(), Point(63, 60));
    EXPECT_FLOAT_EQ(client.progress.back(), 1.0f);
    // Its patches are found in the source far more closely than those of
    // a plain squeeze, which breaks the period.
    auto const patch_error = [&](RecycledImage<Pixel> const& image) {
        test::TestEngine<TranslatePatchCompare<Pixel>> matcher;
        RecycledImage<offset_pixel_t> nnf;
        RecycledImage<ll_gray_pixel_t> dist;
        matcher.start(image, source, nnf, dist);
        matcher.nn_iters = 6;
        matcher.search(const_view(image), const_view(source), view(nnf), view(dist), nullptr,
                       nullptr, nullptr, 0, 0, 0, nullptr);
        double total = 0;
        int count = 0;
        for (std::ptrdiff_t y = 0; y <= image.height() - 7; ++y)
            for (std::ptrdiff_t x = 0; x <= image.width() - 7; ++x, ++count)
                total += std::sqrt(double(const_view(dist)(x, y)[0]) / (49 * 3));
        return total / count;
    };
    RecycledImage<Pixel> squeezed;
    resample(const_view(source), squeezed, 63, 60, ResampleBilinear, -1);
    EXPECT_LT(patch_error(output), 0.5 * patch_error(squeezed));
}

TEST(Synthesis, AMemoryLimitBelowTheRunsNeedFailsBeforeAnySearch) {
    using Pixel = cmyk16_pixel_t;
    test::ScopedMemoryLimit restore;
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> r(&client, RecomposerModeHoleFill);
    auto const image = texture<Pixel>(64, 48);
    auto const hole = disc_hole(image.dimensions(), 30, 20, 6);
    BaseLimitedByteMemoryAllocator::addLimit(20000);
    EXPECT_THROW(fill(r, image, hole), ExceptionMemoryLimit);
    EXPECT_TRUE(client.progress.empty());
}

TEST(Synthesis, ASecondRunOnTheSameRecomposerWorks) {
    using Pixel = gray8_pixel_t;
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> r(&client, RecomposerModeHoleFill);
    for (int run = 0; run < 2; ++run) {
        auto const truth = texture<Pixel>(60 + 10 * run, 50);
        auto const hole = disc_hole(truth.dimensions(), 25 + 5 * run, 25, 6);
        auto const output = fill(r, truth, hole);
        EXPECT_GT(test::psnr_where(const_view(output), const_view(truth), const_view(hole)), 25.0);
    }
}

}  // namespace
}  // namespace WM
