// The streamed file layer: rows in bands of any height give the same files
// and pixels as the whole-picture functions, every layout a reader meets
// reads the same, and failures are errors with codes, never prints.
#include "host/kit_helpers.hpp"
#include "host/raster_codec.hpp"

#include <weftmap/host/image_file.hpp>
#include <weftmap/host/raster_file.hpp>

#include <png.h>

#include <csetjmp>
#include <fstream>
#include <iterator>
#include <vector>

namespace WM::host::test {
namespace {

PixelFormat const rgb8{Depth::u8, Colour::rgb};
PixelFormat const rgb16{Depth::u16, Colour::rgb};
PixelFormat const cmyk8{Depth::u8, Colour::cmyk};

std::string temporary(std::string const& name) {
    return ::testing::TempDir() + "raster-" + name;
}

std::string bytes_of(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Odd band heights, none dividing the picture, the last one what is left.
std::vector<std::ptrdiff_t> odd_bands(std::ptrdiff_t height) {
    std::vector<std::ptrdiff_t> bands;
    for (std::ptrdiff_t y = 0, h = 1; y < height; y += bands.back(), h += 2)
        bands.push_back(std::min(h, height - y));
    return bands;
}

void write_in_bands(std::string const& path, FileFormat file, ConstImageView const& view) {
    RasterWriter writer(path, path, file, view.format, view.size());
    std::ptrdiff_t y = 0;
    for (std::ptrdiff_t h : odd_bands(view.height)) {
        writer.write_rows(view.crop(0, y, view.width, h));
        y += h;
    }
    EXPECT_EQ(writer.row(), view.height);
    writer.finish();
}

// Reads the file in bands of `format` (the file's own when unset), each
// band in a buffer of its own with a gap after every pixel.
Image read_in_bands(std::string const& path, std::optional<PixelFormat> format = {}) {
    RasterReader reader(path);
    PixelFormat const f = format.value_or(reader.format());
    Image image(f, reader.size());
    std::ptrdiff_t y = 0;
    for (std::ptrdiff_t h : {std::ptrdiff_t(5), std::ptrdiff_t(1), std::ptrdiff_t(7)}) {
        std::vector<unsigned char> gappy(std::size_t(reader.size().width) * h * 2 *
                                         f.pixel_bytes());
        ImageView const band(gappy.data(), f, reader.size().width, h, 0, 2 * f.pixel_bytes());
        reader.read_rows(band);
        convert(band, image.view().crop(0, y, image.width(), h));
        y += h;
    }
    // The rest straight into the picture's rows.
    reader.read_rows(image.view().crop(0, y, image.width(), image.height() - y));
    EXPECT_EQ(reader.row(), reader.size().height);
    return image;
}

template <class Pixel>
struct RasterFile : ::testing::Test {};
TYPED_TEST_SUITE(RasterFile, NinePixels);

TYPED_TEST(RasterFile, BandsRoundTripLikeWholePictures) {
    PixelFormat const format = FormatOf<TypeParam>::value;
    Image const image = texture(format, {37, 29});
    for (FileFormat file : {FileFormat::png, FileFormat::jpeg, FileFormat::tiff}) {
        SCOPED_TRACE(format_name(file));
        std::string const streamed = temporary(format_name(format) + "-bands");
        std::string const whole = temporary(format_name(format) + "-whole");
        write_in_bands(streamed, file, image.view());
        EXPECT_EQ(write_image_file(whole, whole, file, image.view()),
                  format_name(stored_format(file, format)) + " " + format_name(file));
        // The same encoder behind both: the same bytes.
        EXPECT_EQ(bytes_of(streamed), bytes_of(whole));

        RasterReader const header(streamed);
        EXPECT_EQ(header.file_format(), file);
        EXPECT_EQ(header.format(), stored_format(file, format));
        EXPECT_EQ(header.size(), image.size());
        ImageFile const back = read_image_file(streamed);
        EXPECT_TRUE(same_pixels(read_in_bands(streamed).view(), back.image.view()));
        // Lossless files give back the pixels, converted as stored.
        if (file != FileFormat::jpeg) {
            EXPECT_TRUE(
                same_pixels(back.image.view(), converted(image.view(), header.format()).view()));
        }
        // Bands of another format are converted from the file's.
        EXPECT_TRUE(same_pixels(read_in_bands(streamed, rgb16).view(),
                                converted(back.image.view(), rgb16).view()));
    }
}

// ---- layouts the kit never writes, straight from the codecs

TEST(RasterFileLayouts, TilesStripsPlanesAndBigTiffReadTheSame) {
    for (PixelFormat format : {rgb16, cmyk8, PixelFormat{Depth::f32, Colour::gray}}) {
        SCOPED_TRACE(format_name(format));
        Image const image = texture(format, {37, 29});
        std::string const plain = temporary("plain.tif");
        write_image_file(plain, plain, FileFormat::tiff, image.view());
        for (TiffLayout layout :
             {TiffLayout{true, false, false, false}, TiffLayout{true, false, true, false},
              TiffLayout{true, true, true, false}, TiffLayout{false, true, true, false},
              TiffLayout{false, false, true, true}}) {
            SCOPED_TRACE(::testing::Message()
                         << "tiled " << layout.tiled << " separate " << layout.separate << " alpha "
                         << layout.alpha << " big " << layout.big);
            std::string const path = temporary("layout.tif");
            write_tiff(path, image, layout);
            Warnings warnings;
            RasterReader const reader(path, &warnings);
            EXPECT_EQ(reader.format(), format);
            EXPECT_EQ(warnings.size(), layout.alpha ? 1u : 0u);
            EXPECT_TRUE(same_pixels(read_in_bands(path).view(), image.view()));
            EXPECT_TRUE(same_pixels(read_image_file(path).image.view(),
                                    read_image_file(plain).image.view()));
        }
    }
}

struct InterlacedWrite {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::FILE* file = nullptr;
    png_bytepp rows = nullptr;
};

bool write_interlaced(InterlacedWrite* w, png_uint_32 width, png_uint_32 height) {
    if (setjmp(png_jmpbuf(w->png))) return false;
    png_init_io(w->png, w->file);
    png_set_IHDR(w->png, w->info, width, height, 16, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_ADAM7,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(w->png, w->info);
    png_set_swap(w->png);
    png_write_image(w->png, w->rows);
    png_write_end(w->png, nullptr);
    return true;
}

TEST(RasterFileLayouts, InterlacedPngsReadInBands) {
    Image const image = texture(rgb16, {37, 29});
    std::string const path = temporary("interlaced.png");
    std::vector<png_bytep> rows;
    for (std::ptrdiff_t y = 0; y < image.height(); ++y)
        rows.push_back(const_cast<png_bytep>(image.view().pixel(0, y)));
    InterlacedWrite w;
    w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    w.info = png_create_info_struct(w.png);
    w.file = std::fopen(path.c_str(), "wb");
    w.rows = rows.data();
    bool const written = w.file != nullptr && write_interlaced(&w, 37, 29);
    png_destroy_write_struct(&w.png, &w.info);
    if (w.file != nullptr) std::fclose(w.file);
    ASSERT_TRUE(written);
    // Whole, and in bands through the reader's own buffer of the picture.
    EXPECT_TRUE(same_pixels(read_image_file(path).image.view(), image.view()));
    EXPECT_TRUE(same_pixels(read_in_bands(path).view(), image.view()));
}

// ---- failures

TEST(RasterFileFailures, WriteErrorsAreOutputFailures) {
    Image const image = texture(rgb8, {64, 64});
    // Every write to /dev/full fails with ENOSPC.
    for (FileFormat file : {FileFormat::png, FileFormat::jpeg, FileFormat::tiff}) {
        try {
            write_image_file("/dev/full", "full", file, image.view());
            ADD_FAILURE() << format_name(file) << ": no error";
        } catch (Error const& e) {
            EXPECT_EQ(e.code(), ErrorCode::output_failed);
            EXPECT_STREQ(e.what(), "cannot write 'full': No space left on device");
        }
    }
    // Rows that do not fit, or too few of them.
    std::string const path = temporary("short.png");
    RasterWriter writer(path, path, FileFormat::png, rgb8, {64, 64});
    EXPECT_EQ(code_of([&] { writer.write_rows(image.view().crop(0, 0, 63, 2)); }),
              ErrorCode::output_failed);
    RasterWriter short_one(path, path, FileFormat::png, rgb8, {64, 64});
    short_one.write_rows(image.view().crop(0, 0, 64, 10));
    EXPECT_EQ(code_of([&] { short_one.finish(); }), ErrorCode::output_failed);
    EXPECT_EQ(code_of([&] {
                  RasterWriter(path, path, FileFormat::jpeg, rgb8, {70000, 2});
              }),
              ErrorCode::output_failed);
    EXPECT_EQ(code_of([&] {
                  RasterWriter(path, path, FileFormat::png, rgb8, {0, 2});
              }),
              ErrorCode::output_failed);
}

TEST(RasterFileFailures, DamagedFilesFailOrWarnWithoutPrinting) {
    Image const image = texture(rgb8, {64, 48});
    std::string const png = temporary("cut.png"), jpeg = temporary("cut.jpg");
    std::string const tiff = temporary("cut.tif");
    for (auto const& [path, file] :
         {std::pair{png, FileFormat::png}, {jpeg, FileFormat::jpeg}, {tiff, FileFormat::tiff}}) {
        write_image_file(path, path, file, image.view());
        std::string const bytes = bytes_of(path);
        std::ofstream(path, std::ios::binary) << bytes.substr(0, bytes.size() / 2);
    }
    ::testing::internal::CaptureStderr();
    // PNG rows past the cut are errors, and the reader is spent.
    RasterReader reader(png);
    Image band(rgb8, {64, 48});
    EXPECT_EQ(code_of([&] { reader.read_rows(band.view()); }), ErrorCode::invalid_input);
    EXPECT_EQ(code_of([&] { reader.read_rows(band.view().crop(0, 0, 64, 1)); }),
              ErrorCode::invalid_input);
    // A TIFF keeps its directory at the end.
    EXPECT_EQ(code_of([&] { RasterReader{tiff}; }), ErrorCode::invalid_input);
    // A JPEG cut short decodes with a warning, as viewers show it.
    Warnings warnings;
    ImageFile const cut = read_image_file(jpeg, &warnings);
    EXPECT_EQ(cut.image.size(), image.size());
    ASSERT_FALSE(warnings.empty());
    EXPECT_EQ(warnings[0], "'" + jpeg + "': Premature end of JPEG file");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(RasterFileFailures, LyingHeadersFailUnderTheMemoryLimit) {
    // A tiled TIFF that says 60000x60000 and holds no tiles.
    std::string const path = temporary("lying.tif");
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, 60000u);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, 60000u);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tif, TIFFTAG_TILEWIDTH, 1024u);
    TIFFSetField(tif, TIFFTAG_TILELENGTH, 1024u);
    TIFFWriteCheck(tif, 1, "test");
    TIFFWriteDirectory(tif);
    TIFFClose(tif);

    unsigned long long const limit = memory_limit(), before = memory_in_use();
    set_memory_limit(before + (64u << 20));
    EXPECT_EQ(code_of([&] { read_image_file(path); }), ErrorCode::memory_limit);
    EXPECT_EQ(code_of([&] { read_mask_file(path); }), ErrorCode::memory_limit);
    EXPECT_EQ(memory_in_use(), before);
    set_memory_limit(limit);
}

TEST(RasterFileFailures, BigTiffOnlyPastFourGigabytes) {
    PixelFormat const gray8{Depth::u8, Colour::gray};
    EXPECT_FALSE(detail::tiff_needs_big_format(rgb8, {1000, 1000}));
    EXPECT_FALSE(detail::tiff_needs_big_format(gray8, {65535, 65000}));
    EXPECT_TRUE(detail::tiff_needs_big_format(gray8, {65535, 65535}));
    EXPECT_TRUE(
        detail::tiff_needs_big_format(PixelFormat{Depth::f32, Colour::cmyk}, {20000, 20000}));
}

}  // namespace
}  // namespace WM::host::test
