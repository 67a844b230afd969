// A hole-fill recomposer for tests of its members, with a client that
// ignores progress, and small helpers for byte masks.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <boost/gil/algorithm.hpp>

#include <string>

namespace WM::test {

template <class Pixel>
class QuietClient : public ClientBase<Pixel> {
public:
    void updateProgress(float) override {}
};

template <class Compare = TranslatePatchCompare<gray8_pixel_t>>
struct RecomposerUnderTest {
    using pixel_t = typename Compare::pixel_t;
    QuietClient<pixel_t> client;
    WeftmapRecomposer<Compare> r{&client, RecomposerModeHoleFill};
};

// A byte mask of `size` filled with `value`.
inline RecycledImage<gray8_pixel_t> byte_mask(Point const& size, unsigned char value) {
    RecycledImage<gray8_pixel_t> mask(size);
    gil::fill_pixels(view(mask), gray8_pixel_t(value));
    return mask;
}

// The text of the library exception that `f` throws, or "" when none.
template <class F>
std::string error_text(F&& f) {
    try {
        f();
    } catch (Exception const& e) {
        return e.message;
    }
    return "";
}

}  // namespace WM::test
