// The field search: propagation and random search in parallel horizontal
// bands. Instantiated per depth in search_*.cpp.
#pragma once

#include <weftmap/correspondence/random.hpp>
#include <weftmap/correspondence/search.hpp>
#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>
#include <weftmap/image/masks.hpp>

#include "correspondence/abort_watch.hpp"
#include "correspondence/engine_helpers.hpp"
#include "correspondence/expected_position.hpp"
#include "correspondence/patch_kernels.hpp"
#include "correspondence/relaxed_access.hpp"
#include "frame/wrapping.hpp"

#include <boost/gil/algorithm.hpp>

#include <atomic>
#include <cstdlib>

namespace WM {
namespace detail {

template <class Pixel>
using square_sum_t = std::conditional_t<is_float_pixel_v<Pixel>, float, distance_t<Pixel>>;

// Sum over all channels of (a - b) squared, in the distance type.
template <class Pixel>
inline distance_t<Pixel> squared_difference(Pixel const& a, Pixel const& b) {
    using D = distance_t<Pixel>;
    D sum = 0;
    for (int c = 0; c < num_channels_v<Pixel>; ++c) {
        D const d = static_cast<D>(channel_value(a, c)) - static_cast<D>(channel_value(b, c));
        sum = wrap_add(sum, wrap_mul(d, d));
    }
    return sum;
}

template <class Compare, bool Vector>
struct search_n_body {
    using pixel_t = typename Compare::pixel_t;
    using distance_type = distance_t<pixel_t>;
    using Kernel = PatchKernel<Compare, Vector>;
    // The incremental rule needs exact sums: integer channels and a
    // comparator whose distance moves with the patch.
    static constexpr bool incremental =
        !is_float_pixel_v<pixel_t> && !is_gain_bias_compare_v<Compare>;

    int band_count;
    ConstView<pixel_t> const* a;
    ConstView<pixel_t> const* b;
    OffsetView const* nnf;
    View<distance_pixel_t<pixel_t>> const* dist;
    RegionMasks const* a_mask;
    GrayView const* b_mask;
    ConstGrayView const* patch_mask;
    RegionMasks const* region_masks;
    std::vector<Box> const* bands;
    bool forward;
    int b_x_bound;  // b.x - 7
    int b_y_bound;  // b.y - 7
    int rs_iters_whole;
    double rs_iters_fraction;
    int start_radius;
    Weftmap<Compare> const* owner;
    Compare const* comparator;
    std::uint32_t w;
    std::uint32_t z;
    std::atomic<bool>* abort_flag;

    void operator()(BlockedRange const& r) const {
        if (r.empty()) {
            poll_abort();
            return;
        }
        Pass pass{*this,
                  RandomGenerator{w, z},
                  search_radius_ratio(owner->rs_ratio),
                  ExpectedPosition(a->dimensions(), b->dimensions(), owner->patch_w),
                  r.begin() == 0 && r.end() == band_count,
                  {owner->client, abort_flag}};
        if (forward) {
            for (int i = r.begin(); i < r.end() && !pass.watch.stop_after(0); ++i)
                pass.band((*bands)[i]);
        } else {
            for (int i = r.end() - 1; i >= r.begin() && !pass.watch.stop_after(0); --i)
                pass.band((*bands)[i]);
        }
        if (pass.watch.stop_after(0)) return;  // the flag is up already
        poll_abort();
    }

    void poll_abort() const {
        bool const abort = owner->client != nullptr && owner->client->checkAbort();
        abort_flag->store(abort, std::memory_order_relaxed);
    }

    // The state of one task: its own generator words, run on through all
    // bands of its range.
    struct Pass {
        search_n_body const& s;
        RandomGenerator g;
        int ratio;
        ExpectedPosition expected;
        bool all_bands;
        AbortWatch<ClientBase<pixel_t>> watch;

