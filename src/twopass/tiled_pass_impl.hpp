// The tiled pass: the job repeated at full size tile by tile, each tile
// guided by the coarse result, sampling one window of the source, and bound
// to its finished neighbours across the overlap.
// Instantiated per depth in tiled_pass_*.cpp.
#pragma once

#include "frame/wrapping.hpp"
#include "twopass/inputs.hpp"
#include "twopass/overlap.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/masks.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/twopass/two_pass_synthesis.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace WM {
namespace detail {

inline bool any_nonzero(ConstGrayView const& mask) {
    for (std::ptrdiff_t y = 0; y < mask.height(); ++y)
        for (std::ptrdiff_t x = 0; x < mask.width(); ++x)
            if (mask(x, y)[0] != 0) return true;
    return false;
}

// Truncation of a double to a signed 32-bit value, held within range.
inline std::int32_t truncate_to_int32(double v) {
    if (!(v < 2147483647.0)) return std::numeric_limits<std::int32_t>::max();
    if (!(v > -2147483648.0)) return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(v);
}

// One axis of a rectangle in an image of `limit` pixels: the part inside
// it, but at least its nearest pixel.
inline void nearest_span(std::ptrdiff_t start, std::ptrdiff_t length, std::ptrdiff_t limit,
                         std::ptrdiff_t& begin, std::ptrdiff_t& count) {
    begin = std::clamp<std::ptrdiff_t>(start, 0, limit - 1);
    count = std::clamp<std::ptrdiff_t>(start + length, begin + 1, limit) - begin;
}

enum class RampSide { left, right, up, down };

// Lowers the hole mask over a strip shared with a finished neighbour to a
// ramp in 8.8 fixed point: 0 at the neighbour's side, where its pixels stay
// fixed, rising towards 255 away from it, so that the tile's own solution
// takes over gradually. The division truncates, so the ramp stops short of
// its far end.
inline void lower_to_ramp(GrayView const& hole, Point const& place, Point const& size,
                          RampSide side) {
    bool const along_x = side == RampSide::left || side == RampSide::right;
    std::int64_t const length = along_x ? size.x : size.y;
    std::int32_t start = 0, step = 0;
    switch (side) {
        case RampSide::left:
            step = static_cast<std::int32_t>((255 - 0) * 256 / length);
            start = 0 << 8;
            break;
        case RampSide::right:
            step = static_cast<std::int32_t>((0 - 255) * 256 / length);
            start = 255 << 8;
            break;
        case RampSide::up:
            step = static_cast<std::int32_t>(65280 / length);
            start = 0;
            break;
        case RampSide::down:
            step = static_cast<std::int32_t>(-65280 / length);
            start = 65280;
            break;
    }
    std::int32_t row_acc = start;
    for (std::ptrdiff_t j = 0; j < size.y; ++j) {
        std::int32_t acc = along_x ? start : row_acc;
        for (std::ptrdiff_t i = 0; i < size.x; ++i) {
            std::ptrdiff_t const x = place.x + i, y = place.y + j;
            if (x >= 0 && y >= 0 && x < hole.width() && y < hole.height()) {
                auto const ramp = static_cast<std::uint32_t>(acc) >> 8;
                auto& p = hole(x, y)[0];
                p = static_cast<unsigned char>(std::min<std::uint32_t>(p, ramp));
            }
            if (along_x) acc += step;
        }
        if (!along_x) row_acc += step;
    }
}

}  // namespace detail

