// Animation in-betweens between two levels: the islands (regions of the
// coarser picture that map rigidly into the finer one), pictures in which
// they slide from their finer place to their coarser place while the rest is
// synthesised anew, and the tile-by-tile form over a cache.
// Instantiated per depth in islands_*.cpp.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/recomposer/recomposer.hpp>
#include <weftmap/tapestry/multi_tapestry_factory.hpp>

#include "tapestry/clipped_views.hpp"
#include "tapestry/tile_geometry.hpp"

#include <boost/format.hpp>
#include <boost/gil/algorithm.hpp>

#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

namespace WM {
namespace tapestry_detail {

// A checksum whose label carries a number; the label is built only when
// diagnostics are on.
template <class ViewT>
void numbered_checksum(char const* format, unsigned number, ViewT const& v) {
    if (debug_output() != nullptr)
        OutputDebugChecksum((boost::format(format) % number).str().c_str(), v);
}

// Breadth-first labelling of the field's whole-patch region into connected
// components of one translation (within `tolerance`). Calls
// `component(seed_x, seed_y, size)` for each, in row-major seed order.
template <class Component>
void label_components(OffsetView const& field, IntView const& labels, Point region,
                      std::int32_t tolerance, Component const& component) {
    static constexpr int steps[4][2] = {{-1, 0}, {1, 0}, {0, -1}, {0, 1}};  // left right up down
    std::vector<std::pair<std::int32_t, std::int32_t>> queue;
    std::int32_t counter = 0;
    for (std::int32_t y = 0; y < region.y; ++y)
        for (std::int32_t x = 0; x < region.x; ++x) {
            if (labels(x, y)[0] != 0) continue;
            labels(x, y)[0] = ++counter;
            queue.assign(1, {x, y});
            std::int64_t size = 1;
            for (std::size_t head = 0; head < queue.size(); ++head) {
                auto const [px, py] = queue[head];
                auto const f = field(px, py);
                for (auto const& step : steps) {
                    std::int32_t const qx = px + step[0], qy = py + step[1];
                    if (qx < 0 || qy < 0 || qx >= region.x || qy >= region.y) continue;
                    if (labels(qx, qy)[0] != 0) continue;
                    auto const g = field(qx, qy);
                    if (std::abs(std::int32_t(g[0]) - std::int32_t(f[0]) - step[0]) > tolerance ||
                        std::abs(std::int32_t(g[1]) - std::int32_t(f[1]) - step[1]) > tolerance)
                        continue;
                    labels(qx, qy)[0] = counter;
                    ++size;
                    queue.emplace_back(qx, qy);
                }
            }
            component(x, y, size);
        }
}

}  // namespace tapestry_detail

template <class Pixel>
void MultiTapestryFactory<Pixel>::FindIslands(view_t const& finer, view_t const& coarser) {
    islands.clear();
    Weftmap<TranslatePatchCompare<Pixel>> engine(this);
    std::int32_t const patch_w = engine.patch_w;
    if (patch_w != 7) raise("WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: %d", patch_w);
    if (std::min({finer.width(), finer.height(), coarser.width(), coarser.height()}) < patch_w)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: island search needs pictures of at least %d pixels per "
            "side (finer %dx%d, coarser %dx%d)",
            patch_w, static_cast<long long>(finer.width()), static_cast<long long>(finer.height()),
            static_cast<long long>(coarser.width()), static_cast<long long>(coarser.height()));
    ConstView<Pixel> const target(coarser), from(finer);
    {
        RecycledImage<distance_pixel_t<Pixel>> distances;
        engine.init_nnf(coarser.dimensions(), finer.dimensions(), island_field, nullptr, nullptr,
                        nullptr);
        engine.init_dist(target, from, view(island_field), distances, nullptr, nullptr, nullptr);
        engine.search(target, from, view(island_field), view(distances), nullptr, nullptr, nullptr,
                      0, 0, 0, nullptr);
        AdvanceProgress();
    }

