// The recomposer's patch masks, target weights and hole measures.
// Instantiated per depth in hole_measures_*.cpp.
#pragma once

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>
#include <weftmap/recomposer/hole_measures.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include "recomposer/hole_geometry.hpp"

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace WM {
namespace detail {

// The bytes of row y of a mask view.
inline unsigned char* mask_row(GrayView const& mask, std::ptrdiff_t y) {
    return reinterpret_cast<unsigned char*>(&*mask.row_begin(y));
}

// Writes `value` at every patch corner of `mask` whose w x w patch holds a
// marked pixel: corners (x - w + 1 .. x, y - w + 1 .. y) of each marked (x, y),
// clipped to the mask, exactly as marking pixel by pixel would. Separable:
// each pixel row is reduced to "a mark in [x, x + w - 1]" once, into a ring of
// w rows, and a corner row is the OR of the ring. Bands of corner rows run in
// parallel. `mark_row(y, hits)` sets hits[x] to 1 for the marked pixels of
// row y and leaves the others. The loops run on plain byte pointers so that
// they vectorise.
template <class MarkRow>
void mark_covering_corners(GrayView const& mask, int w, unsigned char value,
                           MarkRow const& mark_row) {
    int const width = static_cast<int>(mask.width());
    int const height = static_cast<int>(mask.height());
    if (width <= 0 || height <= 0) return;
    int const grain = std::max(grain_for_width(width), 4 * w);
    parallel_range(
        0, height, grain,
        [&mask, &mark_row, cols = width, height, pw = w, mark = value](BlockedRange const& rows) {
            // Locals, not captures: byte stores could alias a capture.
            int const width = cols, w = pw;
            unsigned char const value = mark;
            auto const columns = static_cast<std::size_t>(static_cast<unsigned>(width));
            std::size_t const span = columns + static_cast<unsigned>(w);
            std::vector<unsigned char> buffer(span * static_cast<std::size_t>(w + 2));
            // Past the last column the hits stay 0, so windows need no clipping.
            unsigned char* const hits = buffer.data();
            unsigned char* const any = hits + span;
            unsigned char* const ring = any + span;
            auto const reduce_row = [&](int y) {
                unsigned char* const out = ring + static_cast<std::size_t>(y % w) * span;
                if (y >= height) {
                    std::fill(out, out + columns, 0);
                    return;
                }
                std::fill(hits, hits + span, 0);
                mark_row(y, hits);
                std::copy(hits, hits + columns, out);
                for (int i = 1; i < w; ++i)
                    for (int x = 0; x < width; ++x) out[x] |= hits[x + i];
            };
            for (int y = rows.begin(); y < rows.begin() + w - 1; ++y) reduce_row(y);
            for (int cy = rows.begin(); cy < rows.end(); ++cy) {
                reduce_row(cy + w - 1);
                std::copy(ring, ring + columns, any);
                for (int k = 1; k < w; ++k) {
                    unsigned char const* const r = ring + static_cast<std::size_t>(k) * span;
                    for (int x = 0; x < width; ++x) any[x] |= r[x];
                }
                unsigned char* const row = mask_row(mask, cy);
                for (int x = 0; x < width; ++x) {
                    auto const keep = static_cast<unsigned char>(any[x] != 0 ? 0 : 0xFF);
                    row[x] = static_cast<unsigned char>((row[x] & keep) | (value & ~keep));
                }
            }
        });
}

// Gives every pixel that `needs_patch(x, y)` picks a free real patch corner
// (0) among the corners covering it, freeing its first corner when none is.
// Pixels are taken in raster order and see the corners freed before them.
// A row first finds, from the corners free at its start, the pixels that are
// surely covered (freeing only adds free corners), and looks at the rest one
// by one.
template <class NeedsPatch>
void free_a_patch_for_every_pixel(GrayView const& tmask, int w, NeedsPatch const& needs_patch) {
    int const width = static_cast<int>(tmask.width());
    int const height = static_cast<int>(tmask.height());
    int const last_x = width - w;
    int const last_y = height - w;
    if (last_x < 0 || last_y < 0) return;
    std::vector<unsigned char> columns(static_cast<std::size_t>(last_x + 1));
    unsigned char* const free_column = columns.data();
    auto const covered_exactly = [&](int x0, int y0, int x1, int y1) {
        for (int yy = y0; yy <= y1; ++yy) {
            unsigned char const* const row = mask_row(tmask, yy);
            for (int xx = x0; xx <= x1; ++xx)
                if (row[xx] == 0) return true;
        }
        return false;
    };
    for (int y = 0; y < height; ++y) {
        int const y0 = std::max(y - w + 1, 0);
        int const y1 = std::min(y, last_y);
        if (y0 > y1) continue;
        std::fill(free_column, free_column + last_x + 1, 0);
        for (int yy = y0; yy <= y1; ++yy) {
            unsigned char const* const row = mask_row(tmask, yy);
            for (int xx = 0; xx <= last_x; ++xx) free_column[xx] |= row[xx] == 0;
        }
        int last_free = -w;  // the last free column at or before min(x, last_x)
        for (int x = 0; x < width; ++x) {
            if (x <= last_x && free_column[x] != 0) last_free = x;
            if (!needs_patch(x, y)) continue;
            int const x0 = std::max(x - w + 1, 0);
            int const x1 = std::min(x, last_x);
            if (x0 > x1 || last_free >= x0) continue;
            if (!covered_exactly(x0, y0, x1, y1)) {
                tmask(x0, y0)[0] = 0;
                free_column[x0] = 1;
                last_free = std::max(last_free, x0);
            }
        }
    }
}

// Fills the last `count` rows and columns of `mask` with 255.
inline void close_last_rows_and_columns(GrayView const& mask, int count) {
    std::ptrdiff_t const w = mask.width();
    std::ptrdiff_t const h = mask.height();
    std::ptrdiff_t const first_x = std::max<std::ptrdiff_t>(w - count, 0);
    std::ptrdiff_t const first_y = std::max<std::ptrdiff_t>(h - count, 0);
    for (std::ptrdiff_t y = 0; y < h; ++y) {
        auto const row = mask.row_begin(y);
        std::ptrdiff_t const from = y >= first_y ? 0 : first_x;
        for (std::ptrdiff_t x = from; x < w; ++x) row[x][0] = 255;
    }
}

// base to the power `exponent` by repeated squaring.
inline double power_by_squaring(double base, unsigned exponent) {
    double result = 1.0;
    for (;;) {
        if ((exponent & 1u) != 0) result *= base;
        exponent >>= 1;
        if (exponent == 0) return result;
        base *= base;
    }
}

}  // namespace detail

template <class Compare>
void WeftmapRecomposer<Compare>::calculate_masks(Point const& target_size,
                                                 Point const& source_size) {
    int const w = this->patch_w;
    bool const hole_here = this->hole_arg != nullptr && target_size == this->hole_view.dimensions();
    GrayView const& hole = this->hole_view;

    this->_tmask.recreate(target_size);
    GrayView const tmask = this->_tmask.view;
    gil::fill_pixels(tmask, gray8_pixel_t(255));

    // Not even one patch fits: nothing may be sampled and nothing changes.
    if (source_size.x < w - 1 || source_size.y < w - 1) {
        this->_smask_buf.recreate(source_size);
        gil::fill_pixels(view(this->_smask_buf), gray8_pixel_t(255));
        this->_tmask.update_boxes(w);
        return;
    }
    this->_smask_buf.recreate(source_size);
    GrayView const smask = view(this->_smask_buf);
    gil::fill_pixels(smask, gray8_pixel_t(0));

    if (!hole_here) {
        gil::fill_pixels(tmask, gray8_pixel_t(0));
    } else {
        int const width = static_cast<int>(hole.width());
        detail::mark_covering_corners(tmask, w, 0, [&hole, width](int y, unsigned char* hits) {
            unsigned char const* const h = detail::mask_row(hole, y);
            int const n = width;  // a local: byte stores could alias the capture
            for (int x = 0; x < n; ++x) hits[x] |= h[x] != 255;
        });
    }

    GrayView const& constraint = this->tconstraint_mask_view;
    if (constraint.width() != 0 && constraint.height() != 0) {
        if (constraint.dimensions() != target_size)
            raise(
                "WEFTMAP_INTERNAL_ERROR:Can't calculate masks: target size (%dx%d) != "
                "target_constraint mask size (%dx%d)",
                static_cast<long long>(target_size.x), static_cast<long long>(target_size.y),
                static_cast<long long>(constraint.width()),
                static_cast<long long>(constraint.height()));
        if (constraint.dimensions() != hole.dimensions())
            raise(
                "WEFTMAP_INTERNAL_ERROR:Can't calculate masks: hole size (%dx%d) != "
                "target_constraint mask size (%dx%d)",
                static_cast<long long>(hole.width()), static_cast<long long>(hole.height()),
                static_cast<long long>(constraint.width()),
                static_cast<long long>(constraint.height()));
        // Fixed pixels outside the hole freeze every patch that touches them.
        int const width = static_cast<int>(constraint.width());
        detail::mark_covering_corners(
            tmask, w, 255, [&constraint, &hole, hole_here, width](int y, unsigned char* hits) {
                unsigned char const* const c = detail::mask_row(constraint, y);
                int const n = width;  // a local: byte stores could alias the capture
                if (!hole_here) {
                    for (int x = 0; x < n; ++x) hits[x] |= c[x] != 255;
                    return;
                }
                unsigned char const* const h = detail::mask_row(hole, y);
                for (int x = 0; x < n; ++x) hits[x] |= (c[x] != 255) & (h[x] == 255);
            });
    }

    if (hole_here) {
        // Every hole pixel keeps at least one patch to synthesise. Only real
        // patch corners count: the last w - 1 rows and columns are closed
        // below, and a 0 there would leave the pixel uncovered.
        detail::free_a_patch_for_every_pixel(tmask, w,
                                             [&](int x, int y) { return hole(x, y)[0] != 255; });
    }

    GrayView const& valid = this->valid_view;
    if (valid.width() != 0 && valid.height() != 0) {
        if (valid.dimensions() != source_size)
            raise(
                "WEFTMAP_INTERNAL_ERROR:Can't calculate masks: source size (%dx%d) != valid mask "
                "size (%dx%d)",
                static_cast<long long>(source_size.x), static_cast<long long>(source_size.y),
                static_cast<long long>(valid.width()), static_cast<long long>(valid.height()));
        int const width = static_cast<int>(valid.width());
        detail::mark_covering_corners(smask, w, 255, [&valid, width](int y, unsigned char* hits) {
            unsigned char const* const v = detail::mask_row(valid, y);
            int const n = width;
            for (int x = 0; x < n; ++x) hits[x] |= v[x] != 255;
        });
    }

    // No whole patch fits below or right of these corners.
    detail::close_last_rows_and_columns(tmask, w - 1);
    detail::close_last_rows_and_columns(smask, w - 1);
    this->_tmask.update_boxes(w);
}

template <class Compare>
void WeftmapRecomposer<Compare>::get_hole_properties() {
    ConstGrayView const hole(this->hole_view);
    Box const box = hole_bounding_box(hole);
    DistanceInsetView const distance =
        fill_hole_distance(hole, box, this->_dist_buf, this->patch_w, nullptr);
    long long count = 0;
    std::int32_t largest = 0;
    for (std::int32_t y = box.ymin; y < box.ymax; ++y)
        for (std::int32_t x = box.xmin; x < box.xmax; ++x) {
            std::int32_t const d = distance(x, y)[0];
            if (d >= 1) ++count;
            largest = std::max(largest, d);
        }
    auto const area = static_cast<std::int32_t>(
        std::min<long long>(count, std::numeric_limits<std::int32_t>::max()));
    this->hole_area = area;
    this->hole_max_dist_bound = largest - this->patch_w / 2;

    if (this->half_search_window == -500) {
        // A compact hole (distance bound near the radius of a disc of the
        // same area) gets a wide window, a thin one a narrow window.
        std::int32_t const bound = this->hole_max_dist_bound;
        double const r = std::sqrt(static_cast<double>(area)) * 0.56419 / std::max(bound, 1) - 0.9;
        double const v =
            std::trunc(std::pow(std::max(r, 0.01), -2.0) * (bound * 0.5) + bound * 4.5 + 25.0);
        this->half_search_window = static_cast<std::int32_t>(v * 0.5);
        debug_log("hole_max_dist_bound =  %d\n", bound);
        debug_log("hole_area =  %d\n", area);
        debug_log("half_search_window =  %d\n", this->half_search_window);
    }
}

template <class Compare>
WeightInsetView WeftmapRecomposer<Compare>::compute_weights(ConstGrayView const& hole, RegionMasks*,
                                                            RecycledImage<weight_pixel_t>& weights,
                                                            ConstGrayView const* tconstraint_mask) {
    Box const hole_box = hole_bounding_box(hole);
    Box const box = detail::grow_and_clip(hole_box, this->patch_w / 2, hole.dimensions());
    weights.recreate(box.size());
    WeightInsetView result(view(weights), hole.dimensions(), box.min_corner());
    if (!weigh_hole) {
        gil::fill_pixels(view(weights), weight_pixel_t(1.0f));
        result.set_default(weight_pixel_t(1.0f));
        return result;
    }
    // The distance rectangle is the hole box grown the same way, so it
    // covers the weights exactly.
    hole_weight(hole, hole_box, result, tconstraint_mask);
    return result;
}

template <class Compare>
void WeftmapRecomposer<Compare>::hole_weight(ConstGrayView const& hole, Box const& box,
                                             WeightInsetView& weights,
                                             ConstGrayView const* tconstraint_mask) {
    if (hole.dimensions() != weights.dimensions())
        raise(
            "WEFTMAP_INTERNAL_ERROR:hole_weight masks differ: target_mask size (%dx%d) != output "
            "size (%dx%d)",
            static_cast<long long>(hole.width()), static_cast<long long>(hole.height()),
            static_cast<long long>(weights.width), static_cast<long long>(weights.height));
    if (tconstraint_mask != nullptr && tconstraint_mask->dimensions() != weights.dimensions())
        raise(
            "WEFTMAP_INTERNAL_ERROR:hole_weight masks differ: tconstraint_mask size (%dx%d) != "
            "output size (%dx%d)",
            static_cast<long long>(tconstraint_mask->width()),
            static_cast<long long>(tconstraint_mask->height()),
            static_cast<long long>(weights.width), static_cast<long long>(weights.height));
    double const gamma = current_hole_gamma;
    // gamma 1 has no finite step, and gamma at or below 0 no meaning.
    double const log_gamma = gamma > 0.0 ? std::log(gamma) : 0.0;
    double const steps = log_gamma != 0.0 ? -(std::log(0.27) / log_gamma) : 0.0;
    if (log_gamma == 0.0 || !(std::fabs(steps) < 1e6))
        raise("WEFTMAP_INVALID_PARAMETERS:hole_gamma %f is not supported", gamma);

    DistanceInsetView const distance =
        fill_hole_distance(hole, box, this->_dist_buf, this->patch_w, tconstraint_mask);
    OutputDebugChecksum("hole_weight bd: ", distance.data);

    // The step at half a patch is close to 1 / 0.27 for any gamma.
    auto const shift = static_cast<std::int32_t>(steps);
    std::int32_t const half = this->patch_w / 2;
    double const known = 1e30;
    double const floor = 1.1754943508222875e-28;
    weights.set_default(weight_pixel_t(static_cast<float>(known)));
    for (std::ptrdiff_t y = weights.ymin; y < weights.ymax; ++y)
        for (std::ptrdiff_t x = weights.xmin; x < weights.xmax; ++x) {
            std::int32_t const d = distance(x, y)[0];
            double w = known;
            if (d != 0) {
                long long const e = static_cast<long long>(d) + (d > half ? shift : 0);
                double const p =
                    detail::power_by_squaring(gamma, static_cast<unsigned>(e < 0 ? -e : e));
                w = known * (e < 0 ? p : 1.0 / p);
                if (w < floor) w = floor;
            }
            weights.at(x, y)[0] = static_cast<float>(w);
        }
    this->_distance_view = distance;
}

#define WEFTMAP_INSTANTIATE_HOLE_MEASURES_FOR(C)                                                   \
    template WEFTMAP_API void WeftmapRecomposer<C>::calculate_masks(Point const&, Point const&);   \
    template WEFTMAP_API void WeftmapRecomposer<C>::get_hole_properties();                         \
    template WEFTMAP_API WeightInsetView WeftmapRecomposer<C>::compute_weights(                    \
        ConstGrayView const&, RegionMasks*, RecycledImage<weight_pixel_t>&, ConstGrayView const*); \
    template WEFTMAP_API void WeftmapRecomposer<C>::hole_weight(                                   \
        ConstGrayView const&, Box const&, WeightInsetView&, ConstGrayView const*);
#define WEFTMAP_INSTANTIATE_HOLE_MEASURES(P) \
    WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_HOLE_MEASURES_FOR)

}  // namespace WM
