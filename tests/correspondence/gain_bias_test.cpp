#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include "correspondence/patch_kernels.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace WM {
namespace {

template <class Pixel>
class GainBias : public ::testing::Test {};
TYPED_TEST_SUITE(GainBias, test::AllPixelTypes, test::PixelNames);

template <class Pixel>
void prepare(GainBiasPatchCompare<Pixel>& compare, RecycledImage<Pixel> const& a,
             RecycledImage<Pixel> const& b) {
    compare.preallocate_buffers(a.dimensions(), b.dimensions(), Point(0, 0), false, false, false,
                                false, false);
    compare.set_timage(const_view(a), 7, nullptr);
    compare.set_simage(const_view(b), 7);
}

using test::uniform;

// A 7 x 7 checkerboard: `even` where x + y is even, `odd` elsewhere.
template <class Pixel>
RecycledImage<Pixel> checker(int even, int odd) {
    RecycledImage<Pixel> image(Point(7, 7));
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 7; ++x) view(image)(x, y) = Pixel((x + y) % 2 == 0 ? even : odd);
    return image;
}

TYPED_TEST(GainBias, MuSigmaMatchesStraightforwardSumsInsideTheBox) {
    using Pixel = TypeParam;
    using Channel = channel_base_t<Pixel>;
    constexpr int channels = num_channels_v<Pixel>;
    auto const image = test::random_image<Pixel>(15, 12, 3);
    // Free patches (label 0) only in columns 2..6 and rows 1..4, and one
    // masked position inside that box.
    auto const computed = [](int x, int y) {
        return x >= 2 && x <= 6 && y >= 1 && y <= 4 && !(x == 4 && y == 2);
    };
    RegionMasks mask =
        test::label_masks(Point(15, 12), [&](int x, int y) { return !computed(x, y); });

    GainBiasPatchCompare<Pixel> compare;
    auto mean = uniform<Pixel>(Point(15, 12), 7);
    auto deviation = uniform<deviation_pixel_t<Pixel>>(Point(15, 12), -1.0);
    compare.calc_mu_sigma(const_view(image), mean, deviation, 7, &mask);

    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 15; ++x)
            for (int c = 0; c < channels; ++c) {
                SCOPED_TRACE(::testing::Message() << x << "," << y << " channel " << c);
                if (!computed(x, y)) {
                    EXPECT_EQ(channel_value(view(mean)(x, y), c), Channel(7));
                    EXPECT_EQ(view(deviation)(x, y)[c], -1.0);
                    continue;
                }
                double sum = 0, sum_sq = 0;
                for (int dy = 0; dy < 7; ++dy)
                    for (int dx = 0; dx < 7; ++dx) {
                        double const v = channel_value(const_view(image)(x + dx, y + dy), c);
                        sum += v;
                        sum_sq += v * v;
                    }
                double const mu = sum / 49.0;
                EXPECT_EQ(channel_value(view(mean)(x, y), c), static_cast<Channel>(mu + 0.5));
                EXPECT_EQ(view(deviation)(x, y)[c],
                          std::sqrt(std::max(sum_sq / 49.0 - mu * mu, 0.0)));
            }
}

// 25 pixels of 255 and 24 of 0: mean 130.10 stored as 130, deviation
// sqrt(33176.02 - 130.10^2) = 127.4734.
TEST(GainBiasMuSigma, WorkedChecker) {
    GainBiasPatchCompare<gray8_pixel_t> compare;
    RecycledImage<gray8_pixel_t> mean;
    RecycledImage<deviation_pixel_t<gray8_pixel_t>> deviation;
    compare.calc_mu_sigma(const_view(checker<gray8_pixel_t>(255, 0)), mean, deviation, 7, nullptr);
    EXPECT_EQ(int(view(mean)(0, 0)[0]), 130);
    EXPECT_NEAR(view(deviation)(0, 0)[0], 127.4734458, 1e-6);
}

// Target flat at 100 against a source of alternating 0 and 200: the gain 0
// clamps to 0.9, g = (float)230.4, the source mean 97.96 rounds to 98 and
// o = (1 - g / 256) * 98 = 9.800002. The residuals 100 - 9.800002 and
// 100 - 189.800002 truncate to 90 and -89: 25 * 8100 + 24 * 7921.
TEST(GainBiasDistance, WorkedClampToMinimumGain) {
    auto const target = uniform<gray8_pixel_t>(Point(7, 7), 100);
    auto const source = checker<gray8_pixel_t>(0, 200);
    GainBiasPatchCompare<gray8_pixel_t> compare;
    prepare(compare, target, source);
    auto const gb = compare.gain_bias(0, 0, 0, 0, 0);
    EXPECT_EQ(gb.g, static_cast<float>(0.9 * 256.0));
    EXPECT_EQ(gb.o, static_cast<float>((1.0 - double(gb.g) / 256.0) * 98.0));
    int d = 0;
    gain_bias_distance(compare, const_view(target), const_view(source), 0, 0, 0, 0, d);
    EXPECT_EQ(d, 392604);
}

