// Fills that take each band of the hole's rows from the same rows, when the
// hole's surroundings are layered in rows.
#include "host/kit_helpers.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/row_bands.hpp>
#include <weftmap/host/synthesis.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>

namespace WM::host::test {
namespace {

PixelFormat const rgb8{Depth::u8, Colour::rgb};
Size const size{160, 120};

// One random colour per row (`rows`), per column, or per pixel.
enum class Layers { rows, columns, none };

Image layered(Layers layers) {
    Image image(rgb8, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) {
            std::ptrdiff_t const key = layers == Layers::rows      ? y
                                       : layers == Layers::columns ? x
                                                                   : y * size.width + x;
            std::uint32_t state = static_cast<std::uint32_t>(key * 7919 + 17);
            for (int c = 0; c < 3; ++c) {
                state = state * 1664525u + 1013904223u;
                image.view().pixel(x, y)[c] = static_cast<unsigned char>(state >> 24);
            }
        }
    return image;
}

Image box_mask(std::ptrdiff_t x0, std::ptrdiff_t y0, std::ptrdiff_t w, std::ptrdiff_t h) {
    Image mask(mask_format, size);
    for (std::ptrdiff_t y = y0; y < y0 + h; ++y)
        std::memset(mask.view().pixel(x0, y), 255, static_cast<std::size_t>(w));
    return mask;
}

unsigned char label_at(Image const& labels, std::ptrdiff_t row) {
    return *labels.view().pixel(0, row);
}

TEST(RowBands, LabelsTheHolesRowsInTwoBandsOnlyWhereRowsAreLayered) {
    // A hole of rows 40 to 89: bands of 25 rows, labelled by a patch's
    // centre, 3 rows below its top-left pixel.
    Image const hole = box_mask(60, 40, 30, 50);
    Image const rows = layered(Layers::rows);
    EXPECT_TRUE(rows_are_layered(rows.view(), hole.view()));
    Image const labels = row_bands(rows.view(), hole.view(), nullptr);
    ASSERT_EQ(labels.size(), size);
    for (std::ptrdiff_t x = 0; x < size.width; x += 13)
        EXPECT_EQ(*labels.view().pixel(x, 50), label_at(labels, 50));
    EXPECT_EQ(label_at(labels, 37), label_at(labels, 61));
    EXPECT_NE(label_at(labels, 61), label_at(labels, 62));
    EXPECT_EQ(label_at(labels, 62), label_at(labels, 86));
    std::set<unsigned char> const in_hole{label_at(labels, 37), label_at(labels, 62)};
    for (std::ptrdiff_t row : {0, 30, 36, 87, 119})
        EXPECT_EQ(in_hole.count(label_at(labels, row)), 0u);

    // Short holes get bands of least_band_height rows.
    Image const flat = row_bands(rows.view(), box_mask(60, 40, 30, 10).view(), nullptr);
    EXPECT_EQ(label_at(flat, 37), label_at(flat, 37 + least_band_height - 1));

    // No bands where columns are the layers or nothing is, for a hole within
    // a patch of a side, for an empty hole, or where a band has too few
    // places to sample.
    Image const columns = layered(Layers::columns), noise = layered(Layers::none);
    EXPECT_FALSE(rows_are_layered(columns.view(), hole.view()));
    EXPECT_FALSE(rows_are_layered(noise.view(), hole.view()));
    EXPECT_TRUE(row_bands(columns.view(), hole.view(), nullptr).empty());
    EXPECT_TRUE(row_bands(rows.view(), box_mask(3, 40, 30, 50).view(), nullptr).empty());
    EXPECT_TRUE(row_bands(rows.view(), box_mask(127, 40, 30, 50).view(), nullptr).empty());
    EXPECT_FALSE(rows_are_layered(rows.view(), Image(mask_format, size).view()));
    EXPECT_TRUE(row_bands(rows.view(), Image(mask_format, size).view(), nullptr).empty());
    Image const upper_half = box_mask(0, 0, size.width, 64);
    ConstImageView const upper_half_only = upper_half.view();
    EXPECT_TRUE(row_bands(rows.view(), hole.view(), &upper_half_only).empty());

    EXPECT_EQ(code_of([&] { rows_are_layered(rows.view(), rows.view()); }),
              ErrorCode::invalid_input);
    ConstImageView const not_a_mask = rows.view();
    EXPECT_EQ(code_of([&] { row_bands(rows.view(), hole.view(), &not_a_mask); }),
              ErrorCode::invalid_input);
}

TEST(RowBands, FillOfLayeredRowsGivesEveryRowItsOwnColour) {
    Image const rows = layered(Layers::rows);
    Image const hole = disc_mask(size, 80, 60, 22);
    Options options;
    options.bands = 1;
    options.seed = 1;
    options.texture_like_rim = false;
    Image const banded = fill(rows.view(), hole.view(), options);
    EXPECT_TRUE(known_pixels_kept(rows.view(), hole.view(), banded.view()));
    // Every hole pixel is its row's colour, give or take the vote's mixing
    // where a band's patches meet.
    double sum = 0.0;
    long count = 0;
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x)
            if (*hole.view().pixel(x, y) != 0)
                for (int c = 0; c < 3; ++c, ++count)
                    sum += std::abs(int(banded.view().pixel(x, y)[c]) -
                                    int(rows.view().pixel(x, y)[c]));
    EXPECT_LT(sum / double(count), 4.0);

    // Where columns are the layers the policy stands aside.
    Image const columns = layered(Layers::columns);
    Image const with = fill(columns.view(), hole.view(), options);
    options.row_bands = false;
    EXPECT_TRUE(same_pixels(with.view(), fill(columns.view(), hole.view(), options).view()));
}

}  // namespace
}  // namespace WM::host::test
