// The correspondence object and field initialisation, instantiated per depth
// in weftmap_*.cpp.
#pragma once

#include <weftmap/correspondence/random.hpp>
#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>

#include "correspondence/engine_helpers.hpp"
#include "correspondence/expected_position.hpp"
#include "correspondence/patch_kernels.hpp"
#include "frame/wrapping.hpp"

#include <boost/gil/algorithm.hpp>

#include <algorithm>

namespace WM {

template <class Compare>
Weftmap<Compare>::Weftmap(ClientBase<pixel_t>* client) : progress_table(1, 0.0f), client(client) {
    ensure_tail_mask_table();
}

template <class Compare>
Weftmap<Compare>::~Weftmap() = default;

template <class Compare>
void Weftmap<Compare>::report_progress() {
    if (progress_table.empty()) return;
    if (client != nullptr) client->updateProgress(progress_table[progress_cursor]);
    if (progress_cursor + 1 < progress_table.size()) ++progress_cursor;
}

namespace detail {

template <class Compare, bool Vector>
struct init_dist_n_body {
    using pixel_t = typename Compare::pixel_t;
    using distance_type = distance_t<pixel_t>;

    ConstView<pixel_t> const* a;
    ConstView<pixel_t> const* b;
    OffsetView const* nnf;
    View<distance_pixel_t<pixel_t>> const* dist;
    GrayView const* b_mask;
    RegionMasks const* region_masks;
    RegionMasks const* a_mask;
    Compare const* comparator;
    Box box;

