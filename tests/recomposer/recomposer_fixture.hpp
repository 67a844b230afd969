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

// Fills `hole` (255 = hole) of `image` with `r`.
template <class Compare, class Pixel = typename Compare::pixel_t>
RecycledImage<Pixel> fill(WeftmapRecomposer<Compare>& r, RecycledImage<Pixel> image,
                          RecycledImage<gray8_pixel_t> hole) {
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> output;
    r.recompose(view(image), constraints, output, &view(hole), nullptr, nullptr, nullptr, nullptr,
                nullptr, nullptr, nullptr);
    return output;
}

// Retargets `image` to `size` with `r`.
template <class Compare, class Pixel = typename Compare::pixel_t>
RecycledImage<Pixel> retarget(WeftmapRecomposer<Compare>& r, RecycledImage<Pixel> image,
                              Point const& size) {
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> output;
    r.retarget(view(image), constraints, output, size, 0.98, nullptr, nullptr, nullptr, nullptr);
    return output;
}

template <class Compare = TranslatePatchCompare<gray8_pixel_t>>
struct RecomposerUnderTest {
    using pixel_t = typename Compare::pixel_t;
    RecordingClient<pixel_t> client;
    WeftmapRecomposer<Compare> r{&client, RecomposerModeHoleFill};
};

}  // namespace WM::test
