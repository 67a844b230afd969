// The library's frame source and tile cache adapters and the picture-wide
// access of a multi cache. Instantiated per depth in tile_cache_*.cpp.
#pragma once

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/tapestry/frame_source.hpp>
#include <weftmap/tapestry/tile_cache.hpp>

#include "tapestry/clipped_views.hpp"

#include <cstdint>

namespace WM {

// SubFrameSource ------------------------------------------------------------

template <class Pixel>
int SubFrameSource<Pixel>::GetFrameCount() const {
    return static_cast<int>(frames->size());
}

template <class Pixel>
Point SubFrameSource<Pixel>::GetFrameSize() const {
    return source->GetFrameSize();
}

template <class Pixel>
std::vector<unsigned> const* SubFrameSource<Pixel>::GetLookupTableForFrameNumbers() const {
    return frames;
}

template <class Pixel>
void SubFrameSource<Pixel>::GetFramePixels(int frame, view_t& out, Point offset) const {
    if (frame < 0 || static_cast<std::size_t>(frame) >= frames->size())
        raise("WEFTMAP_INTERNAL_ERROR: frame %d outside a subset of %d frames", frame,
              static_cast<long long>(frames->size()));
    source->GetFramePixels(static_cast<int>((*frames)[static_cast<std::size_t>(frame)]), out,
                           offset);
}

// OneTileCache --------------------------------------------------------------

template <class Pixel>
Point OneTileCache<Pixel>::GetTileSize() const {
    return image->dimensions();
}

template <class Pixel>
bool OneTileCache<Pixel>::TileExists(int tile) const {
    return tile == 0 && has_tile;
}

template <class Pixel>
bool OneTileCache<Pixel>::ReverseMapTileExists(int tile) {
    return tile == 0 && has_index_map;
}

template <class Pixel>
void OneTileCache<Pixel>::GetPixels(int tile, view_t& out, Point position) const {
    if (tile == 0)
        tapestry_detail::copy_at(const_view(*image), out, Point(-position.x, -position.y));
}

template <class Pixel>
void OneTileCache<Pixel>::SetPixels(int tile, view_t const& in, Point position) {
    if (tile == 0) tapestry_detail::copy_at(in, view(*image), position);
    has_tile = true;
    OutputDebugChecksum("single tile output: ", view(*image));
}

template <class Pixel>
void OneTileCache<Pixel>::SetIndexMapPixels(unsigned tile, IndexMapView& in, Point position) {
    if (index_map == nullptr) return;
    has_index_map = true;
    if (tile == 0) tapestry_detail::copy_at(in, view(*index_map), position);
    OutputDebugChecksum("single reverse index map output: ", view(*index_map));
}

template <class Pixel>
void OneTileCache<Pixel>::OutputJSON(std::ostream&) const {}

template <class Pixel>
unsigned OneTileCache<Pixel>::GetTileCount() const {
    return 1;
}

template <class Pixel>
unsigned OneTileCache<Pixel>::GetTileWidth() const {
    return static_cast<unsigned>(image->width());
}

// MultiTapestryTileCache: picture-wide access ---------------------------------

namespace tapestry_detail {

// The tiles that a view of `width` at picture column `x` touches, and the
// view's column in the first of them (truncating division: a negative
// origin is not expected).
struct TileSpan {
    std::int64_t first;
    std::int64_t last;
    std::int64_t x;
};

inline TileSpan tile_span(std::int64_t origin_x, std::int64_t width, std::int64_t tile_width) {
    if (tile_width <= 0)
        raise("WEFTMAP_INVALID_PARAMETERS: tile width must be positive (got %d)",
              static_cast<long long>(tile_width));
    return {origin_x / tile_width, (origin_x + width - 1) / tile_width, origin_x % tile_width};
}

// Runs `visit(tile, position)` for every tile a view touches, with the
// view's top-left in that tile's coordinates.
template <class Visit>
void for_each_tile(Point tile_size, Point origin, Point view_size, Visit const& visit) {
    if (view_size.x <= 0 || view_size.y <= 0) return;  // nothing to read or write
    TileSpan const span = tile_span(origin.x, view_size.x, tile_size.x);
    std::int64_t x = span.x;
    for (std::int64_t t = span.first; t <= span.last; ++t, x -= tile_size.x)
        visit(static_cast<std::uint32_t>(t), Point(x, origin.y));
}

}  // namespace tapestry_detail

template <class Pixel>
void MultiTapestryTileCache<Pixel>::GetPixels(unsigned level, unsigned inbetween, view_t& out,
                                              Point origin) const {
    Point const tile = GetTileSize();
    tapestry_detail::for_each_tile(tile, origin, out.dimensions(), [&](unsigned t, Point p) {
        if (TileExists(level, inbetween, t)) {
            ReadTile(level, inbetween, t, out, p);
            return;
        }
        debug_log("WARNING: accessed empty tile (%d, %d, %d)\n", level, inbetween, t);
        tapestry_detail::fill_at(out, Point(-p.x, -p.y), tile, Pixel());
    });
}

template <class Pixel>
void MultiTapestryTileCache<Pixel>::SetPixels(unsigned level, unsigned inbetween, view_t const& in,
                                              Point origin) {
    tapestry_detail::for_each_tile(
        GetTileSize(), origin, in.dimensions(),
        [&](unsigned t, Point p) { WriteTile(level, inbetween, t, in, p); });
}

template <class Pixel>
void MultiTapestryTileCache<Pixel>::GetIndexMapPixels(unsigned level, IndexMapView& out,
                                                      Point origin) const {
    Point const tile = GetTileSize();
    tapestry_detail::for_each_tile(tile, origin, out.dimensions(), [&](unsigned t, Point p) {
        if (IndexMapTileExists(level, t)) {
            ReadIndexMapTile(level, t, out, p);
            return;
        }
        debug_log("WARNING: accessed empty tile (%d, %d)\n", level, t);
        tapestry_detail::fill_at(out, Point(-p.x, -p.y), tile, rgb8_pixel_t(0, 0, 0));
    });
}

template <class Pixel>
void MultiTapestryTileCache<Pixel>::SetIndexMapPixels(unsigned level, IndexMapView& in,
                                                      Point origin) {
    tapestry_detail::for_each_tile(
        GetTileSize(), origin, in.dimensions(),
        [&](unsigned t, Point p) { WriteIndexMapTile(level, t, in, p); });
}

// MultiTileCacheAdaptor -------------------------------------------------------

template <class Pixel>
Point MultiTileCacheAdaptor<Pixel>::GetTileSize() const {
    return cache->GetTileSize();
}

template <class Pixel>
bool MultiTileCacheAdaptor<Pixel>::TileExists(int tile) const {
    // A host cache numbers tiles from 0; none lies left of the first.
    return tile >= 0 && cache->TileExists(level, inbetween, static_cast<unsigned>(tile));
}

template <class Pixel>
void MultiTileCacheAdaptor<Pixel>::GetPixels(int tile, view_t& out, Point position) const {
    cache->ReadTile(level, inbetween, static_cast<unsigned>(tile), out, position);
}

template <class Pixel>
void MultiTileCacheAdaptor<Pixel>::SetPixels(int tile, view_t const& in, Point position) {
    cache->WriteTile(level, inbetween, static_cast<unsigned>(tile), in, position);
}

template <class Pixel>
void MultiTileCacheAdaptor<Pixel>::SetIndexMapPixels(unsigned tile, IndexMapView& in,
                                                     Point position) {
    cache->WriteIndexMapTile(level, tile, in, position);
}

template <class Pixel>
void MultiTileCacheAdaptor<Pixel>::GetIndexMapPixels(unsigned tile, IndexMapView& out,
                                                     Point position) const {
    cache->ReadIndexMapTile(level, tile, out, position);
}

#define WEFTMAP_INSTANTIATE_TILE_CACHE(P)                 \
    template class WEFTMAP_API SubFrameSource<P>;         \
    template class WEFTMAP_API OneTileCache<P>;           \
    template class WEFTMAP_API MultiTapestryTileCache<P>; \
    template class WEFTMAP_API MultiTileCacheAdaptor<P>;

}  // namespace WM
