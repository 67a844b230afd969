#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = rgb16_pixel_t;

TEST(TapestryTileCaches, PictureReadsAndWritesSpanTilesAndMissingTilesReadAsZeros) {
    test::MemoryMultiCache<Pixel> cache(Point(10, 4));
    auto source = test::random_image<Pixel>(25, 4, 5);
    cache.SetPixels(1, 2, view(source), Point(3, 0));  // tiles 0, 1 and 2
    ASSERT_EQ(cache.writes.size(), 3u);
    EXPECT_EQ(cache.writes[0].x, 3);
    EXPECT_EQ(cache.writes[1].x, -7);
    EXPECT_EQ(cache.writes[2].x, -17);

    RecycledImage<Pixel> out(Point(12, 4));
    View<Pixel> v = view(out);
    cache.GetPixels(1, 2, v, Point(5, 0));  // two tiles, positions W apart
    ASSERT_EQ(cache.reads.size(), 2u);
    EXPECT_TRUE((cache.reads[0] == decltype(cache.reads)::value_type{1, 2, 0, 5}));
    EXPECT_TRUE((cache.reads[1] == decltype(cache.reads)::value_type{1, 2, 1, -5}));
    EXPECT_TRUE(
        gil::equal_pixels(const_view(out), gil::subimage_view(const_view(source), 2, 0, 12, 4)));

    // Tile 3 was never written: zeros and one warning, no failure.
    gil::fill_pixels(v, Pixel(7, 7, 7));
    {
        test::ScopedCapture capture(false);
        cache.GetPixels(1, 2, v, Point(25, 0));
        EXPECT_EQ(capture.channel.written, "WARNING: accessed empty tile (1, 2, 3)\n");
    }
    for (std::ptrdiff_t x = 0; x < 12; ++x)
        EXPECT_EQ(const_view(out)(x, 1), x < 3 ? const_view(source)(22 + x, 1) : Pixel(0, 0, 0));
    // Index maps take the same road, with their own warning.
    RecycledImage<rgb8_pixel_t> map(Point(4, 4));
    IndexMapView m = view(map);
    gil::fill_pixels(m, IndexMapPixel(5));
    cache.SetIndexMapPixels(0, m, Point(8, 0));
    RecycledImage<rgb8_pixel_t> wide = test::filled(Point(12, 4), IndexMapPixel(1));
    IndexMapView w = view(wide);
    {
        test::ScopedCapture capture(false);
        cache.GetIndexMapPixels(0, w, Point(10, 0));
        EXPECT_EQ(capture.channel.written, "WARNING: accessed empty tile (0, 2)\n");
    }
    EXPECT_EQ(IndexMapValue(const_view(wide)(1, 0)), 5u);
    EXPECT_EQ(IndexMapValue(const_view(wide)(2, 3)), 0u);
    EXPECT_EQ(IndexMapValue(const_view(wide)(11, 3)), 0u);
    // Without diagnostics nothing is written anywhere.
    cache.GetPixels(3, 0, v, Point(0, 0));
    EXPECT_EQ(const_view(out)(0, 0), Pixel(0, 0, 0));
}

TEST(TapestryTileCaches, IndexMapValuesAreLittleEndianOverTheThreeChannels) {
    EXPECT_EQ(IndexMapPixel(70000 + 1), rgb8_pixel_t(113, 17, 1));
    for (std::uint32_t v : {0u, 1u, 255u, 256u, 65535u, 65536u, 16777215u})
        EXPECT_EQ(IndexMapValue(IndexMapPixel(v)), v);
}

TEST(TapestryTileCaches, ASubsetSourceMapsThroughItsListAndNeverAsksForWeights) {
    struct Weighted : test::PanSource<gray8_pixel_t> {
        using PanSource::PanSource;
        bool HasWeights() const override { return true; }
        void GetWeights(int, GrayView&, Point) const override { ++weights_asked; }
        mutable int weights_asked = 0;
    } source(test::pan_picture(Point(8, 6), 10, 2, 1), Point(8, 6), 10, 2);
    std::vector<unsigned> const frames{7, 2, 9};
    SubFrameSource<gray8_pixel_t> sub(&source, &frames);
    EXPECT_EQ(sub.GetFrameCount(), 3);
    EXPECT_EQ(sub.GetFrameSize(), Point(8, 6));
    EXPECT_FALSE(sub.HasWeights());
    EXPECT_EQ(sub.GetLookupTableForFrameNumbers(), &frames);
    RecycledImage<gray8_pixel_t> out(Point(8, 6));
    GrayView v = view(out);
    sub.GetFramePixels(1, v, Point(0, 0));
    sub.GetFramePixels(2, v, Point(-3, 1));
    sub.GetWeights(0, v, Point(0, 0));
    EXPECT_EQ(source.asked, (std::vector<int>{2, 9}));
    EXPECT_EQ(source.weights_asked, 0);
    EXPECT_EQ(const_view(out)(0, 1), const_view(source.picture)(18 + 3, 0));
    EXPECT_NE(test::error_text([&] { sub.GetFramePixels(3, v, Point(0, 0)); }), "");

    // A whole tapestry from a weighted subset never reaches the weights either.
    TapestryFactory<gray8_pixel_t> factory(sub, nullptr);
    RecycledImage<gray8_pixel_t> tapestry;
    factory.Construct(tapestry, 0, -1);
    EXPECT_EQ(tapestry.dimensions(), Point(16, 9));
    EXPECT_EQ(source.weights_asked, 0);
    // The source itself is asked for the weights of every frame it paints.
    TapestryFactory<gray8_pixel_t> weighted(source, nullptr);
    weighted.Construct(tapestry, 0, -1);
    EXPECT_EQ(tapestry.dimensions(), Point(44, 9));
    EXPECT_EQ(source.weights_asked, 10);
}

