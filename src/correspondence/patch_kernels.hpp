// The distance kernels: what the field initialisation, the search and the
// field minimisation compute per candidate. A target patch is given as a 7x7
// view whose origin is the patch, the source as the whole image and the
// position of the candidate in it.
//
// Translate kernels come in two forms. The scalar form tests the bound after
// every pixel, the vector form after every patch row; since a sum never
// falls, both give the same integer result. Float distances differ in unit:
// the scalar kernels count a float channel like an 8-bit one (times 65025),
// the vector kernels return the plain sum. A pass uses one form throughout.
//
// Bounded kernels start their accumulator at -best and give up with the
// sentinel as soon as it rises above zero; a candidate exactly at `best`
// comes back as that number. No kernel allocates.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/image/pixel_types.hpp>

#include "correspondence/patch_kernels_avx2.hpp"
#include "correspondence/patch_kernels_portable.hpp"
#include "frame/cpu_features.hpp"
#include "frame/wrapping.hpp"

#if defined(__SSE2__)
#include "correspondence/patch_kernels_sse2.hpp"
#endif

#include <cstddef>
#include <type_traits>

namespace WM {
namespace kernels {

// The patch width that every kernel is built for.
constexpr int patch_size = 7;

#if defined(__SSE2__)
template <class Pixel>
using VectorRowDistance = kernels_sse2::RowDistance<Pixel>;
#else
template <class Pixel>
using VectorRowDistance = kernels_portable::RowDistance<Pixel>;
#endif

// A patch as a first byte and a row stride.
template <class Pixel>
struct PatchRows {
    using channel = channel_base_t<Pixel>;

    unsigned char const* origin;
    std::ptrdiff_t stride;

