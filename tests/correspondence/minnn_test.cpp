#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include <weftmap/correspondence/minnn.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

template <class Compare>
void check_minnn_keeps_the_better_match() {
    using Pixel = typename Compare::pixel_t;
    test::TestEngine<Compare> engine;
    auto const a = test::random_image<Pixel>(40, 32, 1);
    auto const b = test::random_image<Pixel>(44, 30, 2);
    if constexpr (is_gain_bias_compare_v<Compare>)
        engine.comparator.preallocate_buffers(a.dimensions(), b.dimensions(), Point(0, 0), false,
                                              false, false, false, false);
    RecycledImage<offset_pixel_t> nnf, previous;
    RecycledImage<distance_pixel_t<Pixel>> dist, previous_dist;
    engine.start(a, b, previous, previous_dist);
    engine.start(a, b, nnf, dist);
    RecycledImage<distance_pixel_t<Pixel>> const before = dist;
    engine.nn_iters = 5;
    engine.rs_max = 1000;
    minnn(engine, const_view(a), const_view(b), view(nnf), view(dist), view(previous), nullptr,
          nullptr, 0, 1, nullptr, nullptr, 2, 1);
    EXPECT_EQ(std::make_pair(engine.nn_iters, engine.rs_max), std::make_pair(5, 1000));
    // Float bounded sums start from -best and may round differently from the
    // full sum by an ulp or so.
    double const slack = is_float_pixel_v<Pixel> ? 1 + 1e-5 : 1;
    for (int y = 0; y <= 32 - 7; ++y)
        for (int x = 0; x <= 40 - 7; ++x) {
            auto const d = const_view(dist)(x, y)[0];
            ASSERT_LE(d, const_view(before)(x, y)[0]);
            ASSERT_LE(d, const_view(previous_dist)(x, y)[0] * slack);
        }
}

TEST(Minnn, NeverMakesADistanceWorse) {
    check_minnn_keeps_the_better_match<TranslatePatchCompare<rgb8_pixel_t>>();
    check_minnn_keeps_the_better_match<TranslatePatchCompare<cmyk16_pixel_t>>();
    check_minnn_keeps_the_better_match<TranslatePatchCompare<gray32f_pixel_t>>();
    check_minnn_keeps_the_better_match<GainBiasPatchCompare<rgb8_pixel_t>>();
}

TEST(Minnn, RestoresTheSearchBudgetAfterACancelledExtraSearch) {
    using Pixel = gray8_pixel_t;
    test::TestEngine<TranslatePatchCompare<Pixel>> engine;
    auto const a = test::random_image<Pixel>(30, 30, 3);
    auto const b = test::random_image<Pixel>(30, 30, 4);
    RecycledImage<offset_pixel_t> nnf;
    RecycledImage<int_gray_pixel_t> dist;
    engine.start(a, b, nnf, dist);
    RecycledImage<offset_pixel_t> previous = nnf;
    engine.nn_iters = 7;
    engine.rs_max = 99;
    engine.host.cancel = true;
    EXPECT_THROW(minnn(engine, const_view(a), const_view(b), view(nnf), view(dist), view(previous),
                       nullptr, nullptr, 0, 1, nullptr, nullptr, 2, 1),
                 Exception);
    EXPECT_EQ(std::make_pair(engine.nn_iters, engine.rs_max), std::make_pair(7, 99));
    EXPECT_TRUE(engine.host.progress.empty());
}

TEST(Minnn, LeavesPixelsWhosePreviousMatchIsOutOfRangeOrATie) {
    using Pixel = rgb8_pixel_t;
    test::TestEngine<TranslatePatchCompare<Pixel>> engine;
    auto const a = test::random_image<Pixel>(20, 20, 5);
    auto nnf = test::filled(a.dimensions(), offset_pixel_t(0, 0));
    auto previous = test::filled(a.dimensions(), offset_pixel_t(14, 0));  // one past the last
    RecycledImage<int_gray_pixel_t> dist;
    engine.init_dist(const_view(a), const_view(a), view(nnf), dist, nullptr, nullptr, nullptr);
    RecycledImage<int_gray_pixel_t> const before = dist;
    engine.rs_min = 5;  // no random search in the extra passes
    engine.rs_max = 1;
    engine.do_propagate = false;
    minnn(engine, const_view(a), const_view(a), view(nnf), view(dist), view(previous), nullptr,
          nullptr, 0, 1, nullptr, nullptr, 1, 1);
    EXPECT_TRUE(gil::equal_pixels(const_view(dist), const_view(before)));
    for (int y = 0; y <= 13; ++y)
        for (int x = 0; x <= 13; ++x) EXPECT_EQ(const_view(nnf)(x, y), offset_pixel_t(0, 0));
}

}  // namespace
}  // namespace WM
