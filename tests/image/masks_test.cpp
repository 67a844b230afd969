#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include <weftmap/image/masks.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace WM {
namespace {

using Gray = RecycledImage<gray8_pixel_t>;
using Ints = RecycledImage<int_gray_pixel_t>;

using test::error_text;

Gray gray_image(std::ptrdiff_t w, std::ptrdiff_t h, int value) {
    return test::byte_mask(Point(w, h), value);
}

template <class Pixel>
class MasksTyped : public ::testing::Test {};
TYPED_TEST_SUITE(MasksTyped, test::AllPixelTypes, test::PixelNames);

TYPED_TEST(MasksTyped, CopyPixelsMaskedKeepsTakesOrAddsThePremultipliedSource) {
    using Pixel = TypeParam;
    using Channel = channel_base_t<Pixel>;
    auto const src = test::random_image<Pixel>(13, 7, 1);
    auto const original = test::random_image<Pixel>(13, 7, 2);
    auto dst = original;
    auto mask = test::random_image<gray8_pixel_t>(13, 7, 3);
    for (int x = 0; x < 13; ++x) {  // make sure both extremes occur
        view(mask)(x, 0) = gray8_pixel_t(0);
        view(mask)(x, 1) = gray8_pixel_t(255);
    }
    copy_pixels_masked(const_view(src), view(dst), const_view(mask));
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 13; ++x) {
            int const m = view(mask)(x, y);
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                Channel const d = channel_value(const_view(original)(x, y), c);
                Channel const s = channel_value(const_view(src)(x, y), c);
                Channel expected = m == 0 ? d : s;
                if (m != 0 && m != 255) {
                    float const t = float(d) * (1.0f - float(m) / 255.0f) + float(s);
                    if constexpr (is_float_pixel_v<Pixel>)
                        expected = t;
                    else
                        expected = Channel(std::uint64_t(t + 0.5f));
                }
                ASSERT_EQ(channel_value(view(dst)(x, y), c), expected) << x << "," << y;
            }
        }
}

TEST(CopyPixelsMasked, WrapsPastTheMaximumAndChecksSizes) {
    // 255 * (1 - 1/255) + 255 = 509 wraps to 253 instead of clamping.
    auto dst = gray_image(1, 1, 255);
    copy_pixels_masked(const_view(gray_image(1, 1, 255)), view(dst),
                       const_view(gray_image(1, 1, 1)));
    EXPECT_EQ(int(view(dst)(0, 0)), 253);
    auto const a = gray_image(3, 2, 0);
    auto b = gray_image(2, 3, 0), c = gray_image(3, 2, 0);
    EXPECT_EQ(error_text([&] { copy_pixels_masked(const_view(a), view(b), const_view(a)); }),
              "WEFTMAP_INTERNAL_ERROR:copy_pixels_masked: src size (3x2) != dst size (2x3)");
    EXPECT_THROW(copy_pixels_masked(const_view(a), view(c), const_view(b)), Exception);
}

TEST(DistanceTransform, MatchesBruteForceOnRandomMasks) {
    std::mt19937 rng(7);
    for (int round = 0; round < 30; ++round) {  // 1x10, 22x1 and 14x1 among them
        int const w = 1 + int(rng() % 23), h = 1 + int(rng() % 17);
        unsigned const density = 1 + rng() % 40;  // percent of 255 pixels
        Gray bmp(Point(w, h));
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                view(bmp)(x, y) = gray8_pixel_t(rng() % 100 < density ? 255 : rng() % 255);
        Ints out(Point(w, h));
        for (bool const border : {false, true}) {
            // Brute force: the distance to the nearest zero, that is a 255
            // pixel or the border when it counts, 10000 when there is none.
            auto const zero = [&](int u, int v) {
                bool const edge = u == 0 || v == 0 || u == w - 1 || v == h - 1;
                return view(bmp)(u, v) == 255 || (border && edge);
            };
            Gray const nonhole = gray_image(w, h, 0);  // checked for size only
            ConstGrayView const nonhole_view = const_view(nonhole);
            dt(const_view(bmp), view(out), round % 2 ? &nonhole_view : nullptr, border);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    ASSERT_EQ(view(out)(x, y)[0], test::city_block(w, h, x, y, zero, 10000))
                        << w << "x" << h << " at " << x << "," << y << " border " << border;
        }
    }
}

