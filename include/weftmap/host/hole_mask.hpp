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

// A sampling mask (non-zero = patches may come from there) of the pixels
// that `excluded` leaves zero.
WEFTMAP_HOST_API Image sampling_outside(ConstImageView const& excluded);

}  // namespace WM::host
