#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include "correspondence/patch_kernels.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace WM {
namespace {

template <class Pixel>
class PatchKernels : public ::testing::Test {};
TYPED_TEST_SUITE(PatchKernels, test::AllPixelTypes, test::PixelNames);

template <class Pixel>
ConstView<Pixel> patch_at(RecycledImage<Pixel> const& image, int x, int y) {
    return gil::subimage_view(const_view(image), x, y, 7, 7);
}

// Straightforward sum over pixels and channels, exact for integer channels,
// in double without any unit for float channels.
template <class Pixel>
double reference_distance(ConstView<Pixel> const& a_patch, ConstView<Pixel> const& b, int x,
                          int y) {
    double sum = 0;
    for (int dy = 0; dy < 7; ++dy)
        for (int dx = 0; dx < 7; ++dx)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double const d = double(channel_value(a_patch(dx, dy), c)) -
                                 double(channel_value(b(x + dx, y + dy), c));
                sum += d * d;
            }
    return sum;
}

template <class Pixel>
using PortableRow = kernels_portable::RowDistance<Pixel>;

// Every translate kernel on one pair, checked against the reference and
// against each other.
template <class Pixel>
void expect_kernels_agree(ConstView<Pixel> const& a_patch, ConstView<Pixel> const& b, int x,
                          int y) {
    using D = distance_t<Pixel>;
    D const scalar = translate_distance_scalar<Pixel>(a_patch, b, x, y);
    D const vector = translate_distance_vector<Pixel>(a_patch, b, x, y);
    double const reference = reference_distance<Pixel>(a_patch, b, x, y);
    // The vector kernel gives exactly what the portable lane emulation gives.
    EXPECT_EQ(vector,
              (kernels::translate_distance_rows<Pixel, PortableRow<Pixel>>(a_patch, b, x, y)));
    if constexpr (is_float_pixel_v<Pixel>) {
        EXPECT_NEAR(vector, reference, 1e-5 * reference + 1e-12);
        EXPECT_NEAR(scalar, 65025.0 * reference, 65025.0 * (1e-5 * reference + 1e-12));
        // Bounded: a loose bound lets the candidate through, a tight one not.
        for (bool use_vector : {false, true}) {
            D const full = use_vector ? vector : scalar;
            auto bounded = [&](D best) {
                return use_vector
                           ? translate_distance_bounded_vector<Pixel>(a_patch, b, x, y, best)
                           : translate_distance_bounded_scalar<Pixel>(a_patch, b, x, y, best);
            };
            EXPECT_NEAR(bounded(2 * full), full, 1e-5 * full);
            EXPECT_TRUE(full == 0 || bounded(full / 2) == distance_traits<Pixel>::sentinel);
        }
        for (D best : {D(0), vector / 2, vector, 2 * vector})
            EXPECT_EQ(translate_distance_bounded_vector<Pixel>(a_patch, b, x, y, best),
                      (kernels::translate_distance_bounded_rows<Pixel, PortableRow<Pixel>>(
                          a_patch, b, x, y, best)));
    } else {
        EXPECT_EQ(scalar, static_cast<D>(reference));
        EXPECT_EQ(vector, static_cast<D>(reference));
        // The 16-byte rows, which `vector` may have passed over for a wider
        // twin, give the same sums.
        using Rows16 = kernels::VectorRowDistance<Pixel>;
        EXPECT_EQ((kernels::translate_distance_rows<Pixel, Rows16>(a_patch, b, x, y)), vector);
        D const sentinel = distance_traits<Pixel>::sentinel;
        // At the bound the candidate comes back as the bound itself; one
        // below it is given up, one above it passes.
        for (D best : {scalar - 1, scalar, scalar + 1, D(0), sentinel}) {
            D const expected = best >= scalar ? scalar : sentinel;
            EXPECT_EQ(translate_distance_bounded_scalar<Pixel>(a_patch, b, x, y, best), expected)
                << "best " << best;
            EXPECT_EQ(translate_distance_bounded_vector<Pixel>(a_patch, b, x, y, best), expected)
                << "best " << best;
            EXPECT_EQ(
                (kernels::translate_distance_bounded_rows<Pixel, Rows16>(a_patch, b, x, y, best)),
                expected)
                << "best " << best;
        }
    }
}

TYPED_TEST(PatchKernels, RandomPatchesAgreeWithReferenceAndEachOther) {
    using Pixel = TypeParam;
    auto const a = test::random_image<Pixel>(23, 19, 1);
    auto const b = test::random_image<Pixel>(31, 17, 2);
    std::mt19937 rng(3);
    for (int i = 0; i < 200; ++i) {
        int const ax = int(rng() % 17), ay = int(rng() % 13);
        int const bx = int(rng() % 25), by = int(rng() % 11);
        SCOPED_TRACE(::testing::Message() << "a " << ax << "," << ay << " b " << bx << "," << by);
        expect_kernels_agree<Pixel>(patch_at(a, ax, ay), const_view(b), bx, by);
    }
}

