// The fixed conversions of the tapestry geometry: truncation toward zero
// into 32 bits, and unsigned values that enter floating point through 64
// bits so that large ones are not read as negative.
#pragma once

#include <weftmap/image/pixel_types.hpp>

#include <cmath>
#include <cstdint>

namespace WM::tapestry_detail {

// Truncates toward zero and keeps the low 32 bits, as a conversion through
// 64 bits would; values beyond 64 bits (and NaN) give 0 instead of
// undefined behaviour.
inline std::uint32_t truncate_u32(double v) {
    if (!(std::fabs(v) < 9.2e18)) return 0;
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(v));
}
inline std::int32_t truncate_i32(double v) {
    return static_cast<std::int32_t>(truncate_u32(v));
}

inline float as_float(std::uint32_t v) {
    return static_cast<float>(static_cast<std::int64_t>(v));
}

// The margin on each side of a tile: a quarter of a frame.
inline std::int32_t tile_overlap(std::ptrdiff_t frame_width) {
    return truncate_i32(static_cast<float>(frame_width) * 0.25f);
}

// The tile hole: 255 (free) everywhere but in the strips next to finished
// neighbours. The left strip rises from 0 at the edge towards 255 along
// each row; the right strip fades from top to bottom, a whole row at a time.
// The two strips differ on purpose and must stay so.
inline void build_tile_hole(GrayView const& hole, bool left, bool right, std::int32_t overlap) {
    gil::fill_pixels(hole, gray8_pixel_t(255));
    std::ptrdiff_t const width = hole.width(), height = hole.height();
    std::ptrdiff_t const strip = std::min<std::ptrdiff_t>(overlap, width);
    if (left && overlap > 0) {
        std::int32_t const step = 65280 / overlap;
        for (std::ptrdiff_t y = 0; y < height; ++y) {
            std::int32_t acc = 0;
            for (std::ptrdiff_t x = 0; x < strip; ++x, acc += step)
                hole(x, y) = gray8_pixel_t(static_cast<unsigned char>(acc >> 8));
        }
    }
    if (right && overlap > 0 && height > 0) {
        std::int32_t const step = 65280 / static_cast<std::int32_t>(height);
        std::int32_t acc = 65280;
        for (std::ptrdiff_t y = 0; y < height; ++y, acc -= step)
            for (std::ptrdiff_t x = width - strip; x < width; ++x)
                hole(x, y) = gray8_pixel_t(static_cast<unsigned char>(acc >> 8));
    }
}

}  // namespace WM::tapestry_detail
