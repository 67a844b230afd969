// The kit's image readers on any bytes: a PNG, JPEG or TIFF file that is
// damaged, truncated, lying about its size or simply strange must be read
// or refused with Error, never crash, leak or pass the memory limit. What
// is read whole, read again in bands of another format and written back
// losslessly must round-trip.
#include "fuzz_support.hpp"

#include <weftmap/host.hpp>
#include <weftmap/host/image_file.hpp>

#include <cstdint>
#include <cstring>

namespace host = WM::host;

namespace {

// Reads the picture in bands of a few rows, converted to 16-bit RGB, and
// checks the rows against the whole picture converted the same way.
void read_in_bands(std::string const& path, host::ConstImageView const& whole) {
    host::RasterReader reader(path);
    host::PixelFormat const rgb16{host::Depth::u16, host::Colour::rgb};
    host::Image const expected = host::converted(whole, rgb16);
    std::ptrdiff_t const rows = 3;
    host::Image band(rgb16, {reader.size().width, rows});
    for (std::ptrdiff_t y = 0; y < reader.size().height; y += rows) {
        std::ptrdiff_t const n = std::min(rows, reader.size().height - y);
        host::ImageView const part = band.view().crop(0, 0, reader.size().width, n);
        reader.read_rows(part);
        if (!host::same_pixels(part, expected.view().crop(0, y, part.width, n)))
            weftmap_fuzz::fail("a band differs from the whole picture");
    }
}

// Writes the picture in a format that holds it exactly and reads it back.
void round_trip(host::ConstImageView const& picture, std::string const& path) {
    host::FileFormat const file =
        host::stored_format(host::FileFormat::png, picture.format) == picture.format
            ? host::FileFormat::png
            : host::FileFormat::tiff;
    host::write_image_file(path, path, file, picture);
    host::ImageFile const back = host::read_image_file(path);
    if (!host::same_pixels(back.image.view(), picture))
        weftmap_fuzz::fail("a written picture reads back differently");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static weftmap_fuzz::Setup const setup;
    std::string const path = setup.file("input");
    weftmap_fuzz::write_file(path, data, size);
    host::Warnings warnings;
    try {
        host::ImageFile const file = host::read_image_file(path, &warnings);
        host::Image const mask = host::read_mask_file(path, &warnings);
        if (mask.size() != file.image.size()) weftmap_fuzz::fail("the mask has another size");
        if (file.image.width() * file.image.height() <= 64 * 64) {
            read_in_bands(path, file.image.view());
            round_trip(file.image.view(), setup.file("copy"));
        }
    } catch (host::Error const& e) {
        weftmap_fuzz::expect_codes(e,
                                   {host::ErrorCode::invalid_input, host::ErrorCode::memory_limit});
    }
    weftmap_fuzz::expect_no_images_held(setup);
    return 0;
}
