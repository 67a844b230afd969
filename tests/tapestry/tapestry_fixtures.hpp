// Frame sources and tile caches for the tapestry tests: a horizontal pan
// over a generated picture, frames that carry their own number, an
// in-memory multi-level cache and a single-level cache that records calls.
#pragma once

#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/correspondence/random.hpp>
#include <weftmap/tapestry/frame_source.hpp>
#include <weftmap/tapestry/multi_tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_factory.hpp>
#include <weftmap/tapestry/tile_cache.hpp>

#include <map>
#include <set>
#include <tuple>
#include <vector>

namespace WM::test {

// Copies `src` into `dst` with src's top-left at `offset` of dst, clipped.
template <class Src, class Dst>
void paste(Src const& src, Dst const& dst, Point offset) {
    for (std::ptrdiff_t y = 0; y < src.height(); ++y)
        for (std::ptrdiff_t x = 0; x < src.width(); ++x) {
            std::ptrdiff_t const u = x + offset.x, v = y + offset.y;
            if (u >= 0 && v >= 0 && u < dst.width() && v < dst.height()) dst(u, v) = src(x, y);
        }
}

// Only a frame size and count: for the layout and planning formulas.
template <class Pixel>
struct SizeOnlySource : TapestryFrameSource<Pixel> {
    SizeOnlySource(Point size, int count) : size(size), count(count) {}
    int GetFrameCount() const override { return count; }
    Point GetFrameSize() const override { return size; }
    void GetFramePixels(int, View<Pixel>&, Point) const override {}
    Point size;
    int count;
};

// Frame i shows `picture` from column i * step: a camera panning right.
template <class Pixel>
struct PanSource : TapestryFrameSource<Pixel> {
    PanSource(RecycledImage<Pixel> picture, Point size, int count, int step)
        : picture(std::move(picture)), size(size), count(count), step(step) {}
    int GetFrameCount() const override { return count; }
    Point GetFrameSize() const override { return size; }
    void GetFramePixels(int frame, View<Pixel>& out, Point offset) const override {
        asked.push_back(frame);
        auto const crop = gil::subimage_view(const_view(picture), frame * step, 0, size.x, size.y);
        paste(crop, out, offset);
    }
    RecycledImage<Pixel> picture;
    Point size;
    int count;
    int step;
    mutable std::vector<int> asked;
};

// A textured picture wide enough for `count` frames of a pan: noise
// blurred `passes` times with a 1-2-1 kernel in both directions, so that
// patches vary gently, as photographs do.
inline RecycledImage<gray8_pixel_t> pan_picture(Point frame, int count, int step, unsigned seed,
                                                int passes = 1) {
    auto picture = random_image<gray8_pixel_t>(frame.x + count * step, frame.y, seed);
    auto const blur = [&](int dx, int dy) {
        auto const before = picture;
        auto const at = [&](std::ptrdiff_t x, std::ptrdiff_t y) {
            x = std::clamp<std::ptrdiff_t>(x, 0, picture.width() - 1);
            y = std::clamp<std::ptrdiff_t>(y, 0, picture.height() - 1);
            return int(const_view(before)(x, y)[0]);
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

// Frame i is a flat grey of numbered_level(i) with a faint texture, so
// that every pixel of a result tells which frame it came from.
inline int numbered_level(int frame) {
    return 60 + 35 * frame;
}

struct NumberedSource : TapestryFrameSource<gray8_pixel_t> {
    NumberedSource(Point size, int count) : size(size), count(count) {}
    int GetFrameCount() const override { return count; }
    Point GetFrameSize() const override { return size; }
    void GetFramePixels(int frame, GrayView& out, Point offset) const override {
        RecycledImage<gray8_pixel_t> image(size);
        for (std::ptrdiff_t y = 0; y < size.y; ++y)
            for (std::ptrdiff_t x = 0; x < size.x; ++x)
                view(image)(x, y)[0] =
                    static_cast<unsigned char>(numbered_level(frame) + (x * 7 + y * 3) % 9 - 4);
        paste(const_view(image), out, offset);
    }
    Point size;
    int count;
};

// A single-level cache in memory that records which tiles were asked,
// read and written, and can fail once when a tile is first asked for.
template <class Pixel>
struct RecordingTileCache : TapestryTileCache<Pixel> {
    using Write = std::tuple<int, std::ptrdiff_t>;  // tile, x of the position

    explicit RecordingTileCache(Point tile_size) : tile_size(tile_size) {}
    Point GetTileSize() const override { return tile_size; }
    bool TileExists(int tile) const override {
        if (tile == fail_at_tile) {
            fail_at_tile = -100;
            throw Exception("WEFTMAP_USER_CANCELED");
        }
        return tiles.count(tile) != 0;
    }
    void GetPixels(int tile, View<Pixel>& out, Point position) const override {
        reads.emplace_back(tile, position.x);
        auto const it = tiles.find(tile);
        if (it != tiles.end()) paste(const_view(it->second), out, Point(-position.x, -position.y));
    }
    void SetPixels(int tile, View<Pixel> const& in, Point position) override {
        writes.emplace_back(tile, position.x);
        auto& image = tiles[tile];
        if (image.width() == 0) image = filled(tile_size, Pixel());
        paste(in, view(image), position);
    }
    void SetIndexMapPixels(unsigned tile, IndexMapView& in, Point position) override {
        auto& image = index_maps[static_cast<int>(tile)];
        if (image.width() == 0) image = filled(tile_size, rgb8_pixel_t(0, 0, 0));
        paste(in, view(image), position);
    }
    // The tiles' constructions: writes at the tile's own position.
    std::vector<int> built(std::ptrdiff_t overlap) const {
        std::vector<int> result;
        for (auto const& [tile, x] : writes)
            if (x == -overlap) result.push_back(tile);
        return result;
    }
    // Tiles 0 .. count-1 side by side.
    RecycledImage<Pixel> picture(int count) const {
        RecycledImage<Pixel> result = filled(Point(tile_size.x * count, tile_size.y), Pixel());
        for (auto const& [tile, image] : tiles)
            if (tile >= 0 && tile < count)
                paste(const_view(image), view(result), Point(tile * tile_size.x, 0));
        return result;
    }

    Point tile_size;
    std::map<int, RecycledImage<Pixel>> tiles;
    std::map<int, RecycledImage<rgb8_pixel_t>> index_maps;
    mutable std::vector<Write> reads;
    std::vector<Write> writes;
    mutable int fail_at_tile = -100;
};

// A multi-level cache in memory; a tile exists once written. Picture
// widths come from the factory's plan.
template <class Pixel>
struct MemoryMultiCache : MultiTapestryTileCache<Pixel> {
    using Key = std::tuple<unsigned, unsigned, unsigned>;  // level, in-between, tile

    explicit MemoryMultiCache(Point tile_size) : tile_size(tile_size) {}
    Point GetTileSize() const override { return tile_size; }
    unsigned GetTileCount(unsigned level, unsigned inbetween) const override {
        return static_cast<unsigned>((widths.at(level).at(inbetween) + tile_size.x - 1) /
                                     tile_size.x);
    }
    bool TileExists(unsigned level, unsigned inbetween, unsigned tile) const override {
        return tiles.count({level, inbetween, tile}) != 0;
    }
    bool IndexMapTileExists(unsigned level, unsigned tile) const override {
        return index_maps.count({level, 0, tile}) != 0;
    }
    bool AdjacentTileExists(unsigned level, unsigned tile) const override {
        return marked.count({level, tile}) != 0;
    }
    void MarkAnimationTile(unsigned level, unsigned tile) override { marked.insert({level, tile}); }
    void ReadTile(unsigned level, unsigned inbetween, unsigned tile, View<Pixel>& out,
                  Point position) const override {
        reads.push_back({level, inbetween, tile, position.x});
        paste(const_view(tiles.at({level, inbetween, tile})), out, Point(-position.x, -position.y));
    }
    void ReadIndexMapTile(unsigned level, unsigned tile, IndexMapView& out,
                          Point position) const override {
        paste(const_view(index_maps.at({level, 0, tile})), out, Point(-position.x, -position.y));
    }
    void WriteTile(unsigned level, unsigned inbetween, unsigned tile, View<Pixel> const& in,
                   Point position) override {
        writes.push_back({level, inbetween, tile, position.x});
        auto& image = tiles[{level, inbetween, tile}];
        if (image.width() == 0) image = filled(tile_size, Pixel());
        paste(in, view(image), position);
    }
    void WriteIndexMapTile(unsigned level, unsigned tile, IndexMapView const& in,
                           Point position) override {
        auto& image = index_maps[{level, 0, tile}];
        if (image.width() == 0) image = filled(tile_size, rgb8_pixel_t(0, 0, 0));
        paste(in, view(image), position);
    }

    struct Access {
        unsigned level, inbetween, tile;
        std::ptrdiff_t x;
        bool operator==(Access const& o) const {
            return std::tie(level, inbetween, tile, x) ==
                   std::tie(o.level, o.inbetween, o.tile, o.x);
        }
    };
    Point tile_size;
    std::vector<std::vector<std::uint32_t>> widths;
    std::map<Key, RecycledImage<Pixel>> tiles;
    std::map<Key, RecycledImage<rgb8_pixel_t>> index_maps;
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
    using MultiTapestryFactory<Pixel>::PrecomputeWidths;
    using MultiTapestryFactory<Pixel>::PrepareProgressTable;
    using MultiTapestryFactory<Pixel>::AdvanceProgress;
    // Plans the widths again for the current in-between count.
    void replan() { PrecomputeWidths(static_cast<unsigned>(this->frame_lists.size())); }
};

// One correspondence band and a fixed seed: runs that repeat exactly.
struct Reproducible {
    explicit Reproducible(unsigned seed = 7) : saved(client().threadCount) {
        client().threadCount = 1;
        seed_random(seed);
    }
    ~Reproducible() { client().threadCount = saved; }
    long long saved;
};

}  // namespace WM::test
