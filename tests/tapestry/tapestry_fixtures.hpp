// Frame sources and tile caches for the tapestry tests: a pan over a
// generated picture, frames that carry their own number, and in-memory
// caches that record every access.
#pragma once

#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/tapestry/multi_tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_factory.hpp>

#include <map>
#include <set>
#include <tuple>
#include <vector>

namespace WM::test {

// Copies `src` into `dst` with src's top-left at `offset` of dst, clipped.
template <class Src, class Dst>
void paste(Src const& src, Dst const& dst, Point offset) {
    for (std::ptrdiff_t y = 0; y < src.height(); ++y)
        for (std::ptrdiff_t x = 0; x < src.width(); ++x)
            if (x + offset.x >= 0 && y + offset.y >= 0 && x + offset.x < dst.width() &&
                y + offset.y < dst.height())
                dst(x + offset.x, y + offset.y) = src(x, y);
}

// Frame i shows `picture` from column i * step; without a picture, only sizes.
template <class Pixel>
struct PanSource : TapestryFrameSource<Pixel> {
    PanSource(RecycledImage<Pixel> picture, Point size, int count, int step = 0)
        : picture(std::move(picture)), size(size), count(count), step(step) {}
    int GetFrameCount() const override { return count; }
    Point GetFrameSize() const override { return size; }
    void GetFramePixels(int frame, View<Pixel>& out, Point offset) const override {
        asked.push_back(frame);
        paste(gil::subimage_view(const_view(picture), frame * step, 0, size.x, size.y), out,
              offset);
    }
    RecycledImage<Pixel> picture;
    Point size;
    int count, step;
    mutable std::vector<int> asked;
};

template <class Pixel>
PanSource<Pixel> sizes_only(Point size, int count) {
    return PanSource<Pixel>(RecycledImage<Pixel>(), size, count);
}

// Noise for `count` frames of a pan, blurred `passes` times with a 1-2-1
// kernel (horizontally first): patches that vary gently, as in photographs.
inline RecycledImage<gray8_pixel_t> pan_picture(Point frame, int count, int step, unsigned seed,
                                                int passes = 1) {
    auto picture = random_image<gray8_pixel_t>(frame.x + count * step, frame.y, seed);
    auto const blur = [&](int dx, int dy) {
        auto const before = picture;
        auto const at = [&](std::ptrdiff_t x, std::ptrdiff_t y) {
            return int(
                const_view(before)(std::clamp<std::ptrdiff_t>(x, 0, picture.width() - 1),
                                   std::clamp<std::ptrdiff_t>(y, 0, picture.height() - 1))[0]);
        };
        for (std::ptrdiff_t y = 0; y < picture.height(); ++y)
            for (std::ptrdiff_t x = 0; x < picture.width(); ++x)
                view(picture)(x, y)[0] = static_cast<unsigned char>(
                    (at(x - dx, y - dy) + 2 * at(x, y) + at(x + dx, y + dy)) / 4);
    };
    blur(1, 0);
    for (int pass = 1; pass < passes; ++pass) blur(1, 0), blur(0, 1);
    return picture;
}

// Frame i: a flat grey of numbered_level(i) with a faint texture.
inline int numbered_level(int frame) {
    return 60 + 35 * frame;
}
inline RecycledImage<gray8_pixel_t> numbered_frames(Point size, int count) {
    RecycledImage<gray8_pixel_t> strip(Point(size.x * count, size.y));
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < strip.width(); ++x)
            view(strip)(x, y)[0] = static_cast<unsigned char>(numbered_level(int(x / size.x)) +
                                                              (x * 7 + y * 3) % 9 - 4);
    return strip;
}

