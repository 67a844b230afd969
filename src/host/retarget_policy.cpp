#include "retarget_policy.hpp"

#include "recomposer_settings.hpp"

#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/parameters.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>

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

// The side of a patch.
constexpr long long patch_side = 7;

// Two patch widths: below that the coarsest level offers no whole patch to
// start the refinement from.
constexpr long long smallest_walk_goal = 14;

int retarget_coarse_size(Options const& options, Mode mode) {
    auto const given = options.recomposer_options.find("-coarse_size");
    if (given != options.recomposer_options.end()) return std::stoi(given->second);
    return RecomposerParameters(preset_of(mode)).coarse_size;
}

CoarseWalk coarse_walk(Options const& options, Mode mode, Size picture, Size size) {
    Point const full(picture.width, picture.height);
    long long const short_side = std::min(full.x, full.y);
    int coarse_size = retarget_coarse_size(options, mode);
    // The search cannot work on a level narrower than a patch: a new size
    // much narrower than the picture walks at a larger scale.
    long long const narrowest = std::min(size.width, size.height);
    if (narrowest > 0) {
        long long const needed = (patch_side * short_side + narrowest - 1) / narrowest;
        if (needed > coarse_size) coarse_size = static_cast<int>(std::min(needed, short_side));
    }
    long long width = -1, height = -1;
    double s0 = 0.0;
    get_resample_size(full, static_cast<int>(std::min<long long>(coarse_size, short_side)), width,
                      height, s0);
    return {Point(width, height), level_size(Point(size.width, size.height), s0), coarse_size};
}

std::map<std::string, std::string> retarget_option_map(Options const& options, Mode mode,
                                                       CoarseWalk const& walk) {
    auto map = option_map(options);
    if (walk.coarse_size != retarget_coarse_size(options, mode))
        map["-coarse_size"] = std::to_string(walk.coarse_size);
    return map;
}

bool refines_one_way(Options const& options, Mode mode, Size picture, Size size) {
    if (options.recomposer_options.count("-bidir") != 0 || !votes_both_ways(options, mode))
        return false;
    if (size.width > picture.width || size.height > picture.height) return false;
    // A picture no larger than the coarsest level has nothing to refine.
    if (std::min(picture.width, picture.height) <= retarget_coarse_size(options, mode))
        return false;
    Point const goal = coarse_walk(options, mode, picture, size).goal;
    return std::min(goal.x, goal.y) >= smallest_walk_goal;
}

std::map<std::string, std::string> refinement_option_map(Options const& options,
                                                         long long coarse_side) {
    auto map = option_map(options);
    map["-bidir"] = "0";
    map["-const_coarse_size"] = "";
    map["-coarse_size"] = std::to_string(coarse_side);
    map["-em_iters_gradres"] = "1";
    // Two iterations at the level below the finest rather than three: the
    // level starts from a settled picture, and the evaluation photographs
    // look the same at a tenth less time. A caller's own count stays.
    if (map.count("-em_iters") == 0) map.emplace("-em_iters_min", "2");
    return map;
}

}  // namespace WM::host::detail