TYPED_TEST(PatchKernels, ExtremeValuesAndTheFloatUnit) {
    using Pixel = TypeParam;
    using D = distance_t<Pixel>;
    constexpr int channels = num_channels_v<Pixel>;
    // Both patches end at the last pixel of their buffers, so the vector
    // loads run into the spare bytes.
    auto const zeros = test::uniform<Pixel>(Point(7, 7), 0);
    auto const tops = test::uniform<Pixel>(Point(9, 8), test::channel_top<Pixel>());
    expect_kernels_agree<Pixel>(const_view(zeros), const_view(tops), 2, 1);
    expect_kernels_agree<Pixel>(patch_at(tops, 2, 1), const_view(zeros), 0, 0);

    // Integer sums were checked exactly above; float ones hold exactly too.
    if constexpr (is_float_pixel_v<Pixel>) {
        double const all = 49.0 * channels;
        D const scalar =
            translate_distance_scalar<Pixel>(const_view(zeros), const_view(tops), 2, 1);
        D const vector =
            translate_distance_vector<Pixel>(const_view(zeros), const_view(tops), 2, 1);
        EXPECT_EQ(scalar, float(65025.0 * all));  // the scalar unit is 255 squared
        EXPECT_EQ(vector, float(all));
    }
}

TYPED_TEST(PatchKernels, IdenticalPatchesAndEverySingleDifference) {
    using Pixel = TypeParam;
    using D = distance_t<Pixel>;
    constexpr int channels = num_channels_v<Pixel>;
    D const sentinel = distance_traits<Pixel>::sentinel;
    auto a = test::random_image<Pixel>(7, 7, 4);
    // Float values on a 1/256 grid, so that adding 1.0 below is exact.
    if constexpr (is_float_pixel_v<Pixel>)
        for (auto& pixel : view(a))
            for (int c = 0; c < channels; ++c)
                set_channel(pixel, c, std::floor(channel_value(pixel, c) * 256.0f) / 256.0f);
    // b holds a copy of a at (5, 2); the columns right of it hold the
    // channel maximum (NaN for float), which no kernel may count.
    auto b = test::uniform<Pixel>(Point(20, 9), is_float_pixel_v<Pixel>
                                                    ? std::numeric_limits<double>::quiet_NaN()
                                                    : double(test::channel_top<Pixel>()));
    gil::copy_pixels(const_view(a), gil::subimage_view(view(b), 5, 2, 7, 7));
    auto const a_patch = const_view(a);
    ConstView<Pixel> const bv = const_view(b);
    EXPECT_EQ(translate_distance_scalar<Pixel>(a_patch, bv, 5, 2), D(0));
    EXPECT_EQ(translate_distance_vector<Pixel>(a_patch, bv, 5, 2), D(0));
    for (D best : {D(0), D(1), sentinel}) {
        EXPECT_EQ(translate_distance_bounded_scalar<Pixel>(a_patch, bv, 5, 2, best), D(0));
        EXPECT_EQ(translate_distance_bounded_vector<Pixel>(a_patch, bv, 5, 2, best), D(0));
    }

    // One step in one channel of one pixel, at every place of the patch:
    // every lane and every row tail counts it once, and best 0 gives up.
    D const unit_scalar = is_float_pixel_v<Pixel> ? D(65025) : D(1);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 7; ++x)
            for (int c = 0; c < channels; ++c) {
                auto& pixel = view(b)(5 + x, 2 + y);
                auto const saved = channel_value(pixel, c);
                int const step = is_float_pixel_v<Pixel> || int(saved) % 2 == 0 ? 1 : -1;
                set_channel(pixel, c, static_cast<channel_base_t<Pixel>>(saved + step));
                SCOPED_TRACE(::testing::Message() << x << "," << y << " channel " << c);
                EXPECT_EQ(translate_distance_scalar<Pixel>(a_patch, bv, 5, 2), unit_scalar);
                EXPECT_EQ(translate_distance_vector<Pixel>(a_patch, bv, 5, 2), D(1));
                EXPECT_EQ(translate_distance_bounded_scalar<Pixel>(a_patch, bv, 5, 2, 0), sentinel);
                EXPECT_EQ(translate_distance_bounded_vector<Pixel>(a_patch, bv, 5, 2, 0), sentinel);
                set_channel(pixel, c, saved);
            }
}

// Rows are summed lane by lane and the lanes added as ((l1 + l0) + l2) + l3.
// Lanes 1, 2**-24, 2**-24, 0 then sum to exactly 1; the common pairwise
// order (l0 + l2) + (l1 + l3) would give 1 + 2**-23. With best at the float
// sentinel the bounded accumulator never leaves -best.
TEST(PatchKernelsFloat, VectorLaneOrderAndSentinelBest) {
    using Pixel = gray32f_pixel_t;
    auto a = test::uniform<Pixel>(Point(7, 7), 0);
    auto const b = test::uniform<Pixel>(Point(7, 7), 0);
    view(a)(0, 0) = view(a)(2, 0) = Pixel(std::ldexp(1.0f, -12));
    view(a)(1, 0) = Pixel(1.0f);
    EXPECT_EQ(translate_distance_vector<Pixel>(const_view(a), const_view(b), 0, 0), 1.0f);
    EXPECT_EQ((kernels::translate_distance_rows<Pixel, PortableRow<Pixel>>(const_view(a),
                                                                           const_view(b), 0, 0)),
              1.0f);
    float const sentinel = distance_traits<Pixel>::sentinel;
    EXPECT_EQ(
        translate_distance_bounded_scalar<Pixel>(const_view(a), const_view(b), 0, 0, sentinel),
        0.0f);
    EXPECT_EQ(
        translate_distance_bounded_vector<Pixel>(const_view(a), const_view(b), 0, 0, sentinel),
        0.0f);
}

}  // namespace
}  // namespace WM
