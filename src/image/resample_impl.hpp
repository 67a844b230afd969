// Generic resampling, instantiated per channel depth in resample_*.cpp.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>
#include <weftmap/image/resample.hpp>

#include "frame/wrapping.hpp"

#include <boost/gil/algorithm.hpp>

#include <cstdint>

namespace WM {
namespace detail {

// round(v) of the size rule: truncation of v + 0.5.
inline long long round_size(double v) {
    return static_cast<long long>(v + 0.5);
}

// Corner-aligned nearest neighbour: no half-pixel offset.
template <class Pixel>
struct resample_core_nearest_body {
    ConstView<Pixel> const* src;
    View<Pixel> const* dst;
    std::int32_t width;
    std::int32_t height;

    void operator()(BlockedRange const& range) const {
        long long const src_w = src->width();
        long long const src_h = src->height();
        for (int y = range.begin(); y < range.end(); ++y) {
            auto const sy = (src_h * y) / height;
            auto const src_row = src->row_begin(sy);
            auto const dst_row = dst->row_begin(y);
            for (long long x = 0; x < width; ++x) dst_row[x] = src_row[(src_w * x) / width];
        }
    }
};

// 16.16 fixed point for integer channels, 32-bit wrap-around throughout.
struct FixedPointPosition {
    std::int32_t index;
    std::int32_t fraction;
};

inline FixedPointPosition clamp_position(std::int32_t t, long long src_side) {
    FixedPointPosition p{t >> 16, t & 0xFFFF};
    auto const last = static_cast<std::int32_t>(src_side - 2);
    if (p.index > last) {
        p.index = last;
        p.fraction = 0xFFFF;
    } else if (p.index < 0) {
        p.index = 0;
        p.fraction = 0;
    }
    return p;
}

// a + (((b - a) * f) >> 16) narrowed to the channel; the product is a 32-bit
// signed multiplication that may wrap for 16-bit channels.
template <class Channel>
inline Channel lerp_fixed(Channel a, Channel b, std::int32_t f) {
    auto const diff = static_cast<std::int32_t>(b) - static_cast<std::int32_t>(a);
    auto const step = wrap_mul(diff, f) >> 16;
    return static_cast<Channel>(wrap_add(static_cast<std::int32_t>(a), step));
}

template <class Pixel, bool IsFloat = is_float_pixel_v<Pixel>>
struct resample_core_bilinear_body {
    ConstView<Pixel> const* src;
    RecycledImage<Pixel>* dst;
    std::int32_t width;
    std::int32_t height;

    void operator()(BlockedRange const& range) const {
        using Channel = channel_base_t<Pixel>;
        auto const src_w = static_cast<std::int32_t>(src->width());
        auto const src_h = static_cast<std::int32_t>(src->height());
        auto const& out = view(*dst);
        for (int y = range.begin(); y < range.end(); ++y) {
            std::int32_t const t =
                wrap_sub(wrap_mul(wrap_add(wrap_shl(y, 16), 0x8000) / height, src_h), 0x8000);
            auto const row = clamp_position(t, src_h);
            auto const r0 = src->row_begin(row.index);
            auto const r1 = src->row_begin(row.index + 1);
            std::int32_t u = wrap_sub(wrap_shl(src_w, 15) / width, 0x8000);
            std::int32_t const step = wrap_shl(src_w, 16) / width;
            auto const out_row = out.row_begin(y);
            for (std::int32_t x = 0; x < width; ++x, u = wrap_add(u, step)) {
                auto const col = clamp_position(u, src_w);
                auto const& a = r0[col.index];
                auto const& b = r0[col.index + 1];
                auto const& c = r1[col.index];
                auto const& d = r1[col.index + 1];
                for (int k = 0; k < num_channels_v<Pixel>; ++k) {
                    Channel const top =
                        lerp_fixed<Channel>(channel_value(a, k), channel_value(b, k), col.fraction);
                    Channel const bottom =
                        lerp_fixed<Channel>(channel_value(c, k), channel_value(d, k), col.fraction);
                    set_channel(out_row[x], k, lerp_fixed<Channel>(top, bottom, row.fraction));
                }
            }
        }
    }
};

// The same shape in single precision. Truncation goes towards zero, so the
// float filter extrapolates slightly at the top and left when enlarging.
struct FloatPosition {
    int index;
    float fraction;
};

inline FloatPosition clamp_position(float v, long long src_side) {
    FloatPosition p{static_cast<int>(v), 0.0f};
    p.fraction = v - static_cast<float>(p.index);
    auto const last = static_cast<int>(src_side - 2);
    if (p.index > last) {
        p.index = last;
        p.fraction = 0.9999847412109375f;
    } else if (p.index < 0) {
        p.index = 0;
        p.fraction = 0.0f;
    }
    return p;
}

template <class Pixel>
struct resample_core_bilinear_body<Pixel, true> {
    ConstView<Pixel> const* src;
    RecycledImage<Pixel>* dst;
    std::int32_t width;
    std::int32_t height;

