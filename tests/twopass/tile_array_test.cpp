#include <weftmap/frame/exceptions.hpp>
#include <weftmap/twopass/tile_array.hpp>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace WM {
namespace {

// The x origin and width of every tile of the first row.
std::vector<std::ptrdiff_t> first_row(TileArray const& grid) {
    std::vector<std::ptrdiff_t> row;
    for (Tile const& t : grid.tiles)
        if (t.row == 0) row.insert(row.end(), {t.origin.x, t.size.x});
    return row;
}

TEST(TileArray, TilesOverlapByATenthGetTileStridesByRowsAndSortOrdersTheVisits) {
    TileArray grid;
    grid.InitTiles(Point(100, 100), Point(250, 150), 0.1f);
    EXPECT_EQ(first_row(grid), (std::vector<std::ptrdiff_t>{0, 100, 90, 100, 180, 70}));
    EXPECT_EQ(std::make_tuple(grid.rows, grid.cols, grid.tiles[4].origin, grid.tiles[4].size),
              std::make_tuple(2, 3, Point(90, 90), Point(100, 60)));
    ASSERT_EQ(grid.order.size(), 6u);
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(grid.order[i], &grid.tiles[i]);
    EXPECT_EQ(&grid.GetTile(1, 0), &grid.tiles[2]);  // row 0, column 2
    EXPECT_TRUE(grid.HasTile(1, 2));
    EXPECT_FALSE(grid.HasTile(2, 0));
    EXPECT_FALSE(grid.HasTile(0, -1));
    EXPECT_THROW(grid.GetTile(2, 2), Exception);  // 2 * 2 + 2 is past the last tile

    int const priorities[] = {5, -3, 9, 0, 2, -7};
    for (int i = 0; i < 6; ++i) grid.tiles[i].priority = priorities[i];
    grid.Sort();
    std::vector<int> visited;
    for (TileIterator it = grid.begin(); it < grid.end(); ++it) visited.push_back(it->priority);
    EXPECT_EQ(visited, (std::vector<int>{-7, -3, 0, 2, 5, 9}));
    EXPECT_EQ(grid.tiles[0].priority, 5) << "the tiles themselves stay in row-major order";

    // 180 + 10 < 200 still earns a third, 20-wide tile; a new grid replaces the old.
    grid.InitTiles(Point(100, 100), Point(200, 100), 0.1f);
    EXPECT_EQ(first_row(grid), (std::vector<std::ptrdiff_t>{0, 100, 90, 100, 180, 20}));
    EXPECT_EQ(grid.GetSize(), 3);

    // No wider or taller than the overlap: no grid at all.
    for (Point total : {Point(10, 500), Point(500, 10)}) {
        grid.InitTiles(Point(100, 100), total, 0.1f);
        EXPECT_EQ(grid.rows + grid.cols + grid.GetSize(), 0);
        EXPECT_TRUE(grid.begin() == grid.end());
    }
}

}  // namespace
}  // namespace WM
