#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/image/roifill.hpp>

#include <gtest/gtest.h>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

namespace WM {
namespace {

using Gray = RecycledImage<gray8_pixel_t>;

Gray gray_image(std::ptrdiff_t w, std::ptrdiff_t h, int value) {
    return test::byte_mask(Point(w, h), value);
}

struct Limits {
    Box const* box = nullptr;
    ConstGrayView const* source_mask = nullptr;
    double const* radius = nullptr;
    double const* angle = nullptr;
};

template <class Pixel>
void fill(RecycledImage<Pixel>& in, Gray const& mask, RecycledImage<Pixel>& out, Limits l = {}) {
    roifill(view(in), const_view(mask), view(out), l.box, l.source_mask, l.radius, l.angle);
}

// The fill written out plainly: rim pixels as coordinate pairs, the
// contour order by an explicit stack, every sum in doubles.
template <class Pixel>
RecycledImage<Pixel> reference_roifill(ConstView<Pixel> const& in, ConstGrayView const& mask,
                                       Limits const& limits) {
    using Channel = channel_base_t<Pixel>;
    int const w = int(in.width()), h = int(in.height());
    RecycledImage<Pixel> out(in.dimensions());
    gil::copy_pixels(in, view(out));
    int x0 = 0, y0 = 0, x1 = w, y1 = h;
    if (limits.box) {
        x0 = std::max(limits.box->xmin - 1, 0);
        y0 = std::max(limits.box->ymin - 1, 0);
        x1 = std::min(limits.box->xmax + 1, w);
        y1 = std::min(limits.box->ymax + 1, h);
    }
    auto const m = [&](int x, int y) { return int(mask(x, y)); };
    auto const open = [&](int x, int y) {
        return x >= 0 && y >= 0 && x < w && y < h && m(x, y) < 255;
    };
    std::vector<std::pair<int, int>> seeds;
    std::vector<std::vector<bool>> marked(h, std::vector<bool>(w, false));
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            if (m(x, y) >= 180 && (!limits.source_mask || (*limits.source_mask)(x, y) != 0) &&
                (open(x - 1, y) || open(x, y - 1) || open(x + 1, y) || open(x, y + 1))) {
                seeds.emplace_back(x, y);
                marked[y][x] = true;
            }
    std::vector<std::pair<int, int>> order, stack;
    for (auto const& seed : seeds) {
        if (!marked[seed.second][seed.first]) continue;
        stack.push_back(seed);
        while (!stack.empty()) {
            auto const [px, py] = stack.back();
            stack.pop_back();
            if (!marked[py][px]) continue;
            marked[py][px] = false;
            order.emplace_back(px, py);
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    int const nx = px + dx, ny = py + dy;
                    if ((dx || dy) && nx >= 0 && ny >= 0 && nx < w && ny < h && marked[ny][nx])
                        stack.emplace_back(nx, ny);
                }
        }
    }
    if (order.empty()) return out;
    double const pi = std::acos(-1.0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (m(x, y) == 255) continue;
            std::vector<double> colour(num_channels_v<Pixel>, 0.0);
            double wsum = 0;
            for (auto const& [bx, by] : order) {
                double const dx = x - bx, dy = y - by, d2 = dx * dx + dy * dy;
                double const r2 = limits.radius ? *limits.radius * *limits.radius : 0.0;
                bool limited = limits.radius && d2 > 2.0 * r2;
                if (!limited && limits.angle) {
                    double const a = std::abs(std::atan2(dy, dx) - *limits.angle);
                    limited = std::min(a, std::abs(a - pi)) > 6.0 * pi / 180.0;
                }
                if (limited && wsum > 1e-7) continue;
                double weight = limited ? 1e-8 : d2 == 0 ? 1.0 : 1.0 / d2;
                for (int c = 0; c < num_channels_v<Pixel>; ++c)
                    colour[c] += double(channel_value(in(bx, by), c)) * weight;
                if (limits.source_mask) weight *= int((*limits.source_mask)(bx, by)) / 255.0;
                wsum += weight;
            }
            if (wsum == 0) wsum = 1;
            double const alpha = float((255 - m(x, y)) / 255.0);
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double v = colour[c] * (1.0 / wsum);
                if (m(x, y) != 0)
                    v = alpha * (1.0 / wsum) * colour[c] + channel_value(view(out)(x, y), c);
                if constexpr (!is_float_pixel_v<Pixel>)
                    v = double(Channel(std::uint64_t(std::int64_t(v))));
                set_channel(view(out)(x, y), c, static_cast<Channel>(v));
            }
        }
    return out;
}

