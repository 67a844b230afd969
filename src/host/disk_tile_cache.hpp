// The library's multi-level tile cache over a folder of tile files: levels,
// in-betweens and index maps as pictures, finished in-betweens as marker
// files, so that a run resumes from whatever an earlier one left. A few
// recently used tiles stay decoded, since a tile's neighbours read and
// rewrite its overlap strips right after it is built.
#pragma once

#include "dispatch.hpp"
#include "tile_store.hpp"

#include <weftmap/correspondence/random.hpp>
#include <weftmap/tapestry/tile_cache.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cstdint>
#include <list>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace WM::host::detail {

// Copies `from` into `to` with from's top-left at `at` in to's coordinates,
// clipped on every side.
template <class From, class To>
void paste_clipped(From const& from, To const& to, Point at) {
    std::ptrdiff_t const x0 = std::max<std::ptrdiff_t>(0, at.x);
    std::ptrdiff_t const y0 = std::max<std::ptrdiff_t>(0, at.y);
    std::ptrdiff_t const x1 = std::min<std::ptrdiff_t>(to.width(), at.x + from.width());
    std::ptrdiff_t const y1 = std::min<std::ptrdiff_t>(to.height(), at.y + from.height());
    if (x1 <= x0 || y1 <= y0) return;
    gil::copy_pixels(gil::subimage_view(from, x0 - at.x, y0 - at.y, x1 - x0, y1 - y0),
                     gil::subimage_view(to, x0, y0, x1 - x0, y1 - y0));
}

// The library's random generator seeded from `values`: work that follows
// makes the same choices whenever it starts from the same request, however
// the run got there (a resumed run included).
inline void reseed(unsigned base, std::initializer_list<std::int64_t> values) {
    std::uint64_t h = 1469598103934665603ull ^ base;
    for (std::int64_t v : values) {
        h ^= static_cast<std::uint64_t>(v);
        h *= 1099511628211ull;
        h ^= h >> 29;
    }
    seed_random(static_cast<unsigned>(h ^ (h >> 32)));
}

template <class Pixel>
class DiskTileCache : public MultiTapestryTileCache<Pixel> {
public:
    using view_t = View<Pixel>;

    // `widths[level][inbetween]`: picture widths, which give the tile counts.
    DiskTileCache(TileStore& store, std::vector<std::vector<std::uint32_t>> widths,
                  std::size_t decoded_tiles = 4)
        : store_(store),
          widths_(std::move(widths)),
          capacity_(std::max<std::size_t>(decoded_tiles, 1)) {}

    // Reseed the generator at every read (see reseed); off when unset.
    std::optional<unsigned> seed_base;
    // More members of "tile_info": key and JSON value.
    std::vector<std::pair<std::string, std::string>> info;

    Point GetTileSize() const override {
        return Point(store_.tile_size().width, store_.tile_size().height);
    }
    unsigned GetTileCount(unsigned level, unsigned inbetween) const override {
        if (level >= widths_.size() || inbetween >= widths_[level].size()) return 0;
        std::uint64_t const w = widths_[level][inbetween];
        std::uint64_t const tw = static_cast<std::uint64_t>(store_.tile_size().width);
        return static_cast<unsigned>((w + tw - 1) / tw);
    }
    bool TileExists(unsigned level, unsigned inbetween, unsigned tile) const override {
        return store_.has_tile(level, inbetween, tile);
    }
    bool IndexMapTileExists(unsigned level, unsigned tile) const override {
        return store_.has_index(level, tile);
    }
    bool AdjacentTileExists(unsigned level, unsigned tile) const override {
        return store_.has_marker(level, tile);
    }
    void MarkAnimationTile(unsigned level, unsigned tile) override {
        store_.write_marker(level, tile);
    }
    void ReadTile(unsigned level, unsigned inbetween, unsigned tile, view_t& out,
                  Point position) const override {
        if (seed_base) reseed(*seed_base, {level, inbetween, tile, position.x, position.y});
        paste_clipped(packed_view<Pixel>(decoded(level, inbetween, tile).view()), out,
                      Point(-position.x, -position.y));
    }
    void ReadIndexMapTile(unsigned level, unsigned tile, IndexMapView& out,
                          Point position) const override {
        Image const map = store_.read_index(level, tile);
        paste_clipped(packed_view<rgb8_pixel_t>(map.view()), out, Point(-position.x, -position.y));
    }
    void WriteTile(unsigned level, unsigned inbetween, unsigned tile, view_t const& in,
                   Point position) override {
        Image& pixels = decoded(level, inbetween, tile);
        paste_clipped(in, packed_view<Pixel>(pixels.view()), position);
        store_.write_tile(level, inbetween, tile, pixels.view());
    }
    void WriteIndexMapTile(unsigned level, unsigned tile, IndexMapView const& in,
                           Point position) override {
        Image map = store_.read_index(level, tile);
        paste_clipped(in, packed_view<rgb8_pixel_t>(map.view()), position);
        store_.write_index(level, tile, map.view());
    }

    // The body of "tile_info": what a viewer needs to find the tile files.
    void OutputJSON(std::ostream& out) const override {
        auto const list = [&](auto const& values, auto const& item) {
            out << "[";
            for (std::size_t k = 0; k < values.size(); ++k) out << (k ? ", " : "") << item(k);
            out << "]";
        };
        for (auto const& [key, value] : info) out << "\t\t\"" << key << "\": " << value << ",\n";
        out << "\t\t\"tile_width\": " << store_.tile_size().width << ",\n";
        out << "\t\t\"tile_height\": " << store_.tile_size().height << ",\n";
        out << "\t\t\"file_pattern\": \"tiles/" << store_.tile_pattern() << "\",\n";
        out << "\t\t\"index_map_pattern\": \"tiles/" << store_.index_pattern() << "\",\n";
        out << "\t\t\"widths\": ";
        list(widths_, [&](std::size_t l) {
            std::string row = "[";
            for (std::size_t i = 0; i < widths_[l].size(); ++i)
                row += (i ? ", " : "") + std::to_string(widths_[l][i]);
            return row + "]";
        });
        out << ",\n\t\t\"tile_counts\": ";
        list(widths_, [&](std::size_t l) {
            std::string row = "[";
            for (std::size_t i = 0; i < widths_[l].size(); ++i)
                row += (i ? ", " : "") + std::to_string(GetTileCount(unsigned(l), unsigned(i)));
            return row + "]";
        });
        out << "\n";
    }

private:
    using Key = std::tuple<unsigned, unsigned, unsigned>;

    // The tile decoded, most recently used first.
    Image& decoded(unsigned level, unsigned inbetween, unsigned tile) const {
        Key const key{level, inbetween, tile};
        auto const found = std::find_if(recent_.begin(), recent_.end(),
                                        [&](auto const& entry) { return entry.first == key; });
        if (found != recent_.end()) {
            recent_.splice(recent_.begin(), recent_, found);
        } else {
            if (recent_.size() >= capacity_) recent_.pop_back();
            recent_.emplace_front(key, store_.read_tile(level, inbetween, tile));
        }
        return recent_.front().second;
    }

    TileStore& store_;
    std::vector<std::vector<std::uint32_t>> widths_;
    std::size_t capacity_;
    mutable std::list<std::pair<Key, Image>> recent_;
};

}  // namespace WM::host::detail
