// TIFF files through libtiff: read by scanlines (contiguous strips) or by
// blocks (tiles, or strips of separate planes) through a buffer of one row
// of blocks; written uncompressed in strips, as BigTIFF past 4 GiB. libtiff
// reports through handlers given to each file, which keep the message.
#include "file_io.hpp"
#include "raster_codec.hpp"

#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace WM::host::detail {
namespace {

struct TiffMessages {
    char error[512] = {};
    Warnings* warnings = nullptr;
    std::string const* name = nullptr;
    int warning_count = 0;
};

// "module: text", without a module that only repeats the file's name.
void format_message(char* out, std::size_t room, TiffMessages const* m, char const* module,
                    char const* format, va_list args) {
    char text[400];
    std::vsnprintf(text, sizeof text, format, args);
    if (module != nullptr && module[0] != '\0' && *m->name != module)
        std::snprintf(out, room, "%s: %s", module, text);
    else
        std::snprintf(out, room, "%s", text);
}

// Returning 1 keeps the library's process-wide handlers, which print on
// standard error, out of it.
extern "C" int tiff_error(TIFF*, void* user, char const* module, char const* format, va_list args) {
    auto* m = static_cast<TiffMessages*>(user);
    format_message(m->error, sizeof m->error, m, module, format, args);
    return 1;
}

extern "C" int tiff_warning(TIFF*, void* user, char const* module, char const* format,
                            va_list args) {
    auto* m = static_cast<TiffMessages*>(user);
    // Unknown tags and the like can come by the dozen: a few tell enough.
    if (m->warning_count++ < 3) {
        char text[512];
        format_message(text, sizeof text, m, module, format, args);
        add_warning(m->warnings, *m->name, text);
    }
    return 1;
}

// The open options: the handlers, and a cap on single allocations under
// the memory limit.
class TiffOptions {
public:
    explicit TiffOptions(TiffMessages* messages) : options_(TIFFOpenOptionsAlloc()) {
        if (options_ == nullptr) throw std::bad_alloc();
        TIFFOpenOptionsSetErrorHandlerExtR(options_, tiff_error, messages);
        TIFFOpenOptionsSetWarningHandlerExtR(options_, tiff_warning, messages);
        if (std::uint64_t const budget = codec_memory_budget(); budget != 0)
            TIFFOpenOptionsSetMaxSingleMemAlloc(
                options_, static_cast<tmsize_t>(std::min<std::uint64_t>(budget, INT64_MAX)));
    }
    ~TiffOptions() { TIFFOpenOptionsFree(options_); }
    TiffOptions(TiffOptions const&) = delete;
    TiffOptions& operator=(TiffOptions const&) = delete;
    TIFFOpenOptions* get() const { return options_; }

private:
    TIFFOpenOptions* options_;
};

class TiffHandle {
public:
    TiffHandle() = default;
    ~TiffHandle() { close(); }
    TiffHandle(TiffHandle const&) = delete;
    TiffHandle& operator=(TiffHandle const&) = delete;

    void reset(TIFF* tif) {
        close();
        tif_ = tif;
    }
    void close() {
        if (tif_ != nullptr) TIFFClose(tif_);
        tif_ = nullptr;
    }
    TIFF* get() const { return tif_; }

private:
    TIFF* tif_ = nullptr;
};

template <class T>
T field_or(TIFF* tif, ttag_t tag, T fallback) {
    T value = fallback;
    return TIFFGetFieldDefaulted(tif, tag, &value) == 1 ? value : fallback;
}

// ---- reading

class TiffDecoder final : public RowDecoder {
public:
    explicit TiffDecoder(DecoderSource const& source) : name_(source.path) {
        messages_.name = &name_;
        messages_.warnings = source.warnings;
        TiffOptions const options(&messages_);
        // "m": no memory mapping, so that a file cut short while it is read
        // fails a read instead of raising SIGBUS.
        tif_.reset(TIFFOpenExt(name_.c_str(), "rm", options.get()));
        if (tif_.get() == nullptr) fail();
        read_header();
    }

    void read(unsigned char* first, std::ptrdiff_t stride, std::ptrdiff_t count) override {
        for (std::ptrdiff_t r = 0; r < count; ++r, ++next_row_) {
            unsigned char* to = first + r * stride;
            if (blocks_)
                copy_block_row(to);
            else
                read_scanline(to);
        }
    }

private:
    [[noreturn]] void fail() const { unreadable(name_, FileFormat::tiff, messages_.error); }

