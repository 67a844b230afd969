// From a run-time pixel format to the library's pixel type, and from the
// kit's views to the library's typed views. The one place where the kit
// meets the list of the nine types.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/host/errors.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/options.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <boost/gil/image_view_factory.hpp>
#include <boost/mp11/algorithm.hpp>

#include <array>
#include <cstddef>
#include <type_traits>

namespace WM::host::detail {

template <class Pixel>
constexpr PixelFormat format_of() {
    using Channel = channel_base_t<Pixel>;
    Depth const depth = std::is_floating_point_v<Channel> ? Depth::f32
                        : sizeof(Channel) == 1            ? Depth::u8
                                                          : Depth::u16;
    constexpr int channels = num_channels_v<Pixel>;
    Colour const colour = channels == 1 ? Colour::gray : channels == 3 ? Colour::rgb : Colour::cmyk;
    return PixelFormat{depth, colour};
}

template <class... Pixels>
constexpr std::array<PixelFormat, sizeof...(Pixels)> formats_of(boost::mp11::mp_list<Pixels...>) {
    return {format_of<Pixels>()...};
}

constexpr std::size_t index_of(PixelFormat format) {
    constexpr auto formats = formats_of(image_pixel_types{});
    for (std::size_t i = 0; i < formats.size(); ++i)
        if (formats[i] == format) return i;
    return formats.size();
}

template <class T>
using tag = boost::mp11::mp_identity<T>;

// Calls f(tag<Pixel>{}) with the library pixel type of `format`.
template <class F>
decltype(auto) visit_format(PixelFormat format, F&& f) {
    std::size_t const index = index_of(format);
    if (index >= boost::mp11::mp_size<image_pixel_types>::value)
        throw Error(ErrorCode::invalid_input, "unknown pixel format");
    return boost::mp11::mp_with_index<boost::mp11::mp_size<image_pixel_types>::value>(
        index, [&](auto i) -> decltype(auto) {
            return f(tag<boost::mp11::mp_at_c<image_pixel_types, decltype(i)::value>>{});
        });
}

// Calls f(tag<Compare>{}) with the comparator over `Pixel`.
template <class Pixel, class F>
decltype(auto) visit_comparator(Comparator comparator, F&& f) {
    if (comparator == Comparator::gain_bias) return f(tag<GainBiasPatchCompare<Pixel>>{});
    return f(tag<TranslatePatchCompare<Pixel>>{});
}

// Any view of the kit, strides and all.
template <class Pixel>
using StridedView = typename gil::dynamic_x_step_type<View<Pixel>>::type;
template <class Pixel>
using ConstStridedView = typename gil::dynamic_x_step_type<ConstView<Pixel>>::type;

template <class Pixel>
StridedView<Pixel> typed_view(ImageView const& v) {
    using Locator = typename StridedView<Pixel>::locator;
    using XIterator = typename Locator::x_iterator;
    return StridedView<Pixel>(
        v.width, v.height,
        Locator(XIterator(reinterpret_cast<Pixel*>(v.data), v.pixel_stride), v.row_stride));
}

template <class Pixel>
ConstStridedView<Pixel> typed_view(ConstImageView const& v) {
    using Locator = typename ConstStridedView<Pixel>::locator;
    using XIterator = typename Locator::x_iterator;
    return ConstStridedView<Pixel>(
        v.width, v.height,
        Locator(XIterator(reinterpret_cast<Pixel const*>(v.data), v.pixel_stride), v.row_stride));
}

// A packed view (a kit image) as the library's own view type.
template <class Pixel>
View<Pixel> packed_view(ImageView const& v) {
    return gil::interleaved_view(v.width, v.height, reinterpret_cast<Pixel*>(v.data), v.row_stride);
}

template <class Pixel>
ConstView<Pixel> packed_view(ConstImageView const& v) {
    return gil::interleaved_view(v.width, v.height, reinterpret_cast<Pixel const*>(v.data),
                                 v.row_stride);
}

}  // namespace WM::host::detail