        void band(Box const& box) {
            int const dx = s.forward ? 1 : -1;
            int const y0 = s.forward ? box.ymin : box.ymax - 1;
            int const y1 = s.forward ? box.ymax : box.ymin - 1;
            int const x0 = s.forward ? box.xmin : box.xmax - 1;
            int const x1 = s.forward ? box.xmax : box.xmin - 1;
            for (int y = y0; y != y1; y += dx) {
                int const ey = expected.y(y);
                for (int x = x0; x != x1; x += dx) {
                    pixel(x, y, dx, ey);
                    if (watch.stop_after(1)) return;
                }
            }
        }

        bool frozen(int x, int y) const {
            return s.a_mask != nullptr && s.a_mask->view(x, y)[0] != 0;
        }
        bool source_forbidden(int cx, int cy, int label) const {
            return (s.b_mask != nullptr && (*s.b_mask)(cx, cy)[0] != 0) ||
                   (s.region_masks != nullptr && s.region_masks->view(cx, cy)[0] != label);
        }
        static bool outside_window(int h, int ex, int ey, int cx, int cy) {
            return h != 0 && (std::abs(ex - cx) >= h || std::abs(ey - cy) >= h);
        }

        distance_type bounded(int x, int y, int cx, int cy, distance_type best) const {
            auto const a_patch = gil::subimage_view(*s.a, x, y, 7, 7);
            if (s.patch_mask == nullptr)
                return Kernel::bounded(*s.comparator, a_patch, *s.b, cx, cy, x, y, best);
            return masked_bounded(a_patch, x, y, cx, cy, best);
        }

        // Compares copies of both patches taken through the patch mask.
        distance_type masked_bounded(ConstView<pixel_t> const& a_patch, int x, int y, int cx,
                                     int cy, distance_type best) const {
            if constexpr (is_gain_bias_compare_v<Compare>) {
                raise("WEFTMAP_NOT_IMPLEMENTED");
            } else {
                // Spare pixels behind the 7x7 patch allow 16-byte loads.
                pixel_t a_copy[7 * 7 + 16] = {};
                pixel_t b_copy[7 * 7 + 16] = {};
                auto const a_view = gil::interleaved_view(7, 7, a_copy, 7 * sizeof(pixel_t));
                auto const b_view = gil::interleaved_view(7, 7, b_copy, 7 * sizeof(pixel_t));
                copy_pixels_masked(a_patch, a_view, *s.patch_mask);
                copy_pixels_masked(gil::subimage_view(*s.b, cx, cy, 7, 7), b_view, *s.patch_mask);
                return Kernel::bounded(*s.comparator, ConstView<pixel_t>(a_view),
                                       ConstView<pixel_t>(b_view), 0, 0, x, y, best);
            }
        }

        // Distance of offset (cx, cy) at (x, y) from the neighbour's stored
        // distance: one column (or row) of the patch enters, one leaves.
        distance_type incremental_horizontal(int x, int y, int cx, int cy, int dx,
                                             distance_type dn) const {
            int const enter_a = dx > 0 ? x + 6 : x, enter_b = dx > 0 ? cx + 6 : cx;
            int const leave_a = dx > 0 ? x - 1 : x + 7, leave_b = dx > 0 ? cx - 1 : cx + 7;
            distance_type d = dn;
            for (int j = 0; j < 7; ++j) {
                d = wrap_add(d,
                             squared_difference((*s.a)(enter_a, y + j), (*s.b)(enter_b, cy + j)));
                d = wrap_sub(d,
                             squared_difference((*s.a)(leave_a, y + j), (*s.b)(leave_b, cy + j)));
            }
            return d;
        }

        distance_type incremental_vertical(int x, int y, int cx, int cy, int dy,
                                           distance_type dn) const {
            int const enter_a = dy > 0 ? y + 6 : y, enter_b = dy > 0 ? cy + 6 : cy;
            int const leave_a = dy > 0 ? y - 1 : y + 7, leave_b = dy > 0 ? cy - 1 : cy + 7;
            auto const a_enter = s.a->row_begin(enter_a) + x, a_leave = s.a->row_begin(leave_a) + x;
            auto const b_enter = s.b->row_begin(enter_b) + cx,
                       b_leave = s.b->row_begin(leave_b) + cx;
            distance_type d = dn;
            for (int i = 0; i < 7; ++i) {
                d = wrap_add(d, squared_difference(a_enter[i], b_enter[i]));
                d = wrap_sub(d, squared_difference(a_leave[i], b_leave[i]));
            }
            return d;
        }

