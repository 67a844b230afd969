// Field minimisation: keep, per pixel, the better of the current match and
// the match of a second field, then polish with a short extra search.
#pragma once

#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/export.hpp>

namespace WM {

// Updates `nnf` and `dist` in place from `prev_nnf` (same size, read only),
// then runs `engine.search` with `extra_nn_iters` passes and radius bound
// `extra_rs_max`; the engine's own nn_iters and rs_max are restored on
// every exit.
template <class Compare>
WEFTMAP_API void minnn(
    Weftmap<Compare>& engine, typename Weftmap<Compare>::const_image_view_t const& a,
    typename Weftmap<Compare>::const_image_view_t const& b, OffsetView const& nnf,
    typename Weftmap<Compare>::distance_view_t const& dist, OffsetView const& prev_nnf,
    GrayView const* b_mask, ConstGrayView const* patch_mask, int level, int iteration,
    RegionMasks* region_masks, RegionMasks* a_mask, int extra_nn_iters, int extra_rs_max);

}  // namespace WM