    void read_header() {
        TIFF* tif = tif_.get();
        std::uint32_t width = 0, height = 0;
        TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width);
        TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height);
        samples_ = field_or<std::uint16_t>(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
        int const bits = field_or<std::uint16_t>(tif, TIFFTAG_BITSPERSAMPLE, 1);
        int const sample_format =
            field_or<std::uint16_t>(tif, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
        std::uint16_t photometric = 0;
        if (TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric) != 1)
            photometric = samples_ >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
        separate_ = field_or<std::uint16_t>(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) ==
                    PLANARCONFIG_SEPARATE;

        Colour colour = Colour::gray;
        switch (photometric) {
            case PHOTOMETRIC_MINISBLACK:
                colour = Colour::gray;
                break;
            case PHOTOMETRIC_RGB:
                colour = Colour::rgb;
                break;
            case PHOTOMETRIC_SEPARATED:
                colour = Colour::cmyk;
                break;
            case PHOTOMETRIC_YCBCR:
                // The JPEG codec converts to RGB itself; other YCbCr stays out.
                if (field_or<std::uint16_t>(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE) ==
                    COMPRESSION_JPEG) {
                    TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
                    colour = Colour::rgb;
                    break;
                }
                [[fallthrough]];
            default:
                bad_input(quoted(name_) +
                          ": only gray (black is zero), RGB and CMYK TIFF files are supported");
        }
        bool const is_float = sample_format == SAMPLEFORMAT_IEEEFP;
        bool const is_unsigned =
            sample_format == SAMPLEFORMAT_UINT || sample_format == SAMPLEFORMAT_VOID;
        Depth depth = Depth::u8;
        if (bits == 8 && is_unsigned)
            depth = Depth::u8;
        else if (bits == 16 && is_unsigned)
            depth = Depth::u16;
        else if (bits == 32 && is_float)
            depth = Depth::f32;
        else
            bad_input(quoted(name_) + ": " + std::to_string(bits) + "-bit " +
                      (is_float ? "float" : "integer") +
                      " samples are not supported (use 8-bit, 16-bit or 32-bit float)");
        format = {depth, colour};
        size = {std::ptrdiff_t(width), std::ptrdiff_t(height)};
        if (size.width <= 0 || size.height <= 0) bad_input(quoted(name_) + " has no pixels");
        int const extra = samples_ - format.channels();
        if (extra < 0)
            bad_input(quoted(name_) + ": " + std::to_string(samples_) +
                      " samples per pixel do not fit its colour space");
        if (extra == 1)
            add_note(messages_.warnings, quoted(name_) + " has an alpha channel; it is ignored");
        if (extra > 1)
            add_note(messages_.warnings, quoted(name_) + " has " + std::to_string(extra) +
                                             " extra channels; they are ignored");
        sample_bytes_ = format.channel_bytes();

        if (TIFFIsTiled(tif)) {
            std::uint32_t tile_width = 0, tile_height = 0;
            TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tile_width);
            TIFFGetField(tif, TIFFTAG_TILELENGTH, &tile_height);
            if (tile_width == 0 || tile_height == 0)
                bad_input(quoted(name_) + ": tiles of no size");
            set_up_blocks(tile_width, tile_height, TIFFTileSize(tif));
        } else if (separate_) {
            std::uint32_t rows = field_or<std::uint32_t>(tif, TIFFTAG_ROWSPERSTRIP, height);
            set_up_blocks(width, std::clamp<std::uint32_t>(rows, 1, height), TIFFStripSize(tif));
        } else {
            tmsize_t const line = TIFFScanlineSize(tif);
            if (line <= 0) fail();
            // The decoder fills a whole file row; without extra samples that
            // is exactly the caller's row.
            if (extra != 0 || std::size_t(line) != file_row_bytes())
                resize_counted(line_, std::size_t(line));
        }
    }

    std::size_t file_row_bytes() const {
        return std::size_t(size.width) * std::size_t(samples_) * std::size_t(sample_bytes_);
    }

    void set_up_blocks(std::uint32_t width, std::uint32_t height, tmsize_t block_bytes) {
        if (block_bytes <= 0) fail();
        blocks_ = true;
        block_width_ = width;
        block_height_ = height;
        resize_counted(block_, std::size_t(block_bytes));
        resize_counted(block_row_, std::size_t(size.width) * std::size_t(format.pixel_bytes()) *
                                       std::min<std::size_t>(height, std::size_t(size.height)));
    }

    void read_scanline(unsigned char* to) {
        unsigned char* target = line_.empty() ? to : line_.data();
        if (TIFFReadScanline(tif_.get(), target, std::uint32_t(next_row_), 0) < 0) fail();
        if (!line_.empty()) keep_channels(line_.data(), samples_, to, size.width);
    }

    // From pixels of `samples` samples to the kit's pixels, which keep the
    // first channels.
    void keep_channels(unsigned char const* from, int samples, unsigned char* to,
                       std::ptrdiff_t count) const {
        std::size_t const in = std::size_t(samples) * sample_bytes_;
        std::size_t const out = std::size_t(format.pixel_bytes());
        if (in == out) {
            std::memcpy(to, from, out * count);
            return;
        }
        for (std::ptrdiff_t x = 0; x < count; ++x) std::memcpy(to + x * out, from + x * in, out);
    }

    void copy_block_row(unsigned char* to) {
        std::ptrdiff_t const band = next_row_ / block_height_;
        if (band != loaded_band_) load_band(band);
        std::size_t const row_bytes = std::size_t(size.width) * format.pixel_bytes();
        std::ptrdiff_t const r = next_row_ - band * std::ptrdiff_t(block_height_);
        std::memcpy(to, block_row_.data() + r * row_bytes, row_bytes);
    }

    // Decodes the row of blocks `band` into block_row_, in the kit's pixels.
    void load_band(std::ptrdiff_t band) {
        TIFF* tif = tif_.get();
        std::uint32_t const y0 = std::uint32_t(band) * block_height_;
        std::ptrdiff_t const rows =
            std::min<std::ptrdiff_t>(block_height_, size.height - std::ptrdiff_t(y0));
        std::size_t const pixel = std::size_t(format.pixel_bytes());
        std::size_t const row_bytes = std::size_t(size.width) * pixel;
        // Planes past the colour channels (alpha) are never read.
        int const planes = separate_ ? format.channels() : 1;
        int const block_samples = separate_ ? 1 : samples_;
        std::size_t const block_row_bytes =
            std::size_t(block_width_) * block_samples * sample_bytes_;
        for (std::uint32_t x0 = 0; x0 < std::uint32_t(size.width); x0 += block_width_) {
            std::ptrdiff_t const columns =
                std::min<std::ptrdiff_t>(block_width_, size.width - std::ptrdiff_t(x0));
            for (int plane = 0; plane < planes; ++plane) {
                tmsize_t const got =
                    TIFFIsTiled(tif)
                        ? TIFFReadEncodedTile(tif, TIFFComputeTile(tif, x0, y0, 0, plane),
                                              block_.data(), tmsize_t(block_.size()))
                        : TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, y0, plane), block_.data(),
                                               tmsize_t(block_.size()));
                if (got < 0) fail();
                for (std::ptrdiff_t r = 0; r < rows; ++r) {
                    unsigned char const* from = block_.data() + r * block_row_bytes;
                    unsigned char* to = block_row_.data() + r * row_bytes + x0 * pixel;
                    if (!separate_) {
                        keep_channels(from, samples_, to, columns);
                        continue;
                    }
                    to += plane * sample_bytes_;
                    for (std::ptrdiff_t x = 0; x < columns; ++x)
                        std::memcpy(to + x * pixel, from + x * sample_bytes_, sample_bytes_);
                }
            }
        }
        loaded_band_ = band;
    }

    std::string name_;
    TiffMessages messages_;
    TiffHandle tif_;
    int samples_ = 1;
    int sample_bytes_ = 1;
    bool separate_ = false;
    bool blocks_ = false;
    std::uint32_t block_width_ = 0;
    std::uint32_t block_height_ = 1;
    std::ptrdiff_t loaded_band_ = -1;
    std::ptrdiff_t next_row_ = 0;
    CountedBytes line_;
    CountedBytes block_;
    CountedBytes block_row_;
};

