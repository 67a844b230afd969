// The kit's images: formats, strided views, conversions and masks.
#include "host/kit_helpers.hpp"

#include <weftmap/host/image_file.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace WM::host::test {
namespace {

PixelFormat const rgb8{Depth::u8, Colour::rgb};
PixelFormat const rgb16{Depth::u16, Colour::rgb};
PixelFormat const rgbf{Depth::f32, Colour::rgb};
PixelFormat const gray16{Depth::u16, Colour::gray};
PixelFormat const grayf{Depth::f32, Colour::gray};

template <class T>
T at(ConstImageView const& v, std::ptrdiff_t x, std::ptrdiff_t y, int c) {
    T value;
    std::memcpy(&value, v.pixel(x, y) + c * sizeof(T), sizeof(T));
    return value;
}

TEST(KitImage, ImagesAreZeroedCountedAndMoveOnly) {
    unsigned long long const before = memory_in_use();
    Image image(rgb16, {10, 3});
    EXPECT_EQ(image.view().row_stride, 60);
    EXPECT_EQ(image.view().pixel_stride, 6);
    EXPECT_TRUE(is_all_zero(image.view()));
    EXPECT_GE(memory_in_use(), before + 180);
    Image moved = std::move(image);
    EXPECT_TRUE(image.empty());
    EXPECT_EQ(moved.size(), (Size{10, 3}));
    moved = Image();
    EXPECT_EQ(memory_in_use(), before);

    // The memory limit bounds the kit's images as it bounds the library's.
    unsigned long long const limit = memory_limit();
    set_memory_limit(memory_in_use() + 1000);
    EXPECT_EQ(code_of([] { Image too_big(rgb8, {100, 100}); }), ErrorCode::memory_limit);
    set_memory_limit(limit);
}

TEST(KitImage, StridedViewsCopyAndCompareByPixel) {
    // Every other pixel of a wider buffer, bottom row first.
    Image const wide = texture(rgb8, {20, 6});
    ConstImageView v = wide.view();
    ConstImageView slice(v.pixel(0, 5), rgb8, 10, 6, -v.row_stride, 2 * v.pixel_stride);
    Image const copy = Image::copy_of(slice);
    EXPECT_EQ(copy.view().pixel_stride, 3);
    for (std::ptrdiff_t y = 0; y < 6; ++y)
        for (std::ptrdiff_t x = 0; x < 10; ++x)
            ASSERT_EQ(std::memcmp(copy.view().pixel(x, y), v.pixel(2 * x, 5 - y), 3), 0);
    EXPECT_TRUE(same_pixels(copy.view(), slice));
    EXPECT_FALSE(same_pixels(copy.view(), v.crop(0, 0, 10, 6)));
}

TEST(KitImage, ConversionsScaleDepthsAndClampFloats) {
    Image const eight = texture(rgb8, {9, 7});
    // 8 -> 16 -> 8 and 8 -> float -> 8 give the same bytes back.
    EXPECT_TRUE(
        same_pixels(converted(converted(eight.view(), rgb16).view(), rgb8).view(), eight.view()));
    EXPECT_TRUE(
        same_pixels(converted(converted(eight.view(), rgbf).view(), rgb8).view(), eight.view()));
    Image const deep = converted(eight.view(), rgb16);
    EXPECT_EQ(at<std::uint16_t>(deep.view(), 2, 3, 1),
              257 * at<std::uint8_t>(eight.view(), 2, 3, 1));
    // Gray spreads to equal channels and comes back.
    Image const gray = texture(gray16, {5, 4});
    Image const rgb = converted(gray.view(), rgb16);
    EXPECT_EQ(at<std::uint16_t>(rgb.view(), 1, 1, 0), at<std::uint16_t>(rgb.view(), 1, 1, 2));
    EXPECT_TRUE(same_pixels(converted(rgb.view(), gray16).view(), gray.view()));

    // Float out of range and NaN never wrap an integer.
    Image f(grayf, {4, 1});
    float const values[4] = {-0.5f, 1.5f, std::numeric_limits<float>::quiet_NaN(), 0.5f};
    std::memcpy(f.view().data, values, sizeof values);
    Image const g = converted(f.view(), gray16);
    EXPECT_EQ(at<std::uint16_t>(g.view(), 0, 0, 0), 0);
    EXPECT_EQ(at<std::uint16_t>(g.view(), 1, 0, 0), 65535);
    EXPECT_EQ(at<std::uint16_t>(g.view(), 2, 0, 0), 0);
    EXPECT_NEAR(at<std::uint16_t>(g.view(), 3, 0, 0), 32768, 1);

    EXPECT_THROW(convert(eight.view(), Image(rgb8, {9, 6}).view()), Error);
}

TEST(KitImage, MasksKeepEveryNonZeroPixel) {
    Image deep(gray16, {4, 1});
    std::uint16_t const values[4] = {0, 1, 32896, 65535};
    std::memcpy(deep.view().data, values, sizeof values);
    Image const mask = make_mask(deep.view());
    EXPECT_EQ(mask.format(), mask_format);
    unsigned char const* m = mask.view().data;
    EXPECT_EQ(m[0], 0);
    EXPECT_EQ(m[1], 1);  // would round to 0
    EXPECT_EQ(m[2], 128);
    EXPECT_EQ(m[3], 255);
    // A colour mask counts its largest channel.
    Image red(rgb8, {1, 1});
    red.view().data[0] = 200;
    EXPECT_EQ(make_mask(red.view()).view().data[0], 200);
}

TEST(KitImage, FileNamesPickTheFormatAndFloatsGoToSixteenBitPngs) {
    EXPECT_EQ(format_for_name("a/b.TIFF", FileFormat::png), FileFormat::tiff);
    EXPECT_EQ(format_for_name("a.b/c", FileFormat::jpeg), FileFormat::jpeg);
    EXPECT_EQ(format_for_name("c.bmp", FileFormat::png), std::nullopt);
    std::string const path = ::testing::TempDir() + "kit-f.png";
    EXPECT_EQ(write_image_file(path, "f.png", FileFormat::png, texture(rgbf, {8, 8}).view()),
              "16-bit RGB PNG");
}

}  // namespace
}  // namespace WM::host::test
