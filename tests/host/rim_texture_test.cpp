// Giving a smooth fill back the grain of the even texture around its hole.
#include "host/kit_helpers.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/rim_texture.hpp>
#include <weftmap/host/synthesis.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>

namespace WM::host::test {
namespace {

PixelFormat const rgb8{Depth::u8, Colour::rgb};
Size const size{160, 120};

// Grass-like grain: a green with independent noise of +-30 per channel,
// darker right of `edge`.
Image grain(std::ptrdiff_t edge = size.width) {
    Image image(rgb8, size);
    std::uint32_t state = 11;
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) {
            int const base[3] = {120, 140, 100};
            int const shade = x >= edge ? -65 : 0;
            for (int c = 0; c < 3; ++c) {
                state = state * 1664525u + 1013904223u;
                image.view().pixel(x, y)[c] = static_cast<unsigned char>(
                    base[c] + shade + static_cast<int>((state >> 24) % 61) - 30);
            }
        }
    return image;
}

// What synthesis makes of such grain: its mean colour, without the grain.
Image smeared(ConstImageView const& image, ConstImageView const& hole) {
    Image fill = Image::copy_of(image);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x)
            if (*hole.pixel(x, y) != 0) std::memset(fill.view().pixel(x, y), 128, 3);
    return fill;
}

// Whether every hole pixel of `result` is a pixel of `image` from outside
// the hole, byte for byte.
bool hole_copied_from_outside(ConstImageView const& image, ConstImageView const& hole,
                              ConstImageView const& result) {
    auto const bytes = static_cast<std::size_t>(image.format.pixel_bytes());
    std::set<std::string> outside;
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x)
            if (*hole.pixel(x, y) == 0)
                outside.emplace(reinterpret_cast<char const*>(image.pixel(x, y)), bytes);
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x)
            if (*hole.pixel(x, y) != 0 &&
                outside.count({reinterpret_cast<char const*>(result.pixel(x, y)), bytes}) == 0)
                return false;
    return true;
}

TEST(TextureLikeRim, RebuildsASmoothHoleFromBlocksOfTheTextureInEveryFormat) {
    Image const hole = disc_mask(size, 80, 60, 18);
    Image const image8 = grain();
    Image const fill8 = smeared(image8.view(), hole.view());
    for (Depth const depth : {Depth::u8, Depth::u16, Depth::f32})
        for (Colour const colour : {Colour::gray, Colour::rgb, Colour::cmyk}) {
            PixelFormat const format{depth, colour};
            SCOPED_TRACE(format_name(format));
            Image const image = converted(image8.view(), format);
            Image const fill = converted(fill8.view(), format);
            Image const result = texture_like_rim(image.view(), hole.view(), fill.view());
            ASSERT_FALSE(result.empty());
            EXPECT_TRUE(known_pixels_kept(image.view(), hole.view(), result.view()));
            EXPECT_TRUE(hole_copied_from_outside(image.view(), hole.view(), result.view()));
            EXPECT_TRUE(same_pixels(
                result.view(), texture_like_rim(image.view(), hole.view(), fill.view()).view()));
        }

    // Blocks come only from the sampling area: here its left half.
    Image left(mask_format, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) *left.view().pixel(x, y) = x < 56 ? 255 : 0;
    ConstImageView const left_view = left.view();
    Image const limited = texture_like_rim(image8.view(), hole.view(), fill8.view(), &left_view);
    ASSERT_FALSE(limited.empty());
    Image only_left = Image::copy_of(image8.view());
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 56; x < size.width; ++x)
            std::memset(only_left.view().pixel(x, y), 0, 3);
    EXPECT_TRUE(hole_copied_from_outside(only_left.view(), hole.view(), limited.view()));

    // The kit's fill applies it to the synthesis's result by default (here
    // that result keeps its grain, so it stays), and not when told otherwise.
    Options options;
    options.bands = 1;
    options.seed = 1;
    Image const filled = fill(image8.view(), hole.view(), options);
    options.texture_like_rim = false;
    Image const plain = fill(image8.view(), hole.view(), options);
    Image const area = sampling_like_rim(image8.view(), hole.view());
    ConstImageView const area_view = area.view();
    Image const rebuilt = texture_like_rim(image8.view(), hole.view(), plain.view(),
                                           area.empty() ? nullptr : &area_view);
    EXPECT_TRUE(same_pixels(filled.view(), rebuilt.empty() ? plain.view() : rebuilt.view()));
}

TEST(TextureLikeRim, LeavesFillsAloneUnlessTheRimIsOneEvenTextureAndTheFillSmoother) {
    Image const hole = disc_mask(size, 80, 60, 18);
    Image const image = grain();
    // A fill with the texture's own grain.
    EXPECT_TRUE(texture_like_rim(image.view(), hole.view(), image.view()).empty());
    // A rim of two shades, light and dark: structure, not one texture.
    Image const halves = grain(80);
    EXPECT_TRUE(
        texture_like_rim(halves.view(), hole.view(), smeared(halves.view(), hole.view()).view())
            .empty());
    // A flat picture has no grain to give back.
    Image flat(rgb8, size);
    std::memset(flat.view().data, 90, static_cast<std::size_t>(size.width * size.height * 3));
    EXPECT_TRUE(texture_like_rim(flat.view(), hole.view(), flat.view()).empty());
    // No hole, nothing to do.
    Image const none(mask_format, size);
    EXPECT_TRUE(texture_like_rim(image.view(), none.view(), image.view()).empty());

    Image const other = converted(image.view(), PixelFormat{Depth::u16, Colour::rgb});
    EXPECT_THROW(texture_like_rim(image.view(), hole.view(), other.view()), Error);
    EXPECT_THROW(texture_like_rim(image.view(), image.view(), image.view()), Error);
}

}  // namespace
}  // namespace WM::host::test
