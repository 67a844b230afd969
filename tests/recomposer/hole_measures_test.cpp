#include "recomposer/recomposer_fixture.hpp"
#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/recomposer/hole_measures.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <tuple>

namespace WM {
namespace {

using test::byte_mask;
using test::error_text;
using Gray = RecycledImage<gray8_pixel_t>;

constexpr int w = 7;
gray8_pixel_t const zero(0);

// Whether some patch corner that covers (x, y) is 0 in `tmask` and is a real
// corner (a whole patch fits there).
bool covered_by_free_patch(GrayView const& tmask, std::ptrdiff_t x, std::ptrdiff_t y) {
    for (std::ptrdiff_t cy = std::max<std::ptrdiff_t>(y - w + 1, 0); cy <= y; ++cy)
        for (std::ptrdiff_t cx = std::max<std::ptrdiff_t>(x - w + 1, 0); cx <= x; ++cx)
            if (cx <= tmask.width() - w && cy <= tmask.height() - w && tmask(cx, cy)[0] == 0)
                return true;
    return false;
}

long count_zeros(GrayView const& mask) {
    return std::count(mask.begin(), mask.end(), zero);
}

// A recomposer with a hole of `size` (all known) set as its hole input.
struct MaskSetup : test::RecomposerUnderTest<> {
    explicit MaskSetup(Point const& size) : size(size) { reset(); }
    // A fresh all-known hole and, for a value of 0 or more, a constraint
    // mask of that value.
    void reset(int constraint_value = -1) {
        hole = byte_mask(size, 255);
        r.hole_view = view(hole);
        r.hole_arg = &r.hole_view;
        if (constraint_value < 0) return;
        constraint = byte_mask(size, constraint_value);
        r.tconstraint_mask_view = view(constraint);
    }
    Point size;
    Gray hole, constraint;
};

TEST(CalculateMasks, HoleCornersAreFreeAndTheLastRowsAndColumnsClosed) {
    Point const size(20, 16);
    MaskSetup s(size);
    test::paint(view(s.hole), Box{8, 6, 11, 8}, zero);
    // A corner is free exactly when its patch covers a hole pixel; without a
    // hole every real corner is free. The last six rows and columns of both
    // masks are 255 all the same.
    for (bool const with_hole : {true, false}) {
        s.r.hole_arg = with_hole ? &s.r.hole_view : nullptr;
        s.r.calculate_masks(size, size);
        GrayView const tmask = s.r.get_tmask();
        GrayView const smask = view(s.r._smask_buf);
        ASSERT_EQ(tmask.dimensions(), size);
        ASSERT_EQ(smask.dimensions(), size);
        for (int y = 0; y < size.y; ++y)
            for (int x = 0; x < size.x; ++x) {
                bool const real = x <= size.x - w && y <= size.y - w;
                bool const touches =
                    !with_hole || (x <= 10 && x + w - 1 >= 8 && y <= 7 && y + w - 1 >= 6);
                EXPECT_EQ(tmask(x, y)[0], real && touches ? 0 : 255) << x << "," << y;
                EXPECT_EQ(smask(x, y)[0], real ? 0 : 255) << x << "," << y;
            }
        if (with_hole) {
            EXPECT_EQ(s.r._tmask.boxes[0], (Box{2, 0, 11, 8}));
            EXPECT_EQ(get_abox(w, size, &s.r._tmask), (Box{2, 0, 11, 8}));
        }
    }
}

TEST(CalculateMasks, ConstraintMarksFreezePatchesButEveryHolePixelKeepsOne) {
    Point const size(20, 16);
    MaskSetup s(size);
    // A hole pixel ringed by fixed pixels (the mark on the hole pixel itself
    // counts for nothing): the marks take every corner that covers it, so the
    // top left one is given back.
    s.reset(255);
    view(s.hole)(10, 8)[0] = 0;
    test::paint(view(s.constraint), Box{9, 7, 12, 10}, zero);
    s.r.calculate_masks(size, size);
    EXPECT_EQ(count_zeros(s.r.get_tmask()), 1);
    EXPECT_EQ(s.r.get_tmask()(4, 2)[0], 0);

    // A hole pixel on the right edge with a fixed pixel beside it: only
    // corner column 13 holds whole patches, and the mark takes all of it.
    s.reset(255);
    view(s.hole)(19, 8)[0] = 0;
    view(s.constraint)(18, 8)[0] = 0;
    s.r.calculate_masks(size, size);
    EXPECT_TRUE(covered_by_free_patch(s.r.get_tmask(), 19, 8));
    EXPECT_EQ(s.r.get_tmask()(13, 2)[0], 0);

    // Random holes and constraints: every hole pixel stays covered, and no
    // free corner covers a fixed pixel except the one given back per pixel.
    std::mt19937 rng(7);
    for (int round = 0; round < 20; ++round) {
        s.reset(255);
        for (int i = 0; i < 6; ++i) view(s.hole)(rng() % size.x, rng() % size.y)[0] = 0;
        for (int i = 0; i < 40; ++i) view(s.constraint)(rng() % size.x, rng() % size.y)[0] = 100;
        s.r.calculate_masks(size, size);
        GrayView const t = s.r.get_tmask();
        int given_back = 0;
        for (int y = 0; y < size.y; ++y)
            for (int x = 0; x < size.x; ++x) {
                if (view(s.hole)(x, y)[0] != 255) {
                    EXPECT_TRUE(covered_by_free_patch(t, x, y));
                }
                if (t(x, y)[0] != 0) continue;
                EXPECT_LE(x, size.x - w);
                EXPECT_LE(y, size.y - w);
                bool touches_fixed = false;
                for (int py = y; py < y + w; ++py)
                    for (int px = x; px < x + w; ++px)
                        touches_fixed |=
                            view(s.constraint)(px, py)[0] != 255 && view(s.hole)(px, py)[0] == 255;
                given_back += touches_fixed;
            }
        EXPECT_LE(given_back, 6);
    }
}

TEST(CalculateMasks, SmallSourcesAndCornerHoles) {
    // A source narrower than patch_w - 1: nothing to sample, nothing to change.
    Point const size(20, 16);
    MaskSetup s(size);
    view(s.hole)(5, 5)[0] = 0;
    s.r.calculate_masks(size, Point(5, 20));
    ASSERT_EQ(s.r._smask_buf.dimensions(), Point(5, 20));
    EXPECT_EQ(count_zeros(view(s.r._smask_buf)), 0);
    EXPECT_EQ(count_zeros(s.r.get_tmask()), 0);
    EXPECT_TRUE(get_abox(w, size, &s.r._tmask).empty());

    // One hole pixel in each image corner, the rest of the image fixed: the
    // only patch that can fill it is the corner patch.
    for (Point const corner : {Point(0, 0), Point(19, 15), Point(19, 0), Point(0, 15)}) {
        MaskSetup c(size);
        c.reset(0);
        view(c.hole)(corner.x, corner.y)[0] = 0;
        c.r.calculate_masks(size, size);
        int const fx = int(std::min<std::ptrdiff_t>(corner.x, size.x - w));
        int const fy = int(std::min<std::ptrdiff_t>(corner.y, size.y - w));
        EXPECT_EQ(count_zeros(c.r.get_tmask()), 1);
        EXPECT_EQ(c.r.get_tmask()(fx, fy)[0], 0);
        EXPECT_EQ(c.r._tmask.boxes[0], (Box{fx, fy, fx + 1, fy + 1}));
    }
}

TEST(CalculateMasks, ValidMaskAndSizeMessages) {
    Point const size(20, 16);
    MaskSetup s(size);
    Gray valid = byte_mask(Point(18, 14), 255);
    view(valid)(9, 9)[0] = 254;
    s.r.valid_view = view(valid);
    s.r.calculate_masks(size, Point(18, 14));
    GrayView const smask = view(s.r._smask_buf);
    for (int y = 0; y < 14; ++y)
        for (int x = 0; x < 18; ++x) {
            bool const real = x <= 18 - w && y <= 14 - w;
            bool const touches = x <= 9 && x + w > 9 && y <= 9 && y + w > 9;
            EXPECT_EQ(smask(x, y)[0], real && !touches ? 0 : 255) << x << "," << y;
        }

    EXPECT_EQ(error_text([&] { s.r.calculate_masks(size, size); }),
              "WEFTMAP_INTERNAL_ERROR:Can't calculate masks: source size (20x16) != valid mask "
              "size (18x14)");
    s.r.valid_view = GrayView();

    Gray constraint = byte_mask(Point(20, 15), 255);
    s.r.tconstraint_mask_view = view(constraint);
    EXPECT_EQ(error_text([&] { s.r.calculate_masks(size, size); }),
              "WEFTMAP_INTERNAL_ERROR:Can't calculate masks: target size (20x16) != "
              "target_constraint mask size (20x15)");
    // The hole at another size than the target: no hole here, and the mask
    // must still agree with it.
    EXPECT_EQ(error_text([&] { s.r.calculate_masks(Point(20, 15), size); }),
              "WEFTMAP_INTERNAL_ERROR:Can't calculate masks: hole size (20x16) != "
              "target_constraint mask size (20x15)");
}

TEST(FillHoleDistance, MatchesBruteForceOverTheGrownBox) {
    std::mt19937 rng(11);
    RecycledImage<int_gray_pixel_t> distance;
    for (int round = 0; round < 12; ++round) {
        Point const size(30, 25);
        Gray hole = byte_mask(size, 255);
        // Blobs anywhere, edges included, so that clipping is exercised.
        for (int b = 0; b < 3; ++b) {
            int const bx = rng() % 30, by = rng() % 25, bw = 1 + rng() % 9, bh = 1 + rng() % 9;
            for (int y = by; y < std::min(by + bh, 25); ++y)
                for (int x = bx; x < std::min(bx + bw, 30); ++x)
                    view(hole)(x, y)[0] = static_cast<unsigned char>(rng() % 255);
        }
        Box const box = hole_bounding_box(const_view(hole));
        DistanceInsetView const d = fill_hole_distance(const_view(hole), box, distance, w, nullptr);
        Box const rect{std::max(box.xmin - 3, 0), std::max(box.ymin - 3, 0),
                       std::min(box.xmax + 3, 30), std::min(box.ymax + 3, 25)};
        auto const inside = [&](int x, int y) {
            return x >= rect.xmin && x < rect.xmax && y >= rect.ymin && y < rect.ymax;
        };
        // City-block distance to the nearest known pixel within the rectangle.
        auto const known = [&](int x, int y) { return inside(x, y) && view(hole)(x, y)[0] == 255; };
        ASSERT_EQ(d.dimensions(), size);
        EXPECT_EQ(d.xmin, rect.xmin);
        EXPECT_EQ(d.ymax, rect.ymax);
        for (int y = 0; y < 25; ++y)
            for (int x = 0; x < 30; ++x)
                ASSERT_EQ(d(x, y)[0],
                          inside(x, y) ? test::city_block(30, 25, x, y, known, 10000) : 0)
                    << x << "," << y << " round " << round;
    }

    // No hole view at all (a retarget): nothing to measure, every pixel known.
    DistanceInsetView const none = fill_hole_distance(ConstGrayView(), Box{}, distance, w, nullptr);
    EXPECT_EQ(none.dimensions(), Point(0, 0));
    EXPECT_EQ(none(0, 0)[0], 0);

    // The constraint mask is published and must have the hole's size.
    Gray hole = byte_mask(Point(12, 10), 255);
    view(hole)(4, 4)[0] = 0;
    Gray mask = byte_mask(Point(12, 10), 255);
    ConstGrayView const mask_view = const_view(mask);
    test::ScopedCapture capture;
    fill_hole_distance(const_view(hole), Box{4, 4, 5, 5}, distance, w, &mask_view);
    EXPECT_NE(capture.channel.written.find("CHECKSUM (test): tconstraint_mask subimage: "),
              std::string::npos);
    Gray small = byte_mask(Point(12, 9), 255);
    ConstGrayView const small_view = const_view(small);
    EXPECT_EQ(error_text([&] {
                  fill_hole_distance(const_view(hole), Box{4, 4, 5, 5}, distance, w, &small_view);
              }).rfind("WEFTMAP_INTERNAL_ERROR:", 0),
              0u);
}

// A 40 x 40 hole image with the square (10..29, 10..29) missing.
Gray square_hole() {
    Gray hole = byte_mask(Point(40, 40), 255);
    test::paint(view(hole), Box{10, 10, 30, 30}, zero);
    return hole;
}

TEST(HoleWeight, FallsByGammaPerPixelWithAStepAtHalfAPatch) {
    test::RecomposerUnderTest<> t;
    auto& r = t.r;
    ASSERT_TRUE(r.weigh_hole);
    r.current_hole_gamma = 1.3;
    Gray hole = square_hole();
    test::ScopedCapture capture;
    auto const weigh = [&](Gray const& h) {
        return r.compute_weights(const_view(h), &r._tmask, r._tweight_buf, nullptr);
    };
    WeightInsetView const weights = weigh(hole);
    EXPECT_NE(capture.channel.written.find("CHECKSUM (test): hole_weight bd: "), std::string::npos);

    // Frame of the hole, rectangle of the hole grown by half a patch.
    EXPECT_EQ(weights.dimensions(), Point(40, 40));
    EXPECT_EQ(std::make_tuple(weights.xmin, weights.ymin, weights.xmax, weights.ymax),
              std::make_tuple(7, 7, 33, 33));
    EXPECT_EQ(weights(0, 0)[0], 1e30f);   // outside: the default
    EXPECT_EQ(weights(9, 20)[0], 1e30f);  // known pixel
    // Along row 20 from the left edge of the hole the distance is 1, 2, ...
    // With gamma 1.3 the shift is 4: the exponent jumps from 3 to 8.
    for (int d = 1; d <= 10; ++d) {
        int const e = d + (d > 3 ? 4 : 0);
        EXPECT_FLOAT_EQ(weights(9 + d, 20)[0], static_cast<float>(1e30 / std::pow(1.3, e))) << d;
    }
    EXPECT_NEAR(weights(11, 20)[0] / weights(12, 20)[0], 1.3, 1e-5);
    EXPECT_NEAR(weights(12, 20)[0] / weights(13, 20)[0], std::pow(1.3, 5), 1e-4);
    EXPECT_NEAR(weights(13, 20)[0] / weights(14, 20)[0], 1.3, 1e-5);

    // The distance stays behind for the search window.
    DistanceInsetView const& dist = r.get_distance();
    EXPECT_EQ(dist.dimensions(), Point(40, 40));
    EXPECT_EQ(dist(19, 20)[0], 10);
    EXPECT_EQ(dist(0, 0)[0], 0);

    // A steep gamma drives the middle under float range: the floor holds.
    r.current_hole_gamma = 10.0;
    EXPECT_FLOAT_EQ(weigh(hole)(19, 20)[0], 1e20f);  // d = 10, shift 0
    Gray wide = byte_mask(Point(140, 140), 255);
    test::paint(view(wide), Box{5, 5, 135, 135}, zero);
    WeightInsetView const floored = weigh(wide);
    EXPECT_EQ(floored(70, 70)[0], static_cast<float>(1.1754943508222875e-28));
    EXPECT_GT(floored(70, 70)[0], 0.0f);

    // Without hole weighting: all 1.0, the default too.
    r.weigh_hole = false;
    WeightInsetView const flat = weigh(hole);
    EXPECT_EQ(flat(0, 0)[0], 1.0f);
    EXPECT_EQ(flat(20, 20)[0], 1.0f);
    EXPECT_EQ(flat.xmin, 7);
}

TEST(HoleWeight, RefusesMismatchedSizesAndAGammaWithoutStep) {
    test::RecomposerUnderTest<> t;
    auto& r = t.r;
    Gray hole = square_hole();
    RecycledImage<weight_pixel_t> storage(Point(10, 10));
    WeightInsetView weights(view(storage), Point(40, 39), Point(0, 0));
    WeightInsetView right(view(storage), Point(40, 40), Point(0, 0));
    Gray mask = byte_mask(Point(39, 40), 255);
    ConstGrayView const mask_view = const_view(mask);
    auto const weigh = [&](WeightInsetView& out, ConstGrayView const* m) {
        return error_text([&] { r.hole_weight(const_view(hole), Box{10, 10, 30, 30}, out, m); });
    };
    EXPECT_EQ(weigh(weights, nullptr),
              "WEFTMAP_INTERNAL_ERROR:hole_weight masks differ: target_mask size (40x40) != "
              "output size (40x39)");
    EXPECT_EQ(weigh(right, &mask_view),
              "WEFTMAP_INTERNAL_ERROR:hole_weight masks differ: tconstraint_mask size (39x40) != "
              "output size (40x40)");
    r.current_hole_gamma = 1.0;
    EXPECT_EQ(weigh(right, nullptr).rfind("WEFTMAP_INVALID_PARAMETERS:", 0), 0u);
}

TEST(GetHoleProperties, MeasuresTheHoleAndSizesTheAdaptiveWindow) {
    test::RecomposerUnderTest<> t;
    auto& r = t.r;
    ASSERT_EQ(r.half_search_window, -500);
    Gray hole = square_hole();
    r.hole_view = view(hole);
    test::ScopedCapture capture(false);
    r.get_hole_properties();
    // 400 hole pixels, 10 the deepest; r = 20 * 0.56419 / 7 - 0.9 = 0.71197,
    // v = trunc(1.97277 * 3.5 + 31.5 + 25) = 63.
    EXPECT_EQ(r.hole_area, 400);
    EXPECT_EQ(r.hole_max_dist_bound, 7);
    EXPECT_EQ(r.half_search_window, 31);
    EXPECT_EQ(capture.channel.written,
              "hole_max_dist_bound =  7\nhole_area =  400\nhalf_search_window =  31\n");

    // Measured again with a fixed window: no change of window, no log.
    capture.channel.written.clear();
    r.get_hole_properties();
    EXPECT_EQ(r.half_search_window, 31);
    EXPECT_EQ(capture.channel.written, "");

    // A thin hole has a negative bound, which enters the sum as it is:
    // B = -2, r = sqrt(30) * 0.56419 - 0.9, v = trunc(-0.2085 + 16) = 15.
    Gray line = byte_mask(Point(40, 40), 255);
    test::paint(view(line), Box{5, 20, 35, 21}, zero);
    r.hole_view = view(line);
    r.half_search_window = -500;
    r.get_hole_properties();
    EXPECT_EQ(r.hole_area, 30);
    EXPECT_EQ(r.hole_max_dist_bound, -2);
    EXPECT_EQ(r.half_search_window, 7);

    // No hole at all.
    Gray none = byte_mask(Point(40, 40), 255);
    r.hole_view = view(none);
    r.half_search_window = 0;
    r.get_hole_properties();
    EXPECT_EQ(r.hole_area, 0);
    EXPECT_EQ(r.hole_max_dist_bound, -3);
}

TEST(SourceWeights, FromImportanceAndWeight) {
    Gray importance = byte_mask(Point(3, 1), 0);
    view(importance)(1, 0)[0] = 51;
    view(importance)(2, 0)[0] = 255;
    RecycledImage<weight_pixel_t> weights;
    WeightInsetView const scaled = make_source_weights(const_view(importance), 0.0, weights);
    EXPECT_EQ(scaled.dimensions(), Point(3, 1));
    EXPECT_EQ(scaled(0, 0)[0], 0.0f);
    EXPECT_FLOAT_EQ(scaled(1, 0)[0], 0.2f);
    EXPECT_FLOAT_EQ(scaled(2, 0)[0], 1.0f);

    WeightInsetView const favoured = make_source_weights(const_view(importance), 4.0, weights);
    EXPECT_EQ(favoured(0, 0)[0], 0.25f);
    EXPECT_EQ(favoured(1, 0)[0], 1.0f);
    EXPECT_EQ(favoured(2, 0)[0], 1.0f);

    // Refused, and the weights stay as they were.
    for (double bad : {-1.0, std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(error_text([&] {
                      make_source_weights(const_view(byte_mask(Point(5, 5), 0)), bad, weights);
                  }).rfind("WEFTMAP_INVALID_PARAMETERS:", 0),
                  0u);
        EXPECT_EQ(weights.dimensions(), Point(3, 1));
        EXPECT_EQ(view(weights)(0, 0)[0], 0.25f);
    }
}

TEST(PatchCounts, EnoughPatchesToSampleFrom) {
    // 10 x 10 masks hold 4 x 4 patch corners.
    Gray smask = byte_mask(Point(10, 10), 255);
    Gray tmask = byte_mask(Point(10, 10), 0);
    for (int i = 0; i < 5; ++i) view(smask)(i % 4, i / 4)[0] = 0;
    view(smask)(8, 8)[0] = 0;  // not a corner
    for (int i = 0; i < 10; ++i) view(tmask)(i % 4, i / 4)[0] = 255;
    auto const enough = [&](int min_patches, bool count_only, double min_ratio) {
        return check_enough_patches_to_sample_from(w, const_view(smask), const_view(tmask),
                                                   min_patches, count_only, min_ratio);
    };
    EXPECT_TRUE(enough(5, true, 0.0));
    EXPECT_FALSE(enough(6, true, 0.0));
    // Ratio 5 / 10.
    EXPECT_TRUE(enough(5, false, 0.5));
    EXPECT_FALSE(enough(5, false, 0.51));
    EXPECT_FALSE(enough(6, false, 0.0));
    // No patch corner at all.
    Gray tiny = byte_mask(Point(6, 10), 0);
    EXPECT_FALSE(
        check_enough_patches_to_sample_from(w, const_view(tiny), const_view(tiny), 1, true, 0.0));
}

TEST(ProposeSearchBounds, GrowsAroundTheHoleAndStaysInTheImage) {
    // A 10 x 10 hole uses a 50 x 50 base: m = 2, nh = 100, nw = 25.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{100, 100, 110, 110}, 1.0f),
              (Box{93, 55, 117, 155}));
    // Wider than high: the width doubles and the height keeps the area.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{300, 500, 500, 510}, 1.0f),
              (Box{200, 493, 600, 517}));
    // At the top left corner the box is moved in, not cut.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{0, 0, 10, 10}, 1.0f),
              (Box{0, 0, 24, 100}));
    // At the bottom right likewise.
    EXPECT_EQ(ProposeSearchBounds(Point(200, 150), Box{190, 140, 200, 150}, 1.0f),
              (Box{176, 50, 200, 150}));
    // Larger than the image: moved, then clipped.
    EXPECT_EQ(ProposeSearchBounds(Point(60, 80), Box{20, 20, 30, 30}, 1.0f), (Box{13, 0, 37, 80}));
    // A larger ratio: area 4 * 2500, m = max(100 / 50, 2) = 2.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{100, 100, 110, 110}, 2.0f),
              (Box{55, 55, 155, 155}));
}

