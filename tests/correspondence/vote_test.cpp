#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include "correspondence/vote_impl.hpp"

#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>

namespace WM {
namespace {

using test::filled;
template <class Pixel>
using Engine = test::TestEngine<TranslatePatchCompare<Pixel>>;

// A target mask that freezes the positions where no whole patch fits, as
// the recomposer's masks do.
RegionMasks patch_positions_mask(Point const& size) {
    return test::label_masks(
        size, [&](int x, int y) { return x > size.x - 7 || y > size.y - 7 ? 255 : 0; });
}

// A source of two 7 x 7 patches side by side, valued `left` and `right`.
template <class Pixel>
RecycledImage<Pixel> two_patches(int left, int right) {
    auto b = filled(Point(14, 7), Pixel(left));
    test::paint(view(b), Box{7, 0, 14, 7}, Pixel(right));
    return b;
}

TEST(Vote, EqualVotesOfTenAndElevenRoundUpAndLimitsClamp) {
    Engine<gray8_pixel_t> engine;
    auto const b = two_patches<gray8_pixel_t>(10, 11);
    // Patches (0, 0) and (1, 0) of an 8x7 target overlap on columns 1 to 6.
    auto nnf = filled(Point(8, 7), offset_pixel_t(0, 0));
    view(nnf)(1, 0) = offset_pixel_t(7, 0);
    RecycledImage<gray8_pixel_t> out(Point(8, 7));
    RegionMasks mask = patch_positions_mask(Point(8, 7));
    engine.vote(const_view(b), view(nnf), view(out), nullptr, nullptr, nullptr, 0.5, 0.5, &mask,
                nullptr, nullptr, nullptr, nullptr, false);
    EXPECT_EQ(int(const_view(out)(0, 3)), 10);
    EXPECT_EQ(int(const_view(out)(3, 3)), 11);
    EXPECT_EQ(int(const_view(out)(7, 3)), 11);

    // Means that round past the top of the channel are held at the top.
    EXPECT_EQ(detail::normalised_channel<unsigned char>(255.6), 255);
    EXPECT_EQ(detail::normalised_channel<unsigned short>(65535.5), 65535);
    EXPECT_EQ(detail::normalised_channel<float>(1.25), 1.25f);
}

TEST(Vote, PixelsWithoutVotesKeepTheirValueOrTakeInit) {
    using Pixel = rgb8_pixel_t;
    Engine<Pixel> engine;
    auto const b = test::random_image<Pixel>(12, 12, 5);
    Point const size(16, 16);
    // Free patches (0, 0) and (5, 0); the second matches a masked source,
    // so pixels in columns 7 to 11 receive no vote.
    auto nnf = filled(size, offset_pixel_t(2, 2));
    view(nnf)(5, 0) = offset_pixel_t(4, 4);
    RegionMasks mask = test::label_masks(
        size, [](int x, int y) { return (x == 0 || x == 5) && y == 0 ? 0 : 255; });
    auto b_mask = test::byte_mask(b.dimensions(), 255);
    view(b_mask)(2, 2) = gray8_pixel_t(0);
    auto bnn = filled(b.dimensions(), offset_pixel_t(0, 0));
    auto init = test::random_image<Pixel>(16, 16, 6);
    View<Pixel> const init_view = view(init);
    for (int run = 0; run < 4; ++run) {
        bool const with_init = run & 1, both_fields = run & 2;
        auto out = filled(size, Pixel(1, 2, 3));
        engine.vote(const_view(b), view(nnf), view(out), both_fields ? &view(bnn) : nullptr,
                    &view(b_mask), nullptr, 0.5, 0.5, &mask, nullptr,
                    with_init ? &init_view : nullptr, nullptr, nullptr, false);
        EXPECT_EQ(const_view(out)(3, 3), const_view(b)(5, 5));
        EXPECT_EQ(const_view(out)(9, 3), with_init ? const_view(init)(9, 3) : Pixel(1, 2, 3));
        EXPECT_EQ(const_view(out)(13, 3), Pixel(1, 2, 3));  // beyond every patch
    }
}

template <class Pixel>
class VoteTyped : public ::testing::Test {};
TYPED_TEST_SUITE(VoteTyped, test::AllPixelTypes, test::PixelNames);

// An independent computation of the single-field vote: a full double
// accumulator over the whole image.
template <class Pixel>
RecycledImage<Pixel> reference_vote(ConstView<Pixel> const& b, ConstView<offset_pixel_t> const& nnf,
                                    RegionMasks const& a_mask, WeightInsetView const& a_weights,
                                    WeightInsetView const& b_weights, GrayView const& b_mask,
                                    ConstView<Pixel> const& init) {
    constexpr int n = num_channels_v<Pixel>;
    std::vector<std::array<double, n + 1>> acc(nnf.width() * nnf.height());
    for (int y = 0; y < nnf.height(); ++y)
        for (int x = 0; x < nnf.width(); ++x) {
            if (a_mask.view(x, y)[0] != 0) continue;
            auto const m = nnf(x, y);
            if (b_mask(m[0], m[1])[0] != 0) continue;
            double const w = double(channel_value(a_weights(x + 3, y + 3), 0)) *
                             double(channel_value(b_weights(m[0] + 3, m[1] + 3), 0));
            for (int j = 0; j < 7; ++j)
                for (int i = 0; i < 7; ++i) {
                    auto& a = acc[(y + j) * nnf.width() + x + i];
                    for (int c = 0; c < n; ++c)
                        a[c] += w * double(channel_value(b(m[0] + i, m[1] + j), c));
                    a[n] += w;
                }
        }
    RecycledImage<Pixel> out(nnf.dimensions());
    for (int y = 0; y < nnf.height(); ++y)
        for (int x = 0; x < nnf.width(); ++x) {
            auto const& a = acc[y * nnf.width() + x];
            Pixel p = init(x, y);
            for (int c = 0; c < n && a[n] != 0.0; ++c) {
                double const mean = (1.0 / a[n]) * a[c];
                double const v = is_float_pixel_v<Pixel>
                                     ? mean
                                     : std::min(std::floor(mean + 0.5), test::channel_top<Pixel>());
                set_channel(p, c, static_cast<channel_base_t<Pixel>>(v));
            }
            view(out)(x, y) = p;
        }
    return out;
}

TYPED_TEST(VoteTyped, WideKernelAddsBitForBitLikeTheNarrowOnes) {
    using Pixel = TypeParam;
    using Acc = accumulator_pixel_t<Pixel>;
    if (!cpu_has_avx2()) GTEST_SKIP() << "no AVX2 on this processor";
    // Rows of one to seven pixels, values over the whole range, weights of
    // every magnitude (hole weights reach 1e30), sums that already hold
    // inexact values: both kernels must round every step alike.
    auto const pixels = test::random_image<Pixel>(7, 40, 3);
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> exponent(-30.0, 30.0);
    for (int row = 0; row < 40; ++row) {
        Acc narrow[7], wide[7];
        for (int i = 0; i < 7; ++i)
            for (int c = 0; c <= num_channels_v<Pixel>; ++c)
                narrow[i][c] = wide[i][c] = std::pow(10.0, exponent(rng)) / 3.0;
        int const count = 1 + row % 7;
        for (int vote = 0; vote < 3; ++vote) {
            double const weight = std::pow(10.0, exponent(rng)) * 0.7;
            detail::add_votes(narrow, &const_view(pixels)(0, row), count, weight);
            detail::add_votes(wide, &const_view(pixels)(0, row), count, weight, true);
        }
        ASSERT_EQ(std::memcmp(narrow, wide, sizeof(narrow)), 0) << "row " << row;
    }
}

TYPED_TEST(VoteTyped, LowMemoryVoteIsIndependentOfTheSplitAndMatchesAFullAccumulator) {
    using Pixel = TypeParam;
    Engine<Pixel> engine;
    Point const size(61, 23);  // narrow rows: many column tasks
    auto const b = test::random_image<Pixel>(40, 30, 7);
    std::mt19937 rng(8);
    RecycledImage<offset_pixel_t> nnf(size);
    for (auto& p : view(nnf)) p = offset_pixel_t(rng() % 34, rng() % 24);
    RegionMasks mask = patch_positions_mask(size);
    for (int y = 4; y < 8; ++y) mask.view(10, y) = gray8_pixel_t(255);
    mask.update_boxes(7);

    RecycledImage<weight_pixel_t> a_weight_data(size), b_weight_data(b.dimensions());
    for (auto& w : view(a_weight_data)) w = weight_pixel_t(float(rng() % 1000) / 7.0f);
    for (auto& w : view(b_weight_data)) w = weight_pixel_t(float(rng() % 1000) / 3.0f);
    WeightInsetView a_weights(view(a_weight_data)), b_weights(view(b_weight_data));
    a_weights.set_default(weight_pixel_t(1.0f));
    RecycledImage<gray8_pixel_t> b_mask(b.dimensions());
    for (auto& m : view(b_mask)) m = gray8_pixel_t(rng() % 5 == 0 ? 255 : 0);
    auto init = test::random_image<Pixel>(size.x, size.y, 9);
    View<Pixel> const init_view = view(init);

    auto const vote_with = [&](int threads) {
        tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
        RecycledImage<Pixel> out = init;
        engine.vote(const_view(b), view(nnf), view(out), nullptr, &view(b_mask), &b_weights, 0.5,
                    0.5, &mask, &a_weights, &init_view, nullptr, nullptr, false);
        return out;
    };
    auto const one = vote_with(1);
    EXPECT_TRUE(gil::equal_pixels(const_view(one), const_view(vote_with(2))));
    auto const expected = reference_vote<Pixel>(const_view(b), const_view(nnf), mask, a_weights,
                                                b_weights, view(b_mask), const_view(init));
    EXPECT_TRUE(gil::equal_pixels(const_view(one), const_view(expected)));
}

TEST(Vote, ConstrainedMovesTheSourceMaskToTheCompletenessPass) {
    using Pixel = gray16_pixel_t;
    Engine<Pixel> engine;
    // Source: left patch 1000, right patch 3000; the right one is masked.
    auto const b = two_patches<Pixel>(1000, 3000);
    auto b_mask = test::byte_mask(b.dimensions(), 255);
    view(b_mask)(0, 0) = gray8_pixel_t(0);
    // The target patch matches the masked source patch (7, 0); the source
    // field sends the one free source patch (0, 0) onto the target.
    auto nnf = filled(Point(7, 7), offset_pixel_t(7, 0));
    auto bnn = filled(b.dimensions(), offset_pixel_t(0, 0));
    RegionMasks mask = patch_positions_mask(Point(7, 7));
    RecycledImage<Pixel> out(Point(7, 7));
    auto const vote = [&](bool constrained) {
        engine.vote(const_view(b), view(nnf), view(out), &view(bnn), &view(b_mask), nullptr, 0.5,
                    0.5, &mask, nullptr, nullptr, nullptr, nullptr, constrained);
        return int(const_view(out)(3, 3));
    };
    // Unconstrained: the coherence vote is dropped by the mask, only the
    // free source patch votes.
    EXPECT_EQ(vote(false), 1000);
    // Constrained: the masked patch votes for coherence and both count
    // (coherence weight 0.5 over one patch, completeness 0.5 over 8 x 1).
    double const mean = (0.5 * 3000 + 0.5 / 8 * 1000) / (0.5 + 0.5 / 8);
    EXPECT_EQ(vote(true), int(mean + 0.5));
}

TEST(Vote, CoherentWeightsCountDiagonalNeighboursThatContinueTheMatch) {
    using Pixel = gray8_pixel_t;
    Engine<Pixel> engine;
    engine.prefer_coherent = engine.allow_coherent = true;
    Point const size(12, 12);  // 6 x 6 patch positions
    auto const b = test::random_image<Pixel>(30, 30, 2);
    RecycledImage<offset_pixel_t> nnf(size);
    // A coherent copy with offset (10, 10), broken at patch (4, 1).
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x) view(nnf)(x, y) = offset_pixel_t(x + 10, y + 10);
    view(nnf)(4, 1) = offset_pixel_t(0, 0);
    auto weight_data = filled(size, weight_pixel_t(2.0f));
    WeightInsetView const a_weights(view(weight_data));
    RegionMasks mask = patch_positions_mask(size);
    RecycledImage<Pixel> out(size);
    engine.vote(const_view(b), view(nnf), view(out), nullptr, nullptr, nullptr, 0.5, 0.5, &mask,
                &a_weights, nullptr, nullptr, nullptr, false);
    auto const weight = [&](int x, int y) {
        return channel_value(const_view(engine._weight_buf)(x, y), 0);
    };
    EXPECT_FLOAT_EQ(weight(2, 2), 2.0f);              // four coherent diagonals
    EXPECT_FLOAT_EQ(weight(4, 1), 0.2f);              // none
    EXPECT_FLOAT_EQ(weight(3, 2), float(2.0 * 0.6));  // three: (4, 1) broke one
    EXPECT_FLOAT_EQ(weight(0, 0), float(2.0 * 0.2));  // a corner has one neighbour
}

}  // namespace
}  // namespace WM
