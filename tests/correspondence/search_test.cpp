#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

// A source of noise and a target cut out of it at (5, 3): every target
// patch has an exact match.
template <class Compare>
struct CropFixture {
    using Pixel = typename Compare::pixel_t;
    static constexpr int dx = 5, dy = 3;

    CropFixture() : source(test::random_image<Pixel>(70, 50, 11)), target(Point(50, 36)) {
        gil::copy_pixels(gil::subimage_view(const_view(source), dx, dy, 50, 36), view(target));
        engine.start(target, source, nnf, dist);
    }
    void search(int passes) {
        engine.nn_iters = passes;
        engine.search(const_view(target), const_view(source), view(nnf), view(dist), nullptr,
                      nullptr, nullptr, 0, 0, 0, nullptr);
    }
    double exact_share() const {
        int exact = 0, total = 0;
        for (int y = 0; y <= 36 - 7; ++y)
            for (int x = 0; x <= 50 - 7; ++x, ++total) {
                auto const p = const_view(nnf)(x, y);
                if (p[0] == x + dx && p[1] == y + dy && const_view(dist)(x, y)[0] == 0) ++exact;
            }
        return double(exact) / total;
    }

    RecycledImage<Pixel> source, target;
    test::TestEngine<Compare> engine;
    RecycledImage<offset_pixel_t> nnf;
    RecycledImage<distance_pixel_t<Pixel>> dist;
};

template <class Pixel>
class SearchTyped : public ::testing::Test {};
TYPED_TEST_SUITE(SearchTyped, test::AllPixelTypes, test::PixelNames);

// With one band a run is reproducible, and scalar and vector kernels give
// the same field (exactly for integer channels).
TYPED_TEST(SearchTyped, FindsAShiftedCropReproduciblyWithEitherKernel) {
    using Compare = TranslatePatchCompare<TypeParam>;
    auto run = [&](bool vector) {
        test::Reproducible repeat(7, vector);
        CropFixture<Compare> f;
        f.search(4);
        EXPECT_GT(f.exact_share(), 0.99);
        return std::make_pair(f.nnf, f.dist);
    };
    auto const first = run(true);
    auto const second = run(true);
    EXPECT_TRUE(gil::equal_pixels(const_view(first.first), const_view(second.first)));
    if constexpr (!is_float_pixel_v<TypeParam>) {
        auto const scalar = run(false);
        EXPECT_TRUE(gil::equal_pixels(const_view(first.first), const_view(scalar.first)));
        EXPECT_TRUE(gil::equal_pixels(const_view(first.second), const_view(scalar.second)));
    }
}

TEST(Search, PassesStayInTheWindowAndNeverRaiseADistanceWhichStaysExact) {
    using Pixel = rgb16_pixel_t;
    test::TestEngine<TranslatePatchCompare<Pixel>> engine;
    auto const a = test::random_image<Pixel>(50, 40, 31);
    auto const b = test::random_image<Pixel>(60, 45, 32);
    engine.half_search_window = 6;
    engine.current_scale = 1.5;  // a window of 9
    RecycledImage<offset_pixel_t> nnf;
    RecycledImage<ll_gray_pixel_t> dist, recomputed;
    engine.start(a, b, nnf, dist);
    engine.nn_iters = 1;
    // The window is centred on the position the patch would have if the
    // source were the target stretched to its size. Random starts cover
    // [e - 9, e + 9); the search only accepts candidates inside the window.
    float const fx = 59.0f / 49.0f, fy = 44.0f / 39.0f;
    float const ox = -10 * 0.5f / 49.0f, oy = -5 * 0.5f / 39.0f;
    for (int pass = 0; pass < 3; ++pass) {
        RecycledImage<ll_gray_pixel_t> const before = dist;
        engine.search(const_view(a), const_view(b), view(nnf), view(dist), nullptr, nullptr,
                      nullptr, 0, 0, pass, nullptr);
        engine.init_dist(const_view(a), const_view(b), view(nnf), recomputed, nullptr, nullptr,
                         nullptr);
        for (int y = 0; y <= 33; ++y)
            for (int x = 0; x <= 43; ++x) {
                ASSERT_LE(const_view(dist)(x, y)[0], const_view(before)(x, y)[0]);
                // The incremental rule keeps stored distances exact.
                ASSERT_EQ(const_view(dist)(x, y)[0], const_view(recomputed)(x, y)[0]);
                int const ex = int((x + 3.5f) * fx + ox - 3.5f + 0.5f);
                int const ey = int((y + 3.5f) * fy + oy - 3.5f + 0.5f);
                auto const p = const_view(nnf)(x, y);
                ASSERT_TRUE(int(p[0]) - ex >= -9 && int(p[0]) - ex < 9) << x << "," << y;
                ASSERT_TRUE(int(p[1]) - ey >= -9 && int(p[1]) - ey < 9) << x << "," << y;
            }
    }
}