TEST(TapestryTileCaches, OneTileCacheHoldsOnePictureAsTileZero) {
    RecycledImage<Pixel> image = test::filled(Point(6, 5), Pixel(1, 2, 3));
    RecycledImage<rgb8_pixel_t> map = test::filled(Point(6, 5), rgb8_pixel_t(0, 0, 0));
    OneTileCache<Pixel> cache(&image, &map);
    EXPECT_EQ(cache.GetTileSize(), Point(6, 5));
    EXPECT_EQ(cache.GetTileCount(), 1u);
    EXPECT_EQ(cache.GetTileWidth(), 6u);
    EXPECT_FALSE(cache.TileExists(0));
    auto patch = test::random_image<Pixel>(4, 3, 9);
    cache.SetPixels(0, view(patch), Point(-2, 3));  // overhangs left and bottom
    EXPECT_TRUE(cache.TileExists(0));
    EXPECT_FALSE(cache.TileExists(1));
    EXPECT_EQ(const_view(image)(0, 3), const_view(patch)(2, 0));
    EXPECT_EQ(const_view(image)(1, 4), const_view(patch)(3, 1));
    EXPECT_EQ(const_view(image)(2, 3), Pixel(1, 2, 3));
    RecycledImage<Pixel> back = test::filled(Point(3, 3), Pixel(9, 9, 9));
    View<Pixel> b = view(back);
    cache.GetPixels(0, b, Point(4, -1));
    EXPECT_EQ(const_view(back)(0, 1), const_view(image)(4, 0));
    EXPECT_EQ(const_view(back)(2, 1), Pixel(9, 9, 9));  // outside the picture: left alone
    cache.GetPixels(1, b, Point(0, 0));                 // another tile: nothing
    EXPECT_EQ(const_view(back)(0, 0), Pixel(9, 9, 9));

    EXPECT_FALSE(cache.ReverseMapTileExists(0));
    RecycledImage<rgb8_pixel_t> part = test::filled(Point(2, 2), IndexMapPixel(4));
    IndexMapView p = view(part);
    cache.SetIndexMapPixels(0, p, Point(5, 4));
    EXPECT_TRUE(cache.ReverseMapTileExists(0));
    EXPECT_FALSE(cache.ReverseMapTileExists(1));
    EXPECT_EQ(IndexMapValue(const_view(map)(5, 4)), 4u);
    EXPECT_EQ(IndexMapValue(const_view(map)(4, 4)), 0u);
    // Without an index map the index map writes are ignored.
    OneTileCache<Pixel> plain(&image);
    plain.SetIndexMapPixels(0, p, Point(0, 0));
    EXPECT_FALSE(plain.ReverseMapTileExists(0));
    // A neighbouring tile number still marks the one tile as existing.
    plain.SetPixels(1, view(patch), Point(0, 0));
    EXPECT_TRUE(plain.TileExists(0));
}

TEST(TapestryTileCaches, TheAdaptorShowsOneLevelAndInbetweenOfAMultiCache) {
    test::MemoryMultiCache<Pixel> cache(Point(8, 4));
    MultiTileCacheAdaptor<Pixel> adaptor(2, 1, &cache);
    EXPECT_EQ(adaptor.GetTileSize(), Point(8, 4));
    EXPECT_FALSE(adaptor.TileExists(-1));
    EXPECT_FALSE(adaptor.ReverseMapTileExists(0));
    auto patch = test::random_image<Pixel>(3, 4, 2);
    adaptor.SetPixels(1, view(patch), Point(6, 0));
    EXPECT_TRUE(cache.TileExists(2, 1, 1));
    EXPECT_TRUE(adaptor.TileExists(1));
    RecycledImage<Pixel> back(Point(2, 4));
    View<Pixel> b = view(back);
    adaptor.GetPixels(1, b, Point(6, 0));
    EXPECT_EQ(const_view(back)(1, 2), const_view(patch)(1, 2));
    RecycledImage<rgb8_pixel_t> map = test::filled(Point(2, 2), IndexMapPixel(3));
    IndexMapView m = view(map);
    adaptor.SetIndexMapPixels(0, m, Point(0, 0));
    EXPECT_TRUE(cache.IndexMapTileExists(2, 0));
    gil::fill_pixels(m, IndexMapPixel(0));
    adaptor.GetIndexMapPixels(0, m, Point(0, 0));
    EXPECT_EQ(IndexMapValue(const_view(map)(1, 1)), 3u);

    UntiledMultiTapestry<Pixel> held;
    held.levels.resize(1);
    held.levels[0].push_back(patch);
    held.index_maps.push_back(map);
    UntiledMultiTapestry<Pixel> copy = held;
    view(held.levels[0][0])(0, 0) = Pixel(0, 0, 0);
    EXPECT_EQ(const_view(copy.levels[0][0])(0, 0), const_view(patch)(0, 0));
    EXPECT_EQ(copy.index_maps[0].dimensions(), Point(2, 2));

    TapestryIndexMapBase base({4, 5}, 3), other;
    other = base;
    EXPECT_EQ(other.frame_numbers, (std::vector<std::uint32_t>{4, 5}));
    EXPECT_EQ(other.level, 3);
}

}  // namespace
}  // namespace WM
