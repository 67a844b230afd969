#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"

#include <weftmap/correspondence/region_masks.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

Box const reset_box{0x7fffffff, 0x7fffffff, -2147483647, -2147483647};

// A 12x10 label map: label 0 everywhere, label 3 in a block, label 7 at two
// pixels of one row, label 9 only in the last column, where no patch starts.
RegionMasks labelled_masks() {
    return test::label_masks(Point(12, 10), [](int x, int y) {
        if (y >= 1 && y <= 2 && x >= 2 && x <= 4) return 3;
        if (x == 11 && y == 9) return 9;
        return y == 3 && (x == 0 || x == 4) ? 7 : 0;
    });
}

TEST(RegionMasks, BoxesCoverPatchPositionsOnlyAndAreResetWhenStale) {
    RegionMasks masks = labelled_masks();
    // Patch positions are x 0..5 and y 0..3.
    EXPECT_EQ(masks.boxes[0], (Box{0, 0, 6, 4}));
    EXPECT_EQ(masks.boxes[3], (Box{2, 1, 5, 3}));
    EXPECT_EQ(masks.boxes[7], (Box{0, 3, 5, 4}));
    EXPECT_EQ(masks.boxes[9], reset_box);
    EXPECT_EQ(get_abox(7, Point(12, 10), &masks), (Box{0, 0, 6, 4}));
    EXPECT_EQ(get_abox(7, Point(20, 9), nullptr), (Box{0, 0, 14, 3}));

    // A copy owns and views its own pixels.
    RegionMasks copy(masks);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(&copy.view(0, 0)), copy.image.memory());
    EXPECT_NE(copy.image.memory(), masks.image.memory());

    gil::fill_pixels(masks.view, gray8_pixel_t(255));
    masks.update_boxes(7);
    EXPECT_EQ(masks.boxes[255], (Box{0, 0, 6, 4}));
    EXPECT_EQ(masks.boxes[3], reset_box);
    // Every patch position taken: no box for free patches.
    EXPECT_EQ(get_abox(7, Point(12, 10), &masks), (Box{0, 0, 0, 0}));
    // A box beyond the patch positions is refused, naming box and limits.
    masks.boxes[0] = Box{0, 2, 6, 5};
    EXPECT_EQ(test::error_text([&] { get_abox(7, Point(12, 10), &masks); }),
              "WEFTMAP_INTERNAL_ERROR:box out of range 0 2 6 5 (0 0 6 4) in get_abox");
    masks.boxes[0] = Box{1, 2, 6, 4};  // the limits themselves are in range
    EXPECT_NO_THROW(get_abox(7, Point(12, 10), &masks));
}

}  // namespace
}  // namespace WM
