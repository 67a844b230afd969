#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

namespace WM {
namespace {

// A periodic texture: a few sine waves with periods of 9 and 13 pixels per
// channel, the kind of picture a patch fill must continue.
template <class Pixel>
RecycledImage<Pixel> periodic_texture(std::ptrdiff_t width, std::ptrdiff_t height) {
    using Channel = channel_base_t<Pixel>;
    double const top =
        std::is_floating_point_v<Channel> ? 1.0 : double(std::numeric_limits<Channel>::max());
    RecycledImage<Pixel> image(Point(width, height));
    for (std::ptrdiff_t y = 0; y < height; ++y)
        for (std::ptrdiff_t x = 0; x < width; ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double const t = 0.5 + 0.25 * std::sin(2 * M_PI * x / 9.0 + c) +
                                 0.2 * std::sin(2 * M_PI * y / 13.0 + 2 * c);
                set_channel(view(image)(x, y), c, static_cast<Channel>(t * top));
            }
    return image;
}

RecycledImage<gray8_pixel_t> disc_hole(Point const& size, Point const& centre, double radius) {
    RecycledImage<gray8_pixel_t> hole(size);
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < size.x; ++x) {
            double const dx = double(x - centre.x), dy = double(y - centre.y);
            view(hole)(x, y) = gray8_pixel_t(dx * dx + dy * dy <= radius * radius ? 255 : 0);
        }
    return hole;
}

template <class Pixel>
double psnr_in_hole(ConstView<Pixel> const& a, ConstView<Pixel> const& b,
                    ConstGrayView const& hole) {
    double const top =
        is_float_pixel_v<Pixel> ? 1.0 : double(std::numeric_limits<channel_base_t<Pixel>>::max());
    double sum = 0;
    long count = 0;
    for (std::ptrdiff_t y = 0; y < a.height(); ++y)
        for (std::ptrdiff_t x = 0; x < a.width(); ++x)
            if (hole(x, y)[0] != 0)
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    double const d =
                        double(channel_value(a(x, y), c)) - double(channel_value(b(x, y), c));
                    sum += d * d;
                    ++count;
                }
    return 10 * std::log10(top * top / (sum / count));
}

// Fills `hole` (255 = hole) of `image` with a fresh recomposer.
template <class Compare>
RecycledImage<typename Compare::pixel_t> fill(RecycledImage<typename Compare::pixel_t> image,
                                              RecycledImage<gray8_pixel_t> hole,
                                              RecomposerMode mode = RecomposerModeHoleFill) {
    test::RecordingClient<typename Compare::pixel_t> client;
    WeftmapRecomposer<Compare> recomposer(&client, mode);
    std::vector<Constraint> constraints;
    RecycledImage<typename Compare::pixel_t> output;
    recomposer.recompose(view(image), constraints, output, &view(hole), nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr);
    EXPECT_FALSE(client.progress.empty());
    EXPECT_FLOAT_EQ(client.progress.back(), 1.0f);
    return output;
}

template <class Compare>
void check_fill_keeps_known_pixels() {
    using Pixel = typename Compare::pixel_t;
    auto const truth = periodic_texture<Pixel>(56, 48);
    auto const hole = disc_hole(truth.dimensions(), Point(30, 22), 7);
    auto const output = fill<Compare>(truth, hole);
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
        EXPECT_GT(psnr_in_hole<Pixel>(const_view(output), const_view(truth), const_view(hole)),
                  20.0);
    }
}

template <class Pixel>
class SynthesisTyped : public ::testing::Test {};
TYPED_TEST_SUITE(SynthesisTyped, test::AllPixelTypes, test::PixelNames);

TYPED_TEST(SynthesisTyped, HoleFillKeepsEveryKnownPixelWithBothComparators) {
    check_fill_keeps_known_pixels<TranslatePatchCompare<TypeParam>>();
    check_fill_keeps_known_pixels<GainBiasPatchCompare<TypeParam>>();
}

