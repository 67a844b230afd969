#include "recomposer/recomposer_fixture.hpp"
#include "support/test_client.hpp"

#include <weftmap/recomposer/hole_measures.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <random>

namespace WM {
namespace {

using test::byte_mask;
using test::error_text;
using Gray = RecycledImage<gray8_pixel_t>;

constexpr int w = 7;
gray8_pixel_t const zero(0);

// Whether a real patch corner (a whole patch fits there) that covers (x, y)
// is free (0) in `tmask`.
bool covered_by_free_patch(GrayView const& tmask, std::ptrdiff_t x, std::ptrdiff_t y) {
    for (std::ptrdiff_t cy = std::max<std::ptrdiff_t>(y - w + 1, 0); cy <= y; ++cy)
        for (std::ptrdiff_t cx = std::max<std::ptrdiff_t>(x - w + 1, 0); cx <= x; ++cx)
            if (cx <= tmask.width() - w && cy <= tmask.height() - w && tmask(cx, cy)[0] == 0)
                return true;
    return false;
}

// A recomposer with an all-known hole of `size` as its hole input and, for a
// value of 0 or more, a constraint mask of that value.
struct MaskSetup : test::RecomposerUnderTest<> {
    explicit MaskSetup(Point const& size, int constraint_value = -1) : hole(byte_mask(size, 255)) {
        r.hole_view = view(hole);
        r.hole_arg = &r.hole_view;
        if (constraint_value < 0) return;
        constraint = byte_mask(size, constraint_value);
        r.tconstraint_mask_view = view(constraint);
    }
    long free_corners() {
        GrayView const t = r.get_tmask();
        return std::count(t.begin(), t.end(), zero);
    }
    Gray hole, constraint;
};

// The masks as marking pixel by pixel gives them: the plain form of the rules.
struct ReferenceMasks {
    Gray tmask, smask;
};

ReferenceMasks reference_masks(GrayView const& hole, GrayView const& constraint,
                               GrayView const& valid) {
    Point const size = hole.dimensions();
    auto const mark = [](GrayView const& m, std::ptrdiff_t x, std::ptrdiff_t y, int value) {
        for (std::ptrdiff_t yy = std::max<std::ptrdiff_t>(y - w + 1, 0); yy <= y; ++yy)
            for (std::ptrdiff_t xx = std::max<std::ptrdiff_t>(x - w + 1, 0); xx <= x; ++xx)
                m(xx, yy)[0] = static_cast<unsigned char>(value);
    };
    ReferenceMasks r{byte_mask(size, 255), byte_mask(valid.dimensions(), 0)};
    GrayView const t = view(r.tmask), s = view(r.smask);
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < size.x; ++x)
            if (hole(x, y)[0] != 255) mark(t, x, y, 0);
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < size.x; ++x)
            if (constraint(x, y)[0] != 255 && hole(x, y)[0] == 255) mark(t, x, y, 255);
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < size.x; ++x) {
            if (hole(x, y)[0] == 255 || covered_by_free_patch(t, x, y)) continue;
            std::ptrdiff_t const x0 = std::max<std::ptrdiff_t>(x - w + 1, 0);
            std::ptrdiff_t const y0 = std::max<std::ptrdiff_t>(y - w + 1, 0);
            if (x0 <= size.x - w && y0 <= size.y - w) t(x0, y0)[0] = 0;
        }
    for (std::ptrdiff_t y = 0; y < valid.height(); ++y)
        for (std::ptrdiff_t x = 0; x < valid.width(); ++x)
            if (valid(x, y)[0] != 255) mark(s, x, y, 255);
    for (GrayView const& m : {t, s})
        for (std::ptrdiff_t y = 0; y < m.height(); ++y)
            for (std::ptrdiff_t x = 0; x < m.width(); ++x)
                if (x > m.width() - w || y > m.height() - w) m(x, y)[0] = 255;
    return r;
}