TEST(DistanceTransform, RefusesMismatchedSizes) {
    Ints out(Point(6, 5));
    EXPECT_EQ(error_text([&] { dt(const_view(gray_image(5, 6, 0)), view(out), nullptr, false); }),
              "WEFTMAP_INTERNAL_ERROR:dt: outview size (6x5) != bmp size (5x6)");
    auto const other = gray_image(2, 2, 0);
    ConstGrayView const other_view = const_view(other);
    EXPECT_THROW(dt(const_view(gray_image(6, 5, 0)), view(out), &other_view, false), Exception);
}

TEST(BoxFilter, BothDirectionsMatchBruteForceAlsoInPlace) {
    std::mt19937 rng(11);
    for (int round = 0; round < 40; ++round) {
        int const w = 1 + int(rng() % 19), h = 1 + int(rng() % 13);
        bool const along_x = round % 2 == 0;
        int const line = along_x ? w : h;
        int const size = int(rng() % (line + 1));
        Ints in(Point(w, h));
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                // Large values: the sums must wrap as 32-bit unsigned numbers.
                view(in)(x, y)[0] = static_cast<std::int32_t>(rng());
        Ints out(Point(w, h));
        Ints in_place = in;
        if (along_x) {
            x_box_filter(view(in), view(out), size);
            x_box_filter(view(in_place), view(in_place), size);
        } else {
            y_box_filter(view(in), view(out), size);
            y_box_filter(view(in_place), view(in_place), size);
        }
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                std::uint32_t sum = 0;
                for (int k = 0; k < size; ++k) {
                    int const sx = along_x ? x + k : x, sy = along_x ? y : y + k;
                    if (sx < w && sy < h) sum += static_cast<std::uint32_t>(view(in)(sx, sy)[0]);
                }
                ASSERT_EQ(static_cast<std::uint32_t>(view(out)(x, y)[0]), sum)
                    << (along_x ? "x" : "y") << " size " << size << " at " << x << "," << y;
                ASSERT_EQ(view(in_place)(x, y)[0], view(out)(x, y)[0]);
            }
    }
}

TEST(BoxFilter, RefusesMismatchedViewsAndOversizedWindows) {
    Ints a(Point(4, 3)), b(Point(3, 4));
    EXPECT_EQ(error_text([&] { y_box_filter(view(a), view(b), 2); }),
              "WEFTMAP_INTERNAL_ERROR: x_box_filter: input and output have different dimensions");
    for (auto filter : {&x_box_filter, &y_box_filter}) {
        EXPECT_THROW(filter(view(a), view(b), 2), Exception);
        EXPECT_THROW(filter(view(a), view(a), -1), Exception);
    }
    EXPECT_THROW(x_box_filter(view(a), view(a), 5), Exception);
    EXPECT_THROW(y_box_filter(view(a), view(a), 4), Exception);
}

TEST(MaskShift, MovesUpAndLeftByHalfAPatch) {
    auto const original = test::random_image<gray8_pixel_t>(11, 9, 5);
    for (int patch : {7, 6, 1}) {
        auto image = original;
        shift_mask_to_patch_corners(patch, view(image));
        int const half = patch / 2;
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 11; ++x) {
                int const expected = x + half < 11 && y + half < 9
                                         ? int(const_view(original)(x + half, y + half))
                                         : 0;
                ASSERT_EQ(int(view(image)(x, y)), expected) << patch << " at " << x << "," << y;
            }
    }
    auto image = original;
    EXPECT_THROW(shift_mask_to_patch_corners(-3, view(image)), Exception);
}

}  // namespace
}  // namespace WM
