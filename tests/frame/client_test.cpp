#include "support/test_client.hpp"

#include <weftmap/frame/client.hpp>

#include <gtest/gtest.h>
#include <tbb/info.h>
#include <tbb/task_arena.h>
#include <tbb/version.h>

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
}

TEST_F(InitializeTest, LastRegisteredClientWinsAndTerminateKeepsIt) {
    test::TestClient other;
    other.threadCount = 2;
    EXPECT_TRUE(Initialize(&other));
    EXPECT_EQ(GetClientProcs(), &other);
    Terminate();
    EXPECT_EQ(GetClientProcs(), &other);
}

TEST(Versions, ReportsLibraryAndThreadingInterface) {
    int built = 0;
    int runtime = 0;
    EXPECT_EQ(GetVersions(built, runtime), 0x10100u);
    EXPECT_EQ(built, 5006);
    EXPECT_EQ(runtime, TBB_runtime_interface_version());
}

TEST(Clocks, BenchmarkTimerIsCompiledOutAndElapsedSecondsGrowFromLoadTime) {
    double seconds = 42.0;
    BenchmarkTimer timer(seconds);
    timer.Stop();
    EXPECT_EQ(static_cast<double>(timer), 0.0);
    EXPECT_EQ(seconds, 42.0);

    double const first = elapsed_seconds();
    EXPECT_GE(first, 0.0);
    EXPECT_GE(elapsed_seconds(), first);
}

TEST(TailMask, RowRHoldsRLeadingOnes) {
    for (int r = 0; r < 16; ++r) {
        unsigned char const* row = tail_mask(r);
        for (int j = 0; j < 16; ++j) EXPECT_EQ(row[j], j < r ? 0xFF : 0) << r << "," << j;
    }
}

}  // namespace
}  // namespace WM