TEST(CalculateMasks, EqualsPixelByPixelMarkingOnRandomMasks) {
    // Blobs of hole, scattered and clustered fixed pixels (some inside the
    // hole), invalid source pixels (254 is invalid too); sizes that leave
    // ragged bands of rows.
    std::mt19937 rng(11);
    for (int round = 0; round < 12; ++round) {
        Point const size(40 + rng() % 60, 30 + rng() % 50);
        MaskSetup s(size, 255);
        Gray valid = byte_mask(size, 255);
        for (int i = 0; i < 8; ++i) {
            int const cx = rng() % size.x, cy = rng() % size.y, r = 1 + rng() % 5;
            for (int y = std::max(cy - r, 0); y < std::min<int>(cy + r, size.y); ++y)
                for (int x = std::max(cx - r, 0); x < std::min<int>(cx + r, size.x); ++x)
                    view(s.hole)(x, y)[0] = static_cast<unsigned char>(rng() % 3 == 0 ? 40 : 0);
        }
        int const fixed = round % 3 == 0 ? 0 : 200;
        for (int i = 0; i < fixed; ++i) view(s.constraint)(rng() % size.x, rng() % size.y)[0] = 100;
        for (int i = 0; i < 30; ++i)
            view(valid)(rng() % size.x, rng() % size.y)[0] = rng() % 2 == 0 ? 0 : 254;
        s.r.valid_view = view(valid);
        s.r.calculate_masks(size, size);
        auto const expected = reference_masks(view(s.hole), view(s.constraint), view(valid));
        ASSERT_TRUE(std::equal(const_view(expected.tmask).begin(), const_view(expected.tmask).end(),
                               s.r.get_tmask().begin()))
            << "round " << round;
        ASSERT_TRUE(std::equal(const_view(expected.smask).begin(), const_view(expected.smask).end(),
                               view(s.r._smask_buf).begin()))
            << "round " << round;
        Box free{1 << 30, 1 << 30, -1, -1};
        for (int y = 0; y < size.y; ++y)
            for (int x = 0; x < size.x; ++x) {
                // Whatever the marks take, every hole pixel keeps a free patch.
                EXPECT_TRUE(view(s.hole)(x, y)[0] == 255 ||
                            covered_by_free_patch(s.r.get_tmask(), x, y));
                if (const_view(expected.tmask)(x, y)[0] == 0)
                    free = Box{std::min(free.xmin, x), std::min(free.ymin, y),
                               std::max(free.xmax, x + 1), std::max(free.ymax, y + 1)};
            }
        EXPECT_EQ(get_abox(w, size, &s.r._tmask), free.xmax < 0 ? Box{} : free);
    }
}

TEST(CalculateMasks, WorkedCasesAndSizeChecks) {
    // Without a hole every real corner is free (a corner is free when its
    // patch covers a hole pixel); the last six rows and columns of both
    // masks are closed all the same.
    Point const size(20, 16);
    MaskSetup s(size);
    s.r.hole_arg = nullptr;
    s.r.calculate_masks(size, size);
    for (GrayView const& m : {s.r.get_tmask(), view(s.r._smask_buf)})
        for (int y = 0; y < size.y; ++y)
            for (int x = 0; x < size.x; ++x)
                EXPECT_EQ(m(x, y)[0], x <= size.x - w && y <= size.y - w ? 0 : 255);
    EXPECT_EQ(get_abox(w, size, &s.r._tmask), (Box{0, 0, 14, 10}));

    // A source narrower than patch_w - 1: nothing to sample, nothing to change.
    s.r.hole_arg = &s.r.hole_view;
    view(s.hole)(5, 5)[0] = 0;
    s.r.calculate_masks(size, Point(5, 20));
    ASSERT_EQ(s.r._smask_buf.dimensions(), Point(5, 20));
    EXPECT_EQ(std::count(view(s.r._smask_buf).begin(), view(s.r._smask_buf).end(), zero), 0);
    EXPECT_EQ(s.free_corners(), 0);
    EXPECT_TRUE(get_abox(w, size, &s.r._tmask).empty());

    // A hole pixel ringed by fixed pixels (the mark on the hole pixel itself
    // counts for nothing): the marks take every corner that covers it, so
    // the top left one is given back.
    MaskSetup ring(size, 255);
    view(ring.hole)(10, 8)[0] = 0;
    test::paint(view(ring.constraint), Box{9, 7, 12, 10}, zero);
    ring.r.calculate_masks(size, size);
    EXPECT_EQ(ring.free_corners(), 1);
    EXPECT_EQ(ring.r.get_tmask()(4, 2)[0], 0);

    // One hole pixel in each image corner, the rest of the image fixed: the
    // only patch that can fill it is the corner patch.
    for (Point const corner : {Point(0, 0), Point(19, 15), Point(19, 0), Point(0, 15)}) {
        MaskSetup c(size, 0);
        view(c.hole)(corner.x, corner.y)[0] = 0;
        c.r.calculate_masks(size, size);
        int const fx = int(std::min<std::ptrdiff_t>(corner.x, size.x - w));
        int const fy = int(std::min<std::ptrdiff_t>(corner.y, size.y - w));
        EXPECT_EQ(c.free_corners(), 1);
        EXPECT_EQ(c.r._tmask.boxes[0], (Box{fx, fy, fx + 1, fy + 1}));
    }

    Gray valid = byte_mask(Point(18, 14), 255);
    s.r.valid_view = view(valid);
    EXPECT_EQ(error_text([&] { s.r.calculate_masks(size, size); }),
              "WEFTMAP_INTERNAL_ERROR:Can't calculate masks: source size (20x16) != valid mask "
              "size (18x14)");
    s.r.valid_view = GrayView();
    Gray constraint = byte_mask(Point(20, 15), 255);
    s.r.tconstraint_mask_view = view(constraint);
    // A constraint mask must have the size of the hole as well.
    EXPECT_THROW(s.r.calculate_masks(Point(20, 15), size), Exception);
}