TEST(Synthesis, HoleFillContinuesAPeriodicTextureFarBetterThanAFlatFill) {
    using Pixel = rgb8_pixel_t;
    auto truth = periodic_texture<Pixel>(96, 80);
    // Mild noise keeps the copy from being trivially exact.
    std::mt19937 rng(3);
    for (auto& p : view(truth))
        for (int c = 0; c < 3; ++c)
            p[c] = static_cast<unsigned char>(std::clamp(int(p[c]) + int(rng() % 7) - 3, 0, 255));
    auto const hole = disc_hole(truth.dimensions(), Point(50, 40), 12);
    auto const output = fill<TranslatePatchCompare<Pixel>>(truth, hole);

    // A flat fill with the mean colour of the known pixels.
    double mean[3] = {};
    long known = 0;
    for (std::ptrdiff_t y = 0; y < 80; ++y)
        for (std::ptrdiff_t x = 0; x < 96; ++x)
            if (const_view(hole)(x, y)[0] == 0) {
                for (int c = 0; c < 3; ++c) mean[c] += const_view(truth)(x, y)[c];
                ++known;
            }
    RecycledImage<Pixel> flat(truth.dimensions());
    boost::gil::fill_pixels(view(flat), Pixel(mean[0] / known, mean[1] / known, mean[2] / known));
    double const flat_psnr =
        psnr_in_hole<Pixel>(const_view(flat), const_view(truth), const_view(hole));
    double const psnr =
        psnr_in_hole<Pixel>(const_view(output), const_view(truth), const_view(hole));
    EXPECT_GT(psnr, flat_psnr + 10.0) << psnr << " against " << flat_psnr;
}

TEST(Synthesis, RetargetReturnsTheRequestedSizeAndKeepsARepeatedTexture) {
    using Pixel = rgb16_pixel_t;
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> recomposer(&client, RecomposerModeTapestry);
    auto source = periodic_texture<Pixel>(90, 60);
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> output;
    recomposer.retarget(view(source), constraints, output, Point(63, 60), 0.98, nullptr, nullptr,
                        nullptr, nullptr);
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

TEST(Synthesis, CancellingRestoresTheRunParametersAndReleasesEverything) {
    using Pixel = rgb8_pixel_t;
    auto const baseline = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
    {
        struct CancelLater : test::RecordingClient<Pixel> {
            void updateProgress(float f) override {
                test::RecordingClient<Pixel>::updateProgress(f);
                if (progress.size() == 5) cancel = true;
            }
        } client;
        WeftmapRecomposer<TranslatePatchCompare<Pixel>> recomposer(&client, RecomposerModeHoleFill);
        recomposer.nn_iters = 11;
        recomposer.rs_max = 12;
        recomposer.coherence_weight = 0.25;
        auto image = periodic_texture<Pixel>(64, 48);
        auto hole = disc_hole(image.dimensions(), Point(30, 20), 6);
        std::vector<Constraint> constraints;
        RecycledImage<Pixel> output;
        EXPECT_EQ(test::error_text([&] {
                      recomposer.recompose(view(image), constraints, output, &view(hole), nullptr,
                                           nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
                  }),
                  "WEFTMAP_USER_CANCELED");
        EXPECT_EQ(
            std::make_tuple(recomposer.nn_iters, recomposer.rs_max, recomposer.coherence_weight,
                            recomposer.patch_w, recomposer.prefer_coherent),
            std::make_tuple(11, 12, 0.25, 7, false));
        EXPECT_GT(BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize(), baseline);
    }
    EXPECT_EQ(BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize(), baseline);
}

TEST(Synthesis, AMemoryLimitBelowTheRunsNeedFailsBeforeAnySearch) {
    using Pixel = cmyk16_pixel_t;
    test::ScopedMemoryLimit restore;
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> recomposer(&client, RecomposerModeHoleFill);
    auto image = periodic_texture<Pixel>(64, 48);
    auto hole = disc_hole(image.dimensions(), Point(30, 20), 6);
    BaseLimitedByteMemoryAllocator::addLimit(20000);
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> output;
    EXPECT_THROW(recomposer.recompose(view(image), constraints, output, &view(hole), nullptr,
                                      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                 ExceptionMemoryLimit);
    EXPECT_TRUE(client.progress.empty());
}

TEST(Synthesis, ASecondRunOnTheSameRecomposerWorks) {
    using Pixel = gray8_pixel_t;
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> recomposer(&client, RecomposerModeHoleFill);
    for (int run = 0; run < 2; ++run) {
        auto const truth = periodic_texture<Pixel>(60 + 10 * run, 50);
        auto image = truth;
        auto hole = disc_hole(image.dimensions(), Point(25 + 5 * run, 25), 6);
        auto const hole_copy = hole;
        std::vector<Constraint> constraints;
        RecycledImage<Pixel> output;
        recomposer.recompose(view(image), constraints, output, &view(hole), nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr, nullptr);
        EXPECT_GT(psnr_in_hole<Pixel>(const_view(output), const_view(truth), const_view(hole_copy)),
                  25.0);
    }
}
}  // namespace
}  // namespace WM