    void operator()(BlockedRange const& range) const {
        auto const src_w = static_cast<float>(src->width());
        auto const src_h = static_cast<float>(src->height());
        auto const& out = view(*dst);
        for (int y = range.begin(); y < range.end(); ++y) {
            float const v =
                ((static_cast<float>(y) + 0.5f) / static_cast<float>(height)) * src_h - 0.5f;
            auto const row = clamp_position(v, src->height());
            auto const r0 = src->row_begin(row.index);
            auto const r1 = src->row_begin(row.index + 1);
            float u = (src_w * 0.5f) / static_cast<float>(width) - 0.5f;
            float const step = src_w / static_cast<float>(width);
            auto const out_row = out.row_begin(y);
            for (std::int32_t x = 0; x < width; ++x, u += step) {
                auto const col = clamp_position(u, src->width());
                auto const& a = r0[col.index];
                auto const& b = r0[col.index + 1];
                auto const& c = r1[col.index];
                auto const& d = r1[col.index + 1];
                for (int k = 0; k < num_channels_v<Pixel>; ++k) {
                    float const top = (channel_value(b, k) - channel_value(a, k)) * col.fraction +
                                      channel_value(a, k);
                    float const bottom =
                        (channel_value(d, k) - channel_value(c, k)) * col.fraction +
                        channel_value(c, k);
                    set_channel(out_row[x], k, (bottom - top) * row.fraction + top);
                }
            }
        }
    }
};

}  // namespace detail

template <class Pixel>
void resample_core(ConstView<Pixel> const& src, RecycledImage<Pixel>& dst, long long width,
                   long long height, ResampleMode mode) {
    dst.recreate(Point(width, height));
    if (width == src.width() && height == src.height()) {
        gil::copy_pixels(src, view(dst));
        return;
    }
    auto const w = static_cast<std::int32_t>(width);
    auto const h = static_cast<std::int32_t>(height);
    // The bilinear filter reads two rows and two columns, nearest one.
    long long const min_side = mode == ResampleBilinear ? 2 : 1;
    if ((mode == ResampleNearest || mode == ResampleBilinear) &&
        (src.width() < min_side || src.height() < min_side))
        raise("WEFTMAP_INTERNAL_ERROR:resample(): source %dx%d too small for filter %d",
              static_cast<long long>(src.width()), static_cast<long long>(src.height()),
              static_cast<int>(mode));
    switch (mode) {
        case ResampleNearest:
            parallel_rows(0, h, w,
                          detail::resample_core_nearest_body<Pixel>{&src, &view(dst), w, h});
            return;
        case ResampleBilinear:
            parallel_rows(0, h, w, detail::resample_core_bilinear_body<Pixel>{&src, &dst, w, h});
            return;
    }
    raise("WEFTMAP_INTERNAL_ERROR:resample(): Bad filter (%d)", static_cast<int>(mode));
}

template <class Pixel>
void resample(ConstView<Pixel> const& src, RecycledImage<Pixel>& dst, long long width,
              long long height, ResampleMode mode, int short_side) {
    double const src_w = static_cast<double>(src.width());
    double const src_h = static_cast<double>(src.height());
    if (short_side > 0 && src_h <= src_w) {
        height = short_side;
        width = detail::round_size(height / src_h * src_w);
    } else {
        if (short_side > 0) {
            width = short_side;
            height = -1;
        }
        if (width >= 0) {
            if (height < 0) height = detail::round_size(width / src_w * src_h);
        } else {
            width = detail::round_size(height / src_h * src_w);
        }
    }
    if (width < 1 || height < 1)
        raise("WEFTMAP_INTERNAL_ERROR:resample(): Zero or negative dimension.\n");
    resample_core(src, dst, width, height, mode);
}

template <class Pixel>
void resample(ConstView<Pixel> const& src, RecycledImage<Pixel>& dst, Point const& dims,
              ResampleMode mode, int short_side) {
    resample(src, dst, dims.x, dims.y, mode, short_side);
}

#define WEFTMAP_INSTANTIATE_RESAMPLE(P)                                                        \
    template WEFTMAP_API void resample_core(ConstView<P> const&, RecycledImage<P>&, long long, \
                                            long long, ResampleMode);                          \
    template WEFTMAP_API void resample(ConstView<P> const&, RecycledImage<P>&, long long,      \
                                       long long, ResampleMode, int);                          \
    template WEFTMAP_API void resample(ConstView<P> const&, RecycledImage<P>&, Point const&,   \
                                       ResampleMode, int);

}  // namespace WM
