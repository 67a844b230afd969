// The host client every benchmark runs under: plain heap memory, no diagnostics.
#pragma once

#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/image/memory.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

namespace WM::bench {

// Heap memory; remembers the most the library held at once.
class HeapAllocator : public BaseLimitedByteMemoryAllocator {
public:
    void* rawAllocate(unsigned long long bytes) override {
        peak = std::max(peak, getCurrentAllocatedSize() + bytes);
        return std::malloc(bytes);
    }
    void rawDeallocate(void* p, unsigned long long) override { std::free(p); }

    unsigned long long peak = 0;
};

class BenchClient : public WeftmapProcClient {
public:
    MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    DebugOutput* GetDebugOutput() override { return nullptr; }
    HeapAllocator allocator;
};

BenchClient& client();

// A run's client that ignores progress and never cancels.
template <class Pixel>
class NullProgress : public ClientBase<Pixel> {
public:
    void updateProgress(float) override {}
};

// A smooth, photograph-like test image: gradients plus mild noise.
template <class Pixel>
RecycledImage<Pixel> synthetic_image(std::ptrdiff_t width, std::ptrdiff_t height, unsigned seed) {
    using Channel = channel_base_t<Pixel>;
    double const top =
        std::is_floating_point_v<Channel> ? 1.0 : double(std::numeric_limits<Channel>::max());
    RecycledImage<Pixel> image(Point(width, height));
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> noise(-0.02, 0.02);
    auto const& v = view(image);
    for (std::ptrdiff_t y = 0; y < height; ++y)
        for (std::ptrdiff_t x = 0; x < width; ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double const t = 0.5 + 0.4 * std::sin(0.01 * x * (c + 1) + 0.013 * y) + noise(rng);
                set_channel(v(x, y), c, static_cast<Channel>(std::clamp(t, 0.0, 1.0) * top));
            }
    return image;
}

}  // namespace WM::bench
