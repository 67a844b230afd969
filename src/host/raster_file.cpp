#include "file_io.hpp"
#include "raster_codec.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/raster_file.hpp>
#include <weftmap/host/runtime.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace WM::host {
namespace {

using detail::bad_input;
using detail::FilePointer;
using detail::quoted;

// Opens `path` and tells its format from the first bytes, leaving the file
// at its start.
FileFormat open_and_sniff(std::string const& path, FilePointer& file) {
    errno = 0;
    file.reset(std::fopen(path.c_str(), "rbe"));
    if (!file) bad_input("cannot open " + quoted(path) + ": " + std::strerror(errno));
    unsigned char b[8] = {};
    std::size_t const n = std::fread(b, 1, sizeof b, file.get());
    if (std::ferror(file.get()))
        bad_input("cannot read " + quoted(path) + ": " + std::strerror(errno));
    if (n == 0) bad_input(quoted(path) + " is empty");
    if (std::fseek(file.get(), 0, SEEK_SET) != 0)
        bad_input("cannot read " + quoted(path) + ": " + std::strerror(errno));
    if (n == 8 && std::memcmp(b, "\x89PNG\r\n\x1a\n", 8) == 0) return FileFormat::png;
    if (n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF) return FileFormat::jpeg;
    // Classic (42) and big (43) TIFF, either byte order.
    if (n >= 4 && ((b[0] == 'I' && b[1] == 'I' && (b[2] == 42 || b[2] == 43) && b[3] == 0) ||
                   (b[0] == 'M' && b[1] == 'M' && b[2] == 0 && (b[3] == 42 || b[3] == 43))))
        return FileFormat::tiff;
    bad_input(quoted(path) + " is not a PNG, JPEG or TIFF file");
}

// Rows of a conversion buffer: about a megabyte, at least one row.
std::ptrdiff_t buffer_rows(std::size_t row_bytes, std::ptrdiff_t wanted) {
    std::size_t const rows = std::max<std::size_t>(1, (std::size_t(1) << 20) / row_bytes);
    return std::min<std::ptrdiff_t>(wanted, std::ptrdiff_t(rows));
}

// Rows the codecs take as they are: the right format, pixels side by side.
bool is_packed_as(ConstImageView const& view, PixelFormat format) {
    return view.format == format && view.pixel_stride == format.pixel_bytes();
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

PixelFormat stored_format(FileFormat file, PixelFormat format) {
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

// ---- reading

RasterReader::RasterReader(std::string const& path, Warnings* warnings) : path_(path) {
    ensure_library();
    FilePointer file;
    file_format_ = open_and_sniff(path_, file);
    detail::DecoderSource const source{file.get(), path_, warnings};
    switch (file_format_) {
        case FileFormat::png:
            decoder_ = detail::open_png_decoder(source);
            break;
        case FileFormat::jpeg:
            decoder_ = detail::open_jpeg_decoder(source);
            break;
        case FileFormat::tiff:
            // libtiff opens the file by name.
            file.reset();
            decoder_ = detail::open_tiff_decoder(source);
            break;
    }
    decoder_->file = std::move(file);
    size_ = decoder_->size;
    format_ = decoder_->format;
}

RasterReader::~RasterReader() = default;
RasterReader::RasterReader(RasterReader&&) noexcept = default;
RasterReader& RasterReader::operator=(RasterReader&&) noexcept = default;

void RasterReader::read_rows(ImageView const& band) {
    if (!decoder_)
        bad_input("cannot read " + quoted(path_) + " further: it failed before or was moved away");
    if (band.width != size_.width || band.height < 0 || band.height > size_.height - row_)
        bad_input("cannot read " + size_text(band.size()) + " pixels from row " +
                  std::to_string(row_) + " of " + quoted(path_) + ", which is " + size_text(size_));
    try {
        if (is_packed_as(band, format_)) {
            decoder_->read(band.data, band.row_stride, band.height);
        } else {
            std::size_t const row_bytes = std::size_t(size_.width) * format_.pixel_bytes();
            std::ptrdiff_t const rows = buffer_rows(row_bytes, band.height);
            detail::CountedBytes buffer;
            detail::resize_counted(buffer, row_bytes * std::size_t(rows));
            for (std::ptrdiff_t y = 0; y < band.height; y += rows) {
                std::ptrdiff_t const n = std::min(rows, band.height - y);
                decoder_->read(buffer.data(), std::ptrdiff_t(row_bytes), n);
                convert(ConstImageView(buffer.data(), format_, size_.width, n),
                        band.crop(0, y, size_.width, n));
            }
        }
    } catch (...) {
        // A decoder that failed halfway cannot go on.
        decoder_.reset();
        throw;
    }
    row_ += band.height;
}

// ---- writing

RasterWriter::RasterWriter(std::string const& path, std::string const& shown_name, FileFormat file,
                           PixelFormat format, Size size, Warnings* warnings)
    : file_format_(file), size_(size), stored_(host::stored_format(file, format)) {
    ensure_library();
    auto const refuse = [&](std::string const& why) {
        throw Error(ErrorCode::output_failed, "cannot write " + quoted(shown_name) + ": " + why);
    };
    if (size.width <= 0 || size.height <= 0)
        refuse("a picture of " + size_text(size) + " pixels has nothing to write");
    if (file == FileFormat::jpeg &&
        (size.width > detail::jpeg_max_side || size.height > detail::jpeg_max_side))
        refuse("JPEG files hold at most " + std::to_string(detail::jpeg_max_side) +
               " pixels a side");
    if (size.width > 0x7fffffff || size.height > 0x7fffffff)
        refuse("a picture of " + size_text(size) + " pixels is too large for one file");
    sink_ = std::make_unique<detail::OutputSink>(path, shown_name);
    switch (file) {
        case FileFormat::png:
            encoder_ = detail::open_png_encoder(*sink_, stored_, size_, warnings);
            break;
        case FileFormat::jpeg:
            encoder_ = detail::open_jpeg_encoder(*sink_, stored_, size_, warnings);
            break;
        case FileFormat::tiff:
            encoder_ = detail::open_tiff_encoder(*sink_, stored_, size_, warnings);
            break;
    }
}

RasterWriter::~RasterWriter() = default;
RasterWriter::RasterWriter(RasterWriter&&) noexcept = default;
RasterWriter& RasterWriter::operator=(RasterWriter&&) noexcept = default;

std::string RasterWriter::description() const {
    return format_name(stored_) + " " + format_name(file_format_);
}

void RasterWriter::write_rows(ConstImageView const& band) {
    if (!encoder_)
        throw Error(ErrorCode::output_failed,
                    "cannot write " + quoted(sink_ ? sink_->shown_name() : std::string()) +
                        " further: it failed before, was finished or was moved away");
    if (band.width != size_.width || band.height < 0 || band.height > size_.height - row_)
        throw Error(ErrorCode::output_failed, "cannot write " + size_text(band.size()) +
                                                  " pixels from row " + std::to_string(row_) +
                                                  " of " + quoted(sink_->shown_name()) +
                                                  ", which is " + size_text(size_));
    try {
        if (is_packed_as(band, stored_)) {
            encoder_->write(band.data, band.row_stride, band.height);
        } else {
            std::size_t const row_bytes = std::size_t(size_.width) * stored_.pixel_bytes();
            std::ptrdiff_t const rows = buffer_rows(row_bytes, band.height);
            detail::CountedBytes buffer;
            detail::resize_counted(buffer, row_bytes * std::size_t(rows));
            for (std::ptrdiff_t y = 0; y < band.height; y += rows) {
                std::ptrdiff_t const n = std::min(rows, band.height - y);
                convert(band.crop(0, y, size_.width, n),
                        ImageView(buffer.data(), stored_, size_.width, n));
                encoder_->write(buffer.data(), std::ptrdiff_t(row_bytes), n);
            }
        }
    } catch (...) {
        encoder_.reset();
        throw;
    }
    row_ += band.height;
}

void RasterWriter::finish() {
    if (!encoder_)
        throw Error(ErrorCode::output_failed,
                    "cannot write " + quoted(sink_ ? sink_->shown_name() : std::string()) +
                        ": it failed before, was finished or was moved away");
    if (row_ != size_.height)
        throw Error(ErrorCode::output_failed,
                    "cannot write " + quoted(sink_->shown_name()) + ": " + std::to_string(row_) +
                        " of its " + std::to_string(size_.height) + " rows were given");
    try {
        encoder_->finish();
        encoder_.reset();
        sink_->finish();
    } catch (...) {
        encoder_.reset();
        throw;
    }
}

}  // namespace WM::host
