// A run under hostile or careless input: bad sizes and parameters are
// refused with a message that says what is wrong, and a run that fails at
// any allocation or is cancelled at any progress point releases everything,
// restores the recomposer's parameters and leaves it fit for another run.
#include "recomposer/recomposer_fixture.hpp"
#include "support/test_client.hpp"

#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <tuple>

namespace WM {
namespace {

using Gray = RecycledImage<gray8_pixel_t>;
using Pixel = rgb8_pixel_t;
using Recomposer = WeftmapRecomposer<TranslatePatchCompare<Pixel>>;

using test::disc_hole;

// A client whose cancel flag rises at its `cancel_at`-th progress report.
struct CancellingClient : test::RecordingClient<Pixel> {
    void updateProgress(float f) override {
        test::RecordingClient<Pixel>::updateProgress(f);
        if (static_cast<int>(progress.size()) == cancel_at) cancel = true;
    }
    int cancel_at = -1;
};

// The parameters a run changes and must restore, as the caller set them.
auto run_parameters(Recomposer const& r) {
    return std::make_tuple(r.nn_iters, r.rs_max, r.patch_w, r.coherence_weight, r.complete_weight,
                           r.prefer_coherent);
}

void set_odd_run_parameters(Recomposer& r) {
    r.nn_iters = 11;
    r.rs_max = 12;
    r.coherence_weight = 0.25;
    r.complete_weight = 0.75;
}

// A small fill (known pixels unchanged) or retarget (the requested size).
struct Job {
    bool retarget = false;
    RecycledImage<Pixel> image = test::texture<Pixel>(40, 32);
    Gray hole = disc_hole(image.dimensions(), 20, 16, 5);

