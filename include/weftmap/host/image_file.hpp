// Image files: PNG, JPEG and TIFF read into the pixel format that fits the
// file, and written back in the format a file name asks for.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

#include <optional>
#include <string>
#include <vector>

namespace WM::host {

enum class FileFormat { png, jpeg, tiff };

// "PNG", "JPEG" or "TIFF".
WEFTMAP_HOST_API char const* format_name(FileFormat format);

struct ImageFile {
    Image image;
    FileFormat format = FileFormat::png;
};

// What a reader or writer found worth telling but not worth failing for
// (an alpha channel dropped, a decoder's complaint), one sentence each.
using Warnings = std::vector<std::string>;

// Reads a file in the pixel format that fits its contents. Throws Error
// (invalid_input) with a readable sentence for missing, unreadable, damaged,
// unsupported or oversized files. An alpha channel is dropped with a warning.
WEFTMAP_HOST_API ImageFile read_image_file(std::string const& path, Warnings* warnings = nullptr);

// Reads a mask from any supported file (see make_mask).
WEFTMAP_HOST_API Image read_mask_file(std::string const& path, Warnings* warnings = nullptr);

// The format asked for by the extension of `path` (.png, .jpg, .jpeg, .tif,
// .tiff, any case), `fallback` without one, nothing for another extension.
WEFTMAP_HOST_API std::optional<FileFormat> format_for_name(std::string const& path,
                                                           FileFormat fallback);

// Writes `view` to `path` in `format`, converting the pixels to the nearest
// format the file holds (CMYK to RGB and float to 16 bits for PNG, 8 bits
// for JPEG). Returns a description such as "8-bit RGB PNG". Failures throw
// Error (output_failed) naming `shown_name`.
WEFTMAP_HOST_API std::string write_image_file(std::string const& path,
                                              std::string const& shown_name, FileFormat format,
                                              ConstImageView const& view,
                                              Warnings* warnings = nullptr);

}  // namespace WM::host