        void pixel(int x, int y, int dx, int ey) {
            if (frozen(x, y)) return;
            int const label = s.region_masks != nullptr ? s.region_masks->view(x, y)[0] : 0;
            offset_pixel_t const best = relaxed_load((*s.nnf)(x, y));
            int bx = best[0], by = best[1];
            distance_type bd = relaxed_load((*s.dist)(x, y))[0];
            if (bd == 0) return;

            Weftmap<Compare> const& o = *s.owner;
            int const h = half_search_window_at(o.half_search_window, o.hole_max_dist_bound,
                                                o.patch_w, o._distance_view, x, y, o.current_scale);
            int const ex = expected.x(x);

            // A candidate from a neighbour that the scan has just visited.
            auto const consider = [&](int nx, int ny, int cx, int cy, auto distance_of) {
                if (cx == bx && cy == by) return;
                if (cx < 0 || cx >= s.b->width() - 6 || cy < 0 || cy >= s.b->height() - 6) return;
                if (source_forbidden(cx, cy, label) || frozen(nx, ny)) return;
                if (outside_window(h, ex, ey, cx, cy)) return;
                distance_type const d = distance_of();
                if (d < bd) {
                    bx = cx;
                    by = cy;
                    bd = d;
                }
            };

            if (o.do_propagate) {
                bool has_horizontal = false;
                int hx = 0, hy = 0;
                int const nx = x - dx;
                if (nx >= 0 && nx < s.nnf->width() - 7) {
                    offset_pixel_t const n = relaxed_load((*s.nnf)(nx, y));
                    hx = n[0] + dx;
                    hy = n[1];
                    has_horizontal = true;
                    consider(nx, y, hx, hy, [&] {
                        if constexpr (incremental)
                            return incremental_horizontal(x, y, hx, hy, dx,
                                                          relaxed_load((*s.dist)(nx, y))[0]);
                        else
                            return bounded(x, y, hx, hy, bd);
                    });
                }
                int const ny = y - dx;
                if (ny >= 0 && ny < s.nnf->height() - 7) {
                    offset_pixel_t const n = relaxed_load((*s.nnf)(x, ny));
                    int const vx = n[0], vy = n[1] + dx;
                    if (!(has_horizontal && vx == hx && vy == hy)) {
                        consider(x, ny, vx, vy, [&] {
                            if constexpr (incremental) {
                                if (all_bands)
                                    return incremental_vertical(x, y, vx, vy, dx,
                                                                relaxed_load((*s.dist)(x, ny))[0]);
                            }
                            return bounded(x, y, vx, vy, bd);
                        });
                    }
                }
            }

            random_search(x, y, h, ex, ey, label, bx, by, bd);

            relaxed_store((*s.nnf)(x, y), offset_pixel_t(static_cast<unsigned short>(bx),
                                                         static_cast<unsigned short>(by)));
            relaxed_store((*s.dist)(x, y), distance_pixel_t<pixel_t>(bd));
        }

