// Pictures for the kit's benchmarks.
#pragma once

#include <weftmap/host/image.hpp>

#include <cstdint>

namespace WM::bench {

// 8-bit RGB noise, every channel drawn from `low` to `low + span - 1`.
inline host::Image noise_rgb8(host::Size size, std::uint32_t seed, int low = 0, int span = 256) {
    host::Image image(host::PixelFormat{host::Depth::u8, host::Colour::rgb}, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x)
            for (int c = 0; c < 3; ++c) {
                seed = seed * 1664525u + 1013904223u;
                image.view().pixel(x, y)[c] =
                    static_cast<unsigned char>(low + static_cast<int>(seed >> 24) % span);
            }
    return image;
}

}  // namespace WM::bench
