// Reading and writing image files for the command-line host.
#pragma once

#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <string>

namespace weftmap_tool {

// Reads a PNG file as 8-bit RGB. Throws std::runtime_error with a readable
// message when the file cannot be read.
WM::RecycledImage<WM::rgb8_pixel_t> read_rgb8_png(std::string const& path);

// Writes `view` as an 8-bit RGB PNG file.
void write_rgb8_png(std::string const& path, WM::ConstView<WM::rgb8_pixel_t> const& view);

}  // namespace weftmap_tool
