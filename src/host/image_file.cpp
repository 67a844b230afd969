#include "dispatch.hpp"
#include "library_errors.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/synthesis.hpp>

#include <boost/gil/extension/io/jpeg.hpp>
#include <boost/gil/extension/io/png.hpp>
#include <boost/gil/extension/io/tiff.hpp>
#include <boost/gil/extension/toolbox/color_spaces/gray_alpha.hpp>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <sstream>
#include <type_traits>

namespace WM::host {
namespace {

// The decoders print their own complaints on standard error; they are
// caught here so that a bad file yields one line of ours, with their reason.
class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        file_ = std::tmpfile();
        saved_ = file_ != nullptr ? dup(STDERR_FILENO) : -1;
        if (saved_ >= 0) dup2(fileno(file_), STDERR_FILENO);
    }
    ~StderrCapture() { finish(); }
    StderrCapture(StderrCapture const&) = delete;
    StderrCapture& operator=(StderrCapture const&) = delete;

    // Restores standard error and returns the captured lines.
    std::vector<std::string> finish() {
        std::vector<std::string> lines;
        if (saved_ >= 0) {
            std::fflush(stderr);
            dup2(saved_, STDERR_FILENO);
            close(saved_);
            saved_ = -1;
            std::rewind(file_);
            std::string line;
            for (int c; (c = std::fgetc(file_)) != EOF;) {
                if (c != '\n') {
                    line += static_cast<char>(c);
                } else if (!line.empty()) {
                    lines.push_back(line);
                    line.clear();
                }
            }
            if (!line.empty()) lines.push_back(line);
        }
        if (file_ != nullptr) std::fclose(file_);
        file_ = nullptr;
        return lines;
    }

private:
    std::FILE* file_ = nullptr;
    int saved_ = -1;
};

// The TIFF codec's errors, on standard error where a capture collects them.
// The io extension clears the plain handlers whenever it opens a file; the
// extended one stays.
extern "C" void print_tiff_error(thandle_t, char const* module, char const* format, va_list args) {
    if (module != nullptr) std::fprintf(stderr, "%s: ", module);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
}

// An exception text without the stream library's suffix.
std::string reason_of(std::exception const& e) {
    std::string text = e.what();
    std::string const suffix = ": iostream error";
    if (text.size() > suffix.size() &&
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0)
        text.erase(text.size() - suffix.size());
    return text;
}

std::string quoted(std::string const& path) {
    return "'" + path + "'";
}

// Warnings raised while standard error is captured, handed on afterwards.
thread_local Warnings g_pending_warnings;

[[noreturn]] void bad_input(std::string const& text) {
    throw Error(ErrorCode::invalid_input, text);
}

void hand_on(Warnings const& found, Warnings* warnings) {
    if (warnings != nullptr) warnings->insert(warnings->end(), found.begin(), found.end());
}

// Runs a decoder; its exceptions and complaints become one Error.
template <class F>
auto decode(std::string const& path, FileFormat format, Warnings* warnings, F&& read) {
    StderrCapture capture;
    g_pending_warnings.clear();
    try {
        auto result = read();
        Warnings found;
        for (auto const& line : capture.finish()) found.push_back(quoted(path) + ": " + line);
        found.insert(found.end(), g_pending_warnings.begin(), g_pending_warnings.end());
        g_pending_warnings.clear();
        hand_on(found, warnings);
        return result;
    } catch (Error const&) {
        g_pending_warnings.clear();
        capture.finish();
        throw;
    } catch (std::bad_alloc const&) {
        g_pending_warnings.clear();
        capture.finish();
        bad_input("not enough memory to load " + quoted(path));
    } catch (std::exception const& e) {
        g_pending_warnings.clear();
        auto const lines = capture.finish();
        std::string const reason = lines.empty() ? reason_of(e) : lines.back();
        bad_input("cannot read " + quoted(path) + " as " + format_name(format) + ": " + reason);
    }
}