        void random_search(int x, int y, int h, int ex, int ey, int label, int& bx, int& by,
                           distance_type& bd) {
            g.step();
            int tries = s.rs_iters_whole;
            if (s.rs_iters_fraction > 1.0 - static_cast<double>(g.r()) * 2.3283064376228985e-10)
                tries = s.rs_iters_whole + 1;
            int radius = s.start_radius;
            if (h != 0) radius = std::min(2 * h, radius);
            int const rs_min = s.owner->rs_min;
            while (radius >= rs_min) {
                for (int t = 0; t < tries; ++t) {
                    if (watch.stop_after(1)) return;
                    int const xlo = std::max(bx - radius, 0);
                    int const xhi = std::min(bx + radius + 1, s.b_x_bound);
                    int const ylo = std::max(by - radius, 0);
                    int const yhi = std::min(by + radius + 1, s.b_y_bound);
                    g.step();
                    int const xp = static_cast<int>(draw_in(g.rx(), xhi - xlo) +
                                                    static_cast<std::uint32_t>(xlo));
                    int const yp = static_cast<int>(draw_in(g.ry(), yhi - ylo) +
                                                    static_cast<std::uint32_t>(ylo));
                    if (outside_window(h, ex, ey, xp, yp)) continue;
                    if (xp == bx && yp == by) continue;
                    if (source_forbidden(xp, yp, label)) continue;
                    distance_type const d = bounded(x, y, xp, yp, bd);
                    if (d < bd) {
                        bx = xp;
                        by = yp;
                        bd = d;
                    }
                }
                radius = wrap_mul(radius, ratio) >> 16;
            }
        }
    };
};

}  // namespace detail

template <class Compare>
void Weftmap<Compare>::search(const_image_view_t const& a, const_image_view_t const& b,
                              OffsetView const& nnf, distance_view_t const& dist,
                              RegionMasks* a_mask, GrayView const* b_mask,
                              ConstGrayView const* patch_mask, int, int, int start_iteration,
                              RegionMasks* region_masks) {
    detail::ScopedComparatorImages<Compare> images(comparator, a, b, patch_w, a_mask);
    if (patch_w != 7) raise("WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: %d", patch_w);

    Box const box = get_abox(7, a.dimensions(), a_mask);
    int band_count = static_cast<std::int32_t>(registered_client().threadCount);
    std::vector<Box> const bands = search_bands(box, band_count);
    band_count = static_cast<int>(bands.size());

    int const whole = static_cast<int>(rs_iters);
    double const fraction = rs_iters - static_cast<double>(whole);
    int const start_radius =
        std::min(static_cast<int>(std::max(b.width(), b.height())), static_cast<int>(rs_max));
    // A schedule that never shrinks below rs_min would never end.
    int const ratio = search_radius_ratio(rs_ratio);
    if (start_radius >= rs_min && (rs_min < 1 || ratio >= 65536))
        raise(
            "WEFTMAP_INVALID_PARAMETERS:Random search radius never shrinks: rs_ratio %f rs_min %d",
            rs_ratio, rs_min);

    std::atomic<bool> abort_flag{false};
    for (int i = 0; i < nn_iters; ++i) {
        bool const forward = (start_iteration + i) % 2 == 0;
        RandomGenerator const words = global_random();
        abort_flag.store(false);
        auto const run = [&](auto body) { parallel_range(0, band_count, 1, body); };
        auto const body = [&](auto vector) {
            return detail::search_n_body<Compare, decltype(vector)::value>{
                band_count,
                &a,
                &b,
                &nnf,
                &dist,
                a_mask,
                b_mask,
                patch_mask,
                region_masks,
                &bands,
                forward,
                static_cast<int>(b.width() - 7),
                static_cast<int>(b.height() - 7),
                whole,
                fraction,
                start_radius,
                this,
                &comparator,
                words.w,
                words.z,
                &abort_flag};
        };
        if (registered_client().useVectorKernels)
            run(body(std::true_type()));
        else
            run(body(std::false_type()));
        if (abort_flag.load()) raise("WEFTMAP_USER_CANCELED");
        report_progress();
    }
    images.done();
}

#define WEFTMAP_INSTANTIATE_SEARCH_FOR(C)                                              \
    template WEFTMAP_API void Weftmap<C>::search(                                      \
        ConstView<C::pixel_t> const&, ConstView<C::pixel_t> const&, OffsetView const&, \
        View<distance_pixel_t<C::pixel_t>> const&, RegionMasks*, GrayView const*,      \
        ConstGrayView const*, int, int, int, RegionMasks*);
#define WEFTMAP_INSTANTIATE_SEARCH(P) WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_SEARCH_FOR)

}  // namespace WM
