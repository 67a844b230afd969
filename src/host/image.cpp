#include "dispatch.hpp"
#include "library_errors.hpp"
#include "storage.hpp"

#include <weftmap/host/image.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace WM::host {

std::string format_name(PixelFormat format) {
    std::string const depth = format.depth == Depth::u8    ? "8-bit"
                              : format.depth == Depth::u16 ? "16-bit"
                                                           : "float";
    std::string const colour = format.colour == Colour::gray  ? "gray"
                               : format.colour == Colour::rgb ? "RGB"
                                                              : "CMYK";
    return depth + " " + colour;
}

std::string size_text(Size size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

Image::Storage::~Storage() = default;

Image::Image() = default;

Image::Image(PixelFormat format, Size size) {
    if (size.width < 0 || size.height < 0)
        throw Error(ErrorCode::invalid_input, "an image cannot be " + size_text(size));
    ensure_library();
    // The library's own buffer keeps the pixels, so they count against the
    // memory limit like the library's.
    *this = detail::visit_format(format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        RecycledImage<Pixel> image;
        detail::translating_errors([&] { image.recreate(Point(size.width, size.height)); });
        if (image.memory() != nullptr)
            std::memset(image.memory(), 0, RecycledImage<Pixel>::needed_bytes(image.dimensions()));
        return detail::adopt(std::move(image));
    });
}

Image::Image(std::unique_ptr<Storage> storage, ImageView const& view)
    : storage_(std::move(storage)), view_(view) {}

Image::Image(Image&& other) noexcept : storage_(std::move(other.storage_)), view_(other.view_) {
    other.view_ = ImageView();
}

Image& Image::operator=(Image&& other) noexcept {
    storage_ = std::move(other.storage_);
    view_ = other.view_;
    other.view_ = ImageView();
    return *this;
}

Image::~Image() = default;

std::unique_ptr<Image::Storage> Image::release() {
    view_ = ImageView();
    return std::move(storage_);
}

Image Image::copy_of(ConstImageView const& view) {
    Image copy(view.format, view.size());
    std::size_t const row_bytes = static_cast<std::size_t>(view.width) * view.format.pixel_bytes();
    for (std::ptrdiff_t y = 0; y < view.height; ++y) {
        if (view.pixel_stride == view.format.pixel_bytes()) {
            std::memcpy(copy.view_.pixel(0, y), view.pixel(0, y), row_bytes);
        } else {
            for (std::ptrdiff_t x = 0; x < view.width; ++x)
                std::memcpy(copy.view_.pixel(x, y), view.pixel(x, y), view.format.pixel_bytes());
        }
    }
    return copy;
}

Image converted(ConstImageView const& from, PixelFormat format) {
    Image to(format, from.size());
    convert(from, to.view());
    return to;
}

Image make_mask(ConstImageView const& from) {
    Image mask(mask_format, from.size());
    detail::visit_format(from.format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        using Channel = channel_base_t<Pixel>;
        double const top =
            std::is_floating_point_v<Channel> ? 1.0 : double(std::numeric_limits<Channel>::max());
        auto const in = detail::typed_view<Pixel>(from);
        auto const out = detail::typed_view<gray8_pixel_t>(mask.view());
        for (std::ptrdiff_t y = 0; y < in.height(); ++y)
            for (std::ptrdiff_t x = 0; x < in.width(); ++x) {
                double value = 0.0;
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    double const v = double(channel_value(in(x, y), c));
                    if (v > value) value = v;  // NaN stays out
                }
                double const scaled = std::min(value / top, 1.0) * 255.0 + 0.5;
                int const byte = value > 0.0 ? std::max(int(scaled), 1) : 0;
                out(x, y) = gray8_pixel_t(static_cast<unsigned char>(byte));
            }
    });
    return mask;
}

bool is_all_zero(ConstImageView const& view) {
    int const bytes = view.format.pixel_bytes();
    for (std::ptrdiff_t y = 0; y < view.height; ++y)
        for (std::ptrdiff_t x = 0; x < view.width; ++x) {
            unsigned char const* p = view.pixel(x, y);
            for (int b = 0; b < bytes; ++b)
                if (p[b] != 0) return false;
        }
    return true;
}

bool same_pixels(ConstImageView const& a, ConstImageView const& b) {
    if (a.format != b.format || a.size() != b.size()) return false;
    int const bytes = a.format.pixel_bytes();
    for (std::ptrdiff_t y = 0; y < a.height; ++y)
        for (std::ptrdiff_t x = 0; x < a.width; ++x)
            if (std::memcmp(a.pixel(x, y), b.pixel(x, y), bytes) != 0) return false;
    return true;
}

}  // namespace WM::host