FileFormat sniff_format(std::string const& path) {
    errno = 0;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) bad_input("cannot open " + quoted(path) + ": " + std::strerror(errno));
    unsigned char b[8] = {};
    std::size_t const n = std::fread(b, 1, sizeof b, f);
    int const error = std::ferror(f) ? errno : 0;
    std::fclose(f);
    if (error != 0) bad_input("cannot read " + quoted(path) + ": " + std::strerror(error));
    if (n == 0) bad_input(quoted(path) + " is empty");
    if (n == 8 && std::memcmp(b, "\x89PNG\r\n\x1a\n", 8) == 0) return FileFormat::png;
    if (n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF) return FileFormat::jpeg;
    // Classic (42) and big (43) TIFF, either byte order.
    if (n >= 4 && ((b[0] == 'I' && b[1] == 'I' && (b[2] == 42 || b[2] == 43) && b[3] == 0) ||
                   (b[0] == 'M' && b[1] == 'M' && b[2] == 0 && (b[3] == 42 || b[3] == 43))))
        return FileFormat::tiff;
    bad_input(quoted(path) + " is not a PNG, JPEG or TIFF file");
}

void check_size(std::string const& path, long long width, long long height) {
    if (width <= 0 || height <= 0) bad_input(quoted(path) + " has no pixels");
    if (width > max_side || height > max_side)
        bad_input(quoted(path) + " is " + std::to_string(width) + "x" + std::to_string(height) +
                  " pixels; Weftmap works on pictures of at most 65535 pixels a side");
}

enum class Color { gray, rgb, cmyk };

template <class Channel, class ColorSpace>
using pixel_of = gil::pixel<Channel, gil::layout<ColorSpace>>;

// The pixel with one more channel, alpha, after the colour channels.
template <class Channel, Color C>
using alpha_pixel_of =
    std::conditional_t<C == Color::gray, gil::pixel<Channel, gil::gray_alpha_layout_t>,
                       gil::pixel<Channel, gil::rgba_layout_t>>;

// Reads the file as `FilePixel` and keeps the first channels of `Pixel`.
// `Convert` lets the reader convert colour (packed gray, YCbCr); it is used
// only for files without alpha.
template <class Pixel, class FilePixel, bool Convert, class Tag>
Image load(std::string const& path, Size size, gil::image_read_settings<Tag> const& settings) {
    if constexpr (!gil::is_read_supported<FilePixel, Tag>::value ||
                  (Convert && !std::is_same_v<Pixel, FilePixel>)) {
        bad_input(quoted(path) + ": unsupported colour layout");
    } else {
        // Decoded straight into a kit image, so the picture counts against
        // the memory limit.
        Image image(detail::format_of<Pixel>(), size);
        auto const to = detail::packed_view<Pixel>(image.view());
        if constexpr (std::is_same_v<Pixel, FilePixel>) {
            if constexpr (Convert)
                gil::read_and_convert_view(path, to, settings);
            else
                gil::read_view(path, to, settings);
        } else {
            g_pending_warnings.push_back(quoted(path) + " has an alpha channel; it is ignored");
            gil::image<FilePixel, false> file;
            gil::read_image(path, file, settings);
            auto const from = gil::const_view(file);
            for (std::ptrdiff_t y = 0; y < from.height(); ++y)
                for (std::ptrdiff_t x = 0; x < from.width(); ++x)
                    for (int c = 0; c < num_channels_v<Pixel>; ++c) to(x, y)[c] = from(x, y)[c];
        }
        return image;
    }
}

template <class Channel, bool Convert = false, class Tag>
Image load_as(std::string const& path, Size size, gil::image_read_settings<Tag> const& settings,
              Color color, bool alpha) {
    using Gray = pixel_of<Channel, gil::gray_t>;
    using Rgb = pixel_of<Channel, gil::rgb_t>;
    using Cmyk = pixel_of<Channel, gil::cmyk_t>;
    switch (color) {
        case Color::gray:
            return alpha ? load<Gray, alpha_pixel_of<Channel, Color::gray>, Convert>(path, size,
                                                                                     settings)
                         : load<Gray, Gray, Convert>(path, size, settings);
        case Color::rgb:
            return alpha ? load<Rgb, alpha_pixel_of<Channel, Color::rgb>, Convert>(path, size,
                                                                                   settings)
                         : load<Rgb, Rgb, Convert>(path, size, settings);
        case Color::cmyk:
            return load<Cmyk, Cmyk, Convert>(path, size, settings);
    }
    bad_input(quoted(path) + ": unsupported colour layout");
}