template <class Pixel>
class MasksAllTypes : public ::testing::Test {};
TYPED_TEST_SUITE(MasksAllTypes, test::AllPixelTypes, test::PixelNames);

// The masks do not depend on the pixel type or the comparator.
TYPED_TEST(MasksAllTypes, SameMasksForEveryInstantiation) {
    Point const size(24, 18);
    Gray hole = square_hole();
    Gray small = byte_mask(size, 255);
    test::paint(view(small), Box{3, 5, 12, 9}, zero);
    MaskSetup reference(size);
    reference.hole = small;
    reference.r.calculate_masks(size, size);

    auto const check = [&](auto& r) {
        r.hole_view = view(small);
        r.hole_arg = &r.hole_view;
        r.calculate_masks(size, size);
        EXPECT_EQ(view_crc32(r.get_tmask()), view_crc32(reference.r.get_tmask()));
        EXPECT_EQ(view_crc32(view(r._smask_buf)), view_crc32(view(reference.r._smask_buf)));
        r.hole_view = view(hole);
        r.get_hole_properties();
        EXPECT_EQ(r.hole_area, 400);
        WeightInsetView const weights =
            r.compute_weights(const_view(hole), &r._tmask, r._tweight_buf, nullptr);
        EXPECT_EQ(weights(9, 20)[0], 1e30f);
    };
    test::RecomposerUnderTest<TranslatePatchCompare<TypeParam>> translate;
    check(translate.r);
    test::RecomposerUnderTest<GainBiasPatchCompare<TypeParam>> gain_bias;
    check(gain_bias.r);
}

}  // namespace
}  // namespace WM
