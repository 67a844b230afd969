// A hole-fill recomposer for tests of its members, with a client that
// ignores progress.
#pragma once

#include "support/helpers.hpp"

#include <weftmap/recomposer/recomposer.hpp>

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

}  // namespace WM::test
