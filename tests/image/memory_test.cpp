#include "support/helpers.hpp"
#include "support/test_client.hpp"

#include <weftmap/image/memory.hpp>

#include <gtest/gtest.h>

#include <new>
#include <thread>
#include <vector>

namespace WM {
namespace {

using Limited = BaseLimitedByteMemoryAllocator;

TEST(MemoryLimit, TheSumEqualToTheLimitPassesOneMoreByteThrows) {
    EXPECT_EQ(Limited::getLimit(), ~0ull);
    test::ScopedMemoryLimit restore;
    auto const held = Limited::getCurrentAllocatedSize();
    Limited::setLimit(held + 1000);
    WMAllocator<unsigned char> allocator;
    unsigned char* p = allocator.allocate(1000);
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), held + 1000);
    allocator.deallocate(p, 1000);
    EXPECT_EQ(test::error_text<ExceptionMemoryLimit>([&] { allocator.allocate(1001); }),
              "WEFTMAP_MEMORY_LIMIT: limited_allocator has reached its m_limit");
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), held);

    // addLimit counts from the current usage.
    Limited::addLimit(200);
    RecycledImage<gray8_pixel_t> fits(Point(185, 1));  // exactly 200 bytes
    EXPECT_THROW(RecycledImage<gray8_pixel_t>(Point(1, 1)), ExceptionMemoryLimit);
    // A negative delta beyond the usage wraps to a huge limit.
    Limited::addLimit(-static_cast<long long>(Limited::getCurrentAllocatedSize()) - 1);
    EXPECT_EQ(Limited::getLimit(), ~0ull);
}

TEST(MemoryLimit, GrowingCountsOldAndNewBlockAndSwapsMoveNothing) {
    test::ScopedMemoryLimit restore;
    auto const base = Limited::getCurrentAllocatedSize();
    {
        RecycledImage<gray8_pixel_t> image(Point(100, 1));  // 115 bytes
        // The new 130 bytes would fit alone, but the old 115 are still held.
        Limited::setLimit(base + 200);
        EXPECT_THROW(image.recreate(Point(115, 1)), ExceptionMemoryLimit);
        EXPECT_EQ(image.width(), 100);
        EXPECT_EQ(Limited::getCurrentAllocatedSize(), base + 115);
        Limited::setLimit(base + 245);
        image.recreate(Point(115, 1));
        EXPECT_EQ(Limited::getCurrentAllocatedSize(), base + 130);

        RecycledImage<gray8_pixel_t> other(Point(5, 5));
        auto const both = Limited::getCurrentAllocatedSize();
        image.lock();
        image.swap(other);
        image.recreate(Point(2, 2));  // shrinks inside what it holds
        other = image;                // fits: a copy into existing memory
        EXPECT_EQ(Limited::getCurrentAllocatedSize(), both);
    }
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), base);
}

// Hosts run operations on several threads at once (a Python program with
// threads does): the count must stay exact, or a later run under a limit
// fails its memory check for no reason.
TEST(MemoryLimit, ConcurrentHostsKeepAnExactCount) {
    auto const base = Limited::getCurrentAllocatedSize();
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; ++t)
        hosts.emplace_back([t] {
            for (int i = 0; i < 2000; ++i) {
                RecycledImage<gray8_pixel_t> image(Point(1 + (i * 7 + t) % 64, 1 + t));
                RecycledImage<gray8_pixel_t> other(Point(3, 1 + i % 5));
            }
        });
    for (auto& h : hosts) h.join();
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), base);
}

// An allocator that answers null instead of throwing: the library must not
// take the null, nor count its bytes.
class NullClient : public WeftmapProcClient {
public:
    struct NullAllocator : BaseLimitedByteMemoryAllocator {
        void* rawAllocate(unsigned long long) override { return nullptr; }
        void rawDeallocate(void*, unsigned long long) override {}
    };
    MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    DebugOutput* GetDebugOutput() override { return nullptr; }
    NullAllocator allocator;
};

TEST(MemoryLimit, AnAllocatorThatReturnsNullThrowsBadAlloc) {
    auto const base = Limited::getCurrentAllocatedSize();
    NullClient null_client;
    Initialize(&null_client);
    struct Restore {
        ~Restore() { Initialize(&test::client()); }
    } const restore;
    EXPECT_THROW(RecycledImage<rgb8_pixel_t>(Point(64, 64)), std::bad_alloc);
    WMAllocator<unsigned char> allocator;
    EXPECT_THROW(allocator.allocate(100), std::bad_alloc);
    EXPECT_EQ(Limited::getCurrentAllocatedSize(), base);
}

}  // namespace
}  // namespace WM
