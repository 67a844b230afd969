#include "support/helpers.hpp"
#include "support/test_client.hpp"

#include <weftmap/image/memory.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

using Limited = BaseLimitedByteMemoryAllocator;

TEST(MemoryLimit, UnlimitedByDefaultThenTheSumEqualToTheLimitPassesOneMoreByteThrows) {
    EXPECT_EQ(Limited::getLimit(), ~0ull);
    test::ScopedMemoryLimit restore;
    auto const held = Limited::getCurrentAllocatedSize();
    Limited::setLimit(held + 1000);
    WMAllocator<unsigned char> allocator;
    unsigned char* p = allocator.allocate(1000);
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), held + 1000);
    EXPECT_EQ(test::client().allocator.maxSize(), 0u);
    allocator.deallocate(p, 1000);
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), held);
    EXPECT_EQ(test::error_text<ExceptionMemoryLimit>([&] { allocator.allocate(1001); }),
              "WEFTMAP_MEMORY_LIMIT: limited_allocator has reached its m_limit");
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), held);
}

TEST(MemoryLimit, AddLimitCountsFromCurrentUsage) {
    test::ScopedMemoryLimit restore;
    RecycledImage<gray8_pixel_t> held(Point(10, 10));  // 115 bytes with the spare ones
    Limited::addLimit(0);
    EXPECT_EQ(Limited::getLimit(), Limited::getCurrentAllocatedSize());
    WMAllocator<unsigned char> allocator;
    EXPECT_THROW(allocator.allocate(1), ExceptionMemoryLimit);

    Limited::addLimit(200);
    RecycledImage<gray8_pixel_t> fits(Point(185, 1));  // exactly 200 bytes
    EXPECT_THROW(RecycledImage<gray8_pixel_t>(Point(1, 1)), ExceptionMemoryLimit);

    // A negative delta beyond the usage wraps to a huge limit.
    Limited::addLimit(-static_cast<long long>(Limited::getCurrentAllocatedSize()) - 1);
    EXPECT_EQ(Limited::getLimit(), ~0ull);
}

TEST(MemoryLimit, GrowingCountsOldAndNewBlockTogether) {
    test::ScopedMemoryLimit restore;
    auto const base = Limited::getCurrentAllocatedSize();
    RecycledImage<gray8_pixel_t> image(Point(100, 1));  // 115 bytes
    // The new 130 bytes would fit alone, but the old 115 are still held.
    Limited::setLimit(base + 200);
    EXPECT_THROW(image.recreate(Point(115, 1)), ExceptionMemoryLimit);
    EXPECT_EQ(image.width(), 100);
    EXPECT_EQ(image.allocated_bytes(), 115u);
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), base + 115);

    Limited::setLimit(base + 245);
    image.recreate(Point(115, 1));
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), base + 130);
}

TEST(MemoryLimit, LockAndSwapMoveNoMemory) {
    auto const start = Limited::getCurrentAllocatedSize();
    {
        RecycledImage<rgb16_pixel_t> a(Point(10, 10));
        RecycledImage<rgb16_pixel_t> b(Point(20, 20));
        auto const both = Limited::getCurrentAllocatedSize();
        EXPECT_EQ(both - start, a.allocated_bytes() + b.allocated_bytes());
        a.lock();
        a.swap(b);
        a.recreate(Point(5, 5));  // shrinks inside what it holds
        EXPECT_EQ(Limited::getCurrentAllocatedSize(), both);
        b = a;  // fits: a copy into existing memory
        EXPECT_EQ(Limited::getCurrentAllocatedSize(), both);
    }
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), start);
}

}  // namespace
}  // namespace WM
