// The helper of the weftmap host's end-to-end tests: writes the input
// files, reads back what the host wrote and checks it.
//   image_probe make DIR                 small textures in every format and layout, masks,
//                                        broken and lying files
//   image_probe make-large IMAGE MASK N [rgb16]
//                                        an NxN RGB texture (8-bit unless rgb16) and a mask
//                                        with a large hole
//   image_probe info FILE                "PNG 64x48 8-bit RGB", read from the file's header
//   image_probe check-fill INPUT MASK OUTPUT [--lossy] [--min-psnr DB] (default 20)
//   image_probe same A B                 pixel-identical files of one type
//   image_probe peak-rss FILE COMMAND... runs COMMAND, writes its peak resident size in KiB
//   image_probe pan PHOTO DIR N W H STEP  N frames WxH of a pan over PHOTO (STEP pixels a
//                                        frame to the right), DIR/frame_0000.png ...
//   image_probe tinted DIR N W H         N frames WxH of the texture, each tinted apart from
//                                        its neighbours
//   image_probe index-at FILE X Y        the frame an index map tile names at (X, Y), or -1
// Files in layouts the host never writes (alpha, palettes, signed samples)
// come straight from the codecs.
#include "host/kit_pictures.hpp"

#include <weftmap/host/image_file.hpp>
#include <weftmap/image/resample.hpp>

#include <png.h>
#include <tiffio.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace host = WM::host;
using host::test::disc_mask;
using host::test::texture;

host::PixelFormat const gray8{host::Depth::u8, host::Colour::gray};
host::PixelFormat const rgb8{host::Depth::u8, host::Colour::rgb};
host::PixelFormat const rgb16{host::Depth::u16, host::Colour::rgb};

// Pseudo-random bytes, which no codec can shrink much.
host::Image noise(host::PixelFormat format, std::ptrdiff_t width, std::ptrdiff_t height) {
    host::Image image(format, {width, height});
    std::uint32_t state = 12345;
    for (std::ptrdiff_t y = 0; y < height; ++y)
        for (std::ptrdiff_t x = 0; x < width * format.pixel_bytes(); ++x) {
            state = state * 1664525u + 1013904223u;
            image.view().pixel(0, y)[x] = static_cast<unsigned char>(state >> 24);
        }
    return image;
}

void write(std::string const& path, host::ConstImageView const& view) {
    auto const format = host::format_for_name(path, host::FileFormat::png);
    host::write_image_file(path, path, *format, view);
}

void write_bytes(std::string const& path, std::string const& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string read_bytes(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

[[noreturn]] void failed(std::string const& what) {
    throw std::runtime_error(what);
}

// ---- PNG files the host never writes

// Through the codec's simplified interface, which needs no error jumps.
void write_png_simply(std::string const& path, png_uint_32 format, int width, int height,
                      void const* pixels, void const* colormap = nullptr, int colours = 0) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = png_uint_32(width);
    image.height = png_uint_32(height);
    image.format = format;
    image.colormap_entries = png_uint_32(colours);
    if (!png_image_write_to_file(&image, path.c_str(), 0, pixels, 0, colormap))
        failed(path + ": " + image.message);
}

// A palette of 16 colours, some see-through (tRNS), and the 8-bit RGB
// picture a reader must make of it.
void write_palette_pngs(std::string const& path, std::string const& expected_path) {
    int const w = 64, h = 48;
    unsigned char colormap[16][4];
    for (int i = 0; i < 16; ++i) {
        colormap[i][0] = static_cast<unsigned char>(16 * i);
        colormap[i][1] = static_cast<unsigned char>(255 - 9 * i);
        colormap[i][2] = static_cast<unsigned char>((70 * i) % 256);
        colormap[i][3] = static_cast<unsigned char>(i % 3 == 0 ? 0 : i % 3 == 1 ? 128 : 255);
    }
    std::vector<unsigned char> indices(w * h);
    host::Image expected(rgb8, {w, h});
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            int const i = (x / 4 + y / 3) % 16;
            indices[y * w + x] = static_cast<unsigned char>(i);
            std::memcpy(expected.view().pixel(x, y), colormap[i], 3);
        }
    write_png_simply(path, PNG_FORMAT_RGBA_COLORMAP, w, h, indices.data(), colormap, 16);
    write(expected_path, expected.view());
}

