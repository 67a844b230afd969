// The helper of the weftmap host's end-to-end tests: writes the input
// files, reads back what the host wrote and checks it.
//   image_probe make DIR                 small textures in every format, masks, broken files
//   image_probe make-large IMAGE MASK N  an NxN RGB texture and a mask with a large hole
//   image_probe info FILE                "PNG 64x48 8-bit RGB", read from the file's header
//   image_probe check-fill INPUT MASK OUTPUT [--lossy]
//   image_probe same A B                 pixel-identical files of one type
#include "host/dispatch.hpp"
#include "support/helpers.hpp"

#include <weftmap/host/image_file.hpp>

#include <boost/gil/extension/io/jpeg.hpp>
#include <boost/gil/extension/io/png.hpp>
#include <boost/gil/extension/io/tiff.hpp>

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace gil = boost::gil;
namespace host = WM::host;

template <class Pixel>
using FileImage = gil::image<Pixel, false>;

template <class Pixel>
FileImage<Pixel> texture(std::ptrdiff_t width, std::ptrdiff_t height) {
    FileImage<Pixel> image(width, height);
    WM::test::paint_texture(gil::view(image));
    return image;
}

FileImage<gil::gray8_pixel_t> disc(std::ptrdiff_t width, std::ptrdiff_t height, double cx,
                                   double cy, double r, unsigned char edge = 0) {
    FileImage<gil::gray8_pixel_t> mask(width, height);
    WM::test::paint_disc(gil::view(mask), cx, cy, r, edge);
    return mask;
}

// Through the host's writer for the nine pixel types (it also mends the
// byte order of 16-bit PNG samples), straight through the codec otherwise.
template <class Pixel, class Tag>
void write_texture(std::string const& path, Tag tag) {
    auto const image = texture<Pixel>(64, 48);
    if constexpr (boost::mp11::mp_contains<WM::image_pixel_types, Pixel>::value) {
        host::FileFormat const format = std::is_same_v<Tag, gil::png_tag> ? host::FileFormat::png
                                        : std::is_same_v<Tag, gil::tiff_tag>
                                            ? host::FileFormat::tiff
                                            : host::FileFormat::jpeg;
        auto const v = gil::const_view(image);
        host::write_image_file(
            path, path, format,
            host::ConstImageView(reinterpret_cast<unsigned char const*>(&v(0, 0)),
                                 host::detail::format_of<Pixel>(), v.width(), v.height()));
    } else {
        gil::write_view(path, gil::const_view(image), tag);
    }
}

