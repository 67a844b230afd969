// Helpers of the field search that hosts and tests may use directly.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <vector>

namespace WM {

// Cuts `box` into `count` horizontal bands of its full width; one band when
// the rows per band would be 1.0 or less or `count` is 1. Bands may be empty.
WEFTMAP_API std::vector<Box> search_bands(Box const& box, int count);

// The fixed-point (16.16) shrink factor of the random search radius.
WEFTMAP_API int search_radius_ratio(double rs_ratio);

}  // namespace WM
