// Random image content over the whole range of each channel type.
#pragma once

#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>

namespace WM::test {

template <class Pixel>
channel_base_t<Pixel> random_channel(std::mt19937& rng) {
    using Channel = channel_base_t<Pixel>;
    if constexpr (std::is_floating_point_v<Channel>) {
        return std::uniform_real_distribution<float>(0.0f, 1.0f)(rng);
    } else {
        return static_cast<Channel>(
            std::uniform_int_distribution<unsigned>(0, std::numeric_limits<Channel>::max())(rng));
    }
}

template <class Pixel>
void fill_random(View<Pixel> const& view, std::mt19937& rng) {
    for (std::ptrdiff_t y = 0; y < view.height(); ++y)
        for (std::ptrdiff_t x = 0; x < view.width(); ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c)
                set_channel(view(x, y), c, random_channel<Pixel>(rng));
}

template <class Pixel>
RecycledImage<Pixel> random_image(std::ptrdiff_t width, std::ptrdiff_t height, unsigned seed) {
    RecycledImage<Pixel> image(Point(width, height));
    std::mt19937 rng(seed);
    fill_random<Pixel>(view(image), rng);
    return image;
}

// The nine image pixel types, for typed tests.
using AllPixelTypes = boost::mp11::mp_rename<image_pixel_types, ::testing::Types>;

// Short names such as "rgb16" for typed test output.
template <class Pixel>
std::string pixel_name() {
    constexpr int channels = num_channels_v<Pixel>;
    std::string const layout = channels == 1 ? "gray" : channels == 3 ? "rgb" : "cmyk";
    using Channel = channel_base_t<Pixel>;
    return layout + (std::is_floating_point_v<Channel> ? "32f" : sizeof(Channel) == 1 ? "8" : "16");
}

struct PixelNames {
    template <class Pixel>
    static std::string GetName(int) {
        return pixel_name<Pixel>();
    }
};

}  // namespace WM::test
