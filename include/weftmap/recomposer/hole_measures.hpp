// Geometry over byte masks that the recomposer measures a hole with: patch
// counts, hole distances and weights, and a search box proposal for hosts.
#pragma once

#include <weftmap/correspondence/vote.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

namespace WM {

// Source patch corners free to sample (0 in `smask`) per target corner kept
// (255 in `tmask`); `source_count` receives the numerator.
WEFTMAP_API double compute_search_hole_patch_ratio(int patch_w, ConstGrayView const& smask,
                                                   ConstGrayView const& tmask, int& source_count);

// With `count_only`: whether `smask` has at least `min_patches` free corners.
// Otherwise also whether the ratio above reaches `min_ratio`.
WEFTMAP_API bool check_enough_patches_to_sample_from(int patch_w, ConstGrayView const& smask,
                                                     ConstGrayView const& tmask, int min_patches,
                                                     bool count_only, double min_ratio);

// City-block distance into the hole (pixels of `hole` below 255) over `box`
// grown by half a patch; 0 outside that rectangle.
WEFTMAP_API DistanceInsetView fill_hole_distance(ConstGrayView const& hole, Box const& box,
                                                 RecycledImage<int_gray_pixel_t>& distance,
                                                 int patch_w, ConstGrayView const* tconstraint_mask,
                                                 bool zero_border = false);

// Source weights from an importance mask; see the recomposer's options.
WEFTMAP_API WeightInsetView make_source_weights(ConstGrayView const& importance,
                                                double src_important_wt,
                                                RecycledImage<weight_pixel_t>& weights);

// A box around `hole_box` with `ratio` squared times its area (at least
// 50 x 50 based), moved and clipped into the image.
WEFTMAP_API Box ProposeSearchBounds(Point const& image_size, Box const& hole_box, float ratio);

// The bounding box of the pixels of `mask` below 255 (the hole, once
// inverted); empty when there are none.
WEFTMAP_API Box hole_bounding_box(ConstGrayView const& mask);

}  // namespace WM
