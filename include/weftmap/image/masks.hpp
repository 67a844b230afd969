// Small sequential tools on mask-like images: the masked merge that puts a
// synthesised result back over the input, the city-block distance transform
// behind the hole weights, sliding box sums that count valid pixels, and the
// shift that turns a map over patch centres into one over patch corners.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

namespace WM {

// Merges `src` over `dst` under `mask`: 0 keeps `dst`, 255 takes `src`, and
// a value between adds `src` to `dst` * (1 - m / 255). `src` is taken to be
// premultiplied by its coverage already, so it is not scaled; integer
// channels round half up and wrap past their maximum.
template <class Pixel>
WEFTMAP_API void copy_pixels_masked(ConstView<Pixel> const& src, View<Pixel> const& dst,
                                    ConstGrayView const& mask);

// City-block distance (4-neighbour steps) from each pixel to the nearest 255
// pixel of `bmp`, or to the image border when `zero_border` is set; 10000
// where there is none. `nonhole_mask`, when given, is only size-checked.
WEFTMAP_API void dt(ConstGrayView const& bmp, IntView const& out, ConstGrayView const* nonhole_mask,
                    bool zero_border);

// out(x) = in(x) + ... + in(x + size - 1) along each row, the window anchored
// at its left end and cut short at the right edge. 32-bit unsigned sums; the
// cost does not depend on `size`. `in` and `out` may be the same view.
WEFTMAP_API void x_box_filter(IntView const& in, IntView const& out, int size);

// The same sum down each column: out(x, y) = in(x, y) + ... + in(x, y + size - 1).
WEFTMAP_API void y_box_filter(IntView const& in, IntView const& out, int size);

// Moves the image up and left by patchSize / 2 in place, filling the freed
// last rows and columns with 0.
WEFTMAP_API void shift_mask_to_patch_corners(int patchSize, GrayView const& image);

}  // namespace WM
