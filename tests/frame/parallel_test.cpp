#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace WM {
namespace {

TEST(Grain, AimsAtTwelveHundredPixelsPerChunk) {
    EXPECT_EQ(grain_for_width(1201), 1);
    EXPECT_EQ(grain_for_width(1200), 1);
    EXPECT_EQ(grain_for_width(600), 2);
    EXPECT_EQ(grain_for_width(7), 171);
}

TEST(BlockedRange, SplitsAtTheMiddleAndKeepsTheLowerHalf) {
    BlockedRange lower(3, 10, 2);
    EXPECT_TRUE(lower.is_divisible());
    BlockedRange upper(lower, tbb::split());
    EXPECT_EQ(lower.begin(), 3);
    EXPECT_EQ(lower.end(), 6);
    EXPECT_EQ(upper.begin(), 6);
    EXPECT_EQ(upper.end(), 10);
    EXPECT_EQ(upper.grain(), 2u);

    EXPECT_FALSE(BlockedRange(0, 2, 2).is_divisible());
    EXPECT_TRUE(BlockedRange(0, 3, 2).is_divisible());
    EXPECT_TRUE(BlockedRange(5, 5, 1).empty());
    EXPECT_TRUE(BlockedRange(6, 5, 1).empty());
    // An inverted range has a negative size, which compares as a huge
    // unsigned number: it still counts as divisible, but it is empty and the
    // driver never runs it.
    EXPECT_TRUE(BlockedRange(6, 5, 1).is_divisible());
}

TEST(ParallelRows, VisitsEveryIndexExactlyOnce) {
    for (int width : {1, 7, 600, 5000}) {
        std::vector<std::atomic<int>> visits(1000);
        parallel_rows(0, 1000, width, [&](BlockedRange const& r) {
            for (int y = r.begin(); y < r.end(); ++y) ++visits[y];
        });
        for (auto const& v : visits) EXPECT_EQ(v, 1);
    }
}

TEST(ParallelRows, ExceptionsReachTheCallerWithTheirType) {
    EXPECT_THROW(parallel_rows(0, 100, 1,
                               [](BlockedRange const& r) {
                                   if (r.begin() <= 50 && 50 < r.end())
                                       raise("WEFTMAP_INTERNAL_ERROR: x");
                               }),
                 Exception);
    int calls = 0;
    parallel_rows(4, 4, 10, [&](BlockedRange const&) { ++calls; });
    EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace WM
