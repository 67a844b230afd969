// Fills that keep layers in their rows. Planks, a shore, the strata of a
// hillside run across a hole, and each layer is best continued from the
// rows it lies in; a free search continues them from anywhere and breaks
// them. The kit labels the picture's rows in bands, and every patch of the
// hole takes its match from its own band.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

namespace WM::host {

// Bands a hole's rows are split into.
inline constexpr std::ptrdiff_t bands_per_hole = 2;
// Rows of the narrowest band: patches need room to move up and down.
inline constexpr std::ptrdiff_t least_band_height = 24;

// The rows of `image` (any format) around `hole` are layered when, within
// 24 pixels of the hole, neighbours 4 pixels apart differ by at most 0.9
// times as much along a row as down a column. False for an empty hole.
// Throws Error (invalid_input) for a hole mask of another size.
WEFTMAP_HOST_API bool rows_are_layered(ConstImageView const& image, ConstImageView const& hole);

// The label map of a fill's recomposer (8-bit gray, the picture's size, a
// patch's label at its top-left pixel) that splits the hole's rows into
// bands_per_hole bands, at least least_band_height rows each, and gives
// every other row of the picture the label of its band's period: a patch
// centred in a band matches only patches centred in the same band. An empty
// Image, so no bands, when the rows are not layered, when the hole comes
// within a patch of the picture's left or right side (no far side to carry
// a layer to), or when a band has fewer places to sample (outside the hole
// and, if given, where `sample` is non-zero) than hole pixels.
WEFTMAP_HOST_API Image row_bands(ConstImageView const& image, ConstImageView const& hole,
                                 ConstImageView const* sample);

}  // namespace WM::host
