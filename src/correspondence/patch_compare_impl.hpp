// The out-of-line members of GainBiasPatchCompare, instantiated per channel
// depth in patch_compare_*.cpp.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>

#include <algorithm>
#include <cmath>

namespace WM {
namespace detail {

inline void require_prealloc(bool is_prealloc) {
    if (is_prealloc) return;
    debug_log("Error: is_prealloc is false\n");
    raise("WEFTMAP_INTERNAL_ERROR: gain bias prealloc not called");
}

template <class P>
void reserve_locked(RecycledImage<P>& image, Point const& size) {
    image.unlock();
    image.recreate(size);
    image.lock();
}

}  // namespace detail

template <class Pixel>
void GainBiasPatchCompare<Pixel>::set_timage(ConstView<Pixel> const& a, int patch_w,
                                             RegionMasks* mask) {
    detail::require_prealloc(is_prealloc);
    timage_set = true;
    calc_mu_sigma(a, target_mean, target_deviation, patch_w, mask);
}

template <class Pixel>
void GainBiasPatchCompare<Pixel>::set_simage(ConstView<Pixel> const& b, int patch_w) {
    detail::require_prealloc(is_prealloc);
    simage_set = true;
    calc_mu_sigma(b, source_mean, source_deviation, patch_w, nullptr);
}

template <class Pixel>
void GainBiasPatchCompare<Pixel>::preallocate_buffers(Point const& a, Point const& b, Point const&,
                                                      bool, bool, bool, bool, bool) {
    is_prealloc = true;
    Point const size(std::max(a.x, b.x), std::max(a.y, b.y));
    detail::reserve_locked(target_mean, size);
    detail::reserve_locked(target_deviation, size);
    detail::reserve_locked(source_mean, size);
    detail::reserve_locked(source_deviation, size);
}

template <class Pixel>
void GainBiasPatchCompare<Pixel>::deallocate_buffers() {
    target_mean.deallocate();
    source_mean.deallocate();
    target_deviation.deallocate();
    source_deviation.deallocate();
    is_prealloc = false;
}

template <class Pixel>
void GainBiasPatchCompare<Pixel>::calc_mu_sigma(ConstView<Pixel> const& image,
                                                RecycledImage<Pixel>& mean,
                                                RecycledImage<deviation_t>& deviation, int patch_w,
                                                RegionMasks* mask) {
    using Channel = channel_base_t<Pixel>;
    constexpr int channels = num_channels_v<Pixel>;
    mean.recreate(image.dimensions());
    deviation.recreate(image.dimensions());
    auto const& mean_view = view(mean);
    auto const& deviation_view = view(deviation);
    Box const box = get_abox(patch_w, image.dimensions(), mask);
    double const area = static_cast<double>(patch_w * patch_w);
    for (int y = box.ymin; y < box.ymax; ++y) {
        for (int x = box.xmin; x < box.xmax; ++x) {
            if (mask != nullptr && gil::at_c<0>(mask->view(x, y)) != 0) continue;
            for (int c = 0; c < channels; ++c) {
                double sum = 0.0;
                double sum_sq = 0.0;
                for (int dy = 0; dy < patch_w; ++dy) {
                    auto const row = image.row_begin(y + dy) + x;
                    for (int dx = 0; dx < patch_w; ++dx) {
                        double const v = static_cast<double>(channel_value(row[dx], c));
                        sum += v;
                        sum_sq += v * v;
                    }
                }
                double const mu = sum / area;
                double const mean_sq = sum_sq / area;
                // Truncating mu + 0.5 rounds the integer channels; float
                // channels keep the 0.5 as well.
                set_channel(mean_view(x, y), c, static_cast<Channel>(mu + 0.5));
                double const variance = std::max(mean_sq - mu * mu, 0.0);
                deviation_view(x, y)[c] = std::sqrt(variance);
            }
        }
    }
}

template <class Pixel>
void GainBiasPatchCompare<Pixel>::patch_transform(ConstView<Pixel> const& b, int sx, int sy, int tx,
                                                  int ty, View<Pixel> const& out) const {
    using Channel = channel_base_t<Pixel>;
    constexpr int channels = num_channels_v<Pixel>;
    GainBias pair[channels];
    for (int c = 0; c < channels; ++c) pair[c] = gain_bias(tx, ty, sx, sy, c);
    for (int dy = 0; dy < 7; ++dy) {
        auto const src = b.row_begin(sy + dy) + sx;
        auto const dst = out.row_begin(dy);
        for (int dx = 0; dx < 7; ++dx) {
            for (int c = 0; c < channels; ++c) {
                double v = static_cast<double>(channel_value(src[dx], c)) *
                               static_cast<double>(pair[c].g) * 0.00390625 +
                           static_cast<double>(pair[c].o);
                // The upper clamp is 255 for every channel depth.
                if (v < 0.0) {
                    v = 0.0;
                } else if (v > 255.0) {
                    v = 255.0;
                }
                set_channel(dst[dx], c, static_cast<Channel>(v));
            }
        }
    }
}

#define WEFTMAP_INSTANTIATE_PATCH_COMPARE(P) template class WEFTMAP_API GainBiasPatchCompare<P>;

}  // namespace WM