    void operator()(BlockedRange const& range) const {
        for (int y = range.begin(); y < range.end(); ++y) {
            for (int x = box.xmin; x < box.xmax; ++x) {
                if (a_mask != nullptr && a_mask->view(x, y)[0] != 0) continue;
                auto const match = (*nnf)(x, y);
                int const sx = match[0];
                int const sy = match[1];
                distance_type d = distance_traits<pixel_t>::sentinel;
                bool const forbidden =
                    (b_mask != nullptr && (*b_mask)(sx, sy)[0] != 0) ||
                    (region_masks != nullptr &&
                     region_masks->view(x, y)[0] != region_masks->view(sx, sy)[0]);
                if (!forbidden) {
                    auto const a_patch = gil::subimage_view(*a, x, y, 7, 7);
                    d = PatchKernel<Compare, Vector>::full(*comparator, a_patch, *b, sx, sy, x, y);
                }
                (*dist)(x, y)[0] = d;
            }
        }
    }
};

}  // namespace detail

template <class Compare>
int Weftmap<Compare>::get_half_search_window(int x, int y, double scale) const {
    return detail::half_search_window_at(half_search_window, hole_max_dist_bound, patch_w,
                                         _distance_view, x, y, scale);
}

template <class Compare>
void Weftmap<Compare>::init_nnf(Point const& a_size, Point const& b_size,
                                RecycledImage<offset_pixel_t>& nnf, RegionMasks* region_masks,
                                RegionMasks* a_mask, SampleRegions const* sample_regions) {
    nnf.recreate(a_size);
    gil::fill_pixels(view(nnf), offset_pixel_t(0, 0));
    auto const bw = static_cast<std::int32_t>(b_size.x - patch_w + 1);
    auto const bh = static_cast<std::int32_t>(b_size.y - patch_w + 1);
    Box const box = get_abox(patch_w, a_size, a_mask);
    if (_distance_view.width != 0 && _distance_view.dimensions() != a_size)
        raise(
            "WEFTMAP_INTERNAL_ERROR: get_half_search_window : _distance_view is not initialized "
            "properly got <%d,%d>, want <%d,%d>",
            static_cast<long long>(_distance_view.width),
            static_cast<long long>(_distance_view.height), static_cast<long long>(a_size.x),
            static_cast<long long>(a_size.y));
    if (region_masks != nullptr) {
        Point const m = region_masks->view.dimensions();
        if (a_size != b_size || a_size != m)
            raise(
                "WEFTMAP_INTERNAL_ERROR:Size differs in init_nnf, with region masks (%dx%d, "
                "%dx%d, %dx%d)",
                static_cast<long long>(a_size.x), static_cast<long long>(a_size.y),
                static_cast<long long>(b_size.x), static_cast<long long>(b_size.y),
                static_cast<long long>(m.x), static_cast<long long>(m.y));
    }

    ExpectedPosition const expected(a_size, b_size, patch_w);
    RandomGenerator& g = global_random();
    auto const& field = view(nnf);
    auto const store = [&](int x, int y, std::int32_t px, std::int32_t py) {
        field(x, y) =
            offset_pixel_t(static_cast<unsigned short>(px), static_cast<unsigned short>(py));
    };
    for (int y = box.ymin; y < box.ymax; ++y) {
        for (int x = box.xmin; x < box.xmax; ++x) {
            if (a_mask != nullptr && a_mask->view(x, y)[0] != 0) continue;
            int const h =
                detail::half_search_window_at(half_search_window, hole_max_dist_bound, patch_w,
                                              _distance_view, x, y, current_scale);
            if (sample_regions == nullptr) {
                if (h == 0) {
                    g.step();
                    store(x, y, draw_in(g.rx(), bw), draw_in(g.ry(), bh));
                } else {
                    int const ex = expected.x(x);
                    int const ey = expected.y(y);
                    int const lox = std::min(ex, h), hix = std::min(bw - ex, h);
                    int const loy = std::min(ey, h), hiy = std::min(bh - ey, h);
                    g.step();
                    store(x, y, static_cast<std::int32_t>(draw_in(g.rx(), lox + hix)) - lox + ex,
                          static_cast<std::int32_t>(draw_in(g.ry(), loy + hiy)) - loy + ey);
                }
                continue;
            }
            int const label = region_masks != nullptr ? region_masks->view(x, y)[0] : 0;
            if (h == 0) {
                field(x, y) = sample_regions->draw(label);
                continue;
            }
            // With sample regions the window is centred on the plain scaled
            // position, without the patch centre and without rounding.
            int const ex = static_cast<int>(static_cast<float>(x) * expected.fx);
            int const ey = static_cast<int>(static_cast<float>(y) * expected.fy);
            int const lox = std::min(ex, h), hix = std::min(bw - ex, h);
            int const loy = std::min(ey, h), hiy = std::min(bh - ey, h);
            bool accepted = false;
            for (int attempt = 0; attempt < 32 && !accepted; ++attempt) {
                g.step();
                std::int32_t const xs =
                    static_cast<std::int32_t>(draw_in(g.rx(), lox + hix)) + ex - lox;
                std::int32_t const ys =
                    static_cast<std::int32_t>(draw_in(g.ry(), loy + hiy)) + ey - loy;
                if (sample_regions->has_excluded_mask &&
                    sample_regions->excluded_mask(xs, ys)[0] != 0)
                    continue;
                if (!sample_regions->has_region_map ||
                    sample_regions->region_map(xs, ys)[0] == label) {
                    store(x, y, xs, ys);
                    accepted = true;
                }
            }
            if (!accepted) field(x, y) = sample_regions->draw(label);
        }
    }
}

template <class Compare>
void Weftmap<Compare>::init_dist(const_image_view_t const& a, const_image_view_t const& b,
                                 OffsetView const& nnf, RecycledImage<distance_pixel>& dist,
                                 GrayView const* b_mask, RegionMasks* region_masks,
                                 RegionMasks* a_mask) {
    if (nnf.dimensions() != a.dimensions())
        raise("WEFTMAP_INTERNAL_ERROR:from_nnf (%dx%d) size != FromImage (%dx%d) size",
              static_cast<long long>(nnf.width()), static_cast<long long>(nnf.height()),
              static_cast<long long>(a.width()), static_cast<long long>(a.height()));
    if (region_masks != nullptr) {
        Point const m = region_masks->view.dimensions();
        if (m != a.dimensions())
            raise("WEFTMAP_INTERNAL_ERROR:region_masks (%dx%d) size != target (%dx%d) size",
                  static_cast<long long>(m.x), static_cast<long long>(m.y),
                  static_cast<long long>(a.width()), static_cast<long long>(a.height()));
        if (m != b.dimensions())
            raise("WEFTMAP_INTERNAL_ERROR:region_masks (%dx%d) size != source (%dx%d) size",
                  static_cast<long long>(m.x), static_cast<long long>(m.y),
                  static_cast<long long>(b.width()), static_cast<long long>(b.height()));
    }
    if (patch_w != 7) raise("WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: %d", patch_w);

    detail::ScopedComparatorImages<Compare> images(comparator, a, b, patch_w, a_mask);
    dist.recreate(a.dimensions());
    gil::fill_pixels(view(dist), distance_pixel(distance_traits<pixel_t>::sentinel));
    Box const box = get_abox(7, a.dimensions(), a_mask);
    auto const run = [&](auto body) {
        parallel_rows(box.ymin, box.ymax, box.xmax - box.xmin, body);
    };
    if (registered_client().useVectorKernels)
        run(detail::init_dist_n_body<Compare, true>{&a, &b, &nnf, &view(dist), b_mask, region_masks,
                                                    a_mask, &comparator, box});
    else
        run(detail::init_dist_n_body<Compare, false>{&a, &b, &nnf, &view(dist), b_mask,
                                                     region_masks, a_mask, &comparator, box});
    images.done();
}

#define WEFTMAP_INSTANTIATE_WEFTMAP_FOR(C) template class WEFTMAP_API Weftmap<C>;
#define WEFTMAP_INSTANTIATE_WEFTMAP(P) WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_WEFTMAP_FOR)

}  // namespace WM
