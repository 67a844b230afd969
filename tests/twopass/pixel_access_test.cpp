#include "twopass/test_access.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = gray8_pixel_t;
using Image = RecycledImage<Pixel>;

// A 40 x 30 picture of value 100 + x whose hole bounds are x 10..29, y 8..21;
// the access answers 255 for the hole anywhere and holds 77 as result.
struct Host {
    Host() : access(picture(), hole(), 1) {
        access.hole_value = 255;
        access.constraints[0] = test::uniform<Pixel>(Point(40, 30), 200);
        gil::fill_pixels(view(access.output), Pixel(77));
    }
    static Image picture() {
        Image p(Point(40, 30));
        for (int y = 0; y < 30; ++y)
            for (int x = 0; x < 40; ++x) view(p)(x, y) = Pixel(100 + x);
        return p;
    }
    static Image hole() {
        auto mask = test::byte_mask(Point(40, 30), 0);
        test::paint(view(mask), Box{10, 8, 30, 22}, gray8_pixel_t(255));
        return mask;
    }
    // The one call `op` made since the last look, as (origin, size).
    std::pair<Point, Point> only_call(char const* op) {
        auto const found = access.calls_of(op);
        access.calls.clear();
        EXPECT_EQ(found.size(), 1u) << op;
        return found.empty() ? std::pair<Point, Point>()
                             : std::pair(found[0].origin, found[0].size);
    }
    test::PyramidAccess<Pixel> access;
};

TEST(SafeAccessors, HoleReadsClipToTheHoleBoundsAndAreZeroOutside) {
    Host host;
    // Wholly inside: the origin unchanged. Five columns left of the bounds;
    // then over the right and bottom edges.
    struct Case {
        Point origin, size, read_origin, read_size;
        Box inside;  // in view coordinates
    } const cases[] = {{{12, 9}, {6, 4}, {12, 9}, {6, 4}, {0, 0, 6, 4}},
                       {{5, 9}, {12, 4}, {10, 9}, {7, 4}, {5, 0, 12, 4}},
                       {{25, 18}, {10, 10}, {25, 18}, {5, 4}, {0, 0, 5, 4}}};
    Image mask;
    GrayView v;
    for (Case const& c : cases) {
        mask.recreate(c.size);
        v = view(mask);
        host.access.safeGetHolePixels(v, c.origin);
        EXPECT_EQ(host.only_call("getHolePixels"), std::pair(c.read_origin, c.read_size));
        for (int y = 0; y < c.size.y; ++y)
            for (int x = 0; x < c.size.x; ++x) {
                bool const in = x >= c.inside.xmin && x < c.inside.xmax && y < c.inside.ymax;
                EXPECT_EQ(int(v(x, y)[0]), in ? 255 : 0) << x << "," << y;
            }
    }

    // Missing the bounds altogether is no failure, and reads nothing.
    mask.recreate(Point(5, 5));
    v = view(mask);
    EXPECT_NO_THROW(host.access.safeGetHolePixels(v, Point(35, 0)));
    for (auto p : v) EXPECT_EQ(int(p[0]), 0);
    EXPECT_EQ(host.access.violations, 0);

    // Views without pixels (and without memory) ask the host for nothing.
    std::size_t const calls = host.access.calls.size();
    GrayView no_mask = gil::interleaved_view(0, 4, static_cast<gray8_pixel_t*>(nullptr), 1);
    host.access.safeGetHolePixels(no_mask, Point(20, 10));
    View<Pixel> no_pixels = gil::interleaved_view(3, 0, static_cast<Pixel*>(nullptr), 3);
    host.access.safeGetOutputPixels(no_pixels, Point(-5, 10));
    host.access.safeSetOutputPixels(no_pixels, Point(20, 10));
    EXPECT_EQ(host.access.calls.size(), calls);
}

TEST(SafeAccessors, OutputReadsPrefillWithTheConstraintExactlyWhenOneIsOffered) {
    for (bool a_constraint : {false, true}) {
        Host host;
        host.access.offer_constraint = a_constraint;
        Image out(Point(6, 4));
        View<Pixel> v = view(out);
        host.access.safeGetOutputPixels(v, Point(12, 9));
        EXPECT_EQ(host.only_call("getOutputPixels"), std::pair(Point(12, 9), Point(6, 4)));

        out.recreate(Point(12, 4));
        v = view(out);
        host.access.safeGetOutputPixels(v, Point(5, 9));
        EXPECT_EQ(host.access.calls_of("getInputPixels").size(), a_constraint ? 0u : 1u);
        EXPECT_EQ(host.access.calls_of("getAConstraintPixels").size(), a_constraint ? 1u : 0u);
        EXPECT_EQ(host.only_call("getOutputPixels"), std::pair(Point(10, 9), Point(7, 4)));
        for (int x = 0; x < 12; ++x)
            EXPECT_EQ(int(v(x, 2)[0]), x >= 5 ? 77 : a_constraint ? 200 : 105 + x) << x;
    }
}

TEST(SafeAccessors, WritesStoreOnlyThePartInsideTheHoleBounds) {
    Host host;
    auto const before = host.access.output;
    Image tile = test::uniform<Pixel>(Point(12, 6), 99);
    EXPECT_NO_THROW(host.access.safeSetOutputPixels(view(tile), Point(5, 5)));
    EXPECT_EQ(host.only_call("setOutputPixels"), std::pair(Point(10, 8), Point(7, 3)));
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x)
            EXPECT_EQ(int(const_view(host.access.output)(x, y)[0]),
                      x >= 10 && x < 17 && y >= 8 && y < 11 ? 99 : 77);

    // Past the far corner of the bounds: nothing stored, no failure.
    gil::fill_pixels(view(host.access.output), Pixel(77));
    EXPECT_NO_THROW(host.access.safeSetOutputPixels(view(tile), Point(33, 25)));
    EXPECT_TRUE(gil::equal_pixels(const_view(before), const_view(host.access.output)));
    EXPECT_EQ(host.access.violations, 0);
}

}  // namespace
}  // namespace WM
