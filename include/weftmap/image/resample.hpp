// Every change of scale: two filters with exactly fixed rounding, and the
// rule that turns a short side or one given side into a size.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

namespace WM {

enum ResampleMode {
    ResampleNearest = 0,  // corner-aligned nearest neighbour
    ResampleBilinear = 1  // centre-aligned bilinear, 16.16 fixed point for integers
};

// Fills in the size that is missing: from `short_side` when positive (the
// length of the shorter side), else from the one given side and the aspect.
// `scale` is written when it is derived.
WEFTMAP_API void get_resample_size(Point const& srcDims, int short_side, long long& width,
                                   long long& height, double& scale);
WEFTMAP_API void get_resample_size(Point const& srcDims, int short_side, Point& dims,
                                   double& scale);

// Settles the size (a negative side is derived from the other) and resamples.
template <class Pixel>
WEFTMAP_API void resample(ConstView<Pixel> const& src, RecycledImage<Pixel>& dst, long long width,
                          long long height, ResampleMode mode, int short_side);
template <class Pixel>
WEFTMAP_API void resample(ConstView<Pixel> const& src, RecycledImage<Pixel>& dst, Point const& dims,
                          ResampleMode mode, int short_side);

// Recreates `dst` at (width, height) and fills it; an equal size is a copy.
template <class Pixel>
WEFTMAP_API void resample_core(ConstView<Pixel> const& src, RecycledImage<Pixel>& dst,
                               long long width, long long height, ResampleMode mode);

}  // namespace WM
