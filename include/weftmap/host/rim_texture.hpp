// Giving a fill back the grain of the texture around its hole. Synthesis
// averages the many near-equal matches a fine, even texture offers (grass,
// gravel, sand), and the hole comes out as a smooth smear of the right
// colour; copying whole blocks of the texture keeps its grain.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

namespace WM::host {

// `fill` with its hole rebuilt from blocks of the picture, when the hole's
// rim is one even texture and `fill` is much smoother than that texture
// inside the hole; otherwise, or when no block fits, an empty Image.
//
// Blocks are copied pixel for pixel from around the hole, in rows from the
// top left. Each agrees with the pixels already in place (the known ones
// and earlier blocks) and, loosely, with the colours of `fill`, so the
// texture follows the fill's shading. Blocks lie outside the hole and,
// when `sample` is given (non-zero = allowed), within it. The choice among
// near-equal blocks is reproducible: the same inputs give the same result.
//
// `image` and `fill` share their format and size; `hole` and `sample` are
// 8-bit gray masks of that size (non-zero = hole). Throws Error
// (invalid_input) when they do not match.
WEFTMAP_HOST_API Image texture_like_rim(ConstImageView const& image, ConstImageView const& hole,
                                        ConstImageView const& fill,
                                        ConstImageView const* sample = nullptr);

}  // namespace WM::host
