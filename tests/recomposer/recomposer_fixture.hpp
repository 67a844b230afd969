// A hole-fill recomposer for tests of its members, and the pictures the
// recomposer's tests run on.
#pragma once

#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"

#include <weftmap/recomposer/recomposer.hpp>

namespace WM::test {

// A periodic texture of `width` x `height`.
template <class Pixel>
RecycledImage<Pixel> texture(std::ptrdiff_t width, std::ptrdiff_t height) {
    RecycledImage<Pixel> image(Point(width, height));
    paint_texture(view(image));
    return image;
}

// A mask of `size` with a disc of 255 (the hole) at (cx, cy).
inline RecycledImage<gray8_pixel_t> disc_hole(Point const& size, double cx, double cy,
                                              double radius) {
    RecycledImage<gray8_pixel_t> hole(size);
    paint_disc(view(hole), cx, cy, radius);
    return hole;
}

template <class Compare = TranslatePatchCompare<gray8_pixel_t>>
struct RecomposerUnderTest {
    using pixel_t = typename Compare::pixel_t;
    RecordingClient<pixel_t> client;
    WeftmapRecomposer<Compare> r{&client, RecomposerModeHoleFill};
};

}  // namespace WM::test