template <class Compare>
void TwoPassSynthesis<Compare>::TiledPass(int coarse_scale) {
    auto& access = *pixel_access;
    auto const in = detail::which_inputs(access);
    // A tile samples a window of the source as large as the coarse source.
    Point const W = access.getSourceSize();
    Point const V = access.convertPoint(W, 0, coarse_scale);
    access.setScale(0);

    for (Tile& tile : tiles) ChooseSourceRegion(tile, coarse_scale, W);
    SortTiles(coarse_scale);

    // The guess already holds the large-scale structure, so each tile's
    // pyramid starts at about half the coarse picture of its window. Put
    // back only when every tile is done.
    WeftmapRecomposer<Compare> const saved(recomposer);
    recomposer.half_search_window = 0;
    recomposer.const_coarse_size = true;
    recomposer.coarse_size =
        std::max(recomposer.coarse_size,
                 detail::truncate_to_int32(static_cast<double>(std::min(V.x, V.y)) * 0.5));
    std::int32_t const tile_coarse_size = recomposer.coarse_size;

    std::vector<Constraint> constraints;
    for (Tile& tile : tiles) {
        tile_output_buf.recreate(tile.size);
        if (in.hole) {
            hole_buf.recreate(tile.size);
            GrayView hole = view(hole_buf);
            access.safeGetHolePixels(hole, tile.origin);
        }
        view_t result = view(tile_output_buf);
        if (!detail::any_nonzero(const_view(hole_buf))) {
            // Nothing to fill: the picture itself. Not done, so it binds no
            // neighbour.
            if (in.a_constraint)
                access.getAConstraintPixels(result, tile.origin);
            else
                access.getInputPixels(result, tile.origin);
            access.safeSetOutputPixels(result, tile.origin);
            // No recomposition reports this step's end; without it a job
            // that ends with copies would never tell the host it is done.
            updateProgress(1.0f);
            finish_step();
            continue;
        }

        // A tile cut short where the picture ends can be narrower than that
        // start, and a pyramid that starts above the tile's own size does not
        // fit the buffers reserved for the tile.
        std::ptrdiff_t const short_side = std::min(tile.size.x, tile.size.y);
        recomposer.coarse_size = short_side < tile_coarse_size
                                     ? static_cast<std::int32_t>(short_side)
                                     : tile_coarse_size;
        ConstructInitialGuess(tile, coarse_scale);
        ConstructConstraints(tile, in.hole, in.a_constraint);
        view_t source = view(input_buf);
        access.getInputPixels(source, tile.source_origin);
        OutputDebugChecksum("TiledPass input: ", source);
        ConstructMasks(tile, in.valid, in.a_constraint, in.a_constraint_mask);
        GrayView weight = view(source_weight_buf);
        if (in.b_weight) access.getBWeightPixels(weight, tile.source_origin);

        // Asked as for a coarse recomposition, though a tile job takes no box.
        auto const again = detail::which_inputs(access);
        access.getHoleBoundsOrigin();
        access.getHoleBoundsSize();

        GrayView const hole = view(hole_buf);
        view_t const init = view(init_buf);
        GrayView const valid = view(valid_buf);
        view_t const constraint = view(tconstraint_buf);
        GrayView const constraint_mask = view(tconstraint_mask_buf);
        recomposer.recompose(source, constraints, tile_output_buf, again.hole ? &hole : nullptr,
                             nullptr, &init, &valid, &constraint, nullptr,
                             again.b_weight ? &weight : nullptr, &constraint_mask);

        result = view(tile_output_buf);
        access.safeSetOutputPixels(result, tile.origin);
        tile.done = true;
        finish_step();
    }
    recomposer = saved;
}

template <class Compare>
void TwoPassSynthesis<Compare>::ChooseSourceRegion(Tile& tile, int coarse_scale, Point window) {
    auto& access = *pixel_access;
    Point const o = access.convertPoint(tile.origin, 0, coarse_scale);
    Point const z = access.convertPoint(tile.size, 0, coarse_scale);

    // Count, per coarse source pixel, the synthesized pixels of the tile
    // whose final match starts there.
    IntView const counters = view(counter_buf);
    gil::fill_pixels(counters, int_gray_pixel_t(0));
    ConstGrayView const tmask = recomposer._tmask.view;
    ConstView<offset_pixel_t> const field = const_view(recomposer._target_nnf_buf);
    std::ptrdiff_t const x0 = std::max<std::ptrdiff_t>(o.x, 0);
    std::ptrdiff_t const y0 = std::max<std::ptrdiff_t>(o.y, 0);
    std::ptrdiff_t const x1 = std::min({o.x + z.x, tmask.width(), field.width()});
    std::ptrdiff_t const y1 = std::min({o.y + z.y, tmask.height(), field.height()});
    bool counted = false;
    for (std::ptrdiff_t y = y0; y < y1; ++y)
        for (std::ptrdiff_t x = x0; x < x1; ++x) {
            if (tmask(x, y)[0] != 0) continue;
            auto const match = field(x, y);
            std::ptrdiff_t const sx = match[0], sy = match[1];
            if (sx >= counters.width() || sy >= counters.height()) continue;
            auto& c = counters(sx, sy)[0];
            c = wrap_add<std::int32_t>(c, 1);
            counted = true;
        }
    if (!counted) {
        // No synthesized pixel at the coarse scale: sample at the origin.
        tile.source_origin = Point(0, 0);
        tile.source_size = Point(0, 0);
        return;
    }
    OutputDebugChecksum("ChooseSourceRegion: raw counter view ", counters);

    // Each counter becomes the count of a window of `b` whose top-left it is.
    Point const b = access.convertPoint(window, 0, coarse_scale);
    x_box_filter(counters, counters,
                 static_cast<int>(std::clamp<std::ptrdiff_t>(b.x, 0, counters.width())));
    OutputDebugChecksum("ChooseSourceRegion: x filtered counter view ", counters);
    y_box_filter(counters, counters,
                 static_cast<int>(std::clamp<std::ptrdiff_t>(b.y, 0, counters.height())));
    OutputDebugChecksum("ChooseSourceRegion: y filtered counter view ", counters);

    // The first maximum in row-major order.
    Point best(0, 0);
    std::int32_t most = counters(0, 0)[0];
    for (std::ptrdiff_t y = 0; y < counters.height(); ++y)
        for (std::ptrdiff_t x = 0; x < counters.width(); ++x)
            if (counters(x, y)[0] > most) {
                most = counters(x, y)[0];
                best = Point(x, y);
            }

    // Matches are patch corners: scale the patch centre, not the corner.
    auto const half = static_cast<std::ptrdiff_t>(recomposer.patch_w * 0.5);
    Point const h(half, half);
    tile.source_origin = access.convertPoint(best + h, coarse_scale, 0) - h;
    tile.source_size = access.convertPoint(b, coarse_scale, 0);
    Point const full = access.getSourceSize();
    auto const clamp_axis = [](std::ptrdiff_t& origin, std::ptrdiff_t size, std::ptrdiff_t limit) {
        if (origin < 0) origin = 0;
        if (origin > limit - size) origin = limit - size;
    };
    clamp_axis(tile.source_origin.x, tile.source_size.x, full.x);
    clamp_axis(tile.source_origin.y, tile.source_size.y, full.y);
}

