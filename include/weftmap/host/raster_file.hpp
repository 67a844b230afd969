// Image files streamed a band of rows at a time: a reader that learns a
// file's size and pixel format from its header and then hands out its rows
// in order, and a writer that takes rows in order. Memory stays bounded by a
// band (a row of tiles for tiled TIFF files; the whole picture only for
// interlaced PNG files, whose rows arrive in several passes).
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

#include <memory>
#include <string>
#include <vector>

namespace WM::host {

enum class FileFormat { png, jpeg, tiff };

// "PNG", "JPEG" or "TIFF".
WEFTMAP_HOST_API char const* format_name(FileFormat format);

// What a reader or writer found worth telling but not worth failing for
// (an alpha channel dropped, a decoder's complaint), one sentence each.
using Warnings = std::vector<std::string>;

// The nearest pixel format a file format holds: CMYK becomes RGB and float
// 16 bits in PNG, every depth 8 bits in JPEG; TIFF holds all nine.
WEFTMAP_HOST_API PixelFormat stored_format(FileFormat file, PixelFormat format);

namespace detail {
class RowDecoder;
class RowEncoder;
class OutputSink;
}  // namespace detail

class WEFTMAP_HOST_API RasterReader {
public:
    // Opens a PNG, JPEG or TIFF file (told by its first bytes) and reads its
    // header only. Throws Error (invalid_input) with a readable sentence for
    // missing, unreadable, damaged or unsupported files. Warnings (an alpha
    // channel dropped, a decoder's complaint) are appended to `warnings`,
    // which must outlive the reader, or dropped when it is null.
    explicit RasterReader(std::string const& path, Warnings* warnings = nullptr);
    ~RasterReader();
    RasterReader(RasterReader&&) noexcept;
    RasterReader& operator=(RasterReader&&) noexcept;

    std::string const& path() const { return path_; }
    FileFormat file_format() const { return file_format_; }
    Size size() const { return size_; }
    // The pixel format that fits the file; rows come in it unless the
    // band asks for another.
    PixelFormat format() const { return format_; }
    // Rows handed out so far; the next band starts here.
    std::ptrdiff_t row() const { return row_; }

    // Decodes the next band.height rows into `band`, whose width is the
    // picture's. A band of another pixel format or with gaps between its
    // pixels is converted (see convert). Throws Error: invalid_input for a
    // damaged file or a band that does not fit, memory_limit when the
    // decoder's buffers pass the memory limit.
    void read_rows(ImageView const& band);

private:
    std::string path_;
    FileFormat file_format_ = FileFormat::png;
    Size size_;
    PixelFormat format_;
    std::ptrdiff_t row_ = 0;
    std::unique_ptr<detail::RowDecoder> decoder_;
};

class WEFTMAP_HOST_API RasterWriter {
public:
    // Creates (or empties) `path` for a picture of `size` whose rows come in
    // `format`; the file holds stored_format(file, format). Failures throw
    // Error (output_failed) naming `shown_name`. A writer destroyed before
    // finish() leaves an incomplete file behind: write into an OutputFile's
    // temporary to keep an older file intact.
    RasterWriter(std::string const& path, std::string const& shown_name, FileFormat file,
                 PixelFormat format, Size size, Warnings* warnings = nullptr);
    ~RasterWriter();
    RasterWriter(RasterWriter&&) noexcept;
    RasterWriter& operator=(RasterWriter&&) noexcept;

    FileFormat file_format() const { return file_format_; }
    Size size() const { return size_; }
    PixelFormat stored_format() const { return stored_; }
    // "8-bit RGB PNG".
    std::string description() const;
    std::ptrdiff_t row() const { return row_; }

    // Encodes the next band.height rows; `band` is the picture's width and
    // of any pixel format (converted as needed).
    void write_rows(ConstImageView const& band);
    // After the last row: writes the file's end, then flushes, syncs and
    // closes it. Any failure, a full disk or a file-size limit included,
    // throws Error (output_failed); no truncated file passes as written.
    void finish();

private:
    FileFormat file_format_ = FileFormat::png;
    Size size_;
    PixelFormat stored_;
    std::ptrdiff_t row_ = 0;
    std::unique_ptr<detail::OutputSink> sink_;
    std::unique_ptr<detail::RowEncoder> encoder_;
};

}  // namespace WM::host