// A ragged hole with a soft, partly premultiplied edge and a few 179s.
Gray hole_mask(int w, int h, unsigned seed) {
    std::mt19937 rng(seed);
    auto mask = gray_image(w, h, 255);
    double const cx = w * 0.45, cy = h * 0.55;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            double const r = std::hypot((x - cx) / (w * 0.3), (y - cy) / (h * 0.3));
            int value = r < 1.0 ? 0 : r < 1.4 ? int(rng() % 256) : 255;
            if (value > 100 && value < 255 && rng() % 5 == 0) value = 179;
            view(mask)(x, y) = gray8_pixel_t(value);
        }
    return mask;
}

template <class Pixel>
class RoifillTyped : public ::testing::Test {};
TYPED_TEST_SUITE(RoifillTyped, test::AllPixelTypes, test::PixelNames);

TYPED_TEST(RoifillTyped, MatchesAStraightforwardComputation) {
    using Pixel = TypeParam;
    int const w = 17, h = 12;
    auto const in = test::random_image<Pixel>(w, h, 21);
    auto const mask = hole_mask(w, h, 22);
    auto const source = test::random_image<gray8_pixel_t>(w, h, 23);
    ConstGrayView const source_view = const_view(source);
    Box const box{5, 4, 11, 9};
    double const radius = 2.5, angle = 0.7;
    std::vector<Limits> cases(6);
    cases[1].radius = &radius;
    cases[2].angle = &angle;
    cases[3].source_mask = &source_view;
    cases[4].box = &box;
    cases[5] = Limits{&box, &source_view, &radius, &angle};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        Limits const& l = cases[i];
        auto input = in;  // roifill takes a mutable view; it must not change it
        RecycledImage<Pixel> out(Point(w, h));
        fill(input, mask, out, l);
        auto const expected = reference_roifill<Pixel>(const_view(in), const_view(mask), l);
        EXPECT_TRUE(gil::equal_pixels(const_view(input), const_view(in)));
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                ASSERT_EQ(view(out)(x, y), const_view(expected)(x, y))
                    << "case " << i << " at " << x << "," << y;
                if (const_view(mask)(x, y) == 255) {
                    ASSERT_EQ(view(out)(x, y), const_view(in)(x, y));
                }
            }
    }
}

TYPED_TEST(RoifillTyped, UniformImageStaysUniform) {
    using Pixel = TypeParam;
    double const value = is_float_pixel_v<Pixel> ? 0.625 : 100;
    auto in = test::uniform<Pixel>(Point(20, 15), value);
    auto mask = gray_image(20, 15, 255);
    for (int y = 3; y < 11; ++y)
        for (int x = 4; x < 13 + y % 3; ++x) view(mask)(x, y) = gray8_pixel_t(0);
    RecycledImage<Pixel> out(Point(20, 15));
    double const radius = 1.0;
    for (double const* r : {static_cast<double const*>(nullptr), &radius}) {
        fill(in, mask, out, Limits{nullptr, nullptr, r});
        for (int y = 0; y < 15; ++y)
            for (int x = 0; x < 20; ++x)
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    double const v = channel_value(view(out)(x, y), c);
                    if constexpr (is_float_pixel_v<Pixel>)
                        ASSERT_NEAR(v, value, 1e-6);
                    else  // truncation may lose one unit, never more
                        ASSERT_TRUE(v == value || v == value - 1) << v << " at " << x << "," << y;
                }
    }
}

TYPED_TEST(RoifillTyped, NothingToFillFromLeavesTheCopy) {
    using Pixel = TypeParam;
    auto in = test::random_image<Pixel>(9, 8, 31);
    for (int value : {255, 0}) {
        auto out = test::random_image<Pixel>(9, 8, 32);
        fill(in, gray_image(9, 8, value), out);
        EXPECT_TRUE(gil::equal_pixels(const_view(out), const_view(in))) << value;
    }
}

