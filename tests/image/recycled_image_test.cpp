#include "support/helpers.hpp"
#include "support/random_image.hpp"

#include <weftmap/image/inset_view.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

using Gray = RecycledImage<gray8_pixel_t>;

TEST(RecycledImage, RecreateReusesMemoryThatFitsAndALockRefusesToGrow) {
    Gray image(Point(10, 10));
    EXPECT_EQ(image.allocated_bytes(), 115u);  // with the spare bytes of the vector loads
    unsigned char* memory = image.memory();
    image.recreate(Point(0, 0));
    EXPECT_EQ(image.memory(), memory);
    image.recreate(Point(20, 5));  // exactly the 100 pixels held
    EXPECT_EQ(image.memory(), memory);
    EXPECT_EQ(view(image).row_begin(1) - view(image).row_begin(0), 20);

    image.lock();
    image.recreate(Point(5, 5));
    EXPECT_EQ(test::error_text<locked_recycled_image_error>([&] { image.recreate(Point(101, 1)); }),
              "attempt to recreate a locked recycled_image");
    EXPECT_EQ(image.width(), 5);
    EXPECT_EQ(image.allocated_bytes(), 115u);
    EXPECT_THROW(image.recreate(Point(-1, 3)), Exception);
    // Swapping carries the lock along.
    Gray other(Point(3, 3));
    swap(image, other);
    EXPECT_FALSE(image.locked);
    EXPECT_TRUE(other.locked && other.width() == 5);
}

TEST(RecycledImage, AssignmentCopiesPixelsAndFollowsTheLockRules) {
    auto source = test::random_image<rgb8_pixel_t>(6, 4, 1);
    source.lock();
    // Fits: copied in place, the target keeps its own flag.
    RecycledImage<rgb8_pixel_t> roomy(Point(10, 10));
    roomy = source;
    EXPECT_FALSE(roomy.locked);
    EXPECT_TRUE(gil::equal_pixels(const_view(roomy), const_view(source)));
    // Must grow and is unlocked: takes a copy and the source's flag.
    RecycledImage<rgb8_pixel_t> small(Point(1, 1));
    small = source;
    EXPECT_TRUE(small.locked);
    EXPECT_TRUE(gil::equal_pixels(const_view(small), const_view(source)));
    // Must grow and is locked: refuses.
    RecycledImage<rgb8_pixel_t> fixed(Point(1, 1));
    fixed.lock();
    EXPECT_THROW(fixed = source, locked_recycled_image_error);
}

TEST(InsetView, ReadsOutsideTheRectangleOnlyWithADefault) {
    auto storage = test::filled(Point(4, 3), gray32f_pixel_t(0.5f));
    inset_view<View<gray32f_pixel_t>, 1> weights(view(storage), Point(10, 8), Point(2, 1));
    EXPECT_EQ(std::make_tuple(weights.xmin, weights.ymin, weights.xmax, weights.ymax),
              std::make_tuple(2, 1, 6, 4));
    weights.at(5, 3) = gray32f_pixel_t(0.25f);
    EXPECT_EQ(channel_value(view(storage)(3, 2), 0), 0.25f);
    EXPECT_THROW(weights(6, 1), bounds_exception_t);
    weights.set_default(gray32f_pixel_t(1.0f));
    EXPECT_EQ(channel_value(weights(6, 1), 0), 1.0f);
    EXPECT_THROW(weights.at(6, 1), bounds_exception_t);
}

}  // namespace
}  // namespace WM
