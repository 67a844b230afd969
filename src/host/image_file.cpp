// Whole pictures over the streamed reader and writer.
#include "dispatch.hpp"
#include "library_errors.hpp"
#include "storage.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/synthesis.hpp>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace WM::host {
namespace {

// A kit image for a decoder to fill, not zeroed first: a header that lies
// about the size then costs no more memory than the rows the file holds.
Image image_to_fill(PixelFormat format, Size size) {
    return detail::visit_format(format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        RecycledImage<Pixel> image;
        detail::translating_errors([&] { image.recreate(Point(size.width, size.height)); });
        return detail::adopt(std::move(image));
    });
}

void check_size(std::string const& path, Size size) {
    if (size.width > max_side || size.height > max_side)
        throw Error(ErrorCode::invalid_input,
                    "'" + path + "' is " + size_text(size) +
                        " pixels; Weftmap works on pictures of at most 65535 pixels a side");
}

}  // namespace

ImageFile read_image_file(std::string const& path, Warnings* warnings) {
    RasterReader reader(path, warnings);
    check_size(path, reader.size());
    Image image = image_to_fill(reader.format(), reader.size());
    reader.read_rows(image.view());
    return ImageFile{std::move(image), reader.file_format()};
}

Image read_mask_file(std::string const& path, Warnings* warnings) {
    RasterReader reader(path, warnings);
    check_size(path, reader.size());
    Image mask = image_to_fill(mask_format, reader.size());
    // 8-bit gray is a mask as it stands.
    if (reader.format() == mask_format) {
        reader.read_rows(mask.view());
        return mask;
    }
    std::ptrdiff_t const width = reader.size().width;
    std::size_t const row_bytes = std::size_t(width) * reader.format().pixel_bytes();
    std::ptrdiff_t const rows = std::clamp<std::ptrdiff_t>(
        std::ptrdiff_t((std::size_t(1) << 20) / row_bytes), 1, reader.size().height);
    Image band(reader.format(), {width, rows});
    for (std::ptrdiff_t y = 0; y < reader.size().height; y += rows) {
        std::ptrdiff_t const n = std::min(rows, reader.size().height - y);
        ImageView const part = band.view().crop(0, 0, width, n);
        reader.read_rows(part);
        Image const part_mask = make_mask(part);
        for (std::ptrdiff_t r = 0; r < n; ++r)
            std::memcpy(mask.view().pixel(0, y + r), part_mask.view().pixel(0, r),
                        std::size_t(width));
    }
    return mask;
}

std::optional<FileFormat> format_for_name(std::string const& path, FileFormat fallback) {
    std::size_t const slash = path.find_last_of('/');
    std::string const name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::size_t const dot = name.find_last_of('.');
    if (dot == std::string::npos || dot == 0) return fallback;
    std::string extension = name.substr(dot + 1);
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (extension == "png") return FileFormat::png;
    if (extension == "jpg" || extension == "jpeg") return FileFormat::jpeg;
    if (extension == "tif" || extension == "tiff") return FileFormat::tiff;
    return std::nullopt;
}

std::string write_image_file(std::string const& path, std::string const& shown_name,
                             FileFormat format, ConstImageView const& view, Warnings* warnings) {
    RasterWriter writer(path, shown_name, format, view.format, view.size(), warnings);
    writer.write_rows(view);
    writer.finish();
    return writer.description();
}

}  // namespace WM::host
