#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = rgb16_pixel_t;
using Gray = gray8_pixel_t;

TEST(TapestryTileCaches, PictureAccessSpansTilesAndMissingTilesReadAsZerosWithOneWarning) {
    test::MemoryMultiCache<Pixel> cache(Point(10, 4));
    auto source = test::random_image<Pixel>(25, 4, 5);
    cache.SetPixels(1, 2, view(source), Point(3, 0));  // columns 3 to 27: tiles 0, 1, 2
    using A = test::MemoryMultiCache<Pixel>::Access;
    EXPECT_EQ(cache.writes, (std::vector<A>{{1, 2, 0, 3}, {1, 2, 1, -7}, {1, 2, 2, -17}}));
    RecycledImage<Pixel> out(Point(12, 4));
    View<Pixel> v = view(out);
    cache.GetPixels(1, 2, v, Point(5, 0));  // two tiles, positions W apart
    EXPECT_EQ(cache.reads, (std::vector<A>{{1, 2, 0, 5}, {1, 2, 1, -5}}));
    EXPECT_TRUE(
        gil::equal_pixels(const_view(out), gil::subimage_view(const_view(source), 2, 0, 12, 4)));
    {
        test::ScopedCapture capture(false);
        cache.GetPixels(1, 2, v, Point(25, 0));  // tile 3 was never written
        EXPECT_EQ(capture.channel.written, "WARNING: accessed empty tile (1, 2, 3)\n");
    }
    for (std::ptrdiff_t x = 0; x < 12; ++x)
        EXPECT_EQ(const_view(out)(x, 1), x < 3 ? const_view(source)(22 + x, 1) : Pixel(0, 0, 0));

    auto map = test::filled(Point(4, 4), IndexMapPixel(5));
    IndexMapView m = view(map);
    cache.SetIndexMapPixels(0, m, Point(8, 0));
    auto wide = test::filled(Point(12, 4), IndexMapPixel(1));
    IndexMapView w = view(wide);
    {
        test::ScopedCapture capture(false);
        cache.GetIndexMapPixels(0, w, Point(10, 0));
        EXPECT_EQ(capture.channel.written, "WARNING: accessed empty tile (0, 2)\n");
    }
    EXPECT_EQ(IndexMapValue(const_view(wide)(1, 0)) * 100 + IndexMapValue(const_view(wide)(11, 3)),
              500u);
    EXPECT_EQ(IndexMapPixel(70000 + 1), rgb8_pixel_t(113, 17, 1));
    for (std::uint32_t value : {0u, 255u, 65536u, 16777215u})
        EXPECT_EQ(IndexMapValue(IndexMapPixel(value)), value);
}

TEST(TapestryTileCaches, ASubsetSourceMapsThroughItsListAndNeverAsksForWeights) {
    struct Weighted : test::PanSource<Gray> {
        using PanSource::PanSource;
        bool HasWeights() const override { return true; }
        void GetWeights(int, GrayView&, Point) const override { ++weights_asked; }
        mutable int weights_asked = 0;
    } source(test::pan_picture(Point(8, 6), 10, 2, 1), Point(8, 6), 10, 2);
    std::vector<unsigned> const frames{7, 2, 9};
    SubFrameSource<Gray> sub(&source, &frames);
    EXPECT_EQ(std::make_tuple(sub.GetFrameCount(), sub.GetFrameSize(), sub.HasWeights()),
              std::make_tuple(3, Point(8, 6), false));
    EXPECT_EQ(sub.GetLookupTableForFrameNumbers(), &frames);
    RecycledImage<Gray> out(Point(8, 6));
    GrayView v = view(out);
    sub.GetFramePixels(2, v, Point(-3, 1));
    sub.GetWeights(0, v, Point(0, 0));
    EXPECT_EQ(source.asked, (std::vector<int>{9}));
    EXPECT_EQ(const_view(out)(0, 1), const_view(source.picture)(18 + 3, 0));
    EXPECT_NE(test::error_text([&] { sub.GetFramePixels(3, v, Point(0, 0)); }), "");

    RecycledImage<Gray> tapestry;
    TapestryFactory<Gray>(sub, nullptr).Construct(tapestry, 0, -1);
    EXPECT_EQ(tapestry.dimensions(), Point(16, 9));
    EXPECT_EQ(source.weights_asked, 0);
    TapestryFactory<Gray>(source, nullptr).Construct(tapestry, 0, -1);  // weights reach retarget
    EXPECT_EQ(tapestry.dimensions(), Point(44, 9));
    EXPECT_EQ(source.weights_asked, 10);
}

// The adaptor's pixel forwarding runs under every construction test.
TEST(TapestryTileCaches, OneTileCacheAndTheAdaptorHoldTheirTilesWhereTheySay) {
    auto image = test::filled(Point(6, 5), Pixel(1, 2, 3));
    auto map = test::filled(Point(6, 5), rgb8_pixel_t(0, 0, 0));
    OneTileCache<Pixel> cache(&image, &map);
    auto patch = test::random_image<Pixel>(4, 3, 9);
    EXPECT_FALSE(cache.TileExists(0));
    cache.SetPixels(0, view(patch), Point(-2, 3));  // overhangs left and bottom
    EXPECT_TRUE(cache.TileExists(0) && !cache.TileExists(1));
    EXPECT_EQ(const_view(image)(1, 4), const_view(patch)(3, 1));
    auto back = test::filled(Point(3, 3), Pixel(9, 9, 9));
    View<Pixel> b = view(back);
    cache.GetPixels(0, b, Point(4, -1));
    EXPECT_EQ(const_view(back)(0, 1), const_view(image)(4, 0));
    EXPECT_EQ(const_view(back)(2, 1), Pixel(9, 9, 9));  // outside the picture: left alone
    auto part = test::filled(Point(2, 2), IndexMapPixel(4));
    IndexMapView p = view(part);
    cache.SetIndexMapPixels(0, p, Point(5, 4));
    EXPECT_TRUE(cache.ReverseMapTileExists(0) && !cache.ReverseMapTileExists(1));
    EXPECT_EQ(IndexMapValue(const_view(map)(5, 4)) * 10 + IndexMapValue(const_view(map)(4, 4)),
              40u);
    OneTileCache<Pixel> plain(&image);  // without an index map, index map writes are ignored
    plain.SetIndexMapPixels(0, p, Point(0, 0));
    plain.SetPixels(1, view(patch), Point(0, 0));  // any tile number marks the one tile
    EXPECT_TRUE(plain.TileExists(0) && !plain.ReverseMapTileExists(0));

    test::MemoryMultiCache<Pixel> multi(Point(8, 4));
    MultiTileCacheAdaptor<Pixel> adaptor(2, 1, &multi);
    EXPECT_FALSE(adaptor.TileExists(-1));
    adaptor.SetIndexMapPixels(0, p, Point(0, 0));
    EXPECT_TRUE(multi.IndexMapTileExists(2, 0) && !adaptor.ReverseMapTileExists(0));
    gil::fill_pixels(p, IndexMapPixel(0));
    adaptor.GetIndexMapPixels(0, p, Point(0, 0));
    EXPECT_EQ(IndexMapValue(const_view(part)(1, 1)), 4u);
}

}  // namespace
}  // namespace WM