// One row: known 10s on the left, a hole over columns 5 to 14, known 200s on
// the right. The rim is columns 4 and 15, in that order.
struct RowCase {
    Gray image = gray_image(20, 1, 10);
    Gray mask = gray_image(20, 1, 255);
    Gray out = gray_image(20, 1, 0);
    RowCase() {
        for (int x = 15; x < 20; ++x) view(image)(x, 0) = gray8_pixel_t(200);
        for (int x = 5; x < 15; ++x) view(mask)(x, 0) = gray8_pixel_t(0);
    }
    int at(int x) const { return int(const_view(out)(x, 0)); }
    void run(Limits const& limits = {}) { fill(image, mask, out, limits); }
};

TEST(Roifill, RadiusLimitFallsBackToTheFirstRimPixels) {
    RowCase row;
    row.run();
    EXPECT_EQ(row.at(5), int((10 * 1.0 + 200 / 100.0) / 1.01));  // both count fully

    double const radius = 2.0;  // d2 up to 8 counts
    row.run(Limits{nullptr, nullptr, &radius});
    EXPECT_EQ(row.at(5), 10);  // the far side is skipped
    EXPECT_EQ(row.at(6), 10);
    // Out of reach of both: the two fall-back weights are equal.
    EXPECT_EQ(row.at(10), int((10e-8 + 200e-8) / 2e-8));
    // The left pixel comes first and still counts as a fall-back.
    EXPECT_EQ(row.at(13), int((10e-8 + 200 * 0.25) / (1e-8 + 0.25)));
    EXPECT_EQ(row.at(14), int((10e-8 + 200 * 1.0) / (1e-8 + 1.0)));
}

TEST(Roifill, AngleLimitPrefersTheLine) {
    // A single hole pixel at the centre; its left and right neighbours are
    // 100, those above and below 200.
    auto image = gray_image(11, 11, 0);
    view(image)(4, 5) = view(image)(6, 5) = gray8_pixel_t(100);
    view(image)(5, 4) = view(image)(5, 6) = gray8_pixel_t(200);
    auto mask = gray_image(11, 11, 255);
    view(mask)(5, 5) = gray8_pixel_t(0);
    auto out = gray_image(11, 11, 0);
    auto const centre = [&](double const* angle) {
        fill(image, mask, out, Limits{nullptr, nullptr, nullptr, angle});
        return int(view(out)(5, 5));
    };
    EXPECT_EQ(centre(nullptr), 150);
    double const horizontal = 0.0, vertical = std::acos(-1.0) / 2, slanted = 0.1;
    // Contour order is up, right, down, left: the pixel above counts only as a
    // fall-back before the first full weight.
    EXPECT_EQ(centre(&horizontal), int((200e-8 + 100 + 100) / (2 + 1e-8)));
    EXPECT_EQ(centre(&vertical), 200);
    EXPECT_EQ(centre(&slanted), int((200e-8 + 100 + 100) / (2 + 1e-8)));  // within 6 degrees
}

TEST(Roifill, PartialRimPixels) {
    // Column 4 has mask 179: below the rim threshold, so it lends nothing but
    // is filled itself. Column 6 has mask 200: a rim pixel that is also filled.
    auto image = gray_image(10, 1, 100);
    view(image)(4, 0) = gray8_pixel_t(50);
    view(image)(6, 0) = gray8_pixel_t(60);
    auto mask = gray_image(10, 1, 255);
    view(mask)(4, 0) = gray8_pixel_t(179);
    view(mask)(5, 0) = gray8_pixel_t(0);
    view(mask)(6, 0) = gray8_pixel_t(200);
    auto out = gray_image(10, 1, 0);
    fill(image, mask, out);
    // Rim: columns 3, 6, 7.
    double const wsum5 = 1 / 4.0 + 1 + 1 / 4.0;
    EXPECT_EQ(int(view(out)(5, 0)), int((100 / 4.0 + 60 + 100 / 4.0) / wsum5));
    double const wsum4 = 1 + 1 / 4.0 + 1 / 9.0;
    double const alpha4 = float(76 / 255.0);
    EXPECT_EQ(int(view(out)(4, 0)), int(alpha4 / wsum4 * (100 + 60 / 4.0 + 100 / 9.0) + 50));
    double const wsum6 = 1 / 9.0 + 1 + 1;
    double const alpha6 = float(55 / 255.0);
    EXPECT_EQ(int(view(out)(6, 0)), int(alpha6 / wsum6 * (100 / 9.0 + 60 + 100) + 60));

    int const before = view(out)(5, 0);
    view(image)(4, 0) = gray8_pixel_t(0);  // not a source
    fill(image, mask, out);
    EXPECT_EQ(int(view(out)(5, 0)), before);
    view(image)(6, 0) = gray8_pixel_t(0);  // a source
    fill(image, mask, out);
    EXPECT_NE(int(view(out)(5, 0)), before);
}

