#include "image_file.hpp"

#include <boost/gil/extension/io/png.hpp>

#include <stdexcept>

namespace weftmap_tool {

namespace gil = boost::gil;

WM::RecycledImage<WM::rgb8_pixel_t> read_rgb8_png(std::string const& path) {
    gil::rgb8_image_t file_image;
    try {
        gil::read_and_convert_image(path, file_image, gil::png_tag());
    } catch (std::exception const& e) {
        throw std::runtime_error("cannot read PNG file '" + path + "': " + e.what());
    }
    WM::RecycledImage<WM::rgb8_pixel_t> image(file_image.dimensions());
    gil::copy_pixels(gil::const_view(file_image), view(image));
    return image;
}

void write_rgb8_png(std::string const& path, WM::ConstView<WM::rgb8_pixel_t> const& view) {
    try {
        gil::write_view(path, view, gil::png_tag());
    } catch (std::exception const& e) {
        throw std::runtime_error("cannot write PNG file '" + path + "': " + e.what());
    }
}

}  // namespace weftmap_tool