TEST(GainBiasDistance, ClampToMaximumGainAndTransform) {
    // Textured target, faintly textured source: the gain clamps to 1.3.
    auto const target = checker<gray16_pixel_t>(0, 200);
    auto const source = checker<gray16_pixel_t>(90, 110);
    GainBiasPatchCompare<gray16_pixel_t> compare;
    prepare(compare, target, source);
    auto const gb = compare.gain_bias(0, 0, 0, 0, 0);
    EXPECT_EQ(gb.g, static_cast<float>(1.3 * 256.0));
    // Source mean 99.8 rounds to 100.
    EXPECT_EQ(gb.o, static_cast<float>((1.0 - double(gb.g) / 256.0) * 100.0));

    RecycledImage<gray16_pixel_t> out(Point(7, 7));
    compare.patch_transform(const_view(source), 0, 0, 0, 0, view(out));
    for (int i = 0; i < 2; ++i) {  // 90 and 110
        double const v = (90 + 20 * i) * double(gb.g) * 0.00390625 + double(gb.o);
        EXPECT_EQ(int(view(out)(i, 0)[0]), int(std::clamp(v, 0.0, 255.0)));
    }

    // A bright 16-bit source is cut at 255 whatever its depth.
    auto const bright = uniform<gray16_pixel_t>(Point(7, 7), 1000);
    GainBiasPatchCompare<gray16_pixel_t> flat_compare;
    prepare(flat_compare, bright, bright);
    flat_compare.patch_transform(const_view(bright), 0, 0, 0, 0, view(out));
    EXPECT_EQ(int(view(out)(6, 6)[0]), 255);
}

// A flat source patch has deviation 0: gain 1, g = 256, o = 0, and the
// adjusted value is the source value itself, so the distance is the plain
// one (exactly for integer channels and gray float).
TYPED_TEST(GainBias, FlatSourceIsThePlainDistance) {
    using Pixel = TypeParam;
    using D = distance_t<Pixel>;
    auto const target = test::random_image<Pixel>(7, 7, 4);
    double const level = is_float_pixel_v<Pixel> ? 0.375 : 77;
    auto const source = uniform<Pixel>(Point(7, 7), level);
    GainBiasPatchCompare<Pixel> compare;
    prepare(compare, target, source);
    for (int c = 0; c < num_channels_v<Pixel>; ++c)
        EXPECT_EQ(
            std::make_pair(compare.gain_bias(0, 0, 0, 0, c).g, compare.gain_bias(0, 0, 0, 0, c).o),
            std::make_pair(256.0f, 0.0f));
    D d;
    gain_bias_distance(compare, const_view(target), const_view(source), 0, 0, 0, 0, d);
    D const plain = translate_distance_scalar<Pixel>(const_view(target), const_view(source), 0, 0);
    if (is_float_pixel_v<Pixel> && num_channels_v < Pixel >> 1) {
        EXPECT_NEAR(d, plain, 1e-5 * plain);
    } else {
        EXPECT_EQ(d, plain);
    }
    RecycledImage<Pixel> out(Point(7, 7));
    compare.patch_transform(const_view(source), 0, 0, 0, 0, view(out));
    EXPECT_EQ(view(out)(3, 3), const_view(source)(3, 3));
}

TYPED_TEST(GainBias, BoundedAgreesWithFull) {
    using Pixel = TypeParam;
    using D = distance_t<Pixel>;
    D const sentinel = distance_traits<Pixel>::sentinel;
    auto const a = test::random_image<Pixel>(16, 13, 5);
    auto const b = test::random_image<Pixel>(14, 15, 6);
    GainBiasPatchCompare<Pixel> compare;
    prepare(compare, a, b);
    std::mt19937 rng(7);
    for (int i = 0; i < 100; ++i) {
        int const tx = int(rng() % 10), ty = int(rng() % 7);
        int const sx = int(rng() % 8), sy = int(rng() % 9);
        auto const a_patch = gil::subimage_view(const_view(a), tx, ty, 7, 7);
        ConstView<Pixel> const bv = const_view(b);
        auto const bounded = [&](D best) {
            D d;
            gain_bias_distance_bounded(compare, a_patch, bv, sx, sy, tx, ty, best, d);
            return d;
        };
        D full;
        gain_bias_distance(compare, a_patch, bv, sx, sy, tx, ty, full);
        ASSERT_GT(full, D(0));
        if constexpr (is_float_pixel_v<Pixel>) {
            EXPECT_NEAR(bounded(2 * full), full, 1e-5 * full);
            EXPECT_EQ(bounded(full / 2), sentinel);
        } else {
            for (D best : {full - 1, full, full + 1, sentinel})
                EXPECT_EQ(bounded(best), best >= full ? full : sentinel);
        }
        EXPECT_EQ(bounded(D(0)), sentinel);
    }
}

}  // namespace
}  // namespace WM