    channel const* row(int r) const {
        return reinterpret_cast<channel const*>(origin + r * stride);
    }
};

template <class Pixel>
inline PatchRows<Pixel> patch_rows(ConstView<Pixel> const& view, int x, int y) {
    return {reinterpret_cast<unsigned char const*>(view.row_begin(y) + x),
            view.pixels().row_size()};
}

// Issued before any arithmetic: the start of every row of both patches,
// without keeping the lines in the outer caches.
template <class Pixel>
inline void prefetch_patches(PatchRows<Pixel> const& a, PatchRows<Pixel> const& b) {
    for (int r = 0; r < patch_size; ++r) {
        __builtin_prefetch(a.origin + r * a.stride, 0, 0);
        __builtin_prefetch(b.origin + r * b.stride, 0, 0);
    }
}

// Accumulator steps; integers wrap rather than overflow.
template <class D>
inline D negated(D best) {
    if constexpr (std::is_floating_point_v<D>) {
        return -best;
    } else {
        return wrap_sub(D(0), best);
    }
}
template <class D>
inline D accumulate(D acc, D contribution) {
    if constexpr (std::is_floating_point_v<D>) {
        return acc + contribution;
    } else {
        return wrap_add(acc, contribution);
    }
}

// Squared difference of one pixel, summed over its channels. Float pixels
// count in 8-bit units: gray as d * 65025 * d, colour as the channel sum
// times 65025.
template <class Pixel>
inline distance_t<Pixel> pixel_distance(channel_base_t<Pixel> const* a,
                                        channel_base_t<Pixel> const* b) {
    using D = distance_t<Pixel>;
    constexpr int channels = num_channels_v<Pixel>;
    if constexpr (is_float_pixel_v<Pixel>) {
        if constexpr (channels == 1) {
            float const d = a[0] - b[0];
            return d * 65025.0f * d;
        } else {
            float sum = (a[0] - b[0]) * (a[0] - b[0]);
            for (int c = 1; c < channels; ++c) sum += (a[c] - b[c]) * (a[c] - b[c]);
            return sum * 65025.0f;
        }
    } else {
        D sum = 0;
        for (int c = 0; c < channels; ++c) {
            D const d = static_cast<D>(a[c]) - static_cast<D>(b[c]);
            sum += d * d;
        }
        return sum;
    }
}

template <class Pixel, class Row>
inline distance_t<Pixel> translate_distance_rows(ConstView<Pixel> const& a_patch,
                                                 ConstView<Pixel> const& b, int x, int y) {
    auto const pa = patch_rows(a_patch, 0, 0);
    auto const pb = patch_rows(b, x, y);
    prefetch_patches(pa, pb);
    Row const row;
    distance_t<Pixel> sum = 0;
    for (int r = 0; r < patch_size; ++r) sum += row(pa.row(r), pb.row(r));
    return sum;
}

template <class Pixel, class Row>
inline distance_t<Pixel> translate_distance_bounded_rows(ConstView<Pixel> const& a_patch,
                                                         ConstView<Pixel> const& b, int x, int y,
                                                         distance_t<Pixel> best) {
    auto const pa = patch_rows(a_patch, 0, 0);
    auto const pb = patch_rows(b, x, y);
    prefetch_patches(pa, pb);
    Row const row;
    distance_t<Pixel> acc = negated(best);
    for (int r = 0; r < patch_size; ++r) {
        acc = accumulate(acc, row(pa.row(r), pb.row(r)));
        if (acc > 0) return distance_traits<Pixel>::sentinel;
    }
    return accumulate(acc, best);
}

// Adjusted source value minus target value, squared: integer channels
// truncate the residual before squaring, float channels count in 8-bit units.
template <class Pixel>
inline distance_t<Pixel> gain_bias_contribution(channel_base_t<Pixel> a, channel_base_t<Pixel> s,
                                                GainBias const& gb) {
    using D = distance_t<Pixel>;
    float const adjusted = static_cast<float>(s) * gb.g * 0.00390625f + gb.o;
    if constexpr (is_float_pixel_v<Pixel>) {
        float const d = a - adjusted;
        return d * 65025.0f * d;
    } else {
        D const d = static_cast<D>(static_cast<float>(a) - adjusted);
        return d * d;
    }
}

template <class Pixel>
inline void gain_bias_pairs(GainBiasPatchCompare<Pixel> const& compare, int sx, int sy, int tx,
                            int ty, GainBias* pairs) {
    for (int c = 0; c < num_channels_v<Pixel>; ++c) pairs[c] = compare.gain_bias(tx, ty, sx, sy, c);
}

// A sum of squares cannot be negative; report it should it happen anyway.
[[gnu::cold]] [[gnu::noinline]] inline void report_negative_distance(double distance) {
    debug_log("Weftmap internal error: outdist<0 in gain bias patch compare %f\n", distance);
}

}  // namespace kernels

// Sum of squared differences, tested against nothing.
template <class Pixel>
inline distance_t<Pixel> translate_distance_scalar(ConstView<Pixel> const& a_patch,
                                                   ConstView<Pixel> const& b, int x, int y) {
    using namespace kernels;
    constexpr int channels = num_channels_v<Pixel>;
    auto const pa = patch_rows(a_patch, 0, 0);
    auto const pb = patch_rows(b, x, y);
    prefetch_patches(pa, pb);
    distance_t<Pixel> sum = 0;
    for (int r = 0; r < patch_size; ++r) {
        auto const ra = pa.row(r);
        auto const rb = pb.row(r);
        for (int i = 0; i < patch_size; ++i)
            sum += pixel_distance<Pixel>(ra + i * channels, rb + i * channels);
    }
    return sum;
}

// The same, giving up after the first pixel that takes the sum above `best`.
template <class Pixel>
inline distance_t<Pixel> translate_distance_bounded_scalar(ConstView<Pixel> const& a_patch,
                                                           ConstView<Pixel> const& b, int x, int y,
                                                           distance_t<Pixel> best) {
    using namespace kernels;
    constexpr int channels = num_channels_v<Pixel>;
    auto const pa = patch_rows(a_patch, 0, 0);
    auto const pb = patch_rows(b, x, y);
    prefetch_patches(pa, pb);
    distance_t<Pixel> acc = negated(best);
    for (int r = 0; r < patch_size; ++r) {
        auto const ra = pa.row(r);
        auto const rb = pb.row(r);
        for (int i = 0; i < patch_size; ++i) {
            acc = accumulate(acc, pixel_distance<Pixel>(ra + i * channels, rb + i * channels));
            if (acc > 0) return distance_traits<Pixel>::sentinel;
        }
    }
    return accumulate(acc, best);
}

#if defined(WEFTMAP_AVX2_KERNELS)
// Gives `wide` the rows of both patches, prefetched, as origin and stride
// of each: the form the AVX2 twins take.
template <class Pixel, class Wide>
inline distance_t<Pixel> on_patch_rows(ConstView<Pixel> const& a_patch, ConstView<Pixel> const& b,
                                       int x, int y, Wide const& wide) {
    auto const pa = kernels::patch_rows(a_patch, 0, 0);
    auto const pb = kernels::patch_rows(b, x, y);
    kernels::prefetch_patches(pa, pb);
    return wide(pa.origin, pa.stride, pb.origin, pb.stride);
}
#endif

// Vector forms: whole rows at a time, in the plain float unit. 8-bit colour
// rows take the AVX2 twin where the processor has it: the same sums.
template <class Pixel>
inline distance_t<Pixel> translate_distance_vector(ConstView<Pixel> const& a_patch,
                                                   ConstView<Pixel> const& b, int x, int y) {
#if defined(WEFTMAP_AVX2_KERNELS)
    if constexpr (kernels_avx2::covers<Pixel>) {
        if (cpu_has_avx2())
            return on_patch_rows(a_patch, b, x, y, [](auto... rows) {
                return kernels_avx2::translate_distance<Pixel>(rows...);
            });
    }
#endif
    return kernels::translate_distance_rows<Pixel, kernels::VectorRowDistance<Pixel>>(a_patch, b, x,
                                                                                      y);
}

template <class Pixel>
inline distance_t<Pixel> translate_distance_bounded_vector(ConstView<Pixel> const& a_patch,
                                                           ConstView<Pixel> const& b, int x, int y,
                                                           distance_t<Pixel> best) {
#if defined(WEFTMAP_AVX2_KERNELS)
    if constexpr (kernels_avx2::covers<Pixel>) {
        if (cpu_has_avx2())
            return on_patch_rows(a_patch, b, x, y, [best](auto... rows) {
                return kernels_avx2::translate_distance_bounded<Pixel>(rows..., best);
            });
    }
#endif
    return kernels::translate_distance_bounded_rows<Pixel, kernels::VectorRowDistance<Pixel>>(
        a_patch, b, x, y, best);
}

// Gain/bias distance of source patch (sx, sy) to the target patch a_patch,
// which stands at (tx, ty) in the target.
template <class Pixel>
inline void gain_bias_distance(GainBiasPatchCompare<Pixel> const& compare,
                               ConstView<Pixel> const& a_patch, ConstView<Pixel> const& b, int sx,
                               int sy, int tx, int ty, distance_t<Pixel>& out) {
    using namespace kernels;
    constexpr int channels = num_channels_v<Pixel>;
    auto const pa = patch_rows(a_patch, 0, 0);
    auto const pb = patch_rows(b, sx, sy);
    prefetch_patches(pa, pb);
    GainBias pairs[channels];
    gain_bias_pairs(compare, sx, sy, tx, ty, pairs);
    distance_t<Pixel> sum = 0;
    for (int r = 0; r < patch_size; ++r) {
        auto const ra = pa.row(r);
        auto const rb = pb.row(r);
        for (int i = 0; i < patch_size * channels; i += channels)
            for (int c = 0; c < channels; ++c)
                sum =
                    accumulate(sum, gain_bias_contribution<Pixel>(ra[i + c], rb[i + c], pairs[c]));
    }
    if (sum < 0) report_negative_distance(static_cast<double>(sum));
    out = sum;
}

// The same, testing the bound after every single channel's contribution.
template <class Pixel>
inline void gain_bias_distance_bounded(GainBiasPatchCompare<Pixel> const& compare,
                                       ConstView<Pixel> const& a_patch, ConstView<Pixel> const& b,
                                       int sx, int sy, int tx, int ty, distance_t<Pixel> best,
                                       distance_t<Pixel>& out) {
    using namespace kernels;
    constexpr int channels = num_channels_v<Pixel>;
    auto const pa = patch_rows(a_patch, 0, 0);
    auto const pb = patch_rows(b, sx, sy);
    prefetch_patches(pa, pb);
    GainBias pairs[channels];
    gain_bias_pairs(compare, sx, sy, tx, ty, pairs);
    distance_t<Pixel> acc = negated(best);
    for (int r = 0; r < patch_size; ++r) {
        auto const ra = pa.row(r);
        auto const rb = pb.row(r);
        for (int i = 0; i < patch_size * channels; i += channels) {
            for (int c = 0; c < channels; ++c) {
                acc =
                    accumulate(acc, gain_bias_contribution<Pixel>(ra[i + c], rb[i + c], pairs[c]));
                if (acc > 0) {
                    out = distance_traits<Pixel>::sentinel;
                    return;
                }
            }
        }
    }
    out = accumulate(acc, best);
    if (out < 0) report_negative_distance(static_cast<double>(out));
}

// The one entry that the search, field initialisation and minimisation are
// written against: Vector selects the translate kernel's form; the gain/bias
// comparator has the scalar form only.
template <class Compare, bool Vector>
struct PatchKernel {
    using pixel_t = typename Compare::pixel_t;
    using distance_type = distance_t<pixel_t>;

