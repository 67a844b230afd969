// Carries a correspondence field from one level to the next larger one.
// Instantiated per depth in upsample_*.cpp.
#pragma once

#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include "correspondence/relaxed_access.hpp"

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>

namespace WM {
namespace detail {

// The linear map between the positions of an axis of `to` pixels and one of
// `from` pixels: factor (from - 1) / (to - 1) and offset
// (to - from) * 0.5 / (to - 1). An axis of one pixel has no span to scale
// by, so it maps unscaled instead of dividing by zero.
struct AxisMap {
    double factor;
    double offset;
};

inline AxisMap axis_map(std::ptrdiff_t from, std::ptrdiff_t to) {
    if (to == 1) return AxisMap{1.0, 0.0};
    double const span = static_cast<double>(to - 1);
    return AxisMap{static_cast<double>(from - 1) / span,
                   static_cast<double>(to - from) * 0.5 / span};
}

// trunc(v) limited to lo..hi, with not-a-number taken as lo.
inline int clamped_trunc(double v, int lo, int hi) {
    if (!(v >= lo)) return lo;
    if (v >= hi) return hi;
    return static_cast<int>(v);
}

// The neighbours a filling pass looks at, in order (left, right, upper,
// lower), with the source step that continues each one's match.
struct FillStep {
    int dx, dy, shift_x, shift_y;
};
constexpr FillStep fill_steps[4] = {{-1, 0, 1, 0}, {1, 0, -1, 0}, {0, -1, 0, 1}, {0, 1, 0, -1}};

inline void check_mask_size(ConstGrayView const* mask, Point const& size, char const* what) {
    if (mask != nullptr && mask->dimensions() != size)
        raise("WEFTMAP_INTERNAL_ERROR:upsample_field2: %s size (%dx%d) != expected (%dx%d)", what,
              static_cast<long long>(mask->width()), static_cast<long long>(mask->height()),
              static_cast<long long>(size.x), static_cast<long long>(size.y));
}

}  // namespace detail

template <class Compare>
void WeftmapRecomposer<Compare>::upsample_field2(
    OffsetView const& old_field, Point const& new_target_size, Point const& old_source_size,
    Point const& new_source_size, RecycledImage<offset_pixel_t>& new_field,
    RegionMasks const* tmask, ConstGrayView const* prev_tmask, ConstGrayView const*,
    ConstGrayView const* tmask_view, ConstGrayView const* smask_view) {
    int const w = this->patch_w;
    double const half = w * 0.5;
    std::ptrdiff_t const ow = old_field.width();
    std::ptrdiff_t const oh = old_field.height();
    std::ptrdiff_t const nw = new_target_size.x;
    std::ptrdiff_t const nh = new_target_size.y;
    std::ptrdiff_t const tw = new_source_size.x;
    std::ptrdiff_t const th = new_source_size.y;
    detail::check_mask_size(tmask_view, new_target_size, "tmask");
    detail::check_mask_size(prev_tmask, old_field.dimensions(), "prev_tmask");
    detail::check_mask_size(smask_view, new_source_size, "smask");

    // New target position to old, and old source position to new.
    detail::AxisMap const mx = detail::axis_map(ow, nw);
    detail::AxisMap const my = detail::axis_map(oh, nh);
    detail::AxisMap const sx = detail::axis_map(new_source_size.x, old_source_size.x);
    detail::AxisMap const sy = detail::axis_map(new_source_size.y, old_source_size.y);
    int const last_px = static_cast<int>(std::max<std::ptrdiff_t>(tw - w, 0));
    int const last_py = static_cast<int>(std::max<std::ptrdiff_t>(th - w, 0));

    Box rect{0, 0, static_cast<std::int32_t>(std::max<std::ptrdiff_t>(nw - w + 1, 0)),
             static_cast<std::int32_t>(std::max<std::ptrdiff_t>(nh - w + 1, 0))};
    if (tmask != nullptr) {
        Box const free_box = get_abox(w, new_target_size, tmask);
        if (!free_box.empty()) rect = free_box;
    }

    this->_validnn_buf.recreate(rect.size());
    GrayView const validnn = view(this->_validnn_buf);
    gil::fill_pixels(validnn, gray8_pixel_t(0));
    new_field.recreate(new_target_size);
    OffsetView const out = view(new_field);
    gil::fill_pixels(out, offset_pixel_t(0, 0));

    auto const frozen = [&](std::ptrdiff_t x, std::ptrdiff_t y) {
        return tmask_view != nullptr && (*tmask_view)(x, y)[0] != 0;
    };
    auto const forbidden = [&](int px, int py) {
        return smask_view != nullptr && (*smask_view)(px, py)[0] != 0;
    };
    auto const mark = [&](std::ptrdiff_t x, std::ptrdiff_t y) -> unsigned char& {
        return validnn(x - rect.xmin, y - rect.ymin)[0];
    };

    // Every position maps on its own: rows run in parallel.
    std::atomic<long long> missing{0};
    parallel_rows(rect.ymin, rect.ymax, rect.xmax - rect.xmin, [&](BlockedRange const& rows) {
        long long unmapped = 0;
        for (std::ptrdiff_t y = rows.begin(); y < rows.end(); ++y)
            for (std::ptrdiff_t x = rect.xmin; x < rect.xmax; ++x) {
                if (frozen(x, y)) continue;
                double const oxd = std::trunc((x + half) * mx.factor + 0.5 + mx.offset - half);
                double const oyd = std::trunc((y + half) * my.factor + 0.5 + my.offset - half);
                if (oxd < 0 || oyd < 0 || oxd > static_cast<double>(ow - w) ||
                    oyd > static_cast<double>(oh - w)) {
                    ++unmapped;
                    continue;
                }
                auto const ox = static_cast<std::ptrdiff_t>(oxd);
                auto const oy = static_cast<std::ptrdiff_t>(oyd);
                // What the truncation to a whole old position lost, in new pixels.
                double const rx =
                    mx.factor != 0.0 ? x - ((ox + half - mx.offset) / mx.factor - half) : 0.0;
                double const ry =
                    my.factor != 0.0 ? y - ((oy + half - my.offset) / my.factor - half) : 0.0;
                if (prev_tmask != nullptr && (*prev_tmask)(ox, oy)[0] != 0) {
                    ++unmapped;
                    continue;
                }
                offset_pixel_t const f = old_field(ox, oy);
                int const px = detail::clamped_trunc(
                    (static_cast<int>(f[0]) + half) * sx.factor + 0.5 + sx.offset - half + rx, 0,
                    last_px);
                int const py = detail::clamped_trunc(
                    (static_cast<int>(f[1]) + half) * sy.factor + 0.5 + sy.offset - half + ry, 0,
                    last_py);
                if (forbidden(px, py)) {
                    ++unmapped;
                    continue;
                }
                out(x, y) = offset_pixel_t(static_cast<unsigned short>(px),
                                           static_cast<unsigned short>(py));
                mark(x, y) = 255;
            }
        missing.fetch_add(unmapped, std::memory_order_relaxed);
    });
    OutputDebugChecksum("upsample_field2 validnn: ", validnn);
    if (missing.load() == 0) return;

    // Each pass grows the known area by one pixel, continuing a neighbour's
    // match as a coherent copy would. A pass writes marks below the ones it
    // reads, so what it fills cannot feed it again.
    // An old axis of one pixel has no scale: its passes are bounded by the
    // early stop below.
    auto const inverse = [](double f) { return f != 0.0 ? 1.0 / f : 1e9; };
    double const pass_count =
        std::trunc(half * 5.0 * std::max(inverse(mx.factor), inverse(my.factor)));
    if (!(pass_count >= 1.0)) return;
    long long const passes = pass_count > 1e9 ? 1000000000LL : static_cast<long long>(pass_count);
    // A pass reads only marks above its own, which it never writes: its
    // rows run in parallel. A neighbour's mark may be written by another
    // row as it is read (from 0 to the pass's mark, both of which mean "not
    // yet"), hence the relaxed accesses.
    auto const mark_of = [&](std::ptrdiff_t x, std::ptrdiff_t y) {
        return relaxed_load(mark(x, y));
    };
    for (long long p = 1; p <= passes; ++p) {
        auto const m = static_cast<unsigned char>(std::max(255LL - p, 1LL));
        std::atomic<long long> unfilled{0};
        std::atomic<long long> filled{0};
        parallel_rows(rect.ymin, rect.ymax, rect.xmax - rect.xmin, [&](BlockedRange const& rows) {
            long long open = 0, done_here = 0;
            for (std::ptrdiff_t y = rows.begin(); y < rows.end(); ++y)
                for (std::ptrdiff_t x = rect.xmin; x < rect.xmax; ++x) {
                    if (frozen(x, y) || mark_of(x, y) != 0) continue;
                    bool done = false;
                    for (detail::FillStep const& s : detail::fill_steps) {
                        std::ptrdiff_t const nx = x + s.dx;
                        std::ptrdiff_t const ny = y + s.dy;
                        if (nx < rect.xmin || nx >= rect.xmax || ny < rect.ymin || ny >= rect.ymax)
                            continue;
                        if (mark_of(nx, ny) <= m) continue;
                        offset_pixel_t const f = out(nx, ny);
                        int const fx = f[0];
                        int const fy = f[1];
                        int const qx = fx + s.shift_x;
                        int const qy = fy + s.shift_y;
                        if (qx < 0 || qx > tw - w || qy < 0 || qy > th - w) continue;
                        out(x, y) = forbidden(qx, qy)
                                        ? f
                                        : offset_pixel_t(static_cast<unsigned short>(qx),
                                                         static_cast<unsigned short>(qy));
                        relaxed_store(mark(x, y), m);
                        done = true;
                        break;
                    }
                    if (done)
                        ++done_here;
                    else
                        ++open;
                }
            unfilled.fetch_add(open, std::memory_order_relaxed);
            filled.fetch_add(done_here, std::memory_order_relaxed);
        });
        // A pass that fills nothing leaves the next one the same marks to
        // read, so it would fill nothing either.
        if (unfilled.load() == 0 || filled.load() == 0) break;
    }
}

#define WEFTMAP_INSTANTIATE_UPSAMPLE_FOR(C)                                       \
    template WEFTMAP_API void WeftmapRecomposer<C>::upsample_field2(              \
        OffsetView const&, Point const&, Point const&, Point const&,              \
        RecycledImage<offset_pixel_t>&, RegionMasks const*, ConstGrayView const*, \
        ConstGrayView const*, ConstGrayView const*, ConstGrayView const*);
#define WEFTMAP_INSTANTIATE_UPSAMPLE(P) \
    WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_UPSAMPLE_FOR)

}  // namespace WM
