// A ClientBase that records progress and can ask for cancellation, a
// correspondence object wired to one, and builders of label masks.
#pragma once

#include <weftmap/correspondence/weftmap.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <mutex>
#include <vector>

namespace WM::test {

// Cancels when `cancel` is set or `abort_when` says so.
template <class Pixel>
class RecordingClient : public ClientBase<Pixel> {
public:
    void updateProgress(float fraction) override {
        std::lock_guard<std::mutex> lock(mutex_);
        progress.push_back(fraction);
    }
    bool checkAbort() override {
        ++abort_polls;
        return cancel || (abort_when && abort_when());
    }
    // Progress that never goes back and ends at the whole job.
    bool monotone_to_one() const {
        return !progress.empty() && std::is_sorted(progress.begin(), progress.end()) &&
               std::abs(progress.back() - 1.0f) < 1e-6f;
    }

    std::vector<float> progress;
    std::atomic<bool> cancel{false};
    std::atomic<int> abort_polls{0};
    std::function<bool()> abort_when;

private:
    std::mutex mutex_;
};

template <class Pixel>
struct HostOf {
    RecordingClient<Pixel> host;
};

// A correspondence object with its own recording client, `host`.
template <class Compare>
struct TestEngine : HostOf<typename Compare::pixel_t>, Weftmap<Compare> {
    TestEngine() : Weftmap<Compare>(&this->host) {}

    // A fresh random field from an a-sized target into b and its distances.
    template <class Image, class Dist>
    void start(Image const& a, Image const& b, RecycledImage<offset_pixel_t>& nnf, Dist& dist) {
        this->init_nnf(a.dimensions(), b.dimensions(), nnf, nullptr, nullptr, nullptr);
        this->init_dist(const_view(a), const_view(b), view(nnf), dist, nullptr, nullptr, nullptr);
    }
};

// A label map of `size` with label(x, y) at every pixel, boxes for 7 x 7
// patches.
template <class Label>
RegionMasks label_masks(Point const& size, Label const& label) {
    RegionMasks masks;
    masks.recreate(size);
    for (int y = 0; y < size.y; ++y)
        for (int x = 0; x < size.x; ++x) masks.view(x, y) = gray8_pixel_t(label(x, y));
    masks.update_boxes(7);
    return masks;
}

}  // namespace WM::test
