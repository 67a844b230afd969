// Image files of the command-line host: PNG, JPEG and TIFF read into the
// library's pixel type that fits the file, and written back in the format
// the output name asks for.
#pragma once

#include <weftmap/image/pixel_types.hpp>

#include <boost/gil/image.hpp>
#include <boost/mp11/algorithm.hpp>

#include <string>
#include <variant>

namespace weftmap_tool {

namespace gil = boost::gil;

enum class FileFormat { png, jpeg, tiff };

// "PNG", "JPEG" or "TIFF".
char const* format_name(FileFormat format);

// Host memory: these images stay outside the library's memory limit.
template <class Pixel>
using FileImage = gil::image<Pixel, false>;

// One alternative per library pixel type.
using AnyImage = boost::mp11::mp_rename<boost::mp11::mp_transform<FileImage, WM::image_pixel_types>,
                                        std::variant>;
using AnyConstView =
    boost::mp11::mp_rename<boost::mp11::mp_transform<WM::ConstView, WM::image_pixel_types>,
                           std::variant>;

using MaskImage = FileImage<WM::gray8_pixel_t>;

struct ImageFile {
    AnyImage image;
    FileFormat format;
};

// Sides above this do not fit the library's 16-bit field coordinates.
constexpr long long max_side = 65535;

// Reads a file in the pixel type that fits its contents. Throws ToolError
// (exit_input) with a readable sentence for missing, unreadable, damaged,
// unsupported or oversized files. An alpha channel is dropped with a warning.
ImageFile read_image_file(std::string const& path);

// Reads a mask from any supported file: a pixel's value is the largest of
// its channels scaled to 8 bits, and a non-zero pixel never becomes 0.
MaskImage read_mask_file(std::string const& path);

// The format asked for by the extension of `path` (.png, .jpg, .jpeg, .tif,
// .tiff, any case), `fallback` without one. Throws ToolError (exit_usage)
// for any other extension.
FileFormat output_format(std::string const& path, FileFormat fallback);

// Writes `view` to `path` in `format`, converting the pixels to the nearest
// type the format holds (CMYK to RGB and float to 16 bits for PNG, 8 bits
// for JPEG). Returns a description such as "8-bit RGB PNG". Failures throw
// ToolError (exit_output) naming `shown_name`.
std::string write_image_file(std::string const& path, std::string const& shown_name,
                             FileFormat format, AnyConstView const& view);

// Converts to 8-bit RGB (float clamped to [0, 1]); `to` has the size of `from`.
void copy_to_rgb8(AnyConstView const& from, WM::View<WM::rgb8_pixel_t> const& to);

WM::Point dimensions(AnyImage const& image);
AnyConstView const_view_of(AnyImage const& image);

}  // namespace weftmap_tool
