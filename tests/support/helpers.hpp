// Small builders and probes that many tests share: uniform images, painted
// rectangles, the text of a thrown exception and a brute-force city-block
// distance.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
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

}  // namespace WM::test
