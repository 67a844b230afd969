// Conversions between any two of the nine formats: 81 pairs, kept in their
// own file because they are slow to compile.
#include "dispatch.hpp"

#include <weftmap/host/image.hpp>

#include <boost/gil/algorithm.hpp>
#include <boost/gil/color_convert.hpp>

#include <algorithm>
#include <cmath>

namespace WM::host {
namespace {

// Float channels are clamped to [0, 1] (NaN to 0) before the conversion, so
// that integer results never wrap.
struct ClampingConverter {
    template <class Src, class Dst>
    void operator()(Src const& src, Dst& dst) const {
        if constexpr (is_float_pixel_v<Src>) {
            Src clamped = src;
            for (int c = 0; c < num_channels_v<Src>; ++c) {
                float const v = clamped[c];
                clamped[c] = std::isnan(v) ? 0.0f : std::clamp(v, 0.0f, 1.0f);
            }
            gil::default_color_converter()(clamped, dst);
        } else {
            gil::default_color_converter()(src, dst);
        }
    }
};

}  // namespace

void convert(ConstImageView const& from, ImageView const& to) {
    if (from.size() != to.size())
        throw Error(ErrorCode::invalid_input, "cannot convert a " + size_text(from.size()) +
                                                  " picture into " + size_text(to.size()));
    detail::visit_format(from.format, [&](auto from_tag) {
        using From = typename decltype(from_tag)::type;
        detail::visit_format(to.format, [&](auto to_tag) {
            using To = typename decltype(to_tag)::type;
            gil::copy_and_convert_pixels(detail::typed_view<From>(from), detail::typed_view<To>(to),
                                         ClampingConverter());
        });
    });
}

}  // namespace WM::host
