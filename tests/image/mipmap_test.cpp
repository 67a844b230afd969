#include "support/random_image.hpp"
#include "support/test_client.hpp"

#include <weftmap/image/mipmap.hpp>
#include <weftmap/image/resample.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace WM {
namespace {

// The 2-to-1 reduction written out pixel by pixel: an odd parent skips its
// last column or row, integer means round half up.
template <class Pixel>
RecycledImage<Pixel> reference_reduce(ConstView<Pixel> const& parent) {
    std::int64_t const pw = parent.width(), ph = parent.height(), w = pw / 2, h = ph / 2;
    RecycledImage<Pixel> level(Point(w, h));
    for (std::int64_t y = 0; y < h; ++y)
        for (std::int64_t x = 0; x < w; ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                auto const p = [&](std::int64_t dx, std::int64_t dy) {
                    return channel_value(parent(pw * x / w + dx, ph * y / h + dy), c);
                };
                if constexpr (is_float_pixel_v<Pixel>) {
                    float sum = 0.25f * p(1, 0);
                    sum += 0.25f * p(0, 0);
                    sum += 0.25f * p(0, 1);
                    sum += 0.25f * p(1, 1);
                    set_channel(view(level)(x, y), c, sum);
                } else {
                    long const sum = long(p(0, 0)) + p(1, 0) + p(0, 1) + p(1, 1);
                    set_channel(view(level)(x, y), c,
                                static_cast<channel_base_t<Pixel>>((sum + 2) / 4));
                }
            }
    return level;
}

TEST(MipMap, LevelCount) {
    EXPECT_EQ(mipmap_level_count(Point(640, 480)), 8);
    EXPECT_EQ(mipmap_level_count(Point(1, 50)), 0);
    EXPECT_EQ(mipmap_level_count(Point(3, 2)), 1);
    EXPECT_EQ(mipmap_level_count(Point(4, 5)), 2);
}

TEST(MipMap, PreallocatedLevelsAreLockedAndReused) {
    test::ScopedMemoryLimit restore;
    MipMap<gray8_pixel_t> mipmap;
    mipmap.preallocate(Point(64, 48));
    EXPECT_TRUE(mipmap.uses_source_view);
    ASSERT_EQ(mipmap.levels.size(), 5u);
    EXPECT_EQ(mipmap.levels[0].allocated_bytes(), 0u);
    for (std::size_t i = 1; i < mipmap.levels.size(); ++i) {
        EXPECT_TRUE(mipmap.levels[i].locked);
        EXPECT_EQ(mipmap.levels[i].dimensions(), Point(64 >> i, 48 >> i));
    }

    // Building a smaller source allocates nothing and keeps the level count:
    // 40x30 has only 4 levels of its own, so the last one comes out empty.
    auto const src = test::random_image<gray8_pixel_t>(40, 30, 1);
    auto const larger = test::random_image<gray8_pixel_t>(66, 48, 2);
    auto const held = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
    BaseLimitedByteMemoryAllocator::addLimit(0);
    mipmap.build(const_view(src));
    EXPECT_EQ(BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize(), held);
    ASSERT_EQ(mipmap.levels.size(), 5u);
    EXPECT_EQ(mipmap.levels[3].dimensions(), Point(5, 3));
    EXPECT_EQ(mipmap.levels[4].dimensions(), Point(2, 1));
    // A larger source fails at the first level that no longer fits.
    EXPECT_THROW(mipmap.build(const_view(larger)), locked_recycled_image_error);

    mipmap.clear();
    EXPECT_TRUE(mipmap.levels.empty());
    EXPECT_FALSE(mipmap.uses_source_view);
    EXPECT_LT(BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize(), held);
}

template <class Pixel>
class MipMapTyped : public ::testing::Test {};
TYPED_TEST_SUITE(MipMapTyped, test::AllPixelTypes, test::PixelNames);

TYPED_TEST(MipMapTyped, LevelsAndRequestsMatchAStraightforwardPyramid) {
    using Pixel = TypeParam;
    auto const src = test::random_image<Pixel>(77, 43, 5);
    auto const other = test::random_image<Pixel>(50, 60, 6);
    MipMap<Pixel> mipmap;
    for (auto const* image : {&src, &other, &src}) {  // rebuilt from new sources
        mipmap.build(const_view(*image));
        ASSERT_EQ(mipmap.levels.size(), 5u);  // the first source's count stays
        EXPECT_EQ(mipmap.levels[0].allocated_bytes(), 0u);

        std::vector<RecycledImage<Pixel>> reference;
        reference.emplace_back(*image);
        for (int i = 1; i < mipmap_level_count(image->dimensions()); ++i) {
            reference.push_back(reference_reduce<Pixel>(const_view(reference.back())));
            ASSERT_EQ(mipmap.levels[i].dimensions(), reference[i].dimensions());
            ASSERT_TRUE(gil::equal_pixels(const_view(mipmap.levels[i]), const_view(reference[i])))
                << "level " << i;
        }

        // A request is served from the smallest level at least as large; at a
        // level's exact size it is a copy of that level.
        for (auto const& size :
             {Point(image->width(), image->height()), Point(12, 9), Point(19, 10), Point(2, 2),
              Point(100, 90), reference.back().dimensions(), reference[1].dimensions()}) {
            std::size_t index = 0;
            while (index + 1 < reference.size() && reference[index + 1].width() >= size.x &&
                   reference[index + 1].height() >= size.y)
                ++index;
            RecycledImage<Pixel> expected, actual;
            resample_core(const_view(reference[index]), expected, size.x, size.y, ResampleBilinear);
            mipmap.get(actual, size.x, size.y);
            ASSERT_TRUE(gil::equal_pixels(const_view(actual), const_view(expected)))
                << size.x << "x" << size.y;
        }
    }
    // A missing side follows from the aspect ratio of the 77 x 43 source.
    RecycledImage<Pixel> out;
    mipmap.get(out, 10, -1);
    EXPECT_EQ(out.dimensions(), Point(10, 6));
    mipmap.get(out, -1, 15);
    EXPECT_EQ(out.dimensions(), Point(27, 15));
    EXPECT_THROW(mipmap.get(out, 0, 4), Exception);
}

}  // namespace
}  // namespace WM