TEST(Roifill, SourceMaskWeighsOnlyTheWeightSum) {
    RowCase row;
    auto source = gray_image(20, 1, 255);
    ConstGrayView const source_view = const_view(source);
    auto const run = [&] { row.run(Limits{nullptr, &source_view}); };
    // Column 14: left rim at d2 100, right rim at d2 1 with its weight cut by
    // the source mask while its colour counts fully, which brightens.
    view(source)(15, 0) = gray8_pixel_t(204);
    run();
    EXPECT_EQ(row.at(14), int((10 / 100.0 + 200) / (1 / 100.0 + 0.8)));
    // Far enough to pass the maximum: the byte wraps, nothing clamps.
    view(source)(15, 0) = gray8_pixel_t(51);
    run();
    EXPECT_EQ(row.at(14), int((10 / 100.0 + 200) / (1 / 100.0 + 0.2)) % 256);
    view(source)(15, 0) = gray8_pixel_t(0);  // no longer a rim pixel at all
    run();
    EXPECT_EQ(row.at(14), 10);
}

TEST(Roifill, RefusesMismatchedSizes) {
    auto a = gray_image(4, 3, 0);
    auto b = gray_image(3, 4, 0);
    EXPECT_EQ(test::error_text([&] { fill(a, a, b); }),
              "roifill_subsamples: in and out sizes must match");
    EXPECT_EQ(test::error_text([&] { blackfill(view(a), const_view(a), view(b)); }),
              "roifill_subsamples: in and out sizes must match");
    auto c = gray_image(4, 3, 0);
    ConstGrayView const wrong = const_view(b);
    EXPECT_THROW(fill(a, b, c), Exception);
    EXPECT_THROW(fill(a, a, c, Limits{nullptr, &wrong}), Exception);
    Box const outside{0, 0, 5, 3};
    EXPECT_THROW(fill(a, a, c, Limits{&outside}), Exception);
    EXPECT_THROW(blackfill(view(a), const_view(b), false), Exception);
}

TEST(Blackfill, WorkedNumbers) {
    auto image = gray_image(3, 1, 200);
    auto mask = gray_image(3, 1, 128);
    view(mask)(1, 0) = gray8_pixel_t(0);
    view(mask)(2, 0) = gray8_pixel_t(255);
    auto out = gray_image(3, 1, 7);
    blackfill(view(image), const_view(mask), view(out));
    EXPECT_EQ(int(view(out)(0, 0)), 100);  // truncate((1 - 128/255) * 200 + 0.5)
    EXPECT_EQ(int(view(out)(1, 0)), 200);
    EXPECT_EQ(int(view(out)(2, 0)), 0);
    EXPECT_EQ(int(view(image)(0, 0)), 200);

    blackfill(view(image), const_view(mask), true);
    EXPECT_EQ(int(view(image)(0, 0)), 100);  // truncate(128/255 * 200 + 0.5)
    EXPECT_EQ(int(view(image)(1, 0)), 0);
    EXPECT_EQ(int(view(image)(2, 0)), 200);
}

TYPED_TEST(RoifillTyped, BlackfillScalesByCoverage) {
    using Pixel = TypeParam;
    auto const original = test::random_image<Pixel>(11, 6, 41);
    auto const mask = test::random_image<gray8_pixel_t>(11, 6, 42);
    for (bool const invert : {false, true}) {
        auto image = original;
        blackfill(view(image), const_view(mask), invert);
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 11; ++x) {
                int const m = const_view(mask)(x, y);
                float const factor = 1.0f - float(invert ? 255 - m : m) / 255.0f;
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    auto const p = channel_value(const_view(original)(x, y), c);
                    auto expected = p;
                    if (invert ? m < 255 : m != 0) {
                        if constexpr (is_float_pixel_v<Pixel>)
                            expected = factor * p;
                        else
                            expected = static_cast<decltype(p)>(factor * float(p) + 0.5f);
                    }
                    ASSERT_EQ(channel_value(view(image)(x, y), c), expected);
                }
            }
    }
}

}  // namespace
}  // namespace WM
