#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include "correspondence/patch_kernels.hpp"

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/frame/exceptions.hpp>

#include <gtest/gtest.h>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>

namespace WM {
namespace {

template <class Pixel>
class GainBias : public ::testing::Test {};
TYPED_TEST_SUITE(GainBias, test::AllPixelTypes, test::PixelNames);

template <class T>
std::uint64_t bits(T v) {
    std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t> b;
    std::memcpy(&b, &v, sizeof b);
    return b;
}

template <class Pixel>
void prepare(GainBiasPatchCompare<Pixel>& compare, RecycledImage<Pixel> const& a,
             RecycledImage<Pixel> const& b, RegionMasks* mask = nullptr) {
    compare.preallocate_buffers(a.dimensions(), b.dimensions(), Point(0, 0), false, false, false,
                                false, false);
    compare.set_timage(const_view(a), 7, mask);
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

// Mean and deviation of the first patch of a gray image.
template <class Pixel>
std::pair<double, double> mu_sigma(RecycledImage<Pixel> const& image) {
    GainBiasPatchCompare<Pixel> compare;
    RecycledImage<Pixel> mean;
    RecycledImage<deviation_pixel_t<Pixel>> deviation;
    compare.calc_mu_sigma(const_view(image), mean, deviation, 7, nullptr);
    return {double(view(mean)(0, 0)[0]), view(deviation)(0, 0)[0]};
}

TEST(GainBiasState, DefaultsAndFlags) {
    GainBiasPatchCompare<rgb8_pixel_t> compare;
    EXPECT_EQ(
        std::make_tuple(bits(compare.min_gain), bits(compare.max_gain), bits(compare.min_bias),
                        bits(compare.max_bias), compare.bias_scale, compare.gain_scale),
        std::make_tuple(0x3feccccccccccccdu, 0x3ff4cccccccccccdu, 0u, 0u, 256.0, 256.0));
    EXPECT_EQ(
        std::make_tuple(compare.is_set(), compare.needs_transform(), compare.can_propagate_fast()),
        std::make_tuple(false, true, false));
    TranslatePatchCompare<rgb8_pixel_t> translate;
    EXPECT_EQ(std::make_tuple(translate.is_set(), translate.needs_transform(),
                              translate.can_propagate_fast()),
              std::make_tuple(true, false, true));
    EXPECT_EQ(bits(distance_traits<rgb32f_pixel_t>::sentinel), 0x7f7fffffu);

    auto const a = test::random_image<rgb8_pixel_t>(9, 9, 1);
    prepare(compare, a, a);
    EXPECT_TRUE(compare.is_set());
    compare.unset_simage();
    EXPECT_FALSE(compare.is_set());
}

TEST(GainBiasState, SettersRequirePreallocation) {
    GainBiasPatchCompare<gray8_pixel_t> compare;
    auto const a = test::random_image<gray8_pixel_t>(9, 9, 1);
    auto expect_refused = [&](auto&& call) {
        test::ScopedCapture capture;
        EXPECT_EQ(test::error_text(call), "WEFTMAP_INTERNAL_ERROR: gain bias prealloc not called");
        EXPECT_EQ(capture.channel.written, "Error: is_prealloc is false\n");
    };
    expect_refused([&] { compare.set_timage(const_view(a), 7, nullptr); });
    expect_refused([&] { compare.set_simage(const_view(a), 7); });
    EXPECT_FALSE(compare.is_set());

    // Preallocation locks the maps at the larger size; released again, the
    // setters refuse once more.
    compare.preallocate_buffers(Point(12, 9), Point(9, 14), Point(99, 99), true, true, true, true,
                                true);
    EXPECT_TRUE(compare.target_deviation.locked);
    auto const* memory = compare.target_mean.memory();
    compare.set_timage(const_view(a), 7, nullptr);
    EXPECT_EQ(compare.target_mean.memory(), memory);
    auto const large = test::random_image<gray8_pixel_t>(13, 14, 2);
    EXPECT_THROW(compare.set_simage(const_view(large), 7), locked_recycled_image_error);
    auto const fits = test::random_image<gray8_pixel_t>(12, 14, 2);
    compare.set_simage(const_view(fits), 7);

    compare.deallocate_buffers();
    EXPECT_EQ(compare.source_deviation.allocated_bytes(), 0u);
    EXPECT_FALSE(compare.source_deviation.locked);
    expect_refused([&] { compare.set_timage(const_view(a), 7, nullptr); });
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

TEST(GainBiasMuSigma, WorkedCheckerAndFlatPatch) {
    // 25 pixels of 255 and 24 of 0: mean 130.10 stored as 130, deviation
    // sqrt(33176.02 - 130.10^2) = 127.4734.
    auto const board = mu_sigma(checker<gray8_pixel_t>(255, 0));
    EXPECT_EQ(board.first, 130);
    EXPECT_NEAR(board.second, 127.4734458, 1e-6);

    // A flat float patch keeps the 0.5 in its mean, and has deviation 0.
    auto const flat = mu_sigma(uniform<gray32f_pixel_t>(Point(7, 7), 0.25));
    EXPECT_EQ(float(flat.first), 0.75f);
    EXPECT_EQ(flat.second, 0.0);
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
    gain_bias_distance_bounded(compare, const_view(target), const_view(source), 0, 0, 0, 0, 392604,
                               d);
    EXPECT_EQ(d, 392604);
    gain_bias_distance_bounded(compare, const_view(target), const_view(source), 0, 0, 0, 0, 392603,
                               d);
    EXPECT_EQ(d, 0x7fffffff);
}

TEST(GainBiasDistance, ClampToMaximumGainAndTransform) {
    // Textured target, faintly textured source: the gain clamps to 1.3, and
    // the stretched source goes below 0 where it is dark.
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
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 7; ++x) {
            double const s = const_view(source)(x, y)[0];
            double const v = s * double(gb.g) * 0.00390625 + double(gb.o);
            EXPECT_EQ(int(view(out)(x, y)[0]), int(std::clamp(v, 0.0, 255.0)));
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
    for (int c = 0; c < num_channels_v<Pixel>; ++c) {
        auto const gb = compare.gain_bias(0, 0, 0, 0, c);
        EXPECT_EQ(gb.g, 256.0f);
        EXPECT_EQ(gb.o, 0.0f);
    }
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