    island_labels.recreate(island_field.dimensions());
    gil::fill_pixels(view(island_labels), int_gray_pixel_t(0));
    OffsetView const field = view(island_field);
    IntView const labels = view(island_labels);
    Point const region(field.width() - patch_w + 1, field.height() - patch_w + 1);
    std::vector<Island> found;
    tapestry_detail::label_components(
        field, labels, region, island_tolerance, [&](std::int32_t x, std::int32_t y, auto size) {
            if (size > min_island_size)
                found.push_back({field.xy_at(x, y), labels.xy_at(x, y), x, y});
        });
    // A component that moved too far vertically is no island.
    for (Island const& island : found) {
        std::int32_t const shift = std::int32_t((*island.field_at)[1]) - island.y;
        if (std::abs(shift) < max_island_shift) islands.push_back(island);
    }
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::ConstructAnimationFrame(image_t& out, view_t const& previous,
                                                          view_t const& finer, view_t& coarser,
                                                          unsigned inbetween,
                                                          GrayView const* tile_mask,
                                                          view_t const* tile_constraint) {
    if (finer.height() != coarser.height())
        raise("WEFTMAP_INTERNAL_ERROR: mismatch between buffer heights of different levels");
    if (!islands.empty() && island_labels.dimensions() != coarser.dimensions())
        raise("WEFTMAP_INTERNAL_ERROR: islands were found for a coarser picture of another size");
    float const t = static_cast<float>(inbetween) / tapestry_detail::steps_between(inbetweens);
    bool const tiled = tile_mask != nullptr && tile_constraint != nullptr;
    Point const size =
        tiled
            ? tile_mask->dimensions()
            : Point(tapestry_detail::truncate_i32((1.0 - t) * static_cast<float>(finer.width()) +
                                                  double(static_cast<float>(coarser.width()) * t)),
                    finer.height());

    image_t canvas(size);
    view_t canvas_view = view(canvas);
    gil::fill_pixels(canvas_view, Pixel());
    RecycledImage<gray8_pixel_t> island_mask(coarser.dimensions()), keep_mask(size);
    GrayView const islands_view = view(island_mask);
    GrayView keep = view(keep_mask);
    gil::fill_pixels(islands_view, gray8_pixel_t(0));
    gil::fill_pixels(keep, gray8_pixel_t(0));
    if (tiled) {
        tapestry_detail::copy_at(*tile_constraint, canvas_view, Point(0, 0));
        tapestry_detail::ClippedRect const r =
            tapestry_detail::clip(Point(0, 0), tile_mask->dimensions(), size);
        for (std::ptrdiff_t y = 0; y < r.size.y; ++y)
            for (std::ptrdiff_t x = 0; x < r.size.x; ++x)
                keep(x, y)[0] = static_cast<unsigned char>(~(*tile_mask)(x, y)[0]);
    }

    IntView const labels = view(island_labels);
    for (Island const& island : islands) {
        auto const s = *island.field_at;
        auto const dx = tapestry_detail::truncate_i32(
            static_cast<float>(std::int32_t(s[0]) - island.x) * (1.0 - t));
        auto const dy = tapestry_detail::truncate_i32(
            static_cast<float>(std::int32_t(s[1]) - island.y) * (1.0 - t));
        std::int32_t const label = (*island.label_at)[0];
        for (std::ptrdiff_t y = 0; y < labels.height(); ++y)
            for (std::ptrdiff_t x = 0; x < labels.width(); ++x)
                islands_view(x, y)[0] = labels(x, y)[0] == label ? 255 : 0;
        // Later islands paint over earlier ones where they meet.
        for (std::ptrdiff_t y = 0; y < coarser.height(); ++y) {
            std::ptrdiff_t const ty = y + dy;
            if (ty < 0 || ty >= size.y) continue;
            for (std::ptrdiff_t x = 0; x < coarser.width(); ++x) {
                std::ptrdiff_t const tx = x + dx;
                if (tx < 0 || tx >= size.x || islands_view(x, y)[0] == 0) continue;
                canvas_view(tx, ty) = coarser(x, y);
                keep(tx, ty) = islands_view(x, y);
            }
        }
    }
    tapestry_detail::numbered_checksum("islands inbetween %d: ", inbetween, canvas_view);
    tapestry_detail::numbered_checksum("islands mask %d: ", inbetween, keep);

    // Now 255 where pixels are to be made, 0 under the islands and in the
    // strips that neighbouring tiles fix.
    for (auto& p : keep) p[0] = static_cast<unsigned char>(~p[0]);
    {
        WeftmapRecomposer<TranslatePatchCompare<Pixel>> recomposer(this, RecomposerModeHoleFill);
        std::vector<Constraint> constraints;
        recomposer.recompose(finer, constraints, out, &keep, nullptr, &previous, nullptr,
                             &canvas_view, nullptr, nullptr, nullptr);
        AdvanceProgress();
        tapestry_detail::numbered_checksum("inbetween %d: ", inbetween, view(out));
    }
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::ConstructAnimationFrame(UntiledMultiTapestry<Pixel>& tapestry,
                                                          unsigned level, unsigned inbetween) {
    if (std::size_t(level) + 1 >= tapestry.levels.size() || inbetween == 0 ||
        inbetween >= tapestry.levels[level].size() || tapestry.levels[level + 1].empty())
        raise("WEFTMAP_INVALID_PARAMETERS: no in-between %d after level %d in this tapestry",
              inbetween, level);
    auto& pictures = tapestry.levels[level];
    view_t const previous = view(pictures[inbetween - 1]);
    view_t const finer = view(pictures[0]);
    view_t coarser = view(tapestry.levels[level + 1][0]);
    ConstructAnimationFrame(pictures[inbetween], previous, finer, coarser, inbetween, nullptr,
                            nullptr);
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::ConstructAnimationTiles(MultiTapestryTileCache<Pixel>& cache,
                                                          unsigned level, unsigned tile) {
    if (!cache.TileExists(level, 0, tile))
        raise("WEFTMAP_INTERNAL_ERROR: ConstructAnimationTiles: level %d tile %d doesn't exist",
              level, tile);
    if (level == 0) raise("WEFTMAP_INVALID_PARAMETERS: level 0 has no finer level to animate from");
    debug_log("Constructing animation tiles level %d tile %d\n", level, tile);
    unsigned const finer_level = level - 1;
    std::int64_t const ov = tapestry_detail::tile_overlap(source->GetFrameSize().x);
    Point const tile_size = cache.GetTileSize();
    std::int64_t const tw = tile_size.x, th = tile_size.y;
    // No tile lies left of the first.
    bool const left = tile > 0 && cache.AdjacentTileExists(level, tile - 1);
    bool const right = cache.AdjacentTileExists(level, tile + 1);
    std::int64_t const margin = (std::int64_t(left) + std::int64_t(right)) * ov;
    std::int64_t const lo = left ? -ov : 0;

    std::int64_t const x0 = std::int64_t(tile) * tw, x1 = x0 + tw;
    image_t coarser_buf(Point(tw + margin, th));
    view_t coarser = view(coarser_buf);
    cache.GetPixels(level, 0, coarser, Point(x0 + lo, 0));
    OutputDebugChecksum("coarser level tile buffer: ", coarser);

    std::int64_t const f0 = TransformPoint(Point(x0, 0), level, finer_level, 0, 0).x;
    std::int64_t const f1 = TransformPoint(Point(x1, 0), level, finer_level, 0, 0).x;
    image_t finer_buf(Point(f1 - f0 + margin, th));
    view_t finer = view(finer_buf);
    cache.GetPixels(finer_level, 0, finer, Point(f0 + lo, 0));
    OutputDebugChecksum("finer level tile buffer: ", finer);

    FindIslands(finer, coarser);
    image_t previous(finer_buf);
    image_t current;
    for (std::int32_t i = 1; i <= inbetweens; ++i) {
        auto const step = static_cast<unsigned>(i);
        debug_log("  inbetween  %d\n", i);
        std::int64_t const a = TransformPoint(Point(x0, 0), level, finer_level, 0, step).x;
        std::int64_t const b = TransformPoint(Point(x1, 0), level, finer_level, 0, step).x;
        std::int64_t const cw = b - a;
        current.recreate(Point(cw + margin, th));
        if (left || right) {
            image_t constraint_buf(current.dimensions());
            RecycledImage<gray8_pixel_t> mask_buf(current.dimensions());
            view_t constraint = view(constraint_buf);
            GrayView mask = view(mask_buf);
            std::int64_t c = 0;
            if (left) {  // the strip the left neighbour wrote into this in-between
                view_t strip = gil::subimage_view(constraint, 0, 0, ov, th);
                cache.GetPixels(finer_level, step, strip, Point(a + lo, 0));
                c = ov;
            }
            tapestry_detail::fill_at(constraint, Point(c, 0), Point(cw, th), Pixel());
            if (right) {
                view_t strip = gil::subimage_view(constraint, c + cw, 0, ov, th);
                cache.GetPixels(finer_level, step, strip, Point(a + lo + c + cw, 0));
            }
            OutputDebugChecksum("adjacent tile constraints: ", constraint);
            tapestry_detail::build_tile_hole(mask, left, right, static_cast<std::int32_t>(ov));
            ConstructAnimationFrame(current, view(previous), finer, coarser, step, &mask,
                                    &constraint);
        } else {
            ConstructAnimationFrame(current, view(previous), finer, coarser, step, nullptr,
                                    nullptr);
        }
        OutputDebugChecksum("current inbetween tile: ", view(current));
        cache.SetPixels(finer_level, step, view(current), Point(a + lo, 0));
        if (i < inbetweens) swap(current, previous);
    }
    cache.MarkAnimationTile(level, tile);
}

#define WEFTMAP_INSTANTIATE_ISLANDS(P)                                                          \
    template WEFTMAP_API void MultiTapestryFactory<P>::FindIslands(View<P> const&,              \
                                                                   View<P> const&);             \
    template WEFTMAP_API void MultiTapestryFactory<P>::ConstructAnimationFrame(                 \
        RecycledImage<P>&, View<P> const&, View<P> const&, View<P>&, unsigned, GrayView const*, \
        View<P> const*);                                                                        \
    template WEFTMAP_API void MultiTapestryFactory<P>::ConstructAnimationFrame(                 \
        UntiledMultiTapestry<P>&, unsigned, unsigned);                                          \
    template WEFTMAP_API void MultiTapestryFactory<P>::ConstructAnimationTiles(                 \
        MultiTapestryTileCache<P>&, unsigned, unsigned);

}  // namespace WM