TEST(Search, NeverChoosesForbiddenSourcesOrOtherRegions) {
    using Pixel = gray8_pixel_t;
    test::TestEngine<TranslatePatchCompare<Pixel>> engine;
    Point const size(48, 40);
    auto const a = test::random_image<Pixel>(size.x, size.y, 21);
    auto const b = test::random_image<Pixel>(size.x, size.y, 22);
    auto b_mask = test::byte_mask(size, 0);
    test::paint(view(b_mask), Box{10, 0, 20, 40}, gray8_pixel_t(255));
    RegionMasks regions = test::label_masks(size, [](int, int y) { return y < 20 ? 0 : 1; });
    SampleRegions samples;  // 42 x 34 corners, 10 columns of them forbidden
    samples.build(&view(b_mask), &regions, size.x - 6, size.y - 6);
    EXPECT_EQ(samples.region_size(0), 20u * 32);
    EXPECT_EQ(samples.region_size(1), 14u * 32);
    RecycledImage<offset_pixel_t> nnf;
    RecycledImage<int_gray_pixel_t> dist;
    engine.init_nnf(size, size, nnf, &regions, nullptr, &samples);
    engine.init_dist(const_view(a), const_view(b), view(nnf), dist, &view(b_mask), &regions,
                     nullptr);
    RecycledImage<int_gray_pixel_t> const start = dist;
    engine.nn_iters = 4;
    engine.search(const_view(a), const_view(b), view(nnf), view(dist), nullptr, &view(b_mask),
                  nullptr, 0, 0, 0, &regions);
    int improved = 0;
    for (int y = 0; y <= size.y - 7; ++y)
        for (int x = 0; x <= size.x - 7; ++x) {
            auto const p = const_view(nnf)(x, y);
            ASSERT_EQ(view(b_mask)(p[0], p[1]), gray8_pixel_t(0)) << x << "," << y;
            ASSERT_EQ(regions.view(p[0], p[1]), regions.view(x, y)) << x << "," << y;
            improved += const_view(dist)(x, y)[0] < const_view(start)(x, y)[0];
        }
    EXPECT_GT(improved, 42 * 34 / 2);
}

TEST(Search, CancellationLeavesAValidFieldAndProgressComesInOrder) {
    CropFixture<TranslatePatchCompare<rgb8_pixel_t>> f;
    f.engine.progress_table = {0.25f, 0.5f, 0.75f};
    f.engine.progress_cursor = 0;
    f.search(5);
    EXPECT_EQ(f.engine.host.progress, (std::vector<float>{0.25f, 0.5f, 0.75f, 0.75f, 0.75f}));
    EXPECT_GT(f.engine.host.abort_polls.load(), 0);
    f.engine.rs_ratio = 1.0;  // a radius that never shrinks is refused
    EXPECT_THROW(f.search(1), Exception);
    f.engine.rs_ratio = 0.5;

    f.engine.host.cancel = true;
    f.engine.start(f.target, f.source, f.nnf, f.dist);
    EXPECT_EQ(test::error_text([&] { f.search(3); }), "WEFTMAP_USER_CANCELED");
    for (int y = 0; y <= 36 - 7; ++y)
        for (int x = 0; x <= 50 - 7; ++x)
            ASSERT_TRUE(const_view(f.nnf)(x, y)[0] <= 63 && const_view(f.nnf)(x, y)[1] <= 43);
}

}  // namespace
}  // namespace WM
