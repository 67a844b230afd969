#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"
#include "support/test_client.hpp"

#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/frame/exceptions.hpp>

#include <gtest/gtest.h>

#include <boost/gil/algorithm.hpp>

#include <string>

namespace WM {
namespace {

Box const reset_box{0x7fffffff, 0x7fffffff, -2147483647, -2147483647};

// A 12x10 label map: label 0 everywhere, label 3 in a block, label 9 only in
// the last six columns, where no patch starts.
RegionMasks labelled_masks() {
    return test::label_masks(Point(12, 10), [](int x, int y) {
        if (y >= 1 && y <= 2 && x >= 2 && x <= 4) return 3;
        if (x == 11 && y == 9) return 9;
        return y == 3 && (x == 0 || x == 4) ? 7 : 0;
    });
}

TEST(RegionMasks, BoxesCoverPatchPositionsOnly) {
    RegionMasks const masks = labelled_masks();
    EXPECT_EQ(masks.view.dimensions(), Point(12, 10));
    // Patch positions are x 0..5 and y 0..3.
    EXPECT_EQ(masks.boxes[0], (Box{0, 0, 6, 4}));
    EXPECT_EQ(masks.boxes[3], (Box{2, 1, 5, 3}));
    EXPECT_EQ(masks.boxes[7], (Box{0, 3, 5, 4}));
    EXPECT_EQ(masks.boxes[9], reset_box);
    EXPECT_EQ(masks.boxes[255], reset_box);
}

TEST(RegionMasks, UpdateResetsStaleBoxesAndSwapExchangesEverything) {
    RegionMasks a = labelled_masks();
    gil::fill_pixels(a.view, gray8_pixel_t(5));
    a.update_boxes(7);
    EXPECT_EQ(a.boxes[5], (Box{0, 0, 6, 4}));
    EXPECT_EQ(a.boxes[0], reset_box);
    EXPECT_EQ(a.boxes[3], reset_box);

    RegionMasks b;
    b.recreate(Point(8, 7));
    gil::fill_pixels(b.view, gray8_pixel_t(0));
    b.update_boxes(7);
    EXPECT_EQ(b.boxes[0], (Box{0, 0, 2, 1}));

    auto const* a_memory = a.image.memory();
    a.swap(b);
    EXPECT_EQ(b.image.memory(), a_memory);
    EXPECT_EQ(b.view.dimensions(), Point(12, 10));
    EXPECT_EQ(b.boxes[5], (Box{0, 0, 6, 4}));
    EXPECT_EQ(a.view.dimensions(), Point(8, 7));
    EXPECT_EQ(a.boxes[0], (Box{0, 0, 2, 1}));
    EXPECT_EQ(a.boxes[5], reset_box);
}

TEST(RegionMasks, CopyOwnsItsPixelsAndViewsThem) {
    RegionMasks const original = labelled_masks();
    RegionMasks copy(original);
    RegionMasks assigned;
    assigned = original;
    for (RegionMasks* m : {&copy, &assigned}) {
        EXPECT_NE(m->image.memory(), original.image.memory());
        EXPECT_EQ(reinterpret_cast<unsigned char*>(&m->view(0, 0)), m->image.memory());
        EXPECT_EQ(m->view.dimensions(), original.view.dimensions());
        EXPECT_EQ(int(m->view(3, 2)[0]), 3);
        EXPECT_EQ(m->boxes[3], original.boxes[3]);
    }
    copy.view(3, 2) = gray8_pixel_t(0);
    EXPECT_EQ(int(original.view(3, 2)[0]), 3);
}

TEST(GetAbox, WithoutMaskWithMaskAndWithoutFreePatch) {
    EXPECT_EQ(get_abox(7, Point(20, 9), nullptr), (Box{0, 0, 14, 3}));

    RegionMasks masks = labelled_masks();
    EXPECT_EQ(get_abox(7, Point(12, 10), &masks), (Box{0, 0, 6, 4}));

    // Every patch position taken: label 0 keeps its reset box.
    gil::fill_pixels(masks.view, gray8_pixel_t(255));
    masks.update_boxes(7);
    EXPECT_EQ(get_abox(7, Point(12, 10), &masks), (Box{0, 0, 0, 0}));
}

TEST(GetAbox, BoxOutOfRangeNamesBoxAndLimits) {
    RegionMasks masks = labelled_masks();
    auto message_for = [&](Box const& box) {
        masks.boxes[0] = box;
        return test::error_text([&] { get_abox(7, Point(12, 10), &masks); });
    };
    EXPECT_EQ(message_for(Box{0, 0, 7, 4}),
              "WEFTMAP_INTERNAL_ERROR:box out of range 0 0 7 4 (0 0 6 4) in get_abox");
    EXPECT_EQ(message_for(Box{-1, 0, 3, 3}),
              "WEFTMAP_INTERNAL_ERROR:box out of range -1 0 3 3 (0 0 6 4) in get_abox");
    EXPECT_EQ(message_for(Box{0, 2, 6, 5}),
              "WEFTMAP_INTERNAL_ERROR:box out of range 0 2 6 5 (0 0 6 4) in get_abox");
    // The limits themselves are in range.
    EXPECT_EQ(message_for(Box{1, 2, 6, 4}), "");
}

}  // namespace
}  // namespace WM