Image read_png(std::string const& path) {
    gil::image_read_settings<gil::png_tag> probe;
    probe._read_transparency_data = true;
    auto const info = gil::read_image_info(path, probe)._info;
    check_size(path, info._width, info._height);
    Size const size{std::ptrdiff_t(info._width), std::ptrdiff_t(info._height)};
    bool const gray = (info._color_type & PNG_COLOR_MASK_COLOR) == 0;
    bool const alpha = (info._color_type & PNG_COLOR_MASK_ALPHA) != 0 || info._num_trans > 0;
    gil::image_read_settings<gil::png_tag> settings;
    settings._apply_screen_gamma = false;
    Color const color = gray ? Color::gray : Color::rgb;
    if (info._bit_depth == 16) return load_as<std::uint16_t>(path, size, settings, color, alpha);
    // Palettes and gray below 8 bits arrive as 8-bit pixels.
    if (gray && !alpha && info._bit_depth < 8)
        return load_as<std::uint8_t, true>(path, size, settings, color, alpha);
    return load_as<std::uint8_t>(path, size, settings, color, alpha);
}

Image read_jpeg(std::string const& path) {
    auto const info = gil::read_image_info(path, gil::jpeg_tag())._info;
    check_size(path, info._width, info._height);
    Size const size{std::ptrdiff_t(info._width), std::ptrdiff_t(info._height)};
    gil::image_read_settings<gil::jpeg_tag> const settings;
    switch (info._color_space) {
        case JCS_GRAYSCALE:
            return load_as<std::uint8_t>(path, size, settings, Color::gray, false);
        case JCS_RGB:
        case JCS_YCbCr:
            return load_as<std::uint8_t, true>(path, size, settings, Color::rgb, false);
        case JCS_CMYK:
        case JCS_YCCK:
            return load_as<std::uint8_t, true>(path, size, settings, Color::cmyk, false);
        default:
            break;
    }
    bad_input(quoted(path) + ": unsupported JPEG colour space");
}

Image read_tiff(std::string const& path) {
    auto const info = gil::read_image_info(path, gil::tiff_tag())._info;
    check_size(path, info._width, info._height);
    Size const size{std::ptrdiff_t(info._width), std::ptrdiff_t(info._height)};
    int const samples = info._samples_per_pixel;
    int const bits = info._bits_per_sample;
    int const format = info._sample_format;
    Color color = Color::gray;
    int colour_samples = 0;
    switch (info._photometric_interpretation) {
        case PHOTOMETRIC_MINISBLACK:
            color = Color::gray;
            colour_samples = 1;
            break;
        case PHOTOMETRIC_RGB:
            color = Color::rgb;
            colour_samples = 3;
            break;
        case PHOTOMETRIC_SEPARATED:
            color = Color::cmyk;
            colour_samples = 4;
            break;
        default:
            bad_input(quoted(path) +
                      ": only gray (black is zero), RGB and CMYK TIFF files are supported");
    }
    bool const alpha = samples == colour_samples + 1 && color != Color::cmyk;
    if (samples != colour_samples && !alpha)
        bad_input(quoted(path) + ": " + std::to_string(samples) +
                  " samples per pixel do not fit its colour space");
    gil::image_read_settings<gil::tiff_tag> const settings;
    if (bits == 8 && format == SAMPLEFORMAT_UINT)
        return load_as<std::uint8_t>(path, size, settings, color, alpha);
    if (bits == 16 && format == SAMPLEFORMAT_UINT)
        return load_as<std::uint16_t>(path, size, settings, color, alpha);
    if (bits == 32 && format == SAMPLEFORMAT_IEEEFP)
        return load_as<gil::float32_t>(path, size, settings, color, alpha);
    bad_input(quoted(path) + ": " + std::to_string(bits) + "-bit " +
              (format == SAMPLEFORMAT_IEEEFP ? "float" : "integer") +
              " samples are not supported (use 8-bit, 16-bit or 32-bit float)");
}

// The nearest pixel format each file format holds.
PixelFormat file_pixel_format(FileFormat file, PixelFormat format) {
    switch (file) {
        case FileFormat::tiff:
            break;
        case FileFormat::png:
            if (format.depth == Depth::f32) format.depth = Depth::u16;
            if (format.colour == Colour::cmyk) format.colour = Colour::rgb;
            break;
        case FileFormat::jpeg:
            format.depth = Depth::u8;
            break;
    }
    return format;
}

