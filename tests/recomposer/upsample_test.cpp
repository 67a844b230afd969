#include "recomposer/recomposer_fixture.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

using test::byte_mask;
using Field = RecycledImage<offset_pixel_t>;
using Gray = RecycledImage<gray8_pixel_t>;

// A field on a square of `side` whose every patch matches the one (dx, dy)
// further on, held at the last source corner where that leaves the image.
Field translation_field(int side, int dx, int dy) {
    Field field(Point(side, side));
    int const last = side - 7;
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x)
            view(field)(x, y) = offset_pixel_t(static_cast<unsigned short>(std::min(x + dx, last)),
                                               static_cast<unsigned short>(std::min(y + dy, last)));
    return field;
}

struct Upsample : ::testing::Test {
    test::RecomposerUnderTest<> t;
    Field old_field = translation_field(40, 5, 3);
    Field new_field;

    void run(Point const& new_size, ConstGrayView const* prev_tmask = nullptr,
             ConstGrayView const* tmask_view = nullptr, ConstGrayView const* smask_view = nullptr,
             RegionMasks const* tmask = nullptr) {
        t.r.upsample_field2(view(old_field), new_size, Point(40, 40), new_size, new_field, tmask,
                            prev_tmask, nullptr, tmask_view, smask_view);
    }
    GrayView marks() { return view(t.r._validnn_buf); }
};

TEST_F(Upsample, TranslationStaysATranslationAtTheNewScale) {
    run(Point(80, 80));
    OffsetView const out = view(new_field);
    ASSERT_EQ(out.dimensions(), Point(80, 80));
    ASSERT_EQ(marks().dimensions(), Point(74, 74));
    // (5, 3) at scale 79 / 39 is (10.13, 6.08): rounded, (10, 6).
    for (int y = 8; y <= 50; ++y)
        for (int x = 8; x <= 50; ++x) {
            ASSERT_EQ(out(x, y)[0], x + 10) << x << "," << y;
            ASSERT_EQ(out(x, y)[1], y + 6) << x << "," << y;
            ASSERT_EQ(marks()(x, y)[0], 255);
        }
    // The last corners map past the old patch range: missing, then filled,
    // and every entry is a valid source corner.
    EXPECT_TRUE(marks()(73, 73)[0] > 0 && marks()(73, 73)[0] < 255);
    for (auto const& p : out) EXPECT_TRUE(p[0] <= 73 && p[1] <= 73);

    // A ratio that is not a whole number: 71 x 57 from 40 x 40.
    run(Point(71, 57));
    ASSERT_EQ(view(new_field).dimensions(), Point(71, 57));
    double const sx = 70.0 / 39.0, sy = 56.0 / 39.0;  // (5, 3) becomes (8.97, 4.31)
    for (int y = 8; y <= 35; ++y)
        for (int x = 8; x <= 45; ++x) {
            ASSERT_EQ(view(new_field)(x, y)[0], x + static_cast<int>(5 * sx + 0.5));
            ASSERT_EQ(view(new_field)(x, y)[1], y + static_cast<int>(3 * sy + 0.5));
        }
}

TEST_F(Upsample, MaskedCornersAreFilledByPassesWithFallingMarks) {
    Gray prev = byte_mask(Point(40, 40), 0);
    test::paint(view(prev), Box{15, 15, 20, 20}, gray8_pixel_t(255));
    ConstGrayView const prev_view = const_view(prev);
    run(Point(80, 80), &prev_view);
    OffsetView const out = view(new_field);
    // One pixel of growth per pass, the mark falling by one each time: the
    // distance to the nearest direct entry.
    auto const direct = [&](int x, int y) { return marks()(x, y)[0] == 255; };
    int filled = 0;
    for (int y = 0; y < 74; ++y)
        for (int x = 0; x < 74; ++x) {
            int const mark = marks()(x, y)[0];
            ASSERT_EQ(mark, 255 - test::city_block(int(marks().width()), int(marks().height()), x,
                                                   y, direct, 1 << 30))
                << x << "," << y;
            filled += mark < 255;
        }
    EXPECT_GT(filled, 80);  // the block of about 10 x 10 and the far edges
    // Old corners 15..19 come from new corners 33..42 on each axis.
    EXPECT_EQ(marks()(32, 37)[0], 255);
    EXPECT_EQ(marks()(37, 38)[0], 250);
    // The filled entries continue the translation.
    for (int y = 8; y <= 50; ++y)
        for (int x = 8; x <= 50; ++x) {
            ASSERT_EQ(out(x, y)[0], x + 10) << x << "," << y;
            ASSERT_EQ(out(x, y)[1], y + 6) << x << "," << y;
        }
}

TEST_F(Upsample, ForbiddenSourceCornerFallsBackToTheUnshiftedNeighbour) {
    Gray smask = byte_mask(Point(80, 80), 0);
    view(smask)(40, 36)[0] = 255;  // where target corner (30, 30) would go
    ConstGrayView const smask_view = const_view(smask);
    run(Point(80, 80), nullptr, nullptr, &smask_view);
    EXPECT_EQ(marks()(30, 30)[0], 254);
    EXPECT_EQ(view(new_field)(30, 30), offset_pixel_t(39, 36));
    EXPECT_EQ(view(new_field)(31, 30), offset_pixel_t(41, 36));
}

TEST_F(Upsample, RegionBoxLimitsTheWork) {
    RegionMasks tmask = test::label_masks(Point(80, 80), [](int x, int y) {
        return x >= 10 && x < 40 && y >= 20 && y < 30 ? 0 : 255;
    });
    ConstGrayView const tmask_view = tmask.view;
    run(Point(80, 80), nullptr, &tmask_view, nullptr, &tmask);
    EXPECT_EQ(marks().dimensions(), Point(30, 10));
    EXPECT_EQ(view(new_field)(9, 25), offset_pixel_t(0, 0));
    EXPECT_EQ(view(new_field)(20, 25), offset_pixel_t(30, 31));
}

TEST_F(Upsample, AxisOfOnePixelDoesNotDivideByZero) {
    t.r.patch_w = 1;
    Field old(Point(5, 5));
    for (int y = 0; y < 5; ++y)
        gil::fill_pixels(gil::subimage_view(view(old), 0, y, 5, 1),
                         offset_pixel_t(0, static_cast<unsigned short>(y)));
    t.r.upsample_field2(view(old), Point(1, 5), Point(1, 5), Point(3, 5), new_field, nullptr,
                        nullptr, nullptr, nullptr, nullptr);
    for (int y = 0; y < 5; ++y) {
        EXPECT_LE(view(new_field)(0, y)[0], 2);
        EXPECT_EQ(view(new_field)(0, y)[1], y);
        EXPECT_EQ(marks()(0, y)[0], 255);
    }
}

}  // namespace
}  // namespace WM
