// First colours for a hole before patch synthesis starts. `roifill` gives
// every hole pixel the inverse-square-distance average of the known pixels
// on the hole's rim, optionally limited by a radius and by a direction: one
// pass, all rim pixels against all hole pixels, parallel over rows.
// `blackfill` is the cheap alternative: it scales pixels by their coverage.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

namespace WM {

// `mask`: 255 known, 0 hole, values between a pixel of partial coverage whose
// stored colour already holds its known share. `box` (may be null: the whole
// image) bounds the search for rim pixels; `sourceMask` (may be null) limits
// which rim pixels may lend their colour. `radius` and `angle` (radians) may
// each be null to switch their limit off. Masks must have the size of `in`;
// image sides are limited to 65535.
template <class Pixel>
WEFTMAP_API void roifill(View<Pixel> const& in, ConstGrayView const& mask, View<Pixel> const& out,
                         Box const* box, ConstGrayView const* sourceMask, double const* radius,
                         double const* angle);

// Copies `in` to `out` and scales each pixel by 1 - m / 255.
template <class Pixel>
WEFTMAP_API void blackfill(View<Pixel> const& in, ConstGrayView const& mask,
                           View<Pixel> const& out);

// In place: scales each pixel by 1 - m / 255, or by m / 255 when `invert`
// is set. Integer channels round half up.
template <class Pixel>
WEFTMAP_API void blackfill(View<Pixel> const& image, ConstGrayView const& mask, bool invert);

}  // namespace WM