// Some releases of the PNG writer store 16-bit samples in the machine's byte
// order rather than the format's big-endian one. A round trip of one pixel
// through memory tells, since the reader gets the order right.
bool png_writer_keeps_native_order() {
    static bool const native = [] {
        gil::gray16_image_t probe(1, 1);
        gil::view(probe)(0, 0) = gil::gray16_pixel_t(0x0102);
        std::stringstream bytes;
        gil::write_view(bytes, gil::const_view(probe), gil::png_tag());
        gil::gray16_image_t back;
        gil::read_image(bytes, back, gil::png_tag());
        return gil::const_view(back)(0, 0)[0] != 0x0102;
    }();
    return native;
}

template <class Pixel>
void write_png(std::string const& path, ConstView<Pixel> const& view) {
    if constexpr (sizeof(channel_base_t<Pixel>) == 2) {
        if (png_writer_keeps_native_order()) {
            // Swapped here, the samples reach the file big-endian.
            gil::image<Pixel, false> swapped(view.dimensions());
            gil::copy_pixels(view, gil::view(swapped));
            for (auto& p : gil::view(swapped))
                for (int c = 0; c < num_channels_v<Pixel>; ++c)
                    p[c] = static_cast<std::uint16_t>((p[c] >> 8) | (p[c] << 8));
            gil::write_view(path, gil::const_view(swapped), gil::png_tag());
            return;
        }
    }
    gil::write_view(path, view, gil::png_tag());
}

// `view` is packed and of a format `file` holds.
void write_pixels(std::string const& path, FileFormat file, ConstImageView const& view) {
    detail::visit_format(view.format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        auto const typed = detail::packed_view<Pixel>(view);
        switch (file) {
            case FileFormat::tiff:
                gil::write_view(path, typed, gil::tiff_tag());
                break;
            case FileFormat::png:
                if constexpr (!is_float_pixel_v<Pixel> &&
                              !std::is_same_v<typename gil::color_space_type<Pixel>::type,
                                              gil::cmyk_t>)
                    write_png(path, typed);
                break;
            case FileFormat::jpeg:
                if constexpr (sizeof(channel_base_t<Pixel>) == 1)
                    gil::write_view(path, typed, gil::image_write_info<gil::jpeg_tag>(95));
                break;
        }
    });
}

}  // namespace

char const* format_name(FileFormat format) {
    switch (format) {
        case FileFormat::png:
            return "PNG";
        case FileFormat::jpeg:
            return "JPEG";
        case FileFormat::tiff:
            return "TIFF";
    }
    return "?";
}

ImageFile read_image_file(std::string const& path, Warnings* warnings) {
    TIFFSetErrorHandlerExt(print_tiff_error);
    FileFormat const format = sniff_format(path);
    return decode(path, format, warnings, [&] {
        switch (format) {
            case FileFormat::png:
                return ImageFile{read_png(path), format};
            case FileFormat::jpeg:
                return ImageFile{read_jpeg(path), format};
            case FileFormat::tiff:
                break;
        }
        return ImageFile{read_tiff(path), format};
    });
}

Image read_mask_file(std::string const& path, Warnings* warnings) {
    return make_mask(read_image_file(path, warnings).image.view());
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
    TIFFSetErrorHandlerExt(print_tiff_error);
    PixelFormat const pixels = file_pixel_format(format, view.format);
    // Converted (or packed) first, outside the capture: running out of
    // memory here is no write error.
    Image converted_pixels;
    ConstImageView packed = view;
    if (pixels != view.format || view.pixel_stride != pixels.pixel_bytes() ||
        view.row_stride != view.width * pixels.pixel_bytes()) {
        converted_pixels = converted(view, pixels);
        packed = converted_pixels.view();
    }
    StderrCapture capture;
    try {
        write_pixels(path, format, packed);
        Warnings found;
        for (auto const& line : capture.finish()) found.push_back(quoted(shown_name) + ": " + line);
        hand_on(found, warnings);
        return format_name(pixels) + " " + format_name(format);
    } catch (std::exception const& e) {
        auto const lines = capture.finish();
        throw Error(ErrorCode::output_failed, "cannot write " + quoted(shown_name) + ": " +
                                                  (lines.empty() ? reason_of(e) : lines.back()));
    }
}

}  // namespace WM::host