TEST(FillHoleDistance, MatchesBruteForceOverTheGrownBox) {
    std::mt19937 rng(11);
    RecycledImage<int_gray_pixel_t> distance;
    for (int round = 0; round < 12; ++round) {
        Gray hole = byte_mask(Point(30, 25), 255);
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
        ASSERT_EQ(d.dimensions(), Point(30, 25));
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
    // The distance stays behind for the search window.
    EXPECT_EQ(r.get_distance()(19, 20)[0], 10);

    // A steep gamma drives the middle under float range: the floor holds.
    r.current_hole_gamma = 10.0;
    EXPECT_FLOAT_EQ(weigh(hole)(19, 20)[0], 1e20f);  // d = 10, shift 0
    Gray wide = byte_mask(Point(140, 140), 255);
    test::paint(view(wide), Box{5, 5, 135, 135}, zero);
    EXPECT_EQ(weigh(wide)(70, 70)[0], static_cast<float>(1.1754943508222875e-28));

    // Without hole weighting: all 1.0, the default too.
    r.weigh_hole = false;
    EXPECT_EQ(weigh(hole)(0, 0)[0], 1.0f);
    EXPECT_EQ(weigh(hole)(20, 20)[0], 1.0f);

    // The output must have the hole's size; a gamma of 1 has no step.
    RecycledImage<weight_pixel_t> storage(Point(10, 10));
    auto const into = [&](Point const& size) {
        WeightInsetView out(view(storage), size, Point(0, 0));
        return error_text([&] {
            r.hole_weight(const_view(hole), Box{10, 10, 30, 30}, out, nullptr);
        });
    };
    EXPECT_EQ(into(Point(40, 39)),
              "WEFTMAP_INTERNAL_ERROR:hole_weight masks differ: target_mask size (40x40) != "
              "output size (40x39)");
    r.current_hole_gamma = 1.0;
    EXPECT_EQ(into(Point(40, 40)).rfind("WEFTMAP_INVALID_PARAMETERS:", 0), 0u);
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
    EXPECT_EQ(std::make_tuple(r.hole_area, r.hole_max_dist_bound, r.half_search_window),
              std::make_tuple(400, 7, 31));
    EXPECT_EQ(capture.channel.written,
              "hole_max_dist_bound =  7\nhole_area =  400\nhalf_search_window =  31\n");

    // Measured again with the window fixed: no new window, no log.
    capture.channel.written.clear();
    r.get_hole_properties();
    EXPECT_EQ(capture.channel.written, "");

    // A thin hole has a negative bound, which enters the sum as it is:
    // B = -2, r = sqrt(30) * 0.56419 - 0.9, v = trunc(-0.2085 + 16) = 15.
    Gray line = byte_mask(Point(40, 40), 255);
    test::paint(view(line), Box{5, 20, 35, 21}, zero);
    r.hole_view = view(line);
    r.half_search_window = -500;
    r.get_hole_properties();
    EXPECT_EQ(std::make_tuple(r.hole_area, r.hole_max_dist_bound, r.half_search_window),
              std::make_tuple(30, -2, 7));

    // No hole at all.
    Gray none = byte_mask(Point(40, 40), 255);
    r.hole_view = view(none);
    r.get_hole_properties();
    EXPECT_EQ(std::make_tuple(r.hole_area, r.hole_max_dist_bound), std::make_tuple(0, -3));
}

TEST(SourceWeights, FromImportanceAndWeight) {
    Gray importance = byte_mask(Point(3, 1), 0);
    view(importance)(1, 0)[0] = 51;
    view(importance)(2, 0)[0] = 255;
    RecycledImage<weight_pixel_t> weights;
    WeightInsetView const scaled = make_source_weights(const_view(importance), 0.0, weights);
    EXPECT_EQ(scaled(0, 0)[0], 0.0f);
    EXPECT_FLOAT_EQ(scaled(1, 0)[0], 0.2f);
    WeightInsetView const favoured = make_source_weights(const_view(importance), 4.0, weights);
    EXPECT_EQ(favoured(0, 0)[0], 0.25f);
    EXPECT_EQ(favoured(1, 0)[0], 1.0f);

    // Refused, and the weights stay as they were.
    for (double bad : {-1.0, std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_THROW(make_source_weights(const_view(importance), bad, weights), Exception);
        EXPECT_EQ(view(weights)(0, 0)[0], 0.25f);
    }
}

TEST(ProposeSearchBounds, GrowsAroundTheHoleAndStaysInTheImage) {
    // A 10 x 10 hole uses a 50 x 50 base: m = 2, nh = 100, nw = 25.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{100, 100, 110, 110}, 1.0f),
              (Box{93, 55, 117, 155}));
    // Wider than high: the width doubles and the height keeps the area.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{300, 500, 500, 510}, 1.0f),
              (Box{200, 493, 600, 517}));
    // At the corners the box is moved in, not cut.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{0, 0, 10, 10}, 1.0f),
              (Box{0, 0, 24, 100}));
    // Larger than the image: moved, then clipped.
    EXPECT_EQ(ProposeSearchBounds(Point(60, 80), Box{20, 20, 30, 30}, 1.0f), (Box{13, 0, 37, 80}));
    // A larger ratio: area 4 * 2500, m = max(100 / 50, 2) = 2.
    EXPECT_EQ(ProposeSearchBounds(Point(1000, 1000), Box{100, 100, 110, 110}, 2.0f),
              (Box{55, 55, 155, 155}));
}

}  // namespace
}  // namespace WM