// A multi-level cache in memory that records accesses as (level,
// in-between, tile, x of the position) and can fail once when a tile is
// first asked for; picture widths come from the plan.
template <class Pixel>
struct MemoryMultiCache : MultiTapestryTileCache<Pixel> {
    using Key = std::tuple<unsigned, unsigned, unsigned>;
    using Access = std::tuple<unsigned, unsigned, unsigned, std::ptrdiff_t>;
    explicit MemoryMultiCache(Point tile_size) : tile_size(tile_size) {}
    Point GetTileSize() const override { return tile_size; }
    unsigned GetTileCount(unsigned level, unsigned i) const override {
        return unsigned((widths.at(level).at(i) + tile_size.x - 1) / tile_size.x);
    }
    bool TileExists(unsigned l, unsigned i, unsigned t) const override {
        if (t == fail_at_tile) fail_at_tile = ~0u, raise("WEFTMAP_USER_CANCELED");
        return tiles.count({l, i, t}) != 0;
    }
    bool IndexMapTileExists(unsigned l, unsigned t) const override {
        return maps.count({l, 0, t}) != 0;
    }
    bool AdjacentTileExists(unsigned l, unsigned t) const override { return marked.count({l, t}); }
    void MarkAnimationTile(unsigned l, unsigned t) override { marked.insert({l, t}); }
    void ReadTile(unsigned l, unsigned i, unsigned t, View<Pixel>& out, Point p) const override {
        reads.emplace_back(l, i, t, p.x);
        paste(const_view(tiles.at({l, i, t})), out, Point(-p.x, -p.y));
    }
    void ReadIndexMapTile(unsigned l, unsigned t, IndexMapView& out, Point p) const override {
        paste(const_view(maps.at({l, 0, t})), out, Point(-p.x, -p.y));
    }
    void WriteTile(unsigned l, unsigned i, unsigned t, View<Pixel> const& in, Point p) override {
        writes.emplace_back(l, i, t, p.x);
        store(tiles, {l, i, t}, in, p);
    }
    void WriteIndexMapTile(unsigned l, unsigned t, IndexMapView const& in, Point p) override {
        store(maps, {l, 0, t}, in, p);
    }
    template <class Map, class In>
    void store(Map& map, Key key, In const& in, Point p) {
        if (!map.count(key)) map[key] = filled(tile_size, typename In::value_type());
        paste(in, view(map[key]), p);
    }
    // The tiles built, in order: writes at a tile's own position.
    std::vector<std::pair<unsigned, unsigned>> built(std::ptrdiff_t overlap) const {
        std::vector<std::pair<unsigned, unsigned>> result;
        for (auto const& [level, inbetween, tile, x] : writes)
            if (x == -overlap) result.emplace_back(level, tile);
        return result;
    }
    RecycledImage<Pixel> picture(unsigned count) const {  // level 0, tiles side by side
        auto result = filled(Point(tile_size.x * count, tile_size.y), Pixel());
        for (unsigned t = 0; t < count; ++t)
            paste(const_view(tiles.at({0, 0, t})), view(result), Point(t * tile_size.x, 0));
        return result;
    }
    Point tile_size;
    mutable unsigned fail_at_tile = ~0u;
    std::vector<std::vector<std::uint32_t>> widths;
    std::map<Key, RecycledImage<Pixel>> tiles;
    std::map<Key, RecycledImage<rgb8_pixel_t>> maps;
    std::set<std::pair<unsigned, unsigned>> marked;
    mutable std::vector<Access> reads;
    std::vector<Access> writes;
};

// The factories with their protected steps in reach.
template <class Pixel>
struct OpenTapestryFactory : TapestryFactory<Pixel> {
    using TapestryFactory<Pixel>::TapestryFactory;
    using TapestryFactory<Pixel>::PreallocateTileBuffers;
};
template <class Pixel>
struct OpenMultiFactory : MultiTapestryFactory<Pixel> {
    using MultiTapestryFactory<Pixel>::MultiTapestryFactory;
    using MultiTapestryFactory<Pixel>::PrepareProgressTable;
    using MultiTapestryFactory<Pixel>::AdvanceProgress;
    // Plans the widths again for the current in-between count.
    void replan() { this->PrecomputeWidths(unsigned(this->frame_lists.size())); }
};

}  // namespace WM::test
