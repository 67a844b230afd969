#include <weftmap/frame/exceptions.hpp>
#include <weftmap/twopass/tile_array.hpp>

#include <algorithm>

namespace WM {
namespace {

// Points `order` at the tiles of `to` that sit where `from.order` points into
// `from.tiles`.
void rebase_order(TileArray const& from, TileArray& to) {
    to.order.clear();
    to.order.reserve(from.order.size());
    for (Tile const* t : from.order) to.order.push_back(&to.tiles[t - from.tiles.data()]);
}

}  // namespace

TileArray::TileArray(TileArray const& other)
    : rows(other.rows), cols(other.cols), tiles(other.tiles) {
    rebase_order(other, *this);
}

TileArray& TileArray::operator=(TileArray const& other) {
    if (this == &other) return *this;
    rows = other.rows;
    cols = other.cols;
    tiles = other.tiles;
    rebase_order(other, *this);
    return *this;
}

void TileArray::InitTiles(Point tile_size, Point total, float overlap) {
    Point const ov(static_cast<std::ptrdiff_t>(static_cast<float>(tile_size.x) * overlap),
                   static_cast<std::ptrdiff_t>(static_cast<float>(tile_size.y) * overlap));
    Point const step = tile_size - ov;
    // A step of nothing would never leave the picture.
    if (step.x <= 0 || step.y <= 0)
        raise("WEFTMAP_INTERNAL_ERROR: InitTiles: tile %dx%d with overlap %f does not advance",
              static_cast<long long>(tile_size.x), static_cast<long long>(tile_size.y),
              static_cast<double>(overlap));
    tiles.clear();
    order.clear();
    std::int32_t row = 0, col = 0;
    for (std::ptrdiff_t y = 0; y + ov.y < total.y; y += step.y, ++row) {
        std::ptrdiff_t const h = std::min(tile_size.y, total.y - y);
        col = 0;
        for (std::ptrdiff_t x = 0; x + ov.x < total.x; x += step.x, ++col) {
            Tile tile;
            tile.row = row;
            tile.col = col;
            tile.origin = Point(x, y);
            tile.size = Point(std::min(tile_size.x, total.x - x), h);
            tiles.push_back(tile);
        }
    }
    // Rows without a single tile (a picture no wider than the overlap) make
    // no grid at all.
    rows = tiles.empty() ? 0 : row;
    cols = tiles.empty() ? 0 : col;
    order.reserve(tiles.size());
    for (Tile& tile : tiles) order.push_back(&tile);
}

int TileArray::GetSize() const {
    return static_cast<int>(tiles.size());
}

bool TileArray::HasTile(int row, int col) const {
    return 0 <= row && row < rows && 0 <= col && col < cols;
}

Tile const& TileArray::GetTile(int row, int col) const {
    long long const index = static_cast<long long>(rows) * row + col;
    if (index < 0 || index >= static_cast<long long>(tiles.size()))
        raise("WEFTMAP_INTERNAL_ERROR: GetTile(%d, %d) outside a grid of %d tiles", row, col,
              static_cast<long long>(tiles.size()));
    return tiles[static_cast<std::size_t>(index)];
}

void TileArray::Sort() {
    std::sort(order.begin(), order.end(),
              [](Tile const* a, Tile const* b) { return a->priority < b->priority; });
}

}  // namespace WM
