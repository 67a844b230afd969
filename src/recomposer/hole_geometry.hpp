// Rectangle arithmetic shared by the hole measures and the recomposer's
// weight and mask members.
#pragma once

#include <weftmap/image/pixel_types.hpp>

#include <algorithm>
#include <cstdint>

namespace WM {
namespace detail {

// `box` grown by `margin` on each side and clipped to (0, 0)-`size`. An empty
// box stays empty, at the origin.
inline Box grow_and_clip(Box const& box, int margin, Point const& size) {
    if (box.empty()) return Box{};
    auto const clip = [](long long v, long long hi) {
        return static_cast<std::int32_t>(std::min(std::max(v, 0LL), hi));
    };
    long long const w = size.x;
    long long const h = size.y;
    return Box{clip(static_cast<long long>(box.xmin) - margin, w),
               clip(static_cast<long long>(box.ymin) - margin, h),
               clip(static_cast<long long>(box.xmax) + margin, w),
               clip(static_cast<long long>(box.ymax) + margin, h)};
}

}  // namespace detail
}  // namespace WM