template <class Compare>
void TwoPassSynthesis<Compare>::SortTiles(int coarse_scale) {
    auto& access = *pixel_access;
    DistanceInsetView const& distance = recomposer._distance_view;
    for (Tile& tile : tiles) {
        Point const o = access.convertPoint(tile.origin, 0, coarse_scale);
        Point const z = access.convertPoint(tile.size, 0, coarse_scale);
        std::ptrdiff_t const x0 = std::max(o.x, distance.xmin);
        std::ptrdiff_t const y0 = std::max(o.y, distance.ymin);
        std::ptrdiff_t const x1 = std::min(o.x + z.x, distance.xmax);
        std::ptrdiff_t const y1 = std::min(o.y + z.y, distance.ymax);
        if (x0 >= x1 || y0 >= y1) {
            tile.priority = 0;
            continue;
        }
        std::int32_t deepest = std::numeric_limits<std::int32_t>::min();
        for (std::ptrdiff_t y = y0; y < y1; ++y)
            for (std::ptrdiff_t x = x0; x < x1; ++x)
                deepest = std::max(deepest, distance.data(x - distance.xmin, y - distance.ymin)[0]);
        tile.priority = deepest;
    }
    // Shallow tiles first: the work moves from the hole's edge to its depth.
    tiles.Sort();
}

template <class Compare>
void TwoPassSynthesis<Compare>::ConstructInitialGuess(Tile const& tile, int coarse_scale) {
    auto& access = *pixel_access;
    Point const o = access.convertPoint(tile.origin, 0, coarse_scale);
    Point const z = access.convertPoint(tile.size, 0, coarse_scale);
    Point const coarse = output_buf.dimensions();
    if (!detail::has_area(coarse))
        raise("WEFTMAP_INTERNAL_ERROR: ConstructInitialGuess without a coarse result");
    // A sliver tile can shrink to nothing at the coarse scale; it then takes
    // its nearest coarse pixel.
    Point at, extent;
    detail::nearest_span(o.x, z.x, coarse.x, at.x, extent.x);
    detail::nearest_span(o.y, z.y, coarse.y, at.y, extent.y);
    ConstView<pixel_t> const part = gil::subimage_view(const_view(output_buf), at, extent);
    resample<pixel_t>(part, init_buf, tile.size.x, tile.size.y, ResampleBilinear, -1);
    OutputDebugChecksum("ConstructInitialGuess guess ", view(init_buf));
}

