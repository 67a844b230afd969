// The search window of a hole that a side of the picture cuts. The
// library sizes a fill's window by how deep its hole is against its area,
// and counts what lies beyond the picture's side as more hole: a hole at
// the side looks twice as deep as it is, and the search runs over the whole
// picture, where a figure across the picture gets pasted into it. The kit
// gives such a hole a window of its own size.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

namespace WM::host {

// How much deeper a side must make a hole look before its window is set.
inline constexpr double side_depth_ratio = 1.2;

// The recomposer's -hole_search_window (the window's full width) for a fill
// of `hole`: twice the larger side of the hole's box, so that patches come
// from within one hole's size of where they are, when the picture's sides
// make the hole look at least side_depth_ratio times as deep (its deepest
// pixel's distance to a known one) as it is with the sides known; otherwise
// 0, which leaves the library's own window. Throws Error (invalid_input)
// for a mask that is not 8-bit gray.
WEFTMAP_HOST_API int side_hole_search_window(ConstImageView const& hole);

}  // namespace WM::host
