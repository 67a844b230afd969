// Mirrored patches for fills, and the test of whether a hole's surroundings
// are symmetric enough to need them.
#include "hole_policy.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/mirrored_patches.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

namespace WM::host {
namespace {

using detail::patch_reach;

// The rim compared with its mirror image and its shifted copies.
constexpr int rim_width = 16;
// Every this many rim pixels is compared: the measure needs a sample only.
constexpr std::size_t rim_step = 4;
// A mirror or shift must find partners for this share of the rim.
constexpr double least_partners = 0.5;
// The mirror image must match this much better than the best shift.
constexpr double mirror_advantage = 0.75;

struct RimSample {
    std::vector<std::ptrdiff_t> x, y;
};

// Mean difference of the rim's pixels from those at x' = map(x), over the
// pairs whose partner lies in the picture, outside the hole and at least
// `reach` away; infinity if too few have one.
template <class Map>
double partner_difference(ConstImageView const& bytes, ConstImageView const& hole,
                          RimSample const& rim, std::ptrdiff_t reach, Map map) {
    int const channels = bytes.format.channels();
    double sum = 0.0;
    std::size_t pairs = 0;
    for (std::size_t i = 0; i < rim.x.size(); ++i) {
        std::ptrdiff_t const x = rim.x[i], y = rim.y[i], partner = map(x);
        if (partner < 0 || partner >= bytes.width || std::abs(partner - x) < reach) continue;
        if (hole.pixel(partner, y)[0] != 0) continue;
        unsigned char const* a = bytes.pixel(x, y);
        unsigned char const* b = bytes.pixel(partner, y);
        for (int c = 0; c < channels; ++c) sum += std::abs(int(a[c]) - int(b[c]));
        ++pairs;
    }
    if (double(pairs) < least_partners * double(rim.x.size()))
        return std::numeric_limits<double>::infinity();
    return sum / double(pairs * std::size_t(channels));
}

bool rim_is_mirrored(ConstImageView const& image, ConstImageView const& hole,
                     std::ptrdiff_t hole_width) {
    Image const bytes_image = converted(image, PixelFormat{Depth::u8, image.format.colour});
    ConstImageView const bytes = bytes_image.view();
    Image const grown = grow_hole(hole, rim_width);
    RimSample rim;
    std::size_t seen = 0;
    for (std::ptrdiff_t y = 0; y < hole.height; ++y)
        for (std::ptrdiff_t x = 0; x < hole.width; ++x)
            if (grown.view().pixel(x, y)[0] != 0 && hole.pixel(x, y)[0] == 0 &&
                seen++ % rim_step == 0) {
                rim.x.push_back(x);
                rim.y.push_back(y);
            }
    if (rim.x.empty()) return false;
    std::ptrdiff_t const width = image.width;
    double mirrored = std::numeric_limits<double>::infinity();
    // Axes at every half pixel: x' = 2a - x.
    for (std::ptrdiff_t twice_axis = 0; twice_axis < 2 * width; ++twice_axis)
        mirrored = std::min(mirrored, partner_difference(bytes, hole, rim, hole_width,
                                                         [=](auto x) { return twice_axis - x; }));
    double shifted = std::numeric_limits<double>::infinity();
    for (std::ptrdiff_t shift = -width / 2; shift <= width / 2; ++shift)
        shifted = std::min(shifted, partner_difference(bytes, hole, rim, hole_width,
                                                       [=](auto x) { return x + shift; }));
    debug_log("mirror_side: the rim differs %.2f from its mirror image, %.2f when shifted\n",
              mirrored, shifted);
    return mirrored < mirror_advantage * shifted;
}

}  // namespace

MirrorSide mirror_side(ConstImageView const& image, ConstImageView const& hole) {
    detail::check_hole_of(image, hole);
    MaskBounds const bounds = mask_bounds(hole);
    if (bounds.empty()) return MirrorSide::none;
    std::ptrdiff_t const left = bounds.left, right = bounds.right;
    bool const near_left = left < patch_reach, near_right = right >= hole.width - patch_reach;
    if (near_left && near_right) return MirrorSide::none;
    if (!rim_is_mirrored(image, hole, right - left + 1)) return MirrorSide::none;
    // The mirror goes beside the side the hole is farther from.
    return left > hole.width - 1 - right ? MirrorSide::left : MirrorSide::right;
}

std::ptrdiff_t picture_offset(ConstImageView const& image, MirrorSide side) {
    return side == MirrorSide::left ? image.width + mirror_gap : 0;
}

Image beside_its_mirror(ConstImageView const& image, MirrorSide side) {
    if (side == MirrorSide::none) return Image::copy_of(image);
    std::ptrdiff_t const width = image.width;
    Image both(image.format, {2 * width + mirror_gap, image.height});
    std::ptrdiff_t const picture_x = picture_offset(image, side);
    std::ptrdiff_t const mirror_x = side == MirrorSide::left ? 0 : width + mirror_gap;
    auto const bytes = static_cast<std::size_t>(image.format.pixel_bytes());
    ImageView const out = both.view();
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < width; ++x) {
            unsigned char const* p = image.pixel(x, y);
            std::memcpy(out.pixel(picture_x + x, y), p, bytes);
            std::memcpy(out.pixel(mirror_x + width - 1 - x, y), p, bytes);
        }
    return both;
}

}  // namespace WM::host
