// Pictures for the kit's tests, built through the kit's own types.
#pragma once

#include "host/dispatch.hpp"
#include "support/helpers.hpp"

#include <weftmap/host/image.hpp>

#include <gtest/gtest.h>
#include <boost/mp11/algorithm.hpp>

namespace WM::host::test {

// The nine formats, for typed tests.
template <class Pixel>
struct FormatOf {
    static constexpr PixelFormat value = detail::format_of<Pixel>();
};
using NinePixels = boost::mp11::mp_rename<image_pixel_types, ::testing::Types>;

// The test texture in `format`.
inline Image texture(PixelFormat format, Size size) {
    Image image(format, size);
    detail::visit_format(format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        WM::test::paint_texture(detail::packed_view<Pixel>(image.view()));
    });
    return image;
}

// 255 in a disc, 0 elsewhere.
inline Image disc_mask(Size size, double cx, double cy, double r) {
    Image mask(mask_format, size);
    WM::test::paint_disc(detail::packed_view<gray8_pixel_t>(mask.view()), cx, cy, r);
    return mask;
}

}  // namespace WM::host::test
