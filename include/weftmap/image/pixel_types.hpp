// The pixel vocabulary of the library: the nine image pixel types, the
// auxiliary pixels of fields, distances, weights and accumulators, views,
// points and rectangles. The lists at the end are the only place that names
// the nine image types one by one.
#pragma once

#include <boost/gil/cmyk.hpp>
#include <boost/gil/gray.hpp>
#include <boost/gil/image_view.hpp>
#include <boost/gil/image_view_factory.hpp>
#include <boost/gil/pixel.hpp>
#include <boost/gil/point.hpp>
#include <boost/gil/rgb.hpp>
#include <boost/gil/typedefs.hpp>
#include <boost/mp11/algorithm.hpp>
#include <boost/mp11/list.hpp>

#include <cstddef>
#include <cstdint>

namespace WM {

namespace gil = boost::gil;

// Image pixels: 8-bit, 16-bit and float channels in gray, RGB and CMYK.
using gil::cmyk16_pixel_t;
using gil::cmyk32f_pixel_t;
using gil::cmyk8_pixel_t;
using gil::gray16_pixel_t;
using gil::gray32f_pixel_t;
using gil::gray8_pixel_t;
using gil::rgb16_pixel_t;
using gil::rgb32f_pixel_t;
using gil::rgb8_pixel_t;

// Offset-field pixel: the absolute position of the matched source patch,
// pair0_t the x and pair1_t the y coordinate.
struct pair0_t {};
struct pair1_t {};
using offset_layout_t = gil::layout<boost::mp11::mp_list<pair0_t, pair1_t>>;
using offset_pixel_t = gil::pixel<unsigned short, offset_layout_t>;

// Patch distances (int for 8-bit images, long long for 16-bit, plain float
// for float images); the int map also holds the distance transform.
using int_gray_pixel_t = gil::pixel<int, gil::gray_layout_t>;
using ll_gray_pixel_t = gil::pixel<long long, gil::gray_layout_t>;
using float_gray_pixel_t = gil::pixel<float, gil::gray_layout_t>;

// Weight maps use the scoped float gray image pixel.
using weight_pixel_t = gil::gray32f_pixel_t;

// Interleaved views over a plain pixel pointer.
template <class Pixel>
using View = gil::image_view<gil::memory_based_2d_locator<gil::memory_based_step_iterator<Pixel*>>>;
template <class Pixel>
using ConstView =
    gil::image_view<gil::memory_based_2d_locator<gil::memory_based_step_iterator<Pixel const*>>>;

using GrayView = View<gray8_pixel_t>;
using ConstGrayView = ConstView<gray8_pixel_t>;
using IntView = View<int_gray_pixel_t>;
using OffsetView = View<offset_pixel_t>;

// Sizes and positions: x is width, y is height.
using Point = gil::point<std::ptrdiff_t>;

template <class Pixel>
using channel_t = typename gil::channel_type<Pixel>::type;
template <class Pixel>
constexpr int num_channels_v = gil::num_channels<Pixel>::value;

// The stored arithmetic type of a channel: unsigned char, unsigned short or float.
template <class Channel>
struct channel_base {
    using type = Channel;
};
template <class T, class Min, class Max>
struct channel_base<gil::scoped_channel_value<T, Min, Max>> {
    using type = T;
};
template <class Pixel>
using channel_base_t = typename channel_base<channel_t<Pixel>>::type;

template <class Pixel>
constexpr bool is_float_pixel_v = std::is_floating_point_v<channel_base_t<Pixel>>;

// Reads and writes channel c of a pixel as its base arithmetic type.
template <class Pixel>
inline channel_base_t<Pixel> channel_value(Pixel const& p, int c) {
    return static_cast<channel_base_t<Pixel>>(p[c]);
}
template <class Pixel>
inline void set_channel(Pixel& p, int c, channel_base_t<Pixel> v) {
    p[c] = v;
}

// A rectangle with exclusive maximum; empty when xmin >= xmax or ymin >= ymax.
struct Box {
    std::int32_t xmin = 0;
    std::int32_t ymin = 0;
    std::int32_t xmax = 0;
    std::int32_t ymax = 0;

    Point min_corner() const { return Point(xmin, ymin); }
    Point size() const {
        return Point(static_cast<std::int32_t>(static_cast<std::uint32_t>(xmax) -
                                               static_cast<std::uint32_t>(xmin)),
                     static_cast<std::int32_t>(static_cast<std::uint32_t>(ymax) -
                                               static_cast<std::uint32_t>(ymin)));
    }
    bool empty() const { return xmin >= xmax || ymin >= ymax; }
    friend bool operator==(Box const& a, Box const& b) {
        return a.xmin == b.xmin && a.ymin == b.ymin && a.xmax == b.xmax && a.ymax == b.ymax;
    }
    friend bool operator!=(Box const& a, Box const& b) { return !(a == b); }
};

// The nine image pixel types, by channel depth, so that explicit
// instantiations can be spread over one source file per depth.
#define WEFTMAP_FOR_EACH_PIXEL_8(X) X(WM::gray8_pixel_t) X(WM::rgb8_pixel_t) X(WM::cmyk8_pixel_t)
#define WEFTMAP_FOR_EACH_PIXEL_16(X) \
    X(WM::gray16_pixel_t) X(WM::rgb16_pixel_t) X(WM::cmyk16_pixel_t)
#define WEFTMAP_FOR_EACH_PIXEL_32F(X) \
    X(WM::gray32f_pixel_t) X(WM::rgb32f_pixel_t) X(WM::cmyk32f_pixel_t)
#define WEFTMAP_FOR_EACH_PIXEL(X) \
    WEFTMAP_FOR_EACH_PIXEL_8(X) WEFTMAP_FOR_EACH_PIXEL_16(X) WEFTMAP_FOR_EACH_PIXEL_32F(X)

// The same nine types as a type list.
#define WEFTMAP_TYPE_AND_COMMA(P) P,
using image_pixel_types = boost::mp11::mp_pop_back<
    boost::mp11::mp_list<WEFTMAP_FOR_EACH_PIXEL(WEFTMAP_TYPE_AND_COMMA) void>>;
#undef WEFTMAP_TYPE_AND_COMMA

}  // namespace WM
