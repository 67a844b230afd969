// What the kit adds to a retarget beyond the library's presets: the region
// a user marks to drop first, as the recomposer's sampling mask, and the
// split of a shrinking retarget into two library runs.
#pragma once

#include <weftmap/host/image.hpp>
#include <weftmap/host/options.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <map>
#include <string>

namespace WM::host::detail {

// 255 where patches may be taken from, 0 where the sampling mask forbids
// it or the remove mask marks the picture; empty when neither is given.
RecycledImage<gray8_pixel_t> retarget_valid(Options const& options);

// The short side of a retarget's coarsest level: the preset's, or the
// caller's -coarse_size.
int retarget_coarse_size(Options const& options, Mode mode);

// The coarsest level of a retarget: the picture there, the new size the
// walk ends at, and the short side that gives them. That is
// retarget_coarse_size, raised where the new size would be narrower than a
// patch at that scale.
struct CoarseWalk {
    Point picture;
    Point goal;
    int coarse_size;
};
CoarseWalk coarse_walk(Options const& options, Mode mode, Size picture, Size size);

// The option map of a retarget's walk, with the raised coarse size.
std::map<std::string, std::string> retarget_option_map(Options const& options, Mode mode,
                                                       CoarseWalk const& walk);

// Whether a retarget from `picture` to `size` runs as two library runs.
// The walk to the new size, at the coarsest scale, votes with both fields:
// completeness is what keeps a picture's main objects while the size
// shrinks. The finer levels then vote with the target-to-source field
// alone. There completeness only pulls what has to leave the picture (a
// flag beside a person) back in as patches of its colour, and searching
// from the source costs as much as the rest of the run. Only a picture
// that shrinks on both sides can be refined one way, since the one-way vote
// holds no more than the picture, and only when the walk ends at a size
// that holds patches; a caller's own -bidir is kept.
bool refines_one_way(Options const& options, Mode mode, Size picture, Size size);

// The option map of the one-way refinement: it starts from the walk's
// result at the walk's scale, whose short side is `coarse_side`, and
// leaves that result as it is but for one iteration there.
std::map<std::string, std::string> refinement_option_map(Options const& options,
                                                         long long coarse_side);

}  // namespace WM::host::detail
