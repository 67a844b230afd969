#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

template <class Pixel>
class TapestryTyped : public ::testing::Test {};
TYPED_TEST_SUITE(TapestryTyped, test::AllPixelTypes, test::PixelNames);

// The mean of all channels, as a fraction of the channel's top.
template <class View>
double mean_level(View const& v) {
    using Pixel = typename View::value_type;
    double sum = 0;
    for (auto const& p : v)
        for (int c = 0; c < num_channels_v<Pixel>; ++c) sum += double(channel_value(p, c));
    return sum / (double(v.width() * v.height()) * num_channels_v<Pixel>) /
           test::channel_top<Pixel>();
}

TYPED_TEST(TapestryTyped, ATextureTapestryKeepsItsSizeAndBrightnessAndTilesRoundTrip) {
    using Pixel = TypeParam;
    RecycledImage<Pixel> picture(Point(16 + 2 * 6, 12));
    test::paint_texture(view(picture));
    test::PanSource<Pixel> source(picture, Point(16, 12), 3, 6);
    TapestryFactory<Pixel> factory(source, nullptr);
    RecycledImage<Pixel> out;
    factory.Construct(out, 0, -1);
    ASSERT_EQ(out.dimensions(), Point(32, 18));
    EXPECT_NEAR(mean_level(const_view(out)), mean_level(const_view(picture)), 0.1);

    test::MemoryMultiCache<Pixel> cache(Point(10, 18));
    cache.SetPixels(1, 0, view(out), Point(0, 0));
    RecycledImage<Pixel> back(out.dimensions());
    View<Pixel> b = view(back);
    cache.GetPixels(1, 0, b, Point(0, 0));
    EXPECT_TRUE(gil::equal_pixels(const_view(out), const_view(back)));
}

}  // namespace
}  // namespace WM
