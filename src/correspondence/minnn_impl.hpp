// Field minimisation, instantiated per depth in minnn_*.cpp.
#pragma once

#include <weftmap/correspondence/minnn.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>

#include "correspondence/engine_helpers.hpp"
#include "correspondence/patch_kernels.hpp"

namespace WM {
namespace detail {

template <class Compare, bool Vector>
struct minnn_loop {
    using pixel_t = typename Compare::pixel_t;

    ConstView<pixel_t> const* a;
    ConstView<pixel_t> const* b;
    OffsetView const* nnf;
    View<distance_pixel_t<pixel_t>> const* dist;
    OffsetView const* prev_nnf;
    GrayView const* b_mask;
    RegionMasks const* region_masks;
    RegionMasks const* a_mask;
    ConstGrayView const* patch_mask;  // carried, not read
    Box box;
    Compare const* comparator;

    void operator()(BlockedRange const& rows) const {
        for (int y = rows.begin(); y < rows.end(); ++y)
            for (int x = box.xmin; x < box.xmax; ++x) {
                if (a_mask != nullptr && a_mask->view(x, y)[0] != 0) continue;
                auto const d0 = (*dist)(x, y)[0];
                auto const previous = (*prev_nnf)(x, y);
                int const cx = previous[0], cy = previous[1];
                if (cx >= b->width() - 6 || cy >= b->height() - 6) continue;
                if (b_mask != nullptr && (*b_mask)(cx, cy)[0] != 0) continue;
                if (region_masks != nullptr &&
                    region_masks->view(x, y)[0] != region_masks->view(cx, cy)[0])
                    continue;
                auto const d = PatchKernel<Compare, Vector>::bounded(
                    *comparator, gil::subimage_view(*a, x, y, 7, 7), *b, cx, cy, x, y, d0);
                if (d < d0) {
                    (*nnf)(x, y) = previous;
                    (*dist)(x, y)[0] = d;
                }
            }
    }
};

// Swaps in the extra search's budget and restores it on every exit.
template <class Compare>
class ScopedExtraSearch {
public:
    ScopedExtraSearch(Weftmap<Compare>& engine, int nn_iters, int rs_max)
        : engine_(engine), nn_iters_(engine.nn_iters), rs_max_(engine.rs_max) {
        engine_.nn_iters = nn_iters;
        engine_.rs_max = rs_max;
    }
    ~ScopedExtraSearch() {
        engine_.nn_iters = nn_iters_;
        engine_.rs_max = rs_max_;
    }
    ScopedExtraSearch(ScopedExtraSearch const&) = delete;
    ScopedExtraSearch& operator=(ScopedExtraSearch const&) = delete;

private:
    Weftmap<Compare>& engine_;
    int nn_iters_;
    int rs_max_;
};

}  // namespace detail

template <class Compare>
void minnn(Weftmap<Compare>& engine, typename Weftmap<Compare>::const_image_view_t const& a,
           typename Weftmap<Compare>::const_image_view_t const& b, OffsetView const& nnf,
           typename Weftmap<Compare>::distance_view_t const& dist, OffsetView const& prev_nnf,
           GrayView const* b_mask, ConstGrayView const* patch_mask, int level, int iteration,
           RegionMasks* region_masks, RegionMasks* a_mask, int extra_nn_iters, int extra_rs_max) {
    Box const box = get_abox(engine.patch_w, a.dimensions(), a_mask);
    detail::ScopedComparatorImages<Compare> images(engine.comparator, a, b, engine.patch_w, a_mask);
    if (engine.patch_w != 7)
        raise("WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: %d", engine.patch_w);

    auto const run = [&](auto body) {
        parallel_rows(box.ymin, box.ymax, box.xmax - box.xmin, body);
    };
    if (registered_client().useVectorKernels)
        run(detail::minnn_loop<Compare, true>{&a, &b, &nnf, &dist, &prev_nnf, b_mask, region_masks,
                                              a_mask, patch_mask, box, &engine.comparator});
    else
        run(detail::minnn_loop<Compare, false>{&a, &b, &nnf, &dist, &prev_nnf, b_mask, region_masks,
                                               a_mask, patch_mask, box, &engine.comparator});
    images.done();
    OutputDebugChecksum("minnn: simple min: ", nnf);

    detail::ScopedExtraSearch<Compare> extra(engine, extra_nn_iters, extra_rs_max);
    engine.search(a, b, nnf, dist, a_mask, b_mask, patch_mask, level, iteration, 0, region_masks);
    OutputDebugChecksum("minnn: extra iters: ", nnf);
}

#define WEFTMAP_INSTANTIATE_MINNN_FOR(C)                                                 \
    template WEFTMAP_API void minnn(                                                     \
        Weftmap<C>&, ConstView<C::pixel_t> const&, ConstView<C::pixel_t> const&,         \
        OffsetView const&, View<distance_pixel_t<C::pixel_t>> const&, OffsetView const&, \
        GrayView const*, ConstGrayView const*, int, int, RegionMasks*, RegionMasks*, int, int);
#define WEFTMAP_INSTANTIATE_MINNN(P) WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_MINNN_FOR)

}  // namespace WM