void write_rgba8_png(std::string const& path) {
    host::Image const rgb = texture(rgb8, {64, 48});
    std::vector<unsigned char> rgba;
    for (std::ptrdiff_t y = 0; y < 48; ++y)
        for (std::ptrdiff_t x = 0; x < 64; ++x) {
            rgba.insert(rgba.end(), rgb.view().pixel(x, y), rgb.view().pixel(x, y) + 3);
            rgba.push_back(static_cast<unsigned char>(4 * x));
        }
    write_png_simply(path, PNG_FORMAT_RGBA, 64, 48, rgba.data());
}

std::uint32_t crc_of(std::string const& bytes) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char b : bytes) {
        crc ^= b;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

std::string big_endian(std::uint32_t v) {
    return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

std::string png_chunk(std::string const& type, std::string const& data) {
    return big_endian(std::uint32_t(data.size())) + type + data + big_endian(crc_of(type + data));
}

// A header claiming 65535x65535 RGB (12 GiB of pixels) before 14 KB of
// zeros in one stored deflate block: nothing a reader should allocate for.
void write_png_bomb(std::string const& path) {
    std::string const ihdr = big_endian(65535) + big_endian(65535) + std::string{8, 2, 0, 0, 0};
    std::uint16_t const n = 14000;
    std::string idat = "\x78\x01";  // zlib header, no preset dictionary
    idat += std::string{0, char(n & 0xFF), char(n >> 8), char(~n & 0xFF), char((~n >> 8) & 0xFF)};
    idat += std::string(n, '\0');
    write_bytes(path, "\x89PNG\r\n\x1a\n" + png_chunk("IHDR", ihdr) + png_chunk("IDAT", idat) +
                          png_chunk("IEND", ""));
}

// A small JPEG whose frame header is made to claim 65500x65500.
void write_jpeg_bomb(std::string const& path) {
    write(path, texture(gray8, {16, 16}).view());
    std::string bytes = read_bytes(path);
    std::size_t const sof = bytes.find("\xFF\xC0");
    if (sof == std::string::npos) failed(path + ": no frame header");
    // Marker, length (2), precision (1), then height and width.
    for (std::size_t at : {sof + 5, sof + 7}) {
        bytes[at] = char(65500 >> 8);
        bytes[at + 1] = char(65500 & 0xFF);
    }
    write_bytes(path, bytes);
}

int make(std::string const& dir) {
    auto const at = [&](std::string const& name) { return dir + "/" + name; };
    using host::Colour;
    using host::Depth;
    // Every pixel type in every file format that holds it.
    std::pair<Colour, char const*> const colours[] = {
        {Colour::gray, "gray"}, {Colour::rgb, "rgb"}, {Colour::cmyk, "cmyk"}};
    std::pair<Depth, char const*> const depths[] = {
        {Depth::u8, "8"}, {Depth::u16, "16"}, {Depth::f32, "32f"}};
    for (auto const& [colour, colour_name] : colours)
        for (auto const& [depth, depth_name] : depths) {
            std::string const name = std::string(colour_name) + depth_name;
            host::Image const image = texture({depth, colour}, {64, 48});
            write(at(name + ".tif"), image.view());
            if (depth == Depth::u8) write(at(name + ".jpg"), image.view());
            if (depth != Depth::f32 && colour != Colour::cmyk)
                write(at(name + ".png"), image.view());
        }
    write_rgba8_png(at("rgba8.png"));
    using host::test::write_tiff;
    write_tiff(at("rgba16.tif"), texture(rgb16, {64, 48}), {false, false, true});
    // Integer samples of 32 bits are outside the nine pixel types.
    write_tiff(at("gray32s.tif"), texture({Depth::f32, Colour::gray}, {64, 48}),
               {false, false, false, false, true});
    // Without resolution tags.
    write_tiff(at("rgb8-strips.tif"), texture(rgb8, {64, 48}), {});
    write_palette_pngs(at("palette-trns.png"), at("palette-expected.png"));

    write(at("mask.png"), disc_mask({64, 48}, 30, 22, 7).view());
    write(at("mask-soft.png"), disc_mask({64, 48}, 30, 22, 6, 128).view());
    write(at("mask-empty.png"), disc_mask({64, 48}, 0, 0, -5).view());
    write(at("mask-small.png"), disc_mask({60, 40}, 30, 22, 7).view());
    write(at("mask-all.png"), disc_mask({64, 48}, 32, 24, 100).view());
    // A red disc on black: a colour mask counts every non-zero channel.
    host::Image const red_disc = disc_mask({64, 48}, 30, 22, 7);
    host::Image red(rgb8, {64, 48});
    for (std::ptrdiff_t y = 0; y < 48; ++y)
        for (std::ptrdiff_t x = 0; x < 64; ++x)
            red.view().pixel(x, y)[0] = *red_disc.view().pixel(x, y);
    write(at("mask-red.png"), red.view());
    // Wider than the library's field coordinates reach.
    write(at("wide.png"), texture(gray8, {70000, 2}).view());
    // Big enough to pass small file-size limits in every format.
    write(at("big.png"), noise(rgb8, 256, 192).view());
    write(at("mask-empty-big.png"), disc_mask({256, 192}, 0, 0, -5).view());

    write_bytes(at("not-an-image.png"), "this is a text file, not a picture\n");
    write_bytes(at("empty.png"), "");
    write_bytes(at("truncated.png"), read_bytes(at("rgb8.png")).substr(0, 120));
    write_bytes(at("truncated.tif"), read_bytes(at("rgb8.tif")).substr(0, 6));
    write_png_bomb(at("bomb.png"));
    write_jpeg_bomb(at("bomb.jpg"));
    return 0;
}

int make_large(std::string const& image, std::string const& mask, std::ptrdiff_t side, bool deep) {
    write(image, texture(deep ? rgb16 : rgb8, {side, side}).view());
    write(mask, disc_mask({side, side}, side / 2.0, side / 2.0, side / 4.0).view());
    return 0;
}

// ---- reading headers independently of the host

std::string depth_text(int bits, bool is_float) {
    return is_float ? "float" : std::to_string(bits) + "-bit";
}

std::uint32_t read_big_endian(std::string const& bytes, std::size_t at, int count) {
    std::uint32_t v = 0;
    for (int i = 0; i < count; ++i) v = (v << 8) | static_cast<unsigned char>(bytes[at + i]);
    return v;
}

extern "C" int quiet_tiff(TIFF*, void*, char const*, char const*, va_list) {
    return 1;
}

int info(std::string const& path) {
    std::string const bytes = read_bytes(path);
    if (bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0 && bytes.size() >= 26) {
        // IHDR: width, height, bit depth, colour type.
        int const type = static_cast<unsigned char>(bytes[25]);
        std::string const colour = (type & PNG_COLOR_MASK_COLOR) ? "RGB" : "gray";
        std::string const alpha = (type & PNG_COLOR_MASK_ALPHA) ? "+alpha" : "";
        std::cout << "PNG " << read_big_endian(bytes, 16, 4) << "x" << read_big_endian(bytes, 20, 4)
                  << " " << depth_text(static_cast<unsigned char>(bytes[24]), false) << " "
                  << colour << alpha << "\n";
        return 0;
    }
    if (bytes.compare(0, 2, "\xFF\xD8") == 0) {
        // The first frame header of a baseline or progressive file.
        for (std::size_t at = 2; at + 9 < bytes.size();) {
            if (static_cast<unsigned char>(bytes[at]) != 0xFF) break;
            int const marker = static_cast<unsigned char>(bytes[at + 1]);
            if (marker == 0xC0 || marker == 0xC1 || marker == 0xC2) {
                int const components = static_cast<unsigned char>(bytes[at + 9]);
                std::cout << "JPEG " << read_big_endian(bytes, at + 7, 2) << "x"
                          << read_big_endian(bytes, at + 5, 2) << " "
                          << int(static_cast<unsigned char>(bytes[at + 4])) << "-bit "
                          << (components == 1   ? "gray"
                              : components == 3 ? "RGB"
                                                : "CMYK")
                          << "\n";
                return 0;
            }
            at += 2 + read_big_endian(bytes, at + 2, 2);
        }
    }
    if (bytes.compare(0, 4, std::string("II*\0", 4)) == 0 ||
        bytes.compare(0, 4, std::string("MM\0*", 4)) == 0) {
        TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
        TIFFOpenOptionsSetErrorHandlerExtR(options, quiet_tiff, nullptr);
        TIFFOpenOptionsSetWarningHandlerExtR(options, quiet_tiff, nullptr);
        TIFF* tif = TIFFOpenExt(path.c_str(), "r", options);
        TIFFOpenOptionsFree(options);
        if (tif != nullptr) {
            std::uint32_t w = 0, h = 0;
            std::uint16_t samples = 1, bits = 1, format = SAMPLEFORMAT_UINT, photometric = 0;
            TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
            TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
            TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samples);
            TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
            TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
            TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
            TIFFClose(tif);
            std::string const colour = photometric == PHOTOMETRIC_SEPARATED ? "CMYK"
                                       : samples >= 3                       ? "RGB"
                                                                            : "gray";
            std::cout << "TIFF " << w << "x" << h << " "
                      << depth_text(bits, format == SAMPLEFORMAT_IEEEFP) << " " << colour << "\n";
            return 0;
        }
    }
    std::cout << "unknown\n";
    return 1;
}

// Outside the mask the output must equal the input exactly (lossless
// formats); inside, its PSNR against the input (the texture before the
// hole) must reach `min_psnr` dB.
int check_fill(std::string const& input_path, std::string const& mask_path,
               std::string const& output_path, bool lossy, double min_psnr) {
    host::Image const in = host::read_image_file(input_path).image;
    host::Image const out = host::read_image_file(output_path).image;
    host::Image const mask = host::read_mask_file(mask_path);
    if (in.format() != out.format() || in.size() != out.size() || in.size() != mask.size()) {
        std::cout << "pixel types or sizes differ\n";
        return 1;
    }
    bool const kept = host::test::known_pixels_kept(in.view(), mask.view(), out.view());
    double const psnr = host::test::psnr_in_hole(in.view(), mask.view(), out.view());
    std::cout << "known pixels " << (kept ? "kept" : "changed") << ", PSNR in the hole: " << psnr
              << " dB\n";
    return (lossy || kept) && psnr >= min_psnr ? 0 : 1;
}

// The child's peak resident size, as the kernel counts it at its end.
int peak_rss(std::string const& out, std::vector<std::string> const& command) {
    std::vector<char*> argv;
    for (auto const& a : command) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t const child = fork();
    if (child == 0) {
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage = {};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) return 125;
    std::ofstream(out) << usage.ru_maxrss << "\n";
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string frame_name(std::string const& dir, std::ptrdiff_t i) {
    char name[32];
    std::snprintf(name, sizeof name, "/frame_%04td.png", i);
    return dir + name;
}

// The photograph scaled to cover the whole pan, then cut into frames.
int pan(std::string const& photo, std::string const& dir, std::ptrdiff_t n, std::ptrdiff_t w,
        std::ptrdiff_t h, std::ptrdiff_t step) {
    auto const file = host::read_image_file(photo);
    host::Image const rgb = host::converted(file.image.view(), rgb8);
    double const scene = double(w + (n - 1) * step);
    double const scale = std::max(double(h) / double(rgb.height()), scene / double(rgb.width()));
    WM::Point const size(std::ptrdiff_t(std::ceil(rgb.width() * scale)),
                         std::ptrdiff_t(std::ceil(rgb.height() * scale)));
    WM::RecycledImage<WM::rgb8_pixel_t> scaled;
    WM::resample<WM::rgb8_pixel_t>(host::detail::packed_view<WM::rgb8_pixel_t>(rgb.view()), scaled,
                                   size, WM::ResampleBilinear, -1);
    host::ConstImageView const all(reinterpret_cast<unsigned char const*>(scaled.memory()), rgb8,
                                   scaled.width(), scaled.height());
    std::ptrdiff_t const top = (scaled.height() - h) / 2;
    for (std::ptrdiff_t i = 0; i < n; ++i) write(frame_name(dir, i), all.crop(i * step, top, w, h));
    return 0;
}

// Eight tints in turn over the texture: neighbouring frames never match.
int tinted(std::string const& dir, std::ptrdiff_t n, std::ptrdiff_t w, std::ptrdiff_t h) {
    static unsigned char const tints[8][3] = {{255, 80, 80},  {80, 255, 80},  {80, 80, 255},
                                              {255, 255, 60}, {60, 255, 255}, {255, 60, 255},
                                              {255, 160, 40}, {150, 150, 150}};
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        host::Image frame = texture(rgb8, {w, h});
        for (std::ptrdiff_t y = 0; y < h; ++y)
            for (std::ptrdiff_t x = 0; x < w; ++x)
                for (int c = 0; c < 3; ++c) {
                    unsigned char& v = frame.view().pixel(x, y)[c];
                    v = static_cast<unsigned char>(v * tints[i % 8][c] / 255);
                }
        write(frame_name(dir, i), frame.view());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> const args(argv + 1, argv + argc);
    try {
        if (args.size() == 2 && args[0] == "make") return make(args[1]);
        if ((args.size() == 4 || (args.size() == 5 && args[4] == "rgb16")) &&
            args[0] == "make-large")
            return make_large(args[1], args[2], std::stol(args[3]), args.size() == 5);
        if (args.size() == 2 && args[0] == "info") return info(args[1]);
        if (args.size() >= 4 && args[0] == "check-fill") {
            bool lossy = false;
            double min_psnr = 20.0;
            for (std::size_t i = 4; i < args.size(); ++i) {
                if (args[i] == "--lossy") lossy = true;
                if (args[i] == "--min-psnr" && i + 1 < args.size()) min_psnr = std::stod(args[++i]);
            }
            return check_fill(args[1], args[2], args[3], lossy, min_psnr);
        }
        if (args.size() == 3 && args[0] == "same")
            return !host::same_pixels(host::read_image_file(args[1]).image.view(),
                                      host::read_image_file(args[2]).image.view());
        if (args.size() == 7 && args[0] == "pan")
            return pan(args[1], args[2], std::stol(args[3]), std::stol(args[4]), std::stol(args[5]),
                       std::stol(args[6]));
        if (args.size() == 5 && args[0] == "tinted")
            return tinted(args[1], std::stol(args[2]), std::stol(args[3]), std::stol(args[4]));
        if (args.size() == 4 && args[0] == "index-at") {
            auto const map = host::read_image_file(args[1]);
            unsigned char const* p = map.image.view().pixel(std::stol(args[2]), std::stol(args[3]));
            std::cout << long(p[0] | p[1] << 8 | p[2] << 16) - 1 << "\n";
            return 0;
        }
        if (args.size() >= 3 && args[0] == "peak-rss")
            return peak_rss(args[1], std::vector<std::string>(args.begin() + 2, args.end()));
    } catch (std::exception const& e) {
        std::cerr << "image_probe: " << e.what() << "\n";
        return 2;
    }
    std::cerr << "image_probe: bad arguments\n";
    return 2;
}