// ---- writing

// Strips of about this size: few enough offsets for huge pictures, small
// enough for readers that load a strip at a time.
constexpr std::size_t tiff_strip_bytes = std::size_t(1) << 18;

std::uint32_t rows_per_strip(PixelFormat format, Size size) {
    std::size_t const row_bytes = std::size_t(size.width) * format.pixel_bytes();
    std::size_t const rows =
        std::max<std::size_t>(1, tiff_strip_bytes / std::max<std::size_t>(row_bytes, 1));
    return std::uint32_t(
        std::min<std::size_t>(rows, std::size_t(std::max<std::ptrdiff_t>(size.height, 1))));
}

extern "C" tmsize_t tiff_sink_read(thandle_t sink, void* data, tmsize_t size) {
    return static_cast<tmsize_t>(static_cast<OutputSink*>(sink)->read(data, std::size_t(size)));
}

extern "C" tmsize_t tiff_sink_write(thandle_t sink, void* data, tmsize_t size) {
    // Anything but `size` tells libtiff the write failed.
    return static_cast<OutputSink*>(sink)->write(data, std::size_t(size)) ? size : -1;
}

extern "C" toff_t tiff_sink_seek(thandle_t sink, toff_t offset, int whence) {
    std::int64_t const at =
        static_cast<OutputSink*>(sink)->seek(static_cast<std::int64_t>(offset), whence);
    return at < 0 ? static_cast<toff_t>(-1) : static_cast<toff_t>(at);
}

