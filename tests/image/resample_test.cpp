#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include <weftmap/image/resample.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

namespace WM {
namespace {

TEST(ResampleSize, ShortSideRuleOrOneGivenSide) {
    struct Case {
        Point source;
        int short_side;
        long long w, h;  // given, -1 when not
        long long want_w, want_h;
        double want_scale;  // 7.0: left as it was
    };
    for (Case const c : {Case{Point(400, 300), 150, -1, -1, 200, 150, 0.5},
                         Case{Point(300, 400), 150, -1, -1, 150, 200, 0.5},
                         Case{Point(401, 301), -1, 100, -1, 100, 75, 100.0 / 401.0},
                         Case{Point(400, 300), 0, -1, 150, 200, 150, 0.5},
                         Case{Point(400, 300), -1, 10, 20, 10, 20, 7.0}}) {
        long long w = c.w, h = c.h;
        double scale = 7.0;
        get_resample_size(c.source, c.short_side, w, h, scale);
        EXPECT_EQ(std::make_tuple(w, h, scale), std::make_tuple(c.want_w, c.want_h, c.want_scale))
            << c.source.x << "x" << c.source.y << " short side " << c.short_side;
    }
    Point square(-1, -1);
    double scale = 0;
    get_resample_size(Point(300, 300), 100, square, scale);
    EXPECT_EQ(square, Point(100, 100));
}

TEST(Resample, RefusesBadSizesAndFiltersAndCopiesAtTheSameSize) {
    auto const src = test::random_image<gray8_pixel_t>(8, 8, 3);
    RecycledImage<gray8_pixel_t> dst(Point(2, 2));
    EXPECT_EQ(test::error_text([&] { resample(const_view(src), dst, 0, 0, ResampleBilinear, -1); }),
              "WEFTMAP_INTERNAL_ERROR:resample(): Zero or negative dimension.\n");
    EXPECT_EQ(dst.width(), 2);
    EXPECT_THROW(resample(const_view(src), dst, 4, 4, static_cast<ResampleMode>(7), -1), Exception);
    // A one-pixel-wide source has no pair of columns to blend.
    auto const thin = test::random_image<gray8_pixel_t>(1, 8, 3);
    EXPECT_THROW(resample(const_view(thin), dst, 4, 4, ResampleBilinear, -1), Exception);
    // The same size is an exact copy, whatever the mode.
    auto const same = test::random_image<rgb16_pixel_t>(9, 5, 3);
    RecycledImage<rgb16_pixel_t> copy;
    resample_core(const_view(same), copy, 9, 5, static_cast<ResampleMode>(7));
    EXPECT_TRUE(gil::equal_pixels(const_view(copy), const_view(same)));
}

// An independent formulation: 64-bit arithmetic with explicit 32-bit wrapping.
std::int64_t wrap32(std::int64_t v) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(v)));
}

struct Tap {
    std::int64_t index;
    std::int64_t fraction;
};

Tap integer_tap(std::int64_t t, std::int64_t side) {
    Tap tap{t >> 16, t & 0xFFFF};
    if (tap.index > side - 2) return {side - 2, 0xFFFF};
    if (tap.index < 0) return {0, 0};
    return tap;
}

template <class Channel>
std::int64_t blend(std::int64_t a, std::int64_t b, std::int64_t f) {
    return static_cast<Channel>(static_cast<std::uint64_t>(a + (wrap32((b - a) * f) >> 16)));
}

template <class Pixel>
Pixel reference_bilinear(ConstView<Pixel> const& src, std::int64_t x, std::int64_t y,
                         std::int64_t dw, std::int64_t dh) {
    using Channel = channel_base_t<Pixel>;
    std::int64_t const sw = src.width(), sh = src.height();
    Pixel out;
    if constexpr (std::is_floating_point_v<Channel>) {
        float const v = ((y + 0.5f) / float(dh)) * float(sh) - 0.5f;
        float u = (float(sw) * 0.5f) / float(dw) - 0.5f;
        for (std::int64_t i = 0; i < x; ++i) u += float(sw) / float(dw);
        auto tap = [](float p, std::int64_t side) {
            std::int64_t i = static_cast<std::int64_t>(p);
            float f = p - float(i);
            if (i > side - 2) return std::pair<std::int64_t, float>(side - 2, 65535.0f / 65536.0f);
            if (i < 0) return std::pair<std::int64_t, float>(0, 0.0f);
            return std::pair<std::int64_t, float>(i, f);
        };
        auto const [sy, fy] = tap(v, sh);
        auto const [sx, fx] = tap(u, sw);
        for (int c = 0; c < num_channels_v<Pixel>; ++c) {
            float const a = channel_value(src(sx, sy), c), b = channel_value(src(sx + 1, sy), c);
            float const cc = channel_value(src(sx, sy + 1), c),
                        d = channel_value(src(sx + 1, sy + 1), c);
            float const top = (b - a) * fx + a, bottom = (d - cc) * fx + cc;
            set_channel(out, c, (bottom - top) * fy + top);
        }
    } else {
        std::int64_t const t = wrap32(wrap32(wrap32((y << 16) + 0x8000) / dh) * sh - 0x8000);
        std::int64_t const u = wrap32(wrap32((sw << 15) / dw - 0x8000) + x * ((sw << 16) / dw));
        Tap const row = integer_tap(t, sh), col = integer_tap(u, sw);
        for (int c = 0; c < num_channels_v<Pixel>; ++c) {
            auto const at = [&](std::int64_t dx, std::int64_t dy) -> std::int64_t {
                return channel_value(src(col.index + dx, row.index + dy), c);
            };
            std::int64_t const top = blend<Channel>(at(0, 0), at(1, 0), col.fraction);
            std::int64_t const bottom = blend<Channel>(at(0, 1), at(1, 1), col.fraction);
            set_channel(out, c, static_cast<Channel>(blend<Channel>(top, bottom, row.fraction)));
        }
    }
    return out;
}

template <class Pixel>
class ResampleTyped : public ::testing::Test {};
TYPED_TEST_SUITE(ResampleTyped, test::AllPixelTypes, test::PixelNames);

TYPED_TEST(ResampleTyped, MatchesAStraightforwardComputation) {
    using Pixel = TypeParam;
    struct Case {
        int sw, sh, dw, dh;
    };
    for (Case const c : {Case{40, 30, 20, 15}, Case{37, 23, 11, 17}, Case{13, 9, 40, 29},
                         Case{2, 2, 5, 3}, Case{64, 5, 7, 64}}) {
        auto const src = test::random_image<Pixel>(c.sw, c.sh, c.sw * 100 + c.dh);
        RecycledImage<Pixel> bilinear, nearest;
        resample(const_view(src), bilinear, c.dw, c.dh, ResampleBilinear, -1);
        resample(const_view(src), nearest, c.dw, c.dh, ResampleNearest, -1);
        ASSERT_EQ(bilinear.dimensions(), Point(c.dw, c.dh));
        for (int y = 0; y < c.dh; ++y)
            for (int x = 0; x < c.dw; ++x) {
                ASSERT_EQ(view(bilinear)(x, y),
                          reference_bilinear<Pixel>(const_view(src), x, y, c.dw, c.dh))
                    << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh << " at " << x << ","
                    << y;
                ASSERT_EQ(view(nearest)(x, y), const_view(src)(std::int64_t(c.sw) * x / c.dw,
                                                               std::int64_t(c.sh) * y / c.dh));
            }
    }
}

}  // namespace
}  // namespace WM
