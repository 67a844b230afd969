// Fills that take patches mirrored left to right, when the hole's
// surroundings are mirror symmetric.
#include "host/kit_helpers.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/mirrored_patches.hpp>
#include <weftmap/host/synthesis.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace WM::host::test {
namespace {

PixelFormat const rgb8{Depth::u8, Colour::rgb};
Size const size{160, 120};

// Noise of one value per (distance from the axis at x = 79.5, row) when
// `symmetric`, else per pixel: no shifted copy of it matches itself.
Image noise(bool symmetric) {
    Image image(rgb8, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) {
            std::ptrdiff_t const key = symmetric ? std::min(x, size.width - 1 - x) : x;
            std::uint32_t state = static_cast<std::uint32_t>(key * 7919 + y * 104729 + 17);
            for (int c = 0; c < 3; ++c) {
                state = state * 1664525u + 1013904223u;
                image.view().pixel(x, y)[c] = static_cast<unsigned char>(state >> 24);
            }
        }
    return image;
}

// Mean difference of two pictures over the hole, per channel.
double hole_difference(ConstImageView const& a, ConstImageView const& b,
                       ConstImageView const& hole) {
    double sum = 0.0;
    long count = 0;
    for (std::ptrdiff_t y = 0; y < a.height; ++y)
        for (std::ptrdiff_t x = 0; x < a.width; ++x)
            if (*hole.pixel(x, y) != 0)
                for (int c = 0; c < 3; ++c, ++count)
                    sum += std::abs(int(a.pixel(x, y)[c]) - int(b.pixel(x, y)[c]));
    return sum / double(count);
}

TEST(MirroredPatches, PutsTheMirrorImageBesideThePictureInEveryFormat) {
    Image const image8 = noise(false);
    for (Depth const depth : {Depth::u8, Depth::u16, Depth::f32})
        for (Colour const colour : {Colour::gray, Colour::rgb, Colour::cmyk}) {
            PixelFormat const format{depth, colour};
            SCOPED_TRACE(format_name(format));
            Image const image = converted(image8.view(), format);
            auto const bytes = static_cast<std::size_t>(format.pixel_bytes());
            for (MirrorSide const side : {MirrorSide::left, MirrorSide::right}) {
                Image const both = beside_its_mirror(image.view(), side);
                ASSERT_EQ(both.size(), (Size{2 * size.width + mirror_gap, size.height}));
                std::ptrdiff_t const at = picture_offset(image.view(), side);
                std::ptrdiff_t const mirror_at =
                    side == MirrorSide::left ? 0 : size.width + mirror_gap;
                EXPECT_EQ(at, side == MirrorSide::left ? size.width + mirror_gap : 0);
                EXPECT_TRUE(
                    same_pixels(both.view().crop(at, 0, size.width, size.height), image.view()));
                // The gap lies at the picture's width from either side.
                EXPECT_TRUE(is_all_zero(both.view().crop(size.width, 0, mirror_gap, size.height)));
                for (std::ptrdiff_t y = 0; y < size.height; y += 7)
                    for (std::ptrdiff_t x = 0; x < size.width; x += 3)
                        ASSERT_EQ(std::memcmp(both.view().pixel(mirror_at + size.width - 1 - x, y),
                                              image.view().pixel(x, y), bytes),
                                  0);
            }
            EXPECT_TRUE(same_pixels(beside_its_mirror(image.view(), MirrorSide::none).view(),
                                    image.view()));
        }
}

TEST(MirroredPatches, FillTakesTheHiddenSideFromTheMirrorOnlyWhenTheRimIsSymmetric) {
    // The hole right of the axis: the mirror image goes on the left, and its
    // patches give back the noise the hole hides, which no shifted patch can.
    Image const hole = disc_mask(size, 112, 60, 14);
    Image const symmetric = noise(true);
    EXPECT_EQ(mirror_side(symmetric.view(), hole.view()), MirrorSide::left);
    Image const left_hole = disc_mask(size, 47, 60, 14);
    EXPECT_EQ(mirror_side(symmetric.view(), left_hole.view()), MirrorSide::right);
    Options options;
    options.bands = 1;
    options.seed = 1;
    options.texture_like_rim = false;
    Image const mirrored = fill(symmetric.view(), hole.view(), options);
    EXPECT_TRUE(known_pixels_kept(symmetric.view(), hole.view(), mirrored.view()));
    EXPECT_LT(hole_difference(mirrored.view(), symmetric.view(), hole.view()), 8.0);
    options.mirrored_patches = false;
    Image const plain = fill(symmetric.view(), hole.view(), options);
    EXPECT_GT(hole_difference(plain.view(), symmetric.view(), hole.view()), 25.0);

    // Noise without symmetry: no mirror, the fill as without the policy.
    Image const random = noise(false);
    EXPECT_EQ(mirror_side(random.view(), hole.view()), MirrorSide::none);
    Image const unmirrored = fill(random.view(), hole.view(), options);
    options.mirrored_patches = true;
    EXPECT_TRUE(same_pixels(fill(random.view(), hole.view(), options).view(), unmirrored.view()));

    // No mirror for an empty hole, nor for one within a patch of both sides.
    EXPECT_EQ(mirror_side(symmetric.view(), Image(mask_format, size).view()), MirrorSide::none);
    Image band(mask_format, size);
    std::memset(band.view().pixel(0, 50), 255, static_cast<std::size_t>(size.width * 10));
    EXPECT_EQ(mirror_side(symmetric.view(), band.view()), MirrorSide::none);
    EXPECT_THROW(mirror_side(symmetric.view(), symmetric.view()), Error);
}

}  // namespace
}  // namespace WM::host::test
