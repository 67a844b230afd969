#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/image/inset_view.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <gtest/gtest.h>

#include <boost/gil/algorithm.hpp>

#include <tuple>

namespace WM {
namespace {

using Gray = RecycledImage<gray8_pixel_t>;

TEST(RecycledImage, DefaultHoldsNothingAndRecreateReusesMemoryThatFits) {
    Gray const empty;
    EXPECT_EQ(std::make_tuple(empty.width(), empty.height(), empty.memory(),
                              empty.allocated_bytes(), empty.locked),
              std::make_tuple(0, 0, nullptr, 0u, false));

    Gray image(Point(10, 10));
    EXPECT_EQ(image.allocated_bytes(), 115u);
    unsigned char* memory = image.memory();

    image.recreate(Point(0, 0));
    EXPECT_EQ(image.width(), 0);
    EXPECT_EQ(image.memory(), memory);

    image.recreate(Point(20, 5));  // exactly the 100 pixels held
    EXPECT_EQ(image.memory(), memory);
    EXPECT_EQ(view(image).row_begin(1) - view(image).row_begin(0), 20);

    image.recreate(Point(101, 1));
    EXPECT_NE(image.allocated_bytes(), 115u);
}

TEST(RecycledImage, LockedImageShrinksRefusesToGrowAndSwapsItsLock) {
    Gray image(Point(10, 10));
    image.lock();
    image.recreate(Point(5, 5));
    EXPECT_EQ(image.width(), 5);
    EXPECT_EQ(test::error_text<locked_recycled_image_error>([&] { image.recreate(Point(101, 1)); }),
              "attempt to recreate a locked recycled_image");
    EXPECT_EQ(image.width(), 5);
    EXPECT_EQ(image.allocated_bytes(), 115u);
    EXPECT_THROW(image.recreate(Point(-1, 3)), Exception);

    // Swapping carries the lock along.
    Gray other(Point(3, 3));
    swap(image, other);
    EXPECT_FALSE(image.locked);
    EXPECT_TRUE(other.locked);
    EXPECT_EQ(other.width(), 5);
}

TEST(RecycledImage, AssignmentCopiesPixelsAndFollowsTheLockRules) {
    auto source = test::random_image<rgb8_pixel_t>(6, 4, 1);
    source.lock();

    // Fits: copied in place, the target keeps its own flag.
    RecycledImage<rgb8_pixel_t> roomy(Point(10, 10));
    roomy = source;
    EXPECT_FALSE(roomy.locked);
    EXPECT_TRUE(boost::gil::equal_pixels(const_view(roomy), const_view(source)));

    // Must grow and is unlocked: takes a copy and the source's flag.
    RecycledImage<rgb8_pixel_t> small(Point(1, 1));
    small = source;
    EXPECT_TRUE(small.locked);
    EXPECT_TRUE(boost::gil::equal_pixels(const_view(small), const_view(source)));

    // Must grow and is locked: refuses.
    RecycledImage<rgb8_pixel_t> fixed(Point(1, 1));
    fixed.lock();
    EXPECT_THROW(fixed = source, locked_recycled_image_error);

    RecycledImage<rgb8_pixel_t> const copy(source);
    EXPECT_TRUE(boost::gil::equal_pixels(const_view(copy), const_view(source)));
}

TEST(InsetView, ReadsOutsideTheRectangleOnlyWithADefault) {
    RecycledImage<gray32f_pixel_t> storage(Point(4, 3));
    boost::gil::fill_pixels(view(storage), gray32f_pixel_t(0.5f));
    inset_view<View<gray32f_pixel_t>, 1> weights(view(storage), Point(10, 8), Point(2, 1));
    EXPECT_EQ(weights.xmin, 2);
    EXPECT_EQ(weights.xmax, 6);
    EXPECT_EQ(weights.ymax, 4);
    EXPECT_EQ(channel_value(weights(2, 1), 0), 0.5f);
    weights.at(5, 3) = gray32f_pixel_t(0.25f);
    EXPECT_EQ(channel_value(view(storage)(3, 2), 0), 0.25f);

    EXPECT_THROW(weights(6, 1), bounds_exception_t);
    EXPECT_THROW(weights.at(6, 1), bounds_exception_t);
    weights.set_default(gray32f_pixel_t(1.0f));
    EXPECT_EQ(channel_value(weights(6, 1), 0), 1.0f);
    EXPECT_THROW(weights.at(6, 1), bounds_exception_t);

    inset_view<View<gray32f_pixel_t>, 1> const plain(view(storage));
    EXPECT_EQ(plain.width, 4);
    EXPECT_EQ(plain.xmin, 0);
    EXPECT_EQ(plain.ymax, 3);
}

TEST(BoxTest, SizeAndEmptiness) {
    Box const box{2, 3, 7, 5};
    EXPECT_EQ(box.size(), Point(5, 2));
    EXPECT_EQ(box.min_corner(), Point(2, 3));
    EXPECT_FALSE(box.empty());
    EXPECT_TRUE((Box{0, 0, 0, 0}).empty());
    EXPECT_TRUE((Box{4, 0, 4, 9}).empty());
}

}  // namespace
}  // namespace WM
