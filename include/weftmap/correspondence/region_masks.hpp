// A mask over patch positions that is also a label map, with the bounding
// box of every label, and the box of free patch positions that the field
// passes work on.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

namespace WM {

// Byte 0 marks a free patch when the object serves as a mask; as a label map
// the byte is the label. The owner writes the image, then calls update_boxes.
struct RegionMasks {
    RegionMasks() = default;
    // A copy owns a copy of the image, and its view shows the same part of
    // that copy (a view into memory the image does not own is kept as is).
    WEFTMAP_API RegionMasks(RegionMasks const& other);
    WEFTMAP_API RegionMasks& operator=(RegionMasks const& other);
    RegionMasks(RegionMasks&&) = default;
    RegionMasks& operator=(RegionMasks&&) = default;

    RecycledImage<gray8_pixel_t> image;
    // The part of `image` in use.
    GrayView view;
    // Per byte value, the half-open box of the patch positions holding it.
    Box boxes[256];

    // Recreates `image` at `size` and points `view` at all of it.
    WEFTMAP_API void recreate(Point const& size);
    // Recomputes every box from the patch positions of `view` (top-left
    // corners 0..width-patch_w, 0..height-patch_w). A label that does not
    // occur keeps the reset box, whose maximum lies below its minimum.
    WEFTMAP_API void update_boxes(int patch_w);
    // Exchanges image, view and boxes.
    WEFTMAP_API void swap(RegionMasks& other);
};

// The box of patch positions to work on in an image of `size`: all of them
// without a mask, else the box of the free label 0, or the empty box when
// there is no free patch.
WEFTMAP_API Box get_abox(int patch_w, Point const& size, RegionMasks const* mask);

}  // namespace WM
