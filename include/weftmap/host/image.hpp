// Pictures as a host holds them: any of the library's nine pixel formats
// chosen at run time, as views of anyone's memory (with strides) or as
// images the kit owns.
#pragma once

#include <weftmap/host/export.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

namespace WM::host {

enum class Depth : unsigned char { u8, u16, f32 };
enum class Colour : unsigned char { gray, rgb, cmyk };

// Interleaved channels of one depth.
struct PixelFormat {
    Depth depth = Depth::u8;
    Colour colour = Colour::rgb;

    constexpr int channels() const {
        return colour == Colour::gray ? 1 : colour == Colour::rgb ? 3 : 4;
    }
    constexpr int channel_bytes() const {
        return depth == Depth::u8 ? 1 : depth == Depth::u16 ? 2 : 4;
    }
    constexpr int pixel_bytes() const { return channels() * channel_bytes(); }

    friend constexpr bool operator==(PixelFormat a, PixelFormat b) {
        return a.depth == b.depth && a.colour == b.colour;
    }
    friend constexpr bool operator!=(PixelFormat a, PixelFormat b) { return !(a == b); }
};

// Masks are 8-bit gray: 0 outside, 255 inside, values between partial.
inline constexpr PixelFormat mask_format{Depth::u8, Colour::gray};

// "8-bit RGB", "16-bit gray", "float CMYK".
WEFTMAP_HOST_API std::string format_name(PixelFormat format);

struct Size {
    std::ptrdiff_t width = 0;
    std::ptrdiff_t height = 0;

    friend bool operator==(Size a, Size b) { return a.width == b.width && a.height == b.height; }
    friend bool operator!=(Size a, Size b) { return !(a == b); }
};

// "640x480".
WEFTMAP_HOST_API std::string size_text(Size size);

// Pixels in memory the view does not own. The channels of a pixel lie next
// to each other; pixels and rows may be anywhere (strides in bytes, either
// sign), so a crop or a column-subsampled slice of a bigger array is a view.
template <class Byte>
struct BasicImageView {
    static_assert(std::is_same_v<std::remove_const_t<Byte>, unsigned char>);

    Byte* data = nullptr;
    PixelFormat format;
    std::ptrdiff_t width = 0;
    std::ptrdiff_t height = 0;
    std::ptrdiff_t pixel_stride = 0;
    std::ptrdiff_t row_stride = 0;

    BasicImageView() = default;
    // Strides of 0 mean packed pixels and packed rows.
    BasicImageView(Byte* data, PixelFormat format, std::ptrdiff_t width, std::ptrdiff_t height,
                   std::ptrdiff_t row_stride = 0, std::ptrdiff_t pixel_stride = 0)
        : data(data),
          format(format),
          width(width),
          height(height),
          pixel_stride(pixel_stride != 0 ? pixel_stride : format.pixel_bytes()),
          row_stride(row_stride != 0 ? row_stride : width * this->pixel_stride) {}
    // A mutable view is also a read-only one.
    template <class Other,
              class = std::enable_if_t<std::is_const_v<Byte> && !std::is_same_v<Other, Byte>>>
    BasicImageView(BasicImageView<Other> const& other)
        : data(other.data),
          format(other.format),
          width(other.width),
          height(other.height),
          pixel_stride(other.pixel_stride),
          row_stride(other.row_stride) {}

    Byte* pixel(std::ptrdiff_t x, std::ptrdiff_t y) const {
        return data + y * row_stride + x * pixel_stride;
    }
    Size size() const { return {width, height}; }
    bool empty() const { return width <= 0 || height <= 0; }
    // The rectangle at (x, y) of size (w, h); the caller keeps it inside.
    BasicImageView crop(std::ptrdiff_t x, std::ptrdiff_t y, std::ptrdiff_t w,
                        std::ptrdiff_t h) const {
        BasicImageView v = *this;
        v.data = pixel(x, y);
        v.width = w;
        v.height = h;
        return v;
    }
};

using ImageView = BasicImageView<unsigned char>;
using ConstImageView = BasicImageView<unsigned char const>;

// A picture the kit owns, with packed rows. Its memory comes from the
// library's allocator, so it counts against the process-wide memory limit.
// Move-only: copies are made on purpose with clone().
class WEFTMAP_HOST_API Image {
public:
    // What keeps the pixels alive.
    struct Storage {
        virtual ~Storage();
    };

    Image();
    // Zero pixels. Throws Error (memory_limit) when the limit is reached.
    Image(PixelFormat format, Size size);
    // Takes over `storage`, whose pixels `view` describes.
    Image(std::unique_ptr<Storage> storage, ImageView const& view);
    Image(Image&& other) noexcept;
    Image& operator=(Image&& other) noexcept;
    ~Image();

    static Image copy_of(ConstImageView const& view);
    Image clone() const { return copy_of(view()); }

    ImageView const& view() { return view_; }
    ConstImageView view() const { return view_; }
    PixelFormat format() const { return view_.format; }
    Size size() const { return view_.size(); }
    std::ptrdiff_t width() const { return view_.width; }
    std::ptrdiff_t height() const { return view_.height; }
    bool empty() const { return view_.empty(); }

    // Hands the storage over, leaving the image empty.
    std::unique_ptr<Storage> release();

private:
    std::unique_ptr<Storage> storage_;
    ImageView view_;
};

// Copies `from` into `to` of the same size, converting depth and colour:
// integer depths scale to each other's full range, float maps [0, 1] to it
// (clamped, NaN as 0); gray becomes equal RGB channels, RGB becomes gray by
// luminance, and CMYK converts to and from RGB without a colour profile.
WEFTMAP_HOST_API void convert(ConstImageView const& from, ImageView const& to);
WEFTMAP_HOST_API Image converted(ConstImageView const& from, PixelFormat format);

// A mask from any picture: each pixel's largest channel scaled to 8 bits,
// where a non-zero pixel never becomes 0.
WEFTMAP_HOST_API Image make_mask(ConstImageView const& from);

// True when every byte of every pixel is zero.
WEFTMAP_HOST_API bool is_all_zero(ConstImageView const& view);

// True when both hold the same pixel values in the same format and size.
WEFTMAP_HOST_API bool same_pixels(ConstImageView const& a, ConstImageView const& b);

}  // namespace WM::host