    static distance_type full(Compare const&, ConstView<pixel_t> const& a_patch,
                              ConstView<pixel_t> const& b, int sx, int sy, int, int) {
        if constexpr (Vector) {
            return translate_distance_vector<pixel_t>(a_patch, b, sx, sy);
        } else {
            return translate_distance_scalar<pixel_t>(a_patch, b, sx, sy);
        }
    }
    static distance_type bounded(Compare const&, ConstView<pixel_t> const& a_patch,
                                 ConstView<pixel_t> const& b, int sx, int sy, int, int,
                                 distance_type best) {
        if constexpr (Vector) {
            return translate_distance_bounded_vector<pixel_t>(a_patch, b, sx, sy, best);
        } else {
            return translate_distance_bounded_scalar<pixel_t>(a_patch, b, sx, sy, best);
        }
    }
};

template <class Pixel, bool Vector>
struct PatchKernel<GainBiasPatchCompare<Pixel>, Vector> {
    using pixel_t = Pixel;
    using distance_type = distance_t<pixel_t>;

    static distance_type full(GainBiasPatchCompare<Pixel> const& compare,
                              ConstView<pixel_t> const& a_patch, ConstView<pixel_t> const& b,
                              int sx, int sy, int tx, int ty) {
        distance_type d;
        gain_bias_distance(compare, a_patch, b, sx, sy, tx, ty, d);
        return d;
    }
    static distance_type bounded(GainBiasPatchCompare<Pixel> const& compare,
                                 ConstView<pixel_t> const& a_patch, ConstView<pixel_t> const& b,
                                 int sx, int sy, int tx, int ty, distance_type best) {
        distance_type d;
        gain_bias_distance_bounded(compare, a_patch, b, sx, sy, tx, ty, best, d);
        return d;
    }
};

}  // namespace WM
