// Image files read and written whole: PNG, JPEG and TIFF read into the
// pixel format that fits the file, and written back in the format a file
// name asks for. Built on the streamed reader and writer of raster_file.hpp.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/raster_file.hpp>

#include <optional>
#include <string>

namespace WM::host {

struct ImageFile {
    Image image;
    FileFormat format = FileFormat::png;
};

// Reads a file in the pixel format that fits its contents. The picture is
// allocated from the header before any decoding, so a file claiming more
// than the memory limit allows fails at once with Error (memory_limit).
// Throws Error (invalid_input) with a readable sentence for missing,
// unreadable, damaged, unsupported or oversized files. An alpha channel is
// dropped with a warning.
WEFTMAP_HOST_API ImageFile read_image_file(std::string const& path, Warnings* warnings = nullptr);

// Reads a mask from any supported file (see make_mask), a band at a time.
WEFTMAP_HOST_API Image read_mask_file(std::string const& path, Warnings* warnings = nullptr);

// The format asked for by the extension of `path` (.png, .jpg, .jpeg, .tif,
// .tiff, any case), `fallback` without one, nothing for another extension.
WEFTMAP_HOST_API std::optional<FileFormat> format_for_name(std::string const& path,
                                                           FileFormat fallback);

// Writes `view` to `path` in `format`, converting the pixels to the nearest
// format the file holds (see stored_format). Returns a description such as
// "8-bit RGB PNG". Failures, a full disk or a file-size limit included,
// throw Error (output_failed) naming `shown_name`.
WEFTMAP_HOST_API std::string write_image_file(std::string const& path,
                                              std::string const& shown_name, FileFormat format,
                                              ConstImageView const& view,
                                              Warnings* warnings = nullptr);

}  // namespace WM::host
