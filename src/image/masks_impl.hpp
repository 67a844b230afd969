// Generic masked merge, instantiated per channel depth in masks_*.cpp.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>
#include <weftmap/image/masks.hpp>

#include <cstdint>

namespace WM {
namespace detail {

// Narrows a non-negative value to an integer channel by truncation, wrapping
// past the channel's maximum instead of clamping.
template <class Channel>
inline Channel truncate_wrapping(float v) {
    return static_cast<Channel>(static_cast<std::uint64_t>(static_cast<std::int64_t>(v)));
}

}  // namespace detail

template <class Pixel>
void copy_pixels_masked(ConstView<Pixel> const& src, View<Pixel> const& dst,
                        ConstGrayView const& mask) {
    if (src.dimensions() != dst.dimensions())
        raise(
            "WEFTMAP_INTERNAL_ERROR:copy_pixels_masked: src size (%dx%d) != dst size "
            "(%dx%d)",
            static_cast<long long>(src.width()), static_cast<long long>(src.height()),
            static_cast<long long>(dst.width()), static_cast<long long>(dst.height()));
    if (src.dimensions() != mask.dimensions())
        raise(
            "WEFTMAP_INTERNAL_ERROR:copy_pixels_masked: src size (%dx%d) != hole size "
            "(%dx%d)",
            static_cast<long long>(src.width()), static_cast<long long>(src.height()),
            static_cast<long long>(mask.width()), static_cast<long long>(mask.height()));
    using Channel = channel_base_t<Pixel>;
    // Rows are independent.
    parallel_rows(0, static_cast<int>(src.height()), src.width(), [&](BlockedRange const& rows) {
        for (std::ptrdiff_t y = rows.begin(); y < rows.end(); ++y) {
            auto const s = src.row_begin(y);
            auto const d = dst.row_begin(y);
            auto const m = mask.row_begin(y);
            for (std::ptrdiff_t x = 0; x < src.width(); ++x) {
                unsigned const coverage = m[x];
                if (coverage == 0) continue;
                if (coverage == 255) {
                    d[x] = s[x];
                    continue;
                }
                float const keep = 1.0f - static_cast<float>(coverage) / 255.0f;
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    float const t = static_cast<float>(channel_value(d[x], c)) * keep +
                                    static_cast<float>(channel_value(s[x], c));
                    if constexpr (is_float_pixel_v<Pixel>) {
                        set_channel(d[x], c, t);
                    } else {
                        set_channel(d[x], c, detail::truncate_wrapping<Channel>(t + 0.5f));
                    }
                }
            }
        }
    });
}

#define WEFTMAP_INSTANTIATE_MASKS(P)                                                  \
    template WEFTMAP_API void copy_pixels_masked(ConstView<P> const&, View<P> const&, \
                                                 ConstGrayView const&);

}  // namespace WM
