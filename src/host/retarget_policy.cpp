#include "retarget_policy.hpp"

#include <boost/gil/algorithm.hpp>

namespace WM::host::detail {

// The recomposer reads its sampling mask as "255: may be sampled, anything
// less: may not", so partial values of the caller's masks are made whole.
RecycledImage<gray8_pixel_t> retarget_valid(Options const& options) {
    if (!options.sample && !options.remove) return {};
    ConstImageView const like = options.sample ? *options.sample : *options.remove;
    RecycledImage<gray8_pixel_t> valid(Point(like.width, like.height));
    auto const& v = view(valid);
    for (std::ptrdiff_t y = 0; y < like.height; ++y)
        for (std::ptrdiff_t x = 0; x < like.width; ++x) {
            bool const allowed = !options.sample || *options.sample->pixel(x, y) != 0;
            bool const removed = options.remove && *options.remove->pixel(x, y) != 0;
            v(x, y)[0] = allowed && !removed ? 255 : 0;
        }
    return valid;
}

}  // namespace WM::host::detail
