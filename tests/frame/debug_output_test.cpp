#include "support/test_client.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <gtest/gtest.h>

#include <boost/gil/algorithm.hpp>

namespace WM {
namespace {

template <class Pixel>
std::uint32_t crc_of(std::initializer_list<Pixel> pixels) {
    RecycledImage<Pixel> image(Point(static_cast<std::ptrdiff_t>(pixels.size()), 1));
    std::copy(pixels.begin(), pixels.end(), view(image).begin());
    return view_crc32(const_view(image));
}

TEST(Checksum, WorkedValues) {
    EXPECT_EQ(crc_of<gray8_pixel_t>({gray8_pixel_t(0)}), 0xD202EF8Du);
    EXPECT_EQ(crc_of<gray8_pixel_t>({gray8_pixel_t('a'), gray8_pixel_t('b'), gray8_pixel_t('c')}),
              0x352441C2u);
    // A 16-bit channel feeds its low byte first; an offset pair its x first.
    EXPECT_EQ(crc_of<gray16_pixel_t>({gray16_pixel_t(0x0102)}),
              crc_of<gray8_pixel_t>({gray8_pixel_t(2), gray8_pixel_t(1)}));
    EXPECT_EQ(crc_of<offset_pixel_t>({offset_pixel_t(0x0403, 0x0201)}),
              crc_of<gray8_pixel_t>(
                  {gray8_pixel_t(3), gray8_pixel_t(4), gray8_pixel_t(1), gray8_pixel_t(2)}));
    // No rows: the complement of all ones.
    EXPECT_EQ(view_crc32(ConstView<gray8_pixel_t>()), 0u);
}

TEST(Checksum, RowStrideGapIsNotRead) {
    RecycledImage<rgb8_pixel_t> wide(Point(5, 3));
    RecycledImage<rgb8_pixel_t> packed(Point(3, 3));
    boost::gil::fill_pixels(view(wide), rgb8_pixel_t(9, 9, 9));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x)
            view(wide)(x, y) = view(packed)(x, y) = rgb8_pixel_t(x, y, x * y);
    auto const inner = boost::gil::subimage_view(view(wide), 0, 0, 3, 3);
    EXPECT_EQ(view_crc32(inner), view_crc32(view(packed)));
}

TEST(OutputDebugChecksum, PrintsTheChannelNameLabelAndNumber) {
    test::ScopedCapture capture;
    RecycledImage<gray8_pixel_t> image(Point(1, 1));
    view(image)(0, 0) = gray8_pixel_t(0);
    OutputDebugChecksum("hole_weight bd: ", view(image));
    OutputDebugChecksum("do_em level  1 ", "output: ", view(image));
    OutputDebugChecksum(std::string("a "), "b: ", view(image));
    EXPECT_EQ(capture.channel.written,
              "CHECKSUM (test): hole_weight bd: 3523407757\n"
              "CHECKSUM (test): do_em level  1 output: 3523407757\n"
              "CHECKSUM (test): a b: 3523407757\n");
}

TEST(OutputDebugChecksum, GatesNeverReadTheView) {
    // A view over no memory: any read would fault.
    View<rgb16_pixel_t> const unreadable(Point(64, 64), View<rgb16_pixel_t>::locator(nullptr, 384));

    ASSERT_EQ(test::client().debug, nullptr);
    OutputDebugChecksum("x: ", unreadable);
    OutputDebugChecksum("p", "x: ", unreadable);

    test::ScopedCapture capture(false);
    capture.channel.imagesEnabled = true;
    OutputDebugChecksum("x: ", unreadable);
    OutputDebugChecksum("p", "x: ", unreadable);
    OutputDebugChecksum(std::string("p"), "x: ", unreadable);
    EXPECT_EQ(capture.channel.written, "");
}

// Counts how often it is formatted.
struct Counted {
    int* count;
};
std::ostream& operator<<(std::ostream& out, Counted const& c) {
    ++*c.count;
    return out << "counted";
}

TEST(DebugLog, BuildsNothingWithoutAnOutput) {
    int formatted = 0;
    debug_log("value %s\n", Counted{&formatted});
    EXPECT_EQ(formatted, 0);

    test::ScopedCapture capture;
    debug_log("value %s %d\n", Counted{&formatted}, 7);
    EXPECT_EQ(formatted, 1);
    EXPECT_EQ(capture.channel.written, "value counted 7\n");
}

}  // namespace
}  // namespace WM
