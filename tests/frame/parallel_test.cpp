#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace WM {
namespace {

TEST(Parallel, RowsVisitEveryIndexOnceAndPassExceptionsOn) {
    for (int width : {1, 7, 600, 5000}) {
        std::vector<std::atomic<int>> visits(1000);
        parallel_rows(0, 1000, width, [&](BlockedRange const& r) {
            for (int y = r.begin(); y < r.end(); ++y) ++visits[y];
        });
        for (auto const& v : visits) EXPECT_EQ(v, 1);
    }
    int calls = 0;
    parallel_rows(4, 4, 10, [&](BlockedRange const&) { ++calls; });
    EXPECT_EQ(calls, 0);
    // Exceptions reach the caller with their type.
    EXPECT_THROW(parallel_rows(0, 100, 1,
                               [](BlockedRange const& r) {
                                   if (r.begin() <= 50 && 50 < r.end())
                                       raise("WEFTMAP_INTERNAL_ERROR: x");
                               }),
                 Exception);
}

}  // namespace
}  // namespace WM
