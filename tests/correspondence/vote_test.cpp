#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include "correspondence/vote_impl.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

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
// accumulator over the whole image, the patches in raster order.
// `patch_at(x, y, sx, sy)` is the 7 x 7 patch that target patch (x, y)
// votes for its match (sx, sy). Without a target mask every position
// votes, cut at the image's edge; missing weights are 1.
template <class Pixel, class PatchAt>
RecycledImage<Pixel> reference_vote(PatchAt const& patch_at, ConstView<offset_pixel_t> const& nnf,
                                    RegionMasks const* a_mask, WeightInsetView const* a_weights,
                                    WeightInsetView const* b_weights, GrayView const* b_mask,
                                    ConstView<Pixel> const& init) {
    constexpr int n = num_channels_v<Pixel>;
    int const w = int(nnf.width()), h = int(nnf.height());
    std::vector<std::array<double, n + 1>> acc(w * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (a_mask != nullptr && a_mask->view(x, y)[0] != 0) continue;
            auto const m = nnf(x, y);
            if (b_mask != nullptr && (*b_mask)(m[0], m[1])[0] != 0) continue;
            double const weight =
                (a_weights ? double(channel_value((*a_weights)(x + 3, y + 3), 0)) : 1.0) *
                (b_weights ? double(channel_value((*b_weights)(m[0] + 3, m[1] + 3), 0)) : 1.0);
            auto const patch = patch_at(x, y, m[0], m[1]);
            for (int j = 0; j < 7 && y + j < h; ++j)
                for (int i = 0; i < 7 && x + i < w; ++i) {
                    auto& a = acc[(y + j) * w + x + i];
                    for (int c = 0; c < n; ++c)
                        a[c] += weight * double(channel_value(patch(i, j), c));
                    a[n] += weight;
                }
        }
    RecycledImage<Pixel> out(nnf.dimensions());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            auto const& a = acc[y * w + x];
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

// The inputs of a one-way vote on random data: a 61 x 23 target voted from
// a 40 x 30 source. With `everything`: weights on both sides, a source
// mask, a target mask of the patch positions with a few frozen ones, and an
// initial image; without, none of them, as a bare engine call has.
template <class Pixel>
struct OneWayVote {
    explicit OneWayVote(bool everything) {
        std::mt19937 rng(8);
        for (auto& p : view(nnf)) p = offset_pixel_t(rng() % 34, rng() % 24);
        for (int y = 4; y < 8; ++y) mask.view(10, y) = gray8_pixel_t(255);
        mask.update_boxes(7);
        for (auto& w : view(a_weight_data)) w = weight_pixel_t(float(rng() % 1000) / 7.0f);
        for (auto& w : view(b_weight_data)) w = weight_pixel_t(float(rng() % 1000) / 3.0f);
        a_weights.set_default(weight_pixel_t(1.0f));
        for (auto& m : view(b_mask_data)) m = gray8_pixel_t(rng() % 5 == 0 ? 255 : 0);
        if (!everything) return;
        a_mask = &mask;
        a_weight_map = &a_weights;
        b_weight_map = &b_weights;
        b_mask = &view(b_mask_data);
        initial = &view(init);
    }

    Point size{61, 23};
    RecycledImage<Pixel> b = test::random_image<Pixel>(40, 30, 7);
    RecycledImage<Pixel> init = test::random_image<Pixel>(size.x, size.y, 9);
    RecycledImage<offset_pixel_t> nnf{size};
    OffsetView nnf_view = view(nnf);
    RegionMasks mask = patch_positions_mask(size);
    RecycledImage<weight_pixel_t> a_weight_data{size}, b_weight_data{b.dimensions()};
    RecycledImage<gray8_pixel_t> b_mask_data{b.dimensions()};
    WeightInsetView a_weights{view(a_weight_data)}, b_weights{view(b_weight_data)};
    // What the vote is given: null where the case goes without.
    RegionMasks* a_mask = nullptr;
    WeightInsetView const* a_weight_map = nullptr;
    WeightInsetView const* b_weight_map = nullptr;
    GrayView const* b_mask = nullptr;
    View<Pixel> const* initial = nullptr;

    template <class Compare>
    RecycledImage<Pixel> engine_vote(Weftmap<Compare>& engine) const {
        RecycledImage<Pixel> out = init;
        engine.vote(const_view(b), nnf_view, view(out), nullptr, b_mask, b_weight_map, 0.5, 0.5,
                    a_mask, a_weight_map, initial, nullptr, nullptr, false);
        return out;
    }

    // The low-memory vote's tasks run one after another on strips of the
    // given widths, repeated across the box, with or without AVX2.
    template <class Compare>
    RecycledImage<Pixel> vote_in_strips(Compare const& comparator, std::vector<int> const& widths,
                                        bool avx2) const {
        Box box = get_abox(7, size, a_mask);
        box.xmax += 6;
        box.ymax += 6;
        RecycledImage<accumulator_pixel_t<Pixel>> ring(Point(box.xmax - box.xmin, 7));
        gil::fill_pixels(view(ring), accumulator_pixel_t<Pixel>(0.0));
        RecycledImage<Pixel> out = init;
        std::atomic<bool> abort_flag{false};
        detail::vote_n_lomem_body<Compare> const body{
            const_view(b), nnf_view,    view(out),    view(ring),  b_mask,
            b_weight_map,  a_mask,      a_weight_map, initial,     false,
            box,           &comparator, nullptr,      &abort_flag, avx2};
        for (int x = box.xmin, k = 0; x < box.xmax; ++k) {
            int const end = std::min<int>(box.xmax, x + widths[k % widths.size()]);
            body(BlockedRange(x, end, 1));
            x = end;
        }
        return out;
    }
};

// Strip patterns: one strip, single columns, and uneven widths narrower
// and wider than a patch.
std::vector<std::vector<int>> const strip_patterns = {{1000}, {1}, {3, 7, 1, 12, 5}, {20, 2}};

// The column kernels against single votes added in the window's order,
// silent patches skipped: windows with none, some and all of the seven
// silent, entered at every slot, the last patch at the image's bottom-right
// corner (its last pixel ends the image), weights of every magnitude and
// sign on sums that already hold inexact values.
TYPED_TEST(VoteTyped, ColumnKernelsAddLikeSingleVotesInTheWindowsOrder) {
    using Pixel = TypeParam;
    using Acc = accumulator_pixel_t<Pixel>;
    constexpr int n = num_channels_v<Pixel>;
    auto const image = test::random_image<Pixel>(16, 9, 4);
    ConstView<Pixel> const b = const_view(image);
    std::mt19937 rng(6);
    std::uniform_real_distribution<double> exponent(-30.0, 30.0);
    for (unsigned silent : {0x00u, 0x01u, 0x40u, 0x2au, 0x7fu})
        for (int extra = 0; extra < 7; ++extra) {
            detail::VoteWindow<Pixel> window;
            for (int e = 0; e < extra; ++e) window.push(&b(0, 0), b.pixels().row_size(), 5.0);
            Point origin[7];
            double weight[7];
            for (int k = 0; k < 7; ++k) {
                origin[k] = k == 6 ? Point(9, 2) : Point(rng() % 10, rng() % 3);
                weight[k] = (k == 3 ? -0.7 : 0.7) * std::pow(10.0, exponent(rng));
                if (silent >> k & 1u)
                    window.push_silent();
                else
                    window.push(&b(origin[k].x, origin[k].y), b.pixels().row_size(), weight[k]);
            }
            // Seven accumulator rows of three columns; the kernels add to
            // column 1.
            Acc expected[7], narrow[7][3], wide[7][3];
            Acc* narrow_rows[7];
            Acc* wide_rows[7];
            for (int j = 0; j < 7; ++j) {
                narrow_rows[j] = narrow[j];
                wide_rows[j] = wide[j];
                for (int c = 0; c <= n; ++c)
                    expected[j][c] = narrow[j][1][c] = wide[j][1][c] =
                        std::pow(10.0, exponent(rng)) / 3.0;
            }
            for (int j = 0; j < 7; ++j)
                for (int k = 0; k < 7; ++k) {
                    if (silent >> k & 1u) continue;
                    Pixel const& p = b(origin[k].x + 6 - k, origin[k].y + j);
                    for (int c = 0; c < n; ++c)
                        expected[j][c] += weight[k] * double(channel_value(p, c));
                    expected[j][n] += weight[k];
                }
            auto const column_is_expected = [&](Acc const(&sums)[7][3]) {
                for (int j = 0; j < 7; ++j)
                    if (std::memcmp(&sums[j][1], &expected[j], sizeof(Acc)) != 0) return false;
                return true;
            };
            detail::add_column_votes(narrow_rows, 1, window, false);
            EXPECT_TRUE(column_is_expected(narrow)) << "silent " << silent << ", extra " << extra;
            if (!cpu_has_avx2()) continue;
            detail::add_column_votes(wide_rows, 1, window, true);
            EXPECT_TRUE(column_is_expected(wide))
                << "AVX2, silent " << silent << ", extra " << extra;
        }
}

TYPED_TEST(VoteTyped, LowMemoryVoteMatchesAFullAccumulatorWhateverTheStripsAndKernel) {
    using Pixel = TypeParam;
    Engine<Pixel> engine;
    for (bool everything : {true, false}) {
        OneWayVote<Pixel> const vote(everything);
        auto const whole = vote.engine_vote(engine);
        auto const translated = [&](int, int, int sx, int sy) {
            return gil::subimage_view(const_view(vote.b), sx, sy, 7, 7);
        };
        auto const expected =
            reference_vote<Pixel>(translated, const_view(vote.nnf), vote.a_mask, vote.a_weight_map,
                                  vote.b_weight_map, vote.b_mask, const_view(vote.init));
        EXPECT_TRUE(gil::equal_pixels(const_view(whole), const_view(expected)))
            << (everything ? "with" : "without") << " weights and masks";
        for (auto const& widths : strip_patterns)
            for (bool avx2 : {false, cpu_has_avx2()}) {
                auto const strips = vote.vote_in_strips(engine.comparator, widths, avx2);
                EXPECT_TRUE(gil::equal_pixels(const_view(strips), const_view(whole)))
                    << (everything ? "with" : "without") << " weights and masks, strips of "
                    << widths[0] << (avx2 ? ", AVX2" : "");
            }
    }
}

// The gain/bias comparator votes each patch adjusted to its target patch.
TEST(Vote, GainBiasLowMemoryVoteMatchesAFullAccumulatorOfAdjustedPatches) {
    using Pixel = rgb8_pixel_t;
    test::TestEngine<GainBiasPatchCompare<Pixel>> engine;
    OneWayVote<Pixel> const vote(true);
    auto const target = test::random_image<Pixel>(vote.size.x, vote.size.y, 11);
    auto& compare = engine.comparator;
    compare.preallocate_buffers(target.dimensions(), vote.b.dimensions(), Point(0, 0), false, false,
                                false, false, false);
    compare.set_timage(const_view(target), 7, nullptr);
    compare.set_simage(const_view(vote.b), 7);

    RecycledImage<Pixel> adjusted(Point(7, 7));
    auto const adjusted_patch = [&](int x, int y, int sx, int sy) {
        compare.patch_transform(const_view(vote.b), sx, sy, x, y, view(adjusted));
        return const_view(adjusted);
    };
    auto const expected =
        reference_vote<Pixel>(adjusted_patch, const_view(vote.nnf), vote.a_mask, vote.a_weight_map,
                              vote.b_weight_map, vote.b_mask, const_view(vote.init));
    EXPECT_TRUE(gil::equal_pixels(const_view(vote.engine_vote(engine)), const_view(expected)));
    for (auto const& widths : strip_patterns)
        EXPECT_TRUE(gil::equal_pixels(const_view(vote.vote_in_strips(compare, widths, false)),
                                      const_view(expected)))
            << "strips of " << widths[0];
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
