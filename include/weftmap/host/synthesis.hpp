// Hole filling and retargeting of pictures that fit in memory, for any of
// the nine pixel formats, chosen at run time. The caller's pixels and masks
// are never written.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/options.hpp>

namespace WM::host {

// Sides of pictures, masks and new sizes: the library's field positions
// are 16-bit.
inline constexpr std::ptrdiff_t max_side = 65535;

// Fills the hole (an 8-bit gray mask of the picture's size, non-zero = hole,
// partial values passed on) with material from the rest of the picture.
// An empty hole gives a copy. Throws Error.
WEFTMAP_HOST_API Image fill(ConstImageView const& image, ConstImageView const& hole,
                            Options const& options = {});

// Refuses a new size that retargeting cannot reach from a picture of
// `picture` with `options`: sides outside 1 to 65535, or growth beyond what
// the coarsest level's walk covers (about 7 times a side, more for small
// pictures; any shrinking works), or beyond 14 pixels a side for a run that
// votes one way or uses the hole-fill preset. The sizes alone decide, so a host may ask
// before it reads the picture. retarget() asks first. Throws Error
// (invalid_input).
WEFTMAP_HOST_API void check_retarget_size(Size picture, Size size, Options const& options = {});

// A picture of `size` that keeps the texture and objects of `image` at
// their scale instead of stretching them. Throws Error.
WEFTMAP_HOST_API Image retarget(ConstImageView const& image, Size size,
                                Options const& options = {});

}  // namespace WM::host
