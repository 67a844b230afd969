// Fills that may take patches mirrored left to right. An object the hole
// cuts through often shows its other side intact (a cup's far wall, a
// bottle's shoulder), and that side, mirrored, is the only example of the
// hidden edge the picture has. The kit fills the picture with its mirror
// image beside it, so the search finds patches of both.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

namespace WM::host {

// Where the mirror image goes: on the side away from the hole, so that no
// patch over the hole reaches it.
enum class MirrorSide { none, left, right };

// Where a fill of `image` (any format) places the mirror image, or none when
// mirrored patches are not worth their cost: unless the rim of the hole (the
// 16 pixels around it) matches its own mirror image about some vertical axis
// clearly better (by a quarter) than any copy of itself shifted sideways,
// both at least the hole's width away, there is no mirrored object to
// complete. None too when the hole comes within a patch of both sides, or is
// empty. Throws Error (invalid_input) for a hole mask of another size.
WEFTMAP_HOST_API MirrorSide mirror_side(ConstImageView const& image, ConstImageView const& hole);

// Zero columns between a picture and its mirror image: no patch spans them.
inline constexpr std::ptrdiff_t mirror_gap = 8;

// The picture (any format) with its mirror image on `side` and mirror_gap
// zero columns between. The picture keeps its pixels, byte for byte; with
// `side` none it is a copy. Throws Error (memory_limit) as Image does.
WEFTMAP_HOST_API Image beside_its_mirror(ConstImageView const& image, MirrorSide side);

// Where the picture itself lies in beside_its_mirror's result.
WEFTMAP_HOST_API std::ptrdiff_t picture_offset(ConstImageView const& image, MirrorSide side);

}  // namespace WM::host
