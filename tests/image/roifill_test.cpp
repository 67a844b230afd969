#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include <weftmap/image/roifill.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
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

// A ragged hole with a soft, partly premultiplied edge and a few 179s, just
// below the rim threshold: they are filled but lend nothing.
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
    auto const hole = hole_mask(w, h, 22);
    auto const source = test::random_image<gray8_pixel_t>(w, h, 23);
    ConstGrayView const source_view = const_view(source);
    Box const box{5, 4, 11, 9};
    double const radius = 2.5, angle = 0.7;
    std::vector<Limits> cases(8);
    cases[1].radius = &radius;
    cases[2].angle = &angle;
    cases[3].source_mask = &source_view;
    cases[4].box = &box;
    cases[5] = Limits{&box, &source_view, &radius, &angle};
    // The last two have nothing to fill from: all known, all hole.
    Gray const known = gray_image(w, h, 255), unknown = gray_image(w, h, 0);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        Limits const& l = cases[i];
        Gray const& mask = i == 6 ? known : i == 7 ? unknown : hole;
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

// One row: known 10s on the left, a hole over columns 5 to 14, known 200s on
// the right. The rim is columns 4 and 15, in that order.
TEST(Roifill, WorkedRowWithRadiusAndSourceMask) {
    auto image = gray_image(20, 1, 10), mask = gray_image(20, 1, 255), out = gray_image(20, 1, 0);
    test::paint(view(image), Box{15, 0, 20, 1}, gray8_pixel_t(200));
    test::paint(view(mask), Box{5, 0, 15, 1}, gray8_pixel_t(0));
    auto const at = [&](Limits const& limits, int x) {
        fill(image, mask, out, limits);
        return int(const_view(out)(x, 0));
    };
    EXPECT_EQ(at({}, 5), int((10 * 1.0 + 200 / 100.0) / 1.01));  // both count fully
    // A radius of 2 counts d2 up to 8. Out of reach of both, the two
    // fall-back weights are equal; the left pixel comes first and still
    // counts as a fall-back.
    double const radius = 2.0;
    Limits const near{nullptr, nullptr, &radius};
    EXPECT_EQ(at(near, 10), int((10e-8 + 200e-8) / 2e-8));
    EXPECT_EQ(at(near, 13), int((10e-8 + 200 * 0.25) / (1e-8 + 0.25)));

    // Column 14: the right rim pixel's weight is cut by the source mask while
    // its colour counts fully; past the maximum the byte wraps.
    auto source = gray_image(20, 1, 255);
    ConstGrayView const source_view = const_view(source);
    view(source)(15, 0) = gray8_pixel_t(51);
    EXPECT_EQ(at(Limits{nullptr, &source_view}, 14),
              int((10 / 100.0 + 200) / (1 / 100.0 + 0.2)) % 256);
}

TEST(Roifill, RefusesMismatchedSizes) {
    auto a = gray_image(4, 3, 0), b = gray_image(3, 4, 0), c = gray_image(4, 3, 0);
    EXPECT_EQ(test::error_text([&] { fill(a, a, b); }),
              "roifill_subsamples: in and out sizes must match");
    EXPECT_THROW(blackfill(view(a), const_view(a), view(b)), Exception);
    ConstGrayView const wrong = const_view(b);
    EXPECT_THROW(fill(a, b, c), Exception);
    EXPECT_THROW(fill(a, a, c, Limits{nullptr, &wrong}), Exception);
    Box const outside{0, 0, 5, 3};
    EXPECT_THROW(fill(a, a, c, Limits{&outside}), Exception);
    EXPECT_THROW(blackfill(view(a), const_view(b), false), Exception);
}

TYPED_TEST(RoifillTyped, BlackfillScalesByCoverage) {
    using Pixel = TypeParam;
    auto const original = test::random_image<Pixel>(11, 6, 41);
    auto const mask = test::random_image<gray8_pixel_t>(11, 6, 42);
    for (int form : {0, 1, 2}) {  // in place, in place inverted, into another image
        bool const invert = form == 1;
        auto image = original;
        if (form == 2) {
            RecycledImage<Pixel> out(original.dimensions());
            blackfill(view(image), const_view(mask), view(out));
            EXPECT_TRUE(gil::equal_pixels(const_view(image), const_view(original)));
            image = out;
        } else {
            blackfill(view(image), const_view(mask), invert);
        }
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 11; ++x) {
                int const m = const_view(mask)(x, y);
                float const factor = 1.0f - float(invert ? 255 - m : m) / 255.0f;
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    auto const p = channel_value(const_view(original)(x, y), c);
                    float const scaled = factor * float(p) + (is_float_pixel_v<Pixel> ? 0 : 0.5f);
                    ASSERT_EQ(channel_value(view(image)(x, y), c),
                              (invert ? m < 255 : m != 0) ? static_cast<decltype(p)>(scaled) : p);
                }
            }
    }
}

}  // namespace
}  // namespace WM
