#include "twopass/test_access.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = gray8_pixel_t;
using Gray = RecycledImage<gray8_pixel_t>;
using Access = test::PyramidAccess<Pixel>;

// A 40 x 30 picture whose hole bounds are x 10..29, y 8..21.
struct Host {
    Host() : access(test::uniform<Pixel>(Point(40, 30), 10), hole(), 1) {
        for (int y = 0; y < 30; ++y)
            for (int x = 0; x < 40; ++x) view(access.pictures[0])(x, y) = Pixel(x + 100);
    }
    static Gray hole() {
        auto mask = test::byte_mask(Point(40, 30), 0);
        test::paint(view(mask), Box{10, 8, 30, 22}, gray8_pixel_t(255));
        return mask;
    }
    Access access;
};

TEST(SafeAccessors, HoleReadsClipToTheHoleBoundsAndReadZeroOutside) {
    Host host;
    auto& access = host.access;
    access.hole_value = 255;  // even where the bounds end

    Gray inside(Point(6, 4));
    GrayView v = view(inside);
    access.safeGetHolePixels(v, Point(12, 9));
    auto reads = access.calls_of("getHolePixels");
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].origin, Point(12, 9));
    EXPECT_EQ(reads[0].size, Point(6, 4));

    // Five columns left of the bounds.
    access.calls.clear();
    Gray left(Point(12, 4));
    v = view(left);
    access.safeGetHolePixels(v, Point(5, 9));
    reads = access.calls_of("getHolePixels");
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].origin, Point(10, 9));
    EXPECT_EQ(reads[0].size, Point(7, 4));
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 12; ++x) EXPECT_EQ(int(v(x, y)[0]), x < 5 ? 0 : 255) << x << "," << y;

    // Over the right and bottom edges: only the top-left 5 x 4 lies inside.
    access.calls.clear();
    Gray corner(Point(10, 10));
    v = view(corner);
    access.safeGetHolePixels(v, Point(25, 18));
    reads = access.calls_of("getHolePixels");
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].origin, Point(25, 18));
    EXPECT_EQ(reads[0].size, Point(5, 4));
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x) EXPECT_EQ(int(v(x, y)[0]), x < 5 && y < 4 ? 255 : 0);

    // A rectangle that misses the bounds is no failure and reads nothing.
    access.calls.clear();
    Gray away(Point(5, 5));
    v = view(away);
    EXPECT_NO_THROW(access.safeGetHolePixels(v, Point(35, 0)));
    for (auto const& call : access.calls_of("getHolePixels"))
        EXPECT_TRUE(call.size.x <= 0 || call.size.y <= 0);
    for (auto p : v) EXPECT_EQ(int(p[0]), 0);
    EXPECT_EQ(access.violations, 0);
}

TEST(SafeAccessors, OutputReadsPrefillWithTheConstraintExactlyWhenOneIsOffered) {
    for (bool a_constraint : {false, true}) {
        SCOPED_TRACE(a_constraint);
        Host host;
        auto& access = host.access;
        access.offer.a_constraint = a_constraint;
        access.set_constraint(test::uniform<Pixel>(Point(40, 30), 200));
        gil::fill_pixels(view(access.output), Pixel(77));

        RecycledImage<Pixel> inside(Point(6, 4));
        View<Pixel> v = view(inside);
        access.safeGetOutputPixels(v, Point(12, 9));
        ASSERT_EQ(access.calls_of("getOutputPixels").size(), 1u);
        EXPECT_EQ(access.calls_of("getOutputPixels")[0].origin, Point(12, 9));
        EXPECT_TRUE(access.calls_of("getInputPixels").empty());
        EXPECT_TRUE(access.calls_of("getAConstraintPixels").empty());

        access.calls.clear();
        RecycledImage<Pixel> left(Point(12, 4));
        v = view(left);
        access.safeGetOutputPixels(v, Point(5, 9));
        EXPECT_EQ(access.calls_of("getAConstraintPixels").size(), a_constraint ? 1u : 0u);
        EXPECT_EQ(access.calls_of("getInputPixels").size(), a_constraint ? 0u : 1u);
        auto const reads = access.calls_of("getOutputPixels");
        ASSERT_EQ(reads.size(), 1u);
        EXPECT_EQ(reads[0].origin, Point(10, 9));
        EXPECT_EQ(reads[0].size, Point(7, 4));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 12; ++x) {
                int const around = a_constraint ? 200 : 5 + x + 100;
                EXPECT_EQ(int(v(x, y)[0]), x < 5 ? around : 77) << x << "," << y;
            }
        EXPECT_EQ(access.violations, 0);
    }
}

TEST(SafeAccessors, WritesStoreOnlyThePartInsideTheHoleBounds) {
    Host host;
    auto& access = host.access;
    auto tile = test::uniform<Pixel>(Point(12, 6), 99);
    EXPECT_NO_THROW(access.safeSetOutputPixels(view(tile), Point(5, 5)));
    auto const writes = access.calls_of("setOutputPixels");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].origin, Point(10, 8));
    EXPECT_EQ(writes[0].size, Point(7, 3));
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x)
            EXPECT_EQ(int(const_view(access.output)(x, y)[0]),
                      x >= 10 && x < 17 && y >= 8 && y < 11 ? 99 : 0);

    // Past the far corner of the bounds: nothing stored, no failure.
    auto const before = access.output;
    EXPECT_NO_THROW(access.safeSetOutputPixels(view(tile), Point(33, 25)));
    EXPECT_TRUE(gil::equal_pixels(const_view(before), const_view(access.output)));
    EXPECT_EQ(access.violations, 0);
}

}  // namespace
}  // namespace WM