template <class Compare>
void TwoPassSynthesis<Compare>::ConstructConstraints(Tile const& tile, bool hole,
                                                     bool a_constraint) {
    auto& access = *pixel_access;
    tconstraint_buf.recreate(tile.size);
    view_t const constraint = view(tconstraint_buf);
    {
        view_t out = constraint;
        if (a_constraint)
            access.getAConstraintPixels(out, tile.origin);
        else
            access.getInputPixels(out, tile.origin);
    }
    GrayView const hole_mask = view(hole_buf);
    if (!hole) gil::fill_pixels(hole_mask, gray8_pixel_t(255));

    struct Neighbour {
        int drow;
        int dcol;
        detail::RampSide side;
    };
    static constexpr Neighbour neighbours[] = {{0, -1, detail::RampSide::left},
                                               {0, 1, detail::RampSide::right},
                                               {-1, 0, detail::RampSide::up},
                                               {1, 0, detail::RampSide::down}};
    for (Neighbour const& n : neighbours) {
        int const row = tile.row + n.drow;
        int const col = tile.col + n.dcol;
        if (row < 0 || row >= tiles.rows || col < 0 || col >= tiles.cols) continue;
        // Indexed with the stride of GetTile; on a grid with more rows than
        // columns that can point past the last tile, which is then no
        // neighbour at all.
        long long const index = static_cast<long long>(tiles.rows) * row + col;
        if (index >= static_cast<long long>(tiles.tiles.size())) continue;
        Tile const& other = tiles.tiles[static_cast<std::size_t>(index)];
        if (!other.done) continue;

        // The neighbour's final pixels over the strip it shares with the tile
        // become fixed target pixels.
        auto const strip =
            detail::overlap_in_frame(other.origin - tile.origin, other.size, tile.size);
        if (!detail::has_area(strip.size)) continue;
        view_t fixed = gil::subimage_view(constraint, strip.place, strip.size);
        access.safeGetOutputPixels(fixed, other.origin + strip.skip);
        detail::lower_to_ramp(hole_mask, strip.place, strip.size, n.side);
    }
    OutputDebugChecksum("ConstructConstraints: hole_buf ", hole_mask);
    OutputDebugChecksum("ConstructConstraints: tconstraint_buf ", constraint);
}

template <class Compare>
void TwoPassSynthesis<Compare>::ConstructMasks(Tile const& tile, bool valid, bool a_constraint,
                                               bool a_constraint_mask) {
    auto& access = *pixel_access;
    GrayView valid_mask = view(valid_buf);
    if (valid)
        access.getValidPixels(valid_mask, tile.source_origin);
    else
        gil::fill_pixels(valid_mask, gray8_pixel_t(255));
    if (!a_constraint) {
        // Without a constraint image nothing stands in for the hole's
        // contents, so a window over the hole must not sample from it.
        temp_mask_buf.recreate(valid_buf.dimensions());
        GrayView hole = view(temp_mask_buf);
        access.safeGetHolePixels(hole, tile.source_origin);
        for (std::ptrdiff_t y = 0; y < valid_mask.height(); ++y)
            for (std::ptrdiff_t x = 0; x < valid_mask.width(); ++x) {
                auto const outside = static_cast<unsigned char>(~hole(x, y)[0]);
                auto& v = valid_mask(x, y)[0];
                v = std::min<unsigned char>(v, outside);
            }
    }
    OutputDebugChecksum("TiledPass valid mask ", valid_mask);

    tconstraint_mask_buf.recreate(tile.size);
    GrayView constraint_mask = view(tconstraint_mask_buf);
    if (a_constraint_mask)
        access.getAConstraintMaskPixels(constraint_mask, tile.origin);
    else if (valid)
        access.getValidPixels(constraint_mask, tile.origin);
    else
        gil::fill_pixels(constraint_mask, gray8_pixel_t(255));
    OutputDebugChecksum("TiledPass target_constraint mask ", constraint_mask);
}

#define WEFTMAP_INSTANTIATE_TILED_PASS_FOR(C)                                                     \
    template WEFTMAP_API void TwoPassSynthesis<C>::TiledPass(int);                                \
    template WEFTMAP_API void TwoPassSynthesis<C>::ChooseSourceRegion(Tile&, int, Point);         \
    template WEFTMAP_API void TwoPassSynthesis<C>::SortTiles(int);                                \
    template WEFTMAP_API void TwoPassSynthesis<C>::ConstructInitialGuess(Tile const&, int);       \
    template WEFTMAP_API void TwoPassSynthesis<C>::ConstructConstraints(Tile const&, bool, bool); \
    template WEFTMAP_API void TwoPassSynthesis<C>::ConstructMasks(Tile const&, bool, bool, bool);
#define WEFTMAP_INSTANTIATE_TILED_PASS(P) \
    WEFTMAP_INSTANTIATE_TILED_PASS_FOR(WM::TranslatePatchCompare<P>)

}  // namespace WM