// The sink is closed by its owner, after a checked sync.
extern "C" int tiff_sink_close(thandle_t) {
    return 0;
}

extern "C" toff_t tiff_sink_size(thandle_t sink) {
    std::int64_t const size = static_cast<OutputSink*>(sink)->file_size();
    return size < 0 ? 0 : static_cast<toff_t>(size);
}

extern "C" int tiff_sink_map(thandle_t, void**, toff_t*) {
    return 0;
}

extern "C" void tiff_sink_unmap(thandle_t, void*, toff_t) {}

class TiffEncoder final : public RowEncoder {
public:
    TiffEncoder(OutputSink& sink, PixelFormat format, Size size, Warnings* warnings) : sink_(sink) {
        messages_.name = &sink.shown_name();
        messages_.warnings = warnings;
        TiffOptions const options(&messages_);
        char const* mode = tiff_needs_big_format(format, size) ? "w8" : "w";
        tif_.reset(TIFFClientOpenExt(
            sink.shown_name().c_str(), mode, &sink, tiff_sink_read, tiff_sink_write, tiff_sink_seek,
            tiff_sink_close, tiff_sink_size, tiff_sink_map, tiff_sink_unmap, options.get()));
        if (tif_.get() == nullptr) fail();
        TIFF* tif = tif_.get();
        std::uint16_t const photometric = format.colour == Colour::gray  ? PHOTOMETRIC_MINISBLACK
                                          : format.colour == Colour::rgb ? PHOTOMETRIC_RGB
                                                                         : PHOTOMETRIC_SEPARATED;
        bool const ok =
            TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, std::uint32_t(size.width)) &&
            TIFFSetField(tif, TIFFTAG_IMAGELENGTH, std::uint32_t(size.height)) &&
            TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, std::uint16_t(format.channels())) &&
            TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, std::uint16_t(8 * format.channel_bytes())) &&
            TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT,
                         std::uint16_t(format.depth == Depth::f32 ? SAMPLEFORMAT_IEEEFP
                                                                  : SAMPLEFORMAT_UINT)) &&
            TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, photometric) &&
            (format.colour != Colour::cmyk || TIFFSetField(tif, TIFFTAG_INKSET, INKSET_CMYK)) &&
            TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
            TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE) &&
            TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT) &&
            TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rows_per_strip(format, size));
        if (!ok) fail();
    }

    void write(unsigned char const* first, std::ptrdiff_t stride, std::ptrdiff_t count) override {
        for (std::ptrdiff_t r = 0; r < count; ++r, ++row_) {
            // Uncompressed rows of the machine's byte order are copied as
            // they are; the caller's stay untouched.
            void* row = const_cast<unsigned char*>(first + r * stride);
            if (TIFFWriteScanline(tif_.get(), row, std::uint32_t(row_), 0) < 0) fail();
        }
    }

    void finish() override {
        // Writes the last strip and the directory.
        if (TIFFFlush(tif_.get()) != 1 || sink_.failed()) fail();
        tif_.close();
    }

private:
    [[noreturn]] void fail() const { sink_.fail(messages_.error); }

    OutputSink& sink_;
    TiffMessages messages_;
    TiffHandle tif_;
    std::ptrdiff_t row_ = 0;
};

}  // namespace

bool tiff_needs_big_format(PixelFormat format, Size size) {
    std::uint64_t const data =
        std::uint64_t(size.width) * std::uint64_t(size.height) * format.pixel_bytes();
    std::uint64_t const strips = (std::uint64_t(size.height) + rows_per_strip(format, size) - 1) /
                                 rows_per_strip(format, size);
    // Offsets and byte counts of every strip, the directory and a margin.
    std::uint64_t const overhead = 8 * strips + 4096;
    return data + overhead > 0xFFFFFFFFull;
}

std::unique_ptr<RowDecoder> open_tiff_decoder(DecoderSource const& source) {
    return std::make_unique<TiffDecoder>(source);
}

std::unique_ptr<RowEncoder> open_tiff_encoder(OutputSink& sink, PixelFormat format, Size size,
                                              Warnings* warnings) {
    return std::make_unique<TiffEncoder>(sink, format, size, warnings);
}

}  // namespace WM::host::detail
