// The fixed geometry of a tile: truncation toward zero into 32 bits and
// unsigned values that enter floating point through 64 bits (so that large
// ones are not read as negative), the tile overlap, the tile hole and the
// border band of a tile's reverse index map.
#pragma once

#include <weftmap/image/pixel_types.hpp>
#include <weftmap/tapestry/tile_cache.hpp>

#include <algorithm>
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

// In-between i of n stands at i / (n + 1) of the way between two levels.
inline float steps_between(std::int32_t inbetweens) {
    return static_cast<float>(static_cast<std::int64_t>(inbetweens) + 1);
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

// Which interior pixel a pixel of the index map's border band copies: the
// nearest one, except that the bottom band takes the corner value from
// column W - patch_w + 1 on, sooner than the top band does. Both bands are
// kept as they are because index maps written so far look like that.
inline Point index_map_band_source(std::ptrdiff_t x, std::ptrdiff_t y, std::ptrdiff_t W,
                                   std::ptrdiff_t H, std::ptrdiff_t patch_w) {
    std::ptrdiff_t const half = patch_w / 2;
    std::ptrdiff_t const right = W - half - 1, bottom = H - half - 1;
    if (y < half) return Point(x < half ? half : x < W - half ? x : right, half);
    if (y < H - half) return Point(x < half ? half : right, y);
    return Point(x < half ? half : x < W - patch_w + 1 ? x : right, bottom);
}

inline void fill_index_map_band(IndexMapView const& map, std::ptrdiff_t patch_w) {
    std::ptrdiff_t const W = map.width(), H = map.height(), half = patch_w / 2;
    for (std::ptrdiff_t y = 0; y < H; ++y)
        for (std::ptrdiff_t x = 0; x < W; ++x) {
            bool const interior = x >= half && x < W - half && y >= half && y < H - half;
            if (interior) continue;
            Point const from = index_map_band_source(x, y, W, H, patch_w);
            map(x, y) = map(from.x, from.y);
        }
}

}  // namespace WM::tapestry_detail
