// Small builders and probes that many tests share: uniform images, painted
// rectangles, discs and textures, the text of a thrown exception, a
// brute-force city-block distance and a PSNR.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <limits>
#include <string>
#include <type_traits>

namespace WM::test {

// An image of `size` filled with `pixel`.
template <class Pixel>
RecycledImage<Pixel> filled(Point const& size, Pixel const& pixel) {
    RecycledImage<Pixel> image(size);
    gil::fill_pixels(view(image), pixel);
    return image;
}

// An image of `size` whose every channel holds `value`.
template <class Pixel>
RecycledImage<Pixel> uniform(Point const& size, double value) {
    Pixel p;
    for (int c = 0; c < num_channels_v<Pixel>; ++c)
        set_channel(p, c, static_cast<channel_base_t<Pixel>>(value));
    return filled(size, p);
}

// A byte mask of `size` filled with `value`.
inline RecycledImage<gray8_pixel_t> byte_mask(Point const& size, int value) {
    return uniform<gray8_pixel_t>(size, value);
}

// Sets the pixels of `box` (maximum exclusive) to `pixel`.
template <class View>
void paint(View const& v, Box const& box, typename View::value_type const& pixel) {
    gil::fill_pixels(
        gil::subimage_view(v, box.xmin, box.ymin, box.xmax - box.xmin, box.ymax - box.ymin), pixel);
}

// The text of the exception of type E that `f` throws, "" when it throws none.
template <class E = Exception, class F>
std::string error_text(F&& f) {
    try {
        f();
    } catch (E const& e) {
        if constexpr (std::is_base_of_v<std::exception, E>)
            return e.what();
        else
            return static_cast<char const*>(e);
    }
    return "";
}

// The smallest city-block distance from (x, y) to a position (u, v) of the
// w x h grid for which `hit(u, v)` holds, or `none` when there is none.
template <class Hit>
int city_block(int w, int h, int x, int y, Hit const& hit, int none) {
    int best = none;
    for (int v = 0; v < h; ++v)
        for (int u = 0; u < w; ++u)
            if (hit(u, v)) best = std::min(best, std::abs(u - x) + std::abs(v - y));
    return best;
}

// The largest value of a channel of Pixel: 1.0 for float channels.
template <class Pixel>
double channel_top() {
    using Channel = channel_base_t<Pixel>;
    return std::is_floating_point_v<Channel> ? 1.0 : double(std::numeric_limits<Channel>::max());
}

// A periodic texture with periods of 9 and 13 pixels, shifted per channel:
// the kind of picture a patch fill must continue.
template <class View>
void paint_texture(View const& v) {
    using Pixel = typename View::value_type;
    for (std::ptrdiff_t y = 0; y < v.height(); ++y)
        for (std::ptrdiff_t x = 0; x < v.width(); ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double const t = 0.5 + 0.25 * std::sin(2 * M_PI * x / 9.0 + c) +
                                 0.2 * std::sin(2 * M_PI * y / 13.0 + 2 * c);
                set_channel(v(x, y), c,
                            static_cast<channel_base_t<Pixel>>(t * channel_top<Pixel>()));
            }
}

// 255 inside the disc of radius r around (cx, cy), `edge` on the one-pixel
// ring around it, 0 elsewhere.
template <class View>
void paint_disc(View const& v, double cx, double cy, double r, int edge = 0) {
    for (std::ptrdiff_t y = 0; y < v.height(); ++y)
        for (std::ptrdiff_t x = 0; x < v.width(); ++x) {
            double const d = std::hypot(x - cx, y - cy);
            v(x, y) = typename View::value_type(d <= r ? 255 : d <= r + 1 ? edge : 0);
        }
}

// The PSNR of b against a over the pixels where `mask` is not 0.
template <class View, class Mask>
double psnr_where(View const& a, View const& b, Mask const& mask) {
    using Pixel = typename View::value_type;
    double sum = 0, count = 0;
    for (std::ptrdiff_t y = 0; y < a.height(); ++y)
        for (std::ptrdiff_t x = 0; x < a.width(); ++x)
            for (int c = 0; c < num_channels_v<Pixel> && mask(x, y)[0] != 0; ++c, ++count) {
                double const d =
                    double(channel_value(a(x, y), c)) - double(channel_value(b(x, y), c));
                sum += d * d;
            }
    double const top = channel_top<Pixel>();
    return sum == 0 ? 99.0 : 10 * std::log10(top * top * count / sum);
}

}  // namespace WM::test