    RecomposerMode mode() const {
        return retarget ? RecomposerModeTapestry : RecomposerModeHoleFill;
    }
    RecycledImage<Pixel> run(Recomposer& r) const {
        return retarget ? test::retarget(r, image, Point(30, 32)) : test::fill(r, image, hole);
    }
    void check(RecycledImage<Pixel> const& output) const {
        if (retarget) {
            EXPECT_EQ(output.dimensions(), Point(30, 32));
            return;
        }
        ASSERT_EQ(output.dimensions(), image.dimensions());
        for (std::ptrdiff_t y = 0; y < image.height(); ++y)
            for (std::ptrdiff_t x = 0; x < image.width(); ++x)
                if (const_view(hole)(x, y)[0] == 0) {
                    ASSERT_EQ(const_view(output)(x, y), const_view(image)(x, y));
                }
    }
};

TEST(HostileInput, BadSizesAndPatchSizesAreRefusedBeforeAnyWork) {
    test::RecordingClient<Pixel> client;
    Recomposer r(&client, RecomposerModeHoleFill);
    auto image = test::texture<Pixel>(40, 32);
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> output;
    Gray hole = disc_hole(image.dimensions(), 20, 16, 5);
    auto const fill = [&](Gray& mask, Gray* valid = nullptr) {
        return test::error_text([&] {
            r.recompose(view(image), constraints, output, &view(mask), nullptr, nullptr,
                        valid != nullptr ? &view(*valid) : nullptr, nullptr, nullptr, nullptr,
                        nullptr);
        });
    };
    auto const retarget = [&](Point const& size) {
        return test::error_text([&] {
            r.retarget(view(image), constraints, output, size, 0.98, nullptr, nullptr, nullptr,
                       nullptr);
        });
    };

    Gray small_hole = disc_hole(Point(30, 20), 15, 10, 4);
    EXPECT_EQ(fill(small_hole),
              "WEFTMAP_INVALID_PARAMETERS: the hole mask is 30x20 but the target is 40x32; they "
              "must be the same size");
    Gray small_valid(Point(8, 8));
    EXPECT_EQ(fill(hole, &small_valid),
              "WEFTMAP_INVALID_PARAMETERS: the valid mask is 8x8 but the source is 40x32; they "
              "must be the same size");
    // Field positions are 16-bit: a wider target would be read out of bounds.
    EXPECT_EQ(retarget(Point(70000, 32)),
              "WEFTMAP_INVALID_PARAMETERS: the target is 70000x32; sides of at most 65535 pixels "
              "are supported");
    // A walk ending narrower than a patch at the coarsest scale would
    // search past the images (40x32 at short side 25 makes 8 wide 6).
    EXPECT_EQ(retarget(Point(8, 32)),
              "WEFTMAP_INVALID_PARAMETERS: retarget target 8x32 is 6x25 at the coarsest scale, "
              "less than a patch; raise coarse_size");
    // A patch of another size would read past the images' rows while the
    // masks are measured, before the search could refuse it.
    for (int w : {0, -1, 3, 9}) {
        r.patch_w = w;
        EXPECT_EQ(fill(hole),
                  "WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: " + std::to_string(w));
    }
    r.patch_w = 7;
    r.patch_w_refine = 5;
    EXPECT_EQ(retarget(Point(30, 32)),
              "WEFTMAP_INVALID_PARAMETERS:Patch refinement size unsupported: 5");
    EXPECT_TRUE(client.progress.empty());
    // The inputs were not touched: the hole is still 255 inside.
    EXPECT_EQ(const_view(hole)(20, 16)[0], 255);
}

// Fails the k-th allocation, by throwing or by answering null.
class FailingClient : public WeftmapProcClient {
public:
    struct Allocator : BaseLimitedByteMemoryAllocator {
        void* rawAllocate(unsigned long long bytes) override {
            if (++count == fail_at) {
                if (count % 2 == 0) return nullptr;
                throw std::bad_alloc();
            }
            return std::malloc(bytes);
        }
        void rawDeallocate(void* p, unsigned long long) override { std::free(p); }
        long count = 0;
        long fail_at = -1;
    };
    MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    DebugOutput* GetDebugOutput() override { return nullptr; }
    Allocator allocator;
};

// Registers the failing client for the life of the object.
struct ScopedFailingClient {
    ScopedFailingClient() {
        client.threadCount = test::client().threadCount;
        Initialize(&client);
    }
    ~ScopedFailingClient() { Initialize(&test::client()); }
    FailingClient client;
};

void fail_every_allocation(Job const& job) {
    auto const baseline = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
    ScopedFailingClient failing;
    auto& allocator = failing.client.allocator;
    long allocations = 0;
    {
        test::RecordingClient<Pixel> client;
        Recomposer r(&client, job.mode());
        job.check(job.run(r));
        allocations = allocator.count;
    }
    ASSERT_GT(allocations, 10);
    for (long k = 1; k <= allocations; ++k) {
        SCOPED_TRACE(k);
        {
            test::RecordingClient<Pixel> client;
            Recomposer r(&client, job.mode());
            set_odd_run_parameters(r);
            auto const before = run_parameters(r);
            allocator.count = 0;
            allocator.fail_at = k;
            bool failed = false;
            try {
                job.run(r);
            } catch (ExceptionMemoryLimit const&) {
                failed = true;
            } catch (std::bad_alloc const&) {
                failed = true;
            }
            EXPECT_TRUE(failed);
            EXPECT_EQ(run_parameters(r), before);
            // The same objects run again.
            allocator.fail_at = -1;
            r.nn_iters = 5;
            job.check(job.run(r));
        }
        ASSERT_EQ(BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize(), baseline);
    }
}

TEST(HostileInput, AFillFailingAtAnyAllocationReleasesEverythingAndRunsAgain) {
    fail_every_allocation(Job{});
}

TEST(HostileInput, ARetargetFailingAtAnyAllocationReleasesEverythingAndRunsAgain) {
    fail_every_allocation(Job{true});
}

void cancel_at_every_progress_point(Job const& job) {
    auto const baseline = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
    int reports = 0;
    {
        CancellingClient client;
        Recomposer r(&client, job.mode());
        job.check(job.run(r));
        reports = static_cast<int>(client.progress.size());
    }
    ASSERT_GT(reports, 5);
    // Every point of the first stages, then points spread over the rest: a
    // retarget reports thousands of times, and every stage shows up among
    // 60 of them.
    int const stride = std::max(1, reports / 60);
    for (int k = 1; k < reports; k += k < 20 ? 1 : stride) {
        SCOPED_TRACE(k);
        {
            CancellingClient client;
            client.cancel_at = k;
            Recomposer r(&client, job.mode());
            set_odd_run_parameters(r);
            auto const before = run_parameters(r);
            EXPECT_EQ(test::error_text([&] { job.run(r); }), "WEFTMAP_USER_CANCELED");
            // Noticed at the next poll: no search pass goes on after it.
            EXPECT_LE(static_cast<int>(client.progress.size()), k + 1);
            EXPECT_EQ(run_parameters(r), before);
            client.cancel = false;
            client.cancel_at = -1;
            job.check(job.run(r));
        }
        ASSERT_EQ(BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize(), baseline);
    }
}

TEST(HostileInput, AFillCancelledAtAnyProgressPointReleasesEverythingAndRunsAgain) {
    cancel_at_every_progress_point(Job{});
}

TEST(HostileInput, ARetargetCancelledAtAnyProgressPointReleasesEverythingAndRunsAgain) {
    cancel_at_every_progress_point(Job{true});
}

}  // namespace
}  // namespace WM
