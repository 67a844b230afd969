// Where a target patch would lie if the source were the target stretched to
// the source's size; search windows are centred there.
#pragma once

#include <weftmap/image/pixel_types.hpp>

namespace WM {

struct ExpectedPosition {
    float hp, fx, fy, ox, oy;

    ExpectedPosition(Point const& a_size, Point const& b_size, int patch_w)
        : hp(static_cast<float>(patch_w) * 0.5f),
          fx(static_cast<float>(b_size.x - 1) / static_cast<float>(a_size.x - 1)),
          fy(static_cast<float>(b_size.y - 1) / static_cast<float>(a_size.y - 1)),
          ox(static_cast<float>(a_size.x - b_size.x) * 0.5f / static_cast<float>(a_size.x - 1)),
          oy(static_cast<float>(a_size.y - b_size.y) * 0.5f / static_cast<float>(a_size.y - 1)) {}

    int x(int px) const {
        return static_cast<int>((static_cast<float>(px) + hp) * fx + ox - hp + 0.5f);
    }
    int y(int py) const {
        return static_cast<int>((static_cast<float>(py) + hp) * fy + oy - hp + 0.5f);
    }
};

}  // namespace WM
