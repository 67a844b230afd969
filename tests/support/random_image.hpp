// Random image content over the whole range of each channel type.
#pragma once

#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>

namespace WM::test {

// An image of random values over the whole range of each channel ([0, 1]
// for float channels), the same for the same seed.
template <class Pixel>
RecycledImage<Pixel> random_image(std::ptrdiff_t width, std::ptrdiff_t height, unsigned seed) {
    using Channel = channel_base_t<Pixel>;
    RecycledImage<Pixel> image(Point(width, height));
    std::mt19937 rng(seed);
    for (auto& pixel : view(image))
        for (int c = 0; c < num_channels_v<Pixel>; ++c)
            if constexpr (std::is_floating_point_v<Channel>)
                set_channel(pixel, c, std::uniform_real_distribution<float>(0.0f, 1.0f)(rng));
            else
                set_channel(pixel, c,
                            static_cast<Channel>(std::uniform_int_distribution<unsigned>(
                                0, std::numeric_limits<Channel>::max())(rng)));
    return image;
}

// The nine image pixel types, for typed tests.
using AllPixelTypes = boost::mp11::mp_rename<image_pixel_types, ::testing::Types>;

// Short names such as "rgb16" for typed test output.
struct PixelNames {
    template <class Pixel>
    static std::string GetName(int) {
        using Channel = channel_base_t<Pixel>;
        constexpr int channels = num_channels_v<Pixel>;
        return std::string(channels == 1   ? "gray"
                           : channels == 3 ? "rgb"
                                           : "cmyk") +
               (std::is_floating_point_v<Channel> ? "32f"
                : sizeof(Channel) == 1            ? "8"
                                                  : "16");
    }
};

}  // namespace WM::test
