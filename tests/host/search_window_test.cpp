// The search window the kit gives a hole that a side of the picture cuts.
#include "host/kit_helpers.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/search_window.hpp>
#include <weftmap/host/synthesis.hpp>

#include <gtest/gtest.h>

#include <cstring>

namespace WM::host::test {
namespace {

Size const size{160, 120};

Image box_mask(std::ptrdiff_t x0, std::ptrdiff_t y0, std::ptrdiff_t w, std::ptrdiff_t h) {
    Image mask(mask_format, size);
    for (std::ptrdiff_t y = y0; y < y0 + h; ++y)
        std::memset(mask.view().pixel(x0, y), 255, static_cast<std::size_t>(w));
    return mask;
}

TEST(SideSearchWindow, SetOnlyWhereTheSideMakesTheHoleLookDeeper) {
    // 50 by 80 at the right side: 40 deep against known pixels, 25 when the
    // side counts as known. The window is twice the box's larger side.
    EXPECT_EQ(side_hole_search_window(box_mask(110, 20, 50, 80).view()), 160);
    EXPECT_EQ(side_hole_search_window(box_mask(0, 20, 50, 80).view()), 160);
    EXPECT_EQ(side_hole_search_window(box_mask(30, 0, 90, 50).view()), 180);
    EXPECT_EQ(side_hole_search_window(box_mask(30, 70, 90, 50).view()), 180);

    // The same hole inside the picture, and a narrow one reaching down from
    // the top (as deep either way): the library's window stands.
    EXPECT_EQ(side_hole_search_window(box_mask(60, 20, 50, 80).view()), 0);
    EXPECT_EQ(side_hole_search_window(box_mask(70, 0, 10, 80).view()), 0);
    EXPECT_EQ(side_hole_search_window(Image(mask_format, size).view()), 0);

    Image const rgb(PixelFormat{Depth::u8, Colour::rgb}, size);
    EXPECT_EQ(code_of([&] { side_hole_search_window(rgb.view()); }), ErrorCode::invalid_input);
}

TEST(SideSearchWindow, KitFillOfASideHoleSearchesWithinTheHolesSize) {
    Image const picture = texture(PixelFormat{Depth::u8, Colour::rgb}, size);
    Image const hole = box_mask(110, 20, 50, 80);
    Options options;
    options.bands = 1;
    options.seed = 1;
    options.texture_like_rim = false;
    options.mirrored_patches = false;
    Image const kit = fill(picture.view(), hole.view(), options);
    EXPECT_TRUE(known_pixels_kept(picture.view(), hole.view(), kit.view()));

    // The same as the window given by hand; a caller's window is kept.
    options.recomposer_options["-hole_search_window"] = "160";
    EXPECT_TRUE(same_pixels(kit.view(), fill(picture.view(), hole.view(), options).view()));
    options.recomposer_options["-hole_search_window"] = "0";
    EXPECT_FALSE(same_pixels(kit.view(), fill(picture.view(), hole.view(), options).view()));
}

}  // namespace
}  // namespace WM::host::test
