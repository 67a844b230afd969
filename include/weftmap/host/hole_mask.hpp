// Preparing hole masks as people paint them: tight around the object, so
// its edge and halo stay outside.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

namespace WM::host {

// Largest growth of a hole, in pixels.
inline constexpr int max_hole_growth = 1000;

// The hole (an 8-bit gray mask, non-zero = hole) grown by `pixels`: every
// pixel within that Euclidean distance of a hole pixel becomes 255, the
// hole's own pixels keep their values. Throws Error (invalid_input) for
// growth outside 0 to max_hole_growth.
WEFTMAP_HOST_API Image grow_hole(ConstImageView const& hole, int pixels);

// The smallest box around a mask's non-zero pixels, bounds included; right
// is below left when there are none.
struct MaskBounds {
    std::ptrdiff_t left, top, right, bottom;
    bool empty() const { return right < left; }
};
WEFTMAP_HOST_API MaskBounds mask_bounds(ConstImageView const& mask);

// A sampling mask (non-zero = patches may come from there) of the pixels
// that `excluded` leaves zero.
WEFTMAP_HOST_API Image sampling_outside(ConstImageView const& excluded);

// Where a fill samples unless told: the pixels outside the hole whose
// colours its rim has, give or take about a sixth of the range per channel.
// Salient objects near a hole (a face beside a sky) are kept out of it
// while the colours the hole borders on stay in. An empty Image when that
// would leave less than 60% of the picture or nearly all of it: then
// sampling is not limited.
WEFTMAP_HOST_API Image sampling_like_rim(ConstImageView const& image, ConstImageView const& hole);

}  // namespace WM::host