void write_bytes(std::string const& path, std::string const& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string read_bytes(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int make(std::string const& dir) {
    auto const at = [&](char const* name) { return dir + "/" + name; };
    gil::png_tag const png;
    gil::tiff_tag const tiff;
    gil::jpeg_tag const jpeg;
    write_texture<gil::gray8_pixel_t>(at("gray8.png"), png);
    write_texture<gil::rgb8_pixel_t>(at("rgb8.png"), png);
    write_texture<gil::gray16_pixel_t>(at("gray16.png"), png);
    write_texture<gil::rgb16_pixel_t>(at("rgb16.png"), png);
    write_texture<gil::rgba8_pixel_t>(at("rgba8.png"), png);
    write_texture<gil::gray8_pixel_t>(at("gray8.jpg"), jpeg);
    write_texture<gil::rgb8_pixel_t>(at("rgb8.jpg"), jpeg);
    write_texture<gil::cmyk8_pixel_t>(at("cmyk8.jpg"), jpeg);
    write_texture<gil::gray8_pixel_t>(at("gray8.tif"), tiff);
    write_texture<gil::rgb8_pixel_t>(at("rgb8.tif"), tiff);
    write_texture<gil::cmyk8_pixel_t>(at("cmyk8.tif"), tiff);
    write_texture<gil::gray16_pixel_t>(at("gray16.tif"), tiff);
    write_texture<gil::rgb16_pixel_t>(at("rgb16.tif"), tiff);
    write_texture<gil::cmyk16_pixel_t>(at("cmyk16.tif"), tiff);
    write_texture<gil::gray32f_pixel_t>(at("gray32f.tif"), tiff);
    write_texture<gil::rgb32f_pixel_t>(at("rgb32f.tif"), tiff);
    write_texture<gil::cmyk32f_pixel_t>(at("cmyk32f.tif"), tiff);
    write_texture<gil::rgba16_pixel_t>(at("rgba16.tif"), tiff);
    // Integer samples of 32 bits are outside the nine pixel types.
    write_texture<gil::gray32s_pixel_t>(at("gray32s.tif"), tiff);

    gil::write_view(at("mask.png"), gil::const_view(disc(64, 48, 30, 22, 7)), png);
    gil::write_view(at("mask-soft.png"), gil::const_view(disc(64, 48, 30, 22, 6, 128)), png);
    gil::write_view(at("mask-empty.png"), gil::const_view(disc(64, 48, 0, 0, -5)), png);
    gil::write_view(at("mask-small.png"), gil::const_view(disc(60, 40, 30, 22, 7)), png);
    gil::write_view(at("mask-all.png"), gil::const_view(disc(64, 48, 32, 24, 100)), png);
    // A red disc on black: a colour mask counts every non-zero channel.
    FileImage<gil::rgb8_pixel_t> colour(64, 48);
    gil::copy_and_convert_pixels(gil::const_view(disc(64, 48, 30, 22, 7)), gil::view(colour));
    for (auto& p : gil::view(colour)) p = gil::rgb8_pixel_t(p[0], 0, 0);
    gil::write_view(at("mask-red.png"), gil::const_view(colour), png);
    // Wider than the library's field coordinates reach.
    gil::write_view(at("wide.png"), gil::const_view(texture<gil::gray8_pixel_t>(70000, 2)), png);

    write_bytes(at("not-an-image.png"), "this is a text file, not a picture\n");
    write_bytes(at("empty.png"), "");
    write_bytes(at("truncated.png"), read_bytes(at("rgb8.png")).substr(0, 120));
    return 0;
}

int make_large(std::string const& image, std::string const& mask, std::ptrdiff_t side) {
    gil::write_view(image, gil::const_view(texture<gil::rgb8_pixel_t>(side, side)), gil::png_tag());
    gil::write_view(mask, gil::const_view(disc(side, side, side / 2.0, side / 2.0, side / 4.0)),
                    gil::png_tag());
    return 0;
}

std::string depth_text(int bits, bool is_float) {
    return is_float ? "float" : std::to_string(bits) + "-bit";
}

// The header as each format's own reader sees it, independently of the host.
int info(std::string const& path) {
    std::string const head = read_bytes(path).substr(0, 4);
    if (head == "\x89PNG") {
        auto const i = gil::read_image_info(path, gil::png_tag())._info;
        std::string const color = (i._color_type & PNG_COLOR_MASK_COLOR) ? "RGB" : "gray";
        std::string const alpha = (i._color_type & PNG_COLOR_MASK_ALPHA) ? "+alpha" : "";
        std::cout << "PNG " << i._width << "x" << i._height << " "
                  << depth_text(i._bit_depth, false) << " " << color << alpha << "\n";
    } else if (head.compare(0, 2, "\xFF\xD8") == 0) {
        auto const i = gil::read_image_info(path, gil::jpeg_tag())._info;
        std::string const color = i._num_components == 1   ? "gray"
                                  : i._num_components == 3 ? "RGB"
                                                           : "CMYK";
        std::cout << "JPEG " << i._width << "x" << i._height << " 8-bit " << color << "\n";
    } else if (head == "II*" + std::string(1, '\0') || head == "MM" + std::string(1, '\0') + "*") {
        auto const i = gil::read_image_info(path, gil::tiff_tag())._info;
        std::string const color = i._photometric_interpretation == PHOTOMETRIC_SEPARATED ? "CMYK"
                                  : i._samples_per_pixel >= 3                            ? "RGB"
                                                                                         : "gray";
        std::cout << "TIFF " << i._width << "x" << i._height << " "
                  << depth_text(i._bits_per_sample, i._sample_format == SAMPLEFORMAT_IEEEFP) << " "
                  << color << "\n";
    } else {
        std::cout << "unknown\n";
        return 1;
    }
    return 0;
}

// Calls f(a, b) with views of the two files when both hold the same pixel
// type, and fails otherwise.
template <class F>
int with_pair(std::string const& a_path, std::string const& b_path, F const& f) {
    auto const a = host::read_image_file(a_path);
    auto const b = host::read_image_file(b_path);
    if (a.image.format() != b.image.format()) {
        std::cout << "pixel types differ\n";
        return 1;
    }
    return host::detail::visit_format(a.image.format(), [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        return f(host::detail::packed_view<Pixel>(a.image.view()),
                 host::detail::packed_view<Pixel>(b.image.view()));
    });
}

// Outside the mask the output must equal the input exactly (lossless
// formats); inside, its PSNR against the input (the texture before the
// hole) must reach 20 dB.
int check_fill(std::string const& input_path, std::string const& mask_path,
               std::string const& output_path, bool lossy) {
    auto const mask = host::read_mask_file(mask_path);
    return with_pair(input_path, output_path, [&](auto const& a, auto const& b) {
        auto const m = host::detail::packed_view<WM::gray8_pixel_t>(mask.view());
        if (a.dimensions() != b.dimensions()) {
            std::cout << "sizes differ\n";
            return 1;
        }
        long changed_outside = 0;
        for (std::ptrdiff_t y = 0; y < a.height(); ++y)
            for (std::ptrdiff_t x = 0; x < a.width(); ++x)
                changed_outside += m(x, y)[0] == 0 && a(x, y) != b(x, y);
        double const psnr = WM::test::psnr_where(a, b, m);
        std::cout << "changed outside the hole: " << changed_outside
                  << ", PSNR in the hole: " << psnr << " dB\n";
        return (lossy || changed_outside == 0) && psnr >= 20 ? 0 : 1;
    });
}

int same(std::string const& a_path, std::string const& b_path) {
    return with_pair(a_path, b_path,
                     [](auto const& a, auto const& b) { return gil::equal_pixels(a, b) ? 0 : 1; });
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> const args(argv + 1, argv + argc);
    try {
        if (args.size() == 2 && args[0] == "make") return make(args[1]);
        if (args.size() == 4 && args[0] == "make-large")
            return make_large(args[1], args[2], std::stol(args[3]));
        if (args.size() == 2 && args[0] == "info") return info(args[1]);
        if (args.size() >= 4 && args[0] == "check-fill")
            return check_fill(args[1], args[2], args[3], args.size() == 5 && args[4] == "--lossy");
        if (args.size() == 3 && args[0] == "same") return same(args[1], args[2]);
    } catch (std::exception const& e) {
        std::cerr << "image_probe: " << e.what() << "\n";
        return 2;
    }
    std::cerr << "image_probe: bad arguments\n";
    return 2;
}
