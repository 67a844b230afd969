// The sampling area a fill takes by default: the colours of the hole's rim.
#include "host/kit_helpers.hpp"

#include <weftmap/host/hole_mask.hpp>

#include <gtest/gtest.h>

#include <cstdint>

namespace WM::host::test {
namespace {

PixelFormat const rgb8{Depth::u8, Colour::rgb};

// Grey with a little noise, red right of x0 and below y0.
Image grey_with_red(std::ptrdiff_t x0, std::ptrdiff_t y0) {
    Image image(rgb8, {96, 80});
    std::uint32_t state = 7;
    for (std::ptrdiff_t y = 0; y < 80; ++y)
        for (std::ptrdiff_t x = 0; x < 96; ++x) {
            state = state * 1664525u + 1013904223u;
            auto const grey = static_cast<unsigned char>(110 + (state >> 24) % 30);
            bool const red = x >= x0 && y >= y0;
            unsigned char* p = image.view().pixel(x, y);
            p[0] = red ? 210 : grey;
            p[1] = red ? 30 : grey;
            p[2] = red ? 40 : grey;
        }
    return image;
}

bool red(unsigned char const* p) {
    return p[0] > 180 && p[1] < 80;
}

TEST(SamplingLikeRim, LeavesOutColoursTheRimLacksUnlessTooLittleRemains) {
    Image const hole = disc_mask({96, 80}, 28, 30, 10);
    Image const image = grey_with_red(48, 40);
    Image const area = sampling_like_rim(image.view(), hole.view());
    ASSERT_FALSE(area.empty());
    for (std::ptrdiff_t y = 0; y < 80; ++y)
        for (std::ptrdiff_t x = 0; x < 96; ++x) {
            bool const allowed = *area.view().pixel(x, y) != 0;
            if (*hole.view().pixel(x, y) != 0 || red(image.view().pixel(x, y))) {
                EXPECT_FALSE(allowed) << x << "," << y;
            } else if (x < 44 || y < 36) {
                // Grey away from the red's edge, where specks are dropped.
                EXPECT_TRUE(allowed) << x << "," << y;
            }
        }

    // A picture of the rim's colours only, and one where the red leaves too
    // little grey, are not limited.
    EXPECT_TRUE(sampling_like_rim(grey_with_red(96, 80).view(), hole.view()).empty());
    EXPECT_TRUE(sampling_like_rim(grey_with_red(40, 0).view(), hole.view()).empty());
}

}  // namespace
}  // namespace WM::host::test
