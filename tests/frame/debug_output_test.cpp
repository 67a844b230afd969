#include "support/helpers.hpp"
#include "support/test_client.hpp"

#include <weftmap/frame/debug_output.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

template <class Pixel>
std::uint32_t crc_of(std::initializer_list<Pixel> pixels) {
    RecycledImage<Pixel> image(Point(static_cast<std::ptrdiff_t>(pixels.size()), 1));
    std::copy(pixels.begin(), pixels.end(), view(image).begin());
    return view_crc32(const_view(image));
}

TEST(Checksum, WorkedValuesByteOrderAndRowGaps) {
    EXPECT_EQ(crc_of<gray8_pixel_t>({gray8_pixel_t(0)}), 0xD202EF8Du);
    EXPECT_EQ(crc_of<gray8_pixel_t>({gray8_pixel_t('a'), gray8_pixel_t('b'), gray8_pixel_t('c')}),
              0x352441C2u);
    // A 16-bit channel feeds its low byte first; an offset pair its x first.
    EXPECT_EQ(crc_of<gray16_pixel_t>({gray16_pixel_t(0x0102)}),
              crc_of<gray8_pixel_t>({gray8_pixel_t(2), gray8_pixel_t(1)}));
    EXPECT_EQ(crc_of<offset_pixel_t>({offset_pixel_t(0x0403, 0x0201)}),
              crc_of<gray8_pixel_t>(
                  {gray8_pixel_t(3), gray8_pixel_t(4), gray8_pixel_t(1), gray8_pixel_t(2)}));
    EXPECT_EQ(view_crc32(ConstView<gray8_pixel_t>()), 0u);  // no rows

    // The gap at the end of a row is not read.
    auto wide = test::filled(Point(5, 3), rgb8_pixel_t(9, 9, 9));
    RecycledImage<rgb8_pixel_t> packed(Point(3, 3));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x) view(wide)(x, y) = view(packed)(x, y) = rgb8_pixel_t(x, y, 7);
    EXPECT_EQ(view_crc32(gil::subimage_view(view(wide), 0, 0, 3, 3)), view_crc32(view(packed)));
}

TEST(OutputDebugChecksum, PrintsTheChannelNameLabelAndNumber) {
    test::ScopedCapture capture;
    auto image = test::byte_mask(Point(1, 1), 0);
    OutputDebugChecksum("hole_weight bd: ", view(image));
    OutputDebugChecksum("do_em level  1 ", "output: ", view(image));
    EXPECT_EQ(capture.channel.written,
              "CHECKSUM (test): hole_weight bd: 3523407757\n"
              "CHECKSUM (test): do_em level  1 output: 3523407757\n");
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
    OutputDebugChecksum(std::string("p"), "x: ", unreadable);
    EXPECT_EQ(capture.channel.written, "");
}

}  // namespace
}  // namespace WM
