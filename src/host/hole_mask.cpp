#include "hole_policy.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace WM::host {

Image grow_hole(ConstImageView const& hole, int pixels) {
    detail::check_mask_format(hole);
    if (pixels < 0 || pixels > max_hole_growth)
        throw Error(ErrorCode::invalid_input, "a hole grows by 0 to " +
                                                  std::to_string(max_hole_growth) +
                                                  " pixels, not " + std::to_string(pixels));
    Image grown = Image::copy_of(hole);
    if (pixels == 0) return grown;
    std::ptrdiff_t const w = hole.width, h = hole.height;
    // Distance along the row to the nearest hole pixel, capped beyond reach;
    // a disc is then the rows within reach whose offsets add up inside it.
    // Two bytes a pixel: distances are capped at max_hole_growth + 1.
    static_assert(max_hole_growth < 65535);
    auto const far = static_cast<std::uint16_t>(pixels + 1);
    std::vector<std::uint16_t> across(static_cast<std::size_t>(w * h));
    for (std::ptrdiff_t y = 0; y < h; ++y) {
        std::uint16_t* d = &across[static_cast<std::size_t>(y * w)];
        std::uint16_t last = far;
        for (std::ptrdiff_t x = 0; x < w; ++x) {
            last = hole.pixel(x, y)[0] != 0 ? 0 : std::min<std::uint16_t>(last + 1, far);
            d[x] = last;
        }
        last = far;
        for (std::ptrdiff_t x = w - 1; x >= 0; --x) {
            last = d[x] == 0 ? 0 : std::min<std::uint16_t>(last + 1, far);
            d[x] = std::min(d[x], last);
        }
    }
    long long const reach = static_cast<long long>(pixels) * pixels;
    for (std::ptrdiff_t y = 0; y < h; ++y)
        for (std::ptrdiff_t x = 0; x < w; ++x) {
            unsigned char* out = grown.view().pixel(x, y);
            if (*out != 0) continue;
            std::ptrdiff_t const y0 = std::max<std::ptrdiff_t>(0, y - pixels);
            std::ptrdiff_t const y1 = std::min<std::ptrdiff_t>(h - 1, y + pixels);
            for (std::ptrdiff_t v = y0; v <= y1; ++v) {
                long long const dx = across[static_cast<std::size_t>(v * w + x)];
                long long const dy = v - y;
                if (dx * dx + dy * dy <= reach) {
                    *out = 255;
                    break;
                }
            }
        }
    return grown;
}

MaskBounds mask_bounds(ConstImageView const& mask) {
    MaskBounds b{mask.width, mask.height, -1, -1};
    for (std::ptrdiff_t y = 0; y < mask.height; ++y)
        for (std::ptrdiff_t x = 0; x < mask.width; ++x)
            if (mask.pixel(x, y)[0] != 0) {
                b.left = std::min(b.left, x);
                b.right = std::max(b.right, x);
                b.top = std::min(b.top, y);
                b.bottom = std::max(b.bottom, y);
            }
    return b;
}

Image sampling_outside(ConstImageView const& excluded) {
    detail::check_mask_format(excluded);
    Image allowed(mask_format, excluded.size());
    for (std::ptrdiff_t y = 0; y < excluded.height; ++y)
        for (std::ptrdiff_t x = 0; x < excluded.width; ++x)
            *allowed.view().pixel(x, y) = excluded.pixel(x, y)[0] == 0 ? 255 : 0;
    return allowed;
}

}  // namespace WM::host
