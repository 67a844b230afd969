// A ClientBase that records progress and can ask for cancellation.
#pragma once

#include <weftmap/correspondence/weftmap.hpp>

#include <atomic>
#include <mutex>
#include <vector>

namespace WM::test {

template <class Pixel>
class RecordingClient : public ClientBase<Pixel> {
public:
    void updateProgress(float fraction) override {
        std::lock_guard<std::mutex> lock(mutex_);
        progress.push_back(fraction);
    }
    bool checkAbort() override {
        ++abort_polls;
        return cancel;
    }

    std::vector<float> progress;
    std::atomic<bool> cancel{false};
    std::atomic<int> abort_polls{0};

private:
    std::mutex mutex_;
};

// Sets the band count of the search for the duration of a scope.
class ScopedBands {
public:
    explicit ScopedBands(long long bands);
    ~ScopedBands();

private:
    long long saved_;
};

}  // namespace WM::test
