// The grid of overlapping tiles that the tiled pass walks, and the order in
// which it visits them.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <cstdint>
#include <vector>

namespace WM {

struct Tile {
    std::int32_t row = 0;
    std::int32_t col = 0;
    // The window of the source the tile samples from, at scale 0.
    Point source_origin{0, 0};
    Point source_size{0, 0};
    // The tile in the target at scale 0.
    Point origin{0, 0};
    Point size{0, 0};
    // Recomposed and written: its pixels now bind later neighbours.
    bool done = false;
    // Sort key: the largest hole distance in the tile.
    std::int32_t priority = 0;
};

// A position in the visit order of a TileArray.
class TileIterator {
public:
    using position_t = std::vector<Tile*>::iterator;

    TileIterator() = default;
    explicit TileIterator(position_t position) : position_(position) {}

    TileIterator& operator++() {
        ++position_;
        return *this;
    }
    Tile& operator*() const { return **position_; }
    Tile* operator->() const { return *position_; }
    friend bool operator<(TileIterator const& a, TileIterator const& b) {
        return a.position_ < b.position_;
    }
    friend bool operator==(TileIterator const& a, TileIterator const& b) {
        return a.position_ == b.position_;
    }
    friend bool operator!=(TileIterator const& a, TileIterator const& b) { return !(a == b); }

private:
    position_t position_{};
};

class WEFTMAP_API TileArray {
public:
    TileArray() = default;
    // A copy visits its own tiles in the same order.
    TileArray(TileArray const& other);
    TileArray& operator=(TileArray const& other);

    // Cuts `total` into tiles of `tile_size` that overlap their neighbours
    // by `overlap` of a tile; the last tile of a row or column is cut short
    // where the picture ends, and a strip no wider than the overlap gets no
    // tile. Replaces any earlier grid.
    void InitTiles(Point tile_size, Point total, float overlap);
    int GetSize() const;
    bool HasTile(int row, int col) const;
    // The element at rows * row + col. The stride is the number of rows, so
    // on a grid that is not square this is not the tile at (row, col).
    Tile const& GetTile(int row, int col) const;
    // Visit order by priority, smallest first; equal priorities in no
    // particular order.
    void Sort();

    TileIterator begin() { return TileIterator(order.begin()); }
    TileIterator end() { return TileIterator(order.end()); }

    std::int32_t rows = 0;
    std::int32_t cols = 0;
    // Row-major, never reordered.
    std::vector<Tile> tiles;
    // The visit order.
    std::vector<Tile*> order;
};

}  // namespace WM
