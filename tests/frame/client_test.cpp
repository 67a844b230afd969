#include "support/test_client.hpp"

#include <gtest/gtest.h>
#include <tbb/info.h>
#include <tbb/task_arena.h>

namespace WM {
namespace {

// Re-registers the shared test client when a test is done with its own.
class InitializeTest : public ::testing::Test {
protected:
    void TearDown() override {
        test::client().threadCount = 1;
        Initialize(&test::client());
    }
};

TEST_F(InitializeTest, NormalisesThreadCountWithoutLimitingLaterLoops) {
    test::TestClient other;
    other.threadCount = 0;
    Initialize(&other);
    EXPECT_EQ(other.threadCount, 1);
    other.threadCount = -1;
    Initialize(&other);
    EXPECT_EQ(other.threadCount, tbb::info::default_concurrency());

    // A count above the machine's cores is kept for the search bands, and the
    // probe neither prints nor leaves a limit behind.
    other.threadCount = 3;
    testing::internal::CaptureStderr();
    Initialize(&other);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(other.threadCount, 3);
    EXPECT_EQ(tbb::this_task_arena::max_concurrency(), tbb::info::default_concurrency());
    // The last registered client wins, and Terminate keeps it.
    EXPECT_EQ(GetClientProcs(), &other);
    Terminate();
    EXPECT_EQ(GetClientProcs(), &other);
}

}  // namespace
}  // namespace WM
