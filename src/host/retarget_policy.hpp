// What the kit adds to a retarget beyond the library's presets: the region
// a user marks to drop first, as the recomposer's sampling mask.
#pragma once

#include <weftmap/host/image.hpp>
#include <weftmap/host/options.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

namespace WM::host::detail {

// 255 where patches may be taken from, 0 where the sampling mask forbids
// it or the remove mask marks the picture; empty when neither is given.
RecycledImage<gray8_pixel_t> retarget_valid(Options const& options);

}  // namespace WM::host::detail
