// What the streamed reader and writer ask of each file format: a decoder
// that fills packed rows of its own pixel format, an encoder that takes
// them. One implementation per format (png_file.cpp, jpeg_file.cpp,
// tiff_file.cpp); calls are per band, never per pixel.
#pragma once

#include <weftmap/host/raster_file.hpp>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace WM::host::detail {

class OutputSink;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePointer = std::unique_ptr<std::FILE, FileCloser>;

class RowDecoder {
public:
    virtual ~RowDecoder() = default;
    // Filled by the format's opener from the header.
    Size size;
    PixelFormat format;
    // The file the decoder reads, closed after the decoder's own state.
    FilePointer file;
    // Decodes the next `count` rows, row r to first + r * stride, pixels
    // packed in `format`. Throws Error.
    virtual void read(unsigned char* first, std::ptrdiff_t stride, std::ptrdiff_t count) = 0;
};

class RowEncoder {
public:
    virtual ~RowEncoder() = default;
    // The next `count` rows, packed pixels of the stored format.
    virtual void write(unsigned char const* first, std::ptrdiff_t stride, std::ptrdiff_t count) = 0;
    // The file's end, after the last row; the sink is finished afterwards.
    virtual void finish() = 0;
};

// What an opener gets: the file, positioned at its start (the TIFF opener
// reads by name instead), the name for messages and where warnings go.
struct DecoderSource {
    std::FILE* file = nullptr;
    std::string const& path;
    Warnings* warnings = nullptr;
};

std::unique_ptr<RowDecoder> open_png_decoder(DecoderSource const& source);
std::unique_ptr<RowDecoder> open_jpeg_decoder(DecoderSource const& source);
std::unique_ptr<RowDecoder> open_tiff_decoder(DecoderSource const& source);

// `format` is one the file format holds (stored_format). Writes the header.
std::unique_ptr<RowEncoder> open_png_encoder(OutputSink& sink, PixelFormat format, Size size,
                                             Warnings* warnings);
std::unique_ptr<RowEncoder> open_jpeg_encoder(OutputSink& sink, PixelFormat format, Size size,
                                              Warnings* warnings);
std::unique_ptr<RowEncoder> open_tiff_encoder(OutputSink& sink, PixelFormat format, Size size,
                                              Warnings* warnings);

// The largest side a JPEG file holds.
inline constexpr std::ptrdiff_t jpeg_max_side = 65500;

// True when an uncompressed TIFF of this size passes the 4 GiB that
// classic TIFF offsets reach, so that it must be written as BigTIFF.
// Exported for the kit's tests only.
WEFTMAP_HOST_API bool tiff_needs_big_format(PixelFormat format, Size size);

}  // namespace WM::host::detail
