// Generic hole pre-fill, instantiated per channel depth in roifill_*.cpp.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>
#include <weftmap/image/roifill.hpp>

#include "frame/wrapping.hpp"

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace WM {
namespace detail {

// Rim positions are packed as x | y << 16.
inline std::uint32_t pack_position(std::ptrdiff_t x, std::ptrdiff_t y) {
    return static_cast<std::uint32_t>(x) | (static_cast<std::uint32_t>(y) << 16);
}
inline std::int32_t packed_x(std::uint32_t p) {
    return static_cast<std::int32_t>(p & 0xFFFFu);
}
inline std::int32_t packed_y(std::uint32_t p) {
    return static_cast<std::int32_t>(p >> 16);
}

// The rim pixels inside `search` that may lend their colour (mask >= 180,
// source mask not 0, a 4-neighbour below 255), in depth-first order along
// the contours. Empty when there is nothing to fill from.
std::vector<std::uint32_t> roifill_rim_order(ConstGrayView const& mask, Box const& search,
                                             ConstGrayView const* sourceMask);

// Checks the sizes that the fill relies on and returns the box in which rim
// pixels are looked for: `box` grown by one pixel where the image allows,
// or the whole image.
Box roifill_search_box(Point const& in_dims, Point const& out_dims, ConstGrayView const& mask,
                       ConstGrayView const* sourceMask, Box const* box);

// Narrows to an integer channel by truncation towards zero, wrapping past the
// channel's range instead of clamping. Values no 64-bit integer holds (which
// only degenerate weights produce) become 0.
template <class Channel>
inline Channel truncate_to_channel(double v) {
    if (!(v > -9.0e18 && v < 9.0e18)) return Channel(0);
    return static_cast<Channel>(static_cast<std::uint64_t>(static_cast<std::int64_t>(v)));
}

// Below this many radians from the preferred line a rim pixel counts fully:
// 6 degrees.
constexpr double roifill_max_angle = 0.10471975511965977;
// Until the weights pass this sum, out-of-limit rim pixels still count with
// `roifill_fallback_weight`, so that no pixel stays without a colour.
constexpr double roifill_counted = 1e-7;
constexpr double roifill_fallback_weight = 1e-8;
constexpr double roifill_pi = 3.14159265358979323846;

template <class Pixel>
struct roifill_body {
    View<Pixel> const* in;
    ConstGrayView const* mask;
    View<Pixel> const* out;
    ConstGrayView const* sourceMask;
    std::vector<std::uint32_t> const* order;
    double const* radius;
    double const* angle;

    void operator()(BlockedRange const& range) const {
        constexpr int channels = num_channels_v<Pixel>;
        using Channel = channel_base_t<Pixel>;
        double const r2 = radius != nullptr ? *radius * *radius : 0.0;
        std::int32_t const width = static_cast<std::int32_t>(out->width());
        for (std::int32_t y = range.begin(); y < range.end(); ++y) {
            auto const mask_row = mask->row_begin(y);
            auto const out_row = out->row_begin(y);
            for (std::int32_t x = 0; x < width; ++x) {
                unsigned const m = mask_row[x];
                if (m == 255) continue;
                double colour[channels] = {};
                double wsum = 0.0;
                for (std::uint32_t const p : *order) {
                    std::int32_t const bx = packed_x(p);
                    std::int32_t const by = packed_y(p);
                    std::int32_t const dx = x - bx;
                    std::int32_t const dy = y - by;
                    std::int32_t const d2 = wrap_add(wrap_mul(dx, dx), wrap_mul(dy, dy));
                    double w;
                    if (radius != nullptr && d2 > 2.0 * r2) {
                        if (wsum > roifill_counted) continue;
                        w = roifill_fallback_weight;
                    } else if (angle != nullptr && off_direction(dx, dy) > roifill_max_angle) {
                        if (wsum > roifill_counted) continue;
                        w = roifill_fallback_weight;
                    } else {
                        w = d2 == 0 ? 1.0 : 1.0 / d2;
                    }
                    auto const& source = (*in)(bx, by);
                    for (int c = 0; c < channels; ++c) colour[c] += channel_value(source, c) * w;
                    // Only the weight sum sees the source mask, after the colour:
                    // a partial source mask brightens the result.
                    if (sourceMask != nullptr) w *= (*sourceMask)(bx, by)[0] / 255.0;
                    wsum += w;
                }
                if (wsum == 0.0 || order->empty()) wsum = 1.0;
                double const inv = 1.0 / wsum;
                auto& target = out_row[x];
                // A partial pixel already holds its known share: add the rest.
                float const alpha = static_cast<float>((255 - m) / 255.0);
                for (int c = 0; c < channels; ++c) {
                    double const v = m == 0 ? colour[c] * inv
                                            : alpha * inv * colour[c] + channel_value(target, c);
                    if constexpr (is_float_pixel_v<Pixel>) {
                        set_channel(target, c, static_cast<Channel>(v));
                    } else {
                        set_channel(target, c, truncate_to_channel<Channel>(v));
                    }
                }
            }
        }
    }

    // Angular distance of (dx, dy) from the undirected line through `angle`.
    double off_direction(std::int32_t dx, std::int32_t dy) const {
        double const a =
            std::fabs(std::atan2(static_cast<double>(dy), static_cast<double>(dx)) - *angle);
        return std::min(a, std::fabs(a - roifill_pi));
    }
};

// Scales a pixel by `factor`; integer channels round half up.
template <class Pixel>
inline void scale_pixel(Pixel& p, float factor) {
    using Channel = channel_base_t<Pixel>;
    for (int c = 0; c < num_channels_v<Pixel>; ++c) {
        float const v = factor * static_cast<float>(channel_value(p, c));
        if constexpr (is_float_pixel_v<Pixel>) {
            set_channel(p, c, v);
        } else {
            set_channel(p, c, static_cast<Channel>(static_cast<std::int64_t>(v + 0.5f)));
        }
    }
}

template <class Pixel>
void copy_unless_same(View<Pixel> const& in, View<Pixel> const& out) {
    if (in.width() > 0 && in.height() > 0 && &in(0, 0) == &out(0, 0) &&
        in.pixels().row_size() == out.pixels().row_size())
        return;
    gil::copy_pixels(in, out);
}

}  // namespace detail

template <class Pixel>
void roifill(View<Pixel> const& in, ConstGrayView const& mask, View<Pixel> const& out,
             Box const* box, ConstGrayView const* sourceMask, double const* radius,
             double const* angle) {
    Box const search =
        detail::roifill_search_box(in.dimensions(), out.dimensions(), mask, sourceMask, box);
    detail::copy_unless_same(in, out);
    std::vector<std::uint32_t> const order = detail::roifill_rim_order(mask, search, sourceMask);
    if (order.empty()) return;
    parallel_rows(0, static_cast<int>(out.height()), out.width(),
                  detail::roifill_body<Pixel>{&in, &mask, &out, sourceMask, &order, radius, angle});
}

template <class Pixel>
void blackfill(View<Pixel> const& image, ConstGrayView const& mask, bool invert) {
    if (mask.dimensions() != image.dimensions())
        raise("WEFTMAP_INTERNAL_ERROR: blackfill: mask size (%dx%d) != image size (%dx%d)",
              static_cast<long long>(mask.width()), static_cast<long long>(mask.height()),
              static_cast<long long>(image.width()), static_cast<long long>(image.height()));
    // Rows are independent.
    parallel_rows(
        0, static_cast<int>(image.height()), image.width(), [&](BlockedRange const& rows) {
            for (std::ptrdiff_t y = rows.begin(); y < rows.end(); ++y) {
                auto const row = image.row_begin(y);
                auto const mask_row = mask.row_begin(y);
                for (std::ptrdiff_t x = 0; x < image.width(); ++x) {
                    unsigned const m = mask_row[x];
                    if (!invert && m != 0)
                        detail::scale_pixel(row[x], 1.0f - static_cast<float>(m) / 255.0f);
                    else if (invert && m < 255)
                        detail::scale_pixel(row[x], 1.0f - static_cast<float>(255 - m) / 255.0f);
                }
            }
        });
}

template <class Pixel>
void blackfill(View<Pixel> const& in, ConstGrayView const& mask, View<Pixel> const& out) {
    // Reported with the same words as roifill.
    if (in.width() != out.width() || in.height() != out.height())
        raise("roifill_subsamples: in and out sizes must match");
    if (mask.dimensions() != in.dimensions())
        raise("WEFTMAP_INTERNAL_ERROR: blackfill: mask size (%dx%d) != image size (%dx%d)",
              static_cast<long long>(mask.width()), static_cast<long long>(mask.height()),
              static_cast<long long>(in.width()), static_cast<long long>(in.height()));
    detail::copy_unless_same(in, out);
    blackfill(out, mask, false);
}

#define WEFTMAP_INSTANTIATE_ROIFILL(P)                                                         \
    template WEFTMAP_API void roifill(View<P> const&, ConstGrayView const&, View<P> const&,    \
                                      Box const*, ConstGrayView const*, double const*,         \
                                      double const*);                                          \
    template WEFTMAP_API void blackfill(View<P> const&, ConstGrayView const&, View<P> const&); \
    template WEFTMAP_API void blackfill(View<P> const&, ConstGrayView const&, bool);

}  // namespace WM
