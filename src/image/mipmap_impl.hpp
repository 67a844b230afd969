// Generic mip-map, instantiated per channel depth in mipmap_*.cpp.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>
#include <weftmap/image/mipmap.hpp>
#include <weftmap/image/resample.hpp>

#include <cstdint>

namespace WM {
namespace detail {

// Exact 2-to-1 reduction of `parent` into `level`: each output pixel is the
// mean of the 2x2 block at the mapped position, rounded half up for integer
// channels. For odd parent sides the last row or column is not read.
template <class Pixel>
void reduce_level(ConstView<Pixel> const& parent, View<Pixel> const& level) {
    std::int64_t const pw = parent.width();
    std::int64_t const ph = parent.height();
    std::int64_t const w = level.width();
    std::int64_t const h = level.height();
    // Rows are independent.
    parallel_rows(0, static_cast<int>(h), w, [&](BlockedRange const& rows) {
        for (std::int64_t y = rows.begin(); y < rows.end(); ++y) {
            std::int64_t const sy = (ph * y) / h;
            auto const r0 = parent.row_begin(sy);
            auto const r1 = parent.row_begin(sy + 1);
            auto const out = level.row_begin(y);
            for (std::int64_t x = 0; x < w; ++x) {
                std::int64_t const sx = (pw * x) / w;
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    if constexpr (is_float_pixel_v<Pixel>) {
                        // Summed left to right in single precision, in this order.
                        float const v = 0.25f * channel_value(r0[sx + 1], c) +
                                        0.25f * channel_value(r0[sx], c) +
                                        0.25f * channel_value(r1[sx], c) +
                                        0.25f * channel_value(r1[sx + 1], c);
                        set_channel(out[x], c, v);
                    } else {
                        std::uint32_t const sum =
                            std::uint32_t{channel_value(r0[sx], c)} + channel_value(r0[sx + 1], c) +
                            channel_value(r1[sx], c) + channel_value(r1[sx + 1], c) + 2u;
                        set_channel(out[x], c, static_cast<channel_base_t<Pixel>>(sum >> 2));
                    }
                }
            }
        }
    });
}

}  // namespace detail

template <class Pixel>
void MipMap<Pixel>::preallocate(Point const& dims) {
    uses_source_view = true;
    levels.resize(static_cast<std::size_t>(mipmap_level_count(dims)));
    Point size = dims;
    for (std::size_t i = 0; i < levels.size(); ++i, size = Point(size.x / 2, size.y / 2)) {
        if (i == 0) continue;  // the source stands for level 0
        levels[i].unlock();
        levels[i].recreate(size);
        levels[i].lock();
    }
}

template <class Pixel>
void MipMap<Pixel>::build(ConstView<Pixel> const& view_of_source) {
    if (levels.empty()) {
        levels.resize(static_cast<std::size_t>(mipmap_level_count(view_of_source.dimensions())));
    } else if (!uses_source_view) {
        raise("MipMap: Inconsistent preallocation memory settings");
    }
    uses_source_view = true;
    source = view_of_source;

    // A count taken from a larger preallocation stays; the smallest levels of
    // a smaller source then come out empty.
    Point size = source.dimensions();
    for (std::size_t i = 0; i < levels.size(); ++i, size = Point(size.x / 2, size.y / 2)) {
        if (i == 0) continue;
        levels[i].recreate(size);
        ConstView<Pixel> const parent = i == 1 ? source : const_view(levels[i - 1]);
        detail::reduce_level(parent, view(levels[i]));
    }
}

template <class Pixel>
void MipMap<Pixel>::get(RecycledImage<Pixel>& dst, long long width, long long height) const {
    if (levels.empty())
        raise("WEFTMAP_INTERNAL_ERROR: MipMap::get: the pyramid has no levels; build it first");
    // The source view stands for level 0 and gives the aspect ratio.
    ConstView<Pixel> const base = uses_source_view ? source : const_view(levels[0]);
    if (base.width() < 1 || base.height() < 1)
        raise("WEFTMAP_INTERNAL_ERROR: MipMap::get: no source has been built (%dx%d)",
              static_cast<long long>(base.width()), static_cast<long long>(base.height()));
    double const w0 = static_cast<double>(base.width());
    double const h0 = static_cast<double>(base.height());
    if (width >= 0) {
        if (height < 0) height = static_cast<long long>(width / w0 * h0 + 0.5);
    } else {
        width = static_cast<long long>(height / h0 * w0 + 0.5);
    }
    if (width < 1 || height < 1) raise("resample(): Zero or negative dimension.\n");

    std::size_t index = 0;
    while (index + 1 < levels.size() && levels[index + 1].width() >= width &&
           levels[index + 1].height() >= height)
        ++index;
    ConstView<Pixel> const parent = index == 0 ? base : const_view(levels[index]);
    resample_core(parent, dst, width, height, ResampleBilinear);
}

template <class Pixel>
void MipMap<Pixel>::clear() {
    std::vector<RecycledImage<Pixel>>().swap(levels);
    source = ConstView<Pixel>();
    uses_source_view = false;
}

#define WEFTMAP_INSTANTIATE_MIPMAP(P) template class WEFTMAP_API MipMap<P>;

}  // namespace WM
