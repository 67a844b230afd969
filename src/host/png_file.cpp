// PNG files through libpng, a row at a time. libpng reports failures by
// longjmp: every setjmp below sits in a small function whose frame holds no
// object with a destructor, and the C++ side turns its result into Error.
#include "file_io.hpp"
#include "raster_codec.hpp"

#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <new>
#include <vector>

namespace WM::host::detail {
namespace {

// What the callbacks and the setjmp frames share: plain data only.
struct PngState {
    png_structp png = nullptr;
    png_infop info = nullptr;
    char message[256] = {};
    Warnings* warnings = nullptr;
    std::string const* name = nullptr;
    OutputSink* sink = nullptr;
};

constexpr bool little_endian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

extern "C" void png_failed(png_structp png, png_const_charp text) {
    auto* s = static_cast<PngState*>(png_get_error_ptr(png));
    std::snprintf(s->message, sizeof s->message, "%s", text);
    png_longjmp(png, 1);
}

extern "C" void png_warned(png_structp png, png_const_charp text) {
    auto* s = static_cast<PngState*>(png_get_error_ptr(png));
    add_warning(s->warnings, *s->name, text);
}

extern "C" void png_put(png_structp png, png_bytep data, std::size_t size) {
    auto* s = static_cast<PngState*>(png_get_io_ptr(png));
    if (!s->sink->write(data, size)) png_error(png, "write failed");
}

// The sink is flushed, synced and closed once, at the end.
extern "C" void png_flush_nothing(png_structp) {}

// The library's structures, released even when a constructor throws.
// Lives at a fixed address: libpng keeps a pointer to its state.
class PngHandle {
public:
    PngHandle(bool writing, std::string const& name, Warnings* warnings) : writing_(writing) {
        s.name = &name;
        s.warnings = warnings;
        s.png = writing ? png_create_write_struct(PNG_LIBPNG_VER_STRING, &s, png_failed, png_warned)
                        : png_create_read_struct(PNG_LIBPNG_VER_STRING, &s, png_failed, png_warned);
        if (s.png != nullptr) s.info = png_create_info_struct(s.png);
        if (s.info == nullptr) {
            release();
            throw std::bad_alloc();
        }
    }
    ~PngHandle() { release(); }
    PngHandle(PngHandle const&) = delete;
    PngHandle& operator=(PngHandle const&) = delete;

    PngState s;

private:
    void release() {
        if (s.png == nullptr) return;
        if (writing_)
            png_destroy_write_struct(&s.png, &s.info);
        else
            png_destroy_read_struct(&s.png, &s.info, nullptr);
    }

    bool writing_;
};

// ---- reading

struct PngHeader {
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    bool alpha = false;
    bool interlaced = false;
    // After the transformations: what the rows hold.
    int channels = 0;
    int bit_depth = 0;
    std::size_t row_bytes = 0;
};

// Reads the header and sets up the transformations that turn every PNG
// into 8- or 16-bit gray or RGB: palettes and small gray depths expand to
// 8 bits, alpha (a channel, or transparency from tRNS, which the palette
// expansion turns into one) is stripped, 16-bit samples come in the
// machine's byte order.
bool png_read_header(PngState* s, std::FILE* file, PngHeader* h) {
    if (setjmp(png_jmpbuf(s->png))) return false;
    png_init_io(s->png, file);
    // Any size a header may state: the caller decides what it can hold.
    png_set_user_limits(s->png, 0x7fffffff, 0x7fffffff);
    png_read_info(s->png, s->info);
    int const colour_type = png_get_color_type(s->png, s->info);
    int const depth = png_get_bit_depth(s->png, s->info);
    h->width = png_get_image_width(s->png, s->info);
    h->height = png_get_image_height(s->png, s->info);
    h->alpha = (colour_type & PNG_COLOR_MASK_ALPHA) != 0 ||
               png_get_valid(s->png, s->info, PNG_INFO_tRNS) != 0;
    h->interlaced = png_get_interlace_type(s->png, s->info) != PNG_INTERLACE_NONE;
    if (colour_type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(s->png);
    if ((colour_type & PNG_COLOR_MASK_COLOR) == 0 && depth < 8)
        png_set_expand_gray_1_2_4_to_8(s->png);
    if (h->alpha) png_set_strip_alpha(s->png);
    if (depth == 16 && little_endian) png_set_swap(s->png);
    if (h->interlaced) png_set_interlace_handling(s->png);
    png_read_update_info(s->png, s->info);
    h->channels = png_get_channels(s->png, s->info);
    h->bit_depth = png_get_bit_depth(s->png, s->info);
    h->row_bytes = png_get_rowbytes(s->png, s->info);
    return true;
}

bool png_read_band(PngState* s, unsigned char* first, std::ptrdiff_t stride, std::ptrdiff_t count) {
    if (setjmp(png_jmpbuf(s->png))) return false;
    for (std::ptrdiff_t r = 0; r < count; ++r) png_read_row(s->png, first + r * stride, nullptr);
    return true;
}

bool png_read_all(PngState* s, png_bytepp rows) {
    if (setjmp(png_jmpbuf(s->png))) return false;
    png_read_image(s->png, rows);
    return true;
}

class PngDecoder final : public RowDecoder {
public:
    explicit PngDecoder(DecoderSource const& source)
        : name_(source.path), handle_(false, name_, source.warnings), s_(handle_.s) {
        PngHeader h;
        if (!png_read_header(&s_, source.file, &h)) fail();
        interlaced_ = h.interlaced;
        bool const fits =
            (h.channels == 1 || h.channels == 3) && (h.bit_depth == 8 || h.bit_depth == 16);
        size = {std::ptrdiff_t(h.width), std::ptrdiff_t(h.height)};
        format = {h.bit_depth == 16 ? Depth::u16 : Depth::u8,
                  h.channels == 1 ? Colour::gray : Colour::rgb};
        // Checked after the transformations, so that no row ever overruns.
        if (!fits || h.row_bytes != std::size_t(size.width) * format.pixel_bytes())
            bad_input(quoted(name_) + ": unsupported colour layout");
        if (h.alpha) add_note(s_.warnings, quoted(name_) + " has an alpha channel; it is ignored");
    }

    void read(unsigned char* first, std::ptrdiff_t stride, std::ptrdiff_t count) override {
        if (!interlaced_) {
            if (!png_read_band(&s_, first, stride, count)) fail();
            return;
        }
        // Interlaced rows arrive in seven passes over the whole picture, so
        // it is decoded whole: straight into the caller's rows when they
        // ask for all of it, else into a buffer counted against the limit.
        std::size_t const row_bytes = std::size_t(size.width) * format.pixel_bytes();
        if (next_row_ == 0 && count == size.height) {
            decode_whole(first, stride);
        } else {
            if (whole_.empty()) {
                resize_counted(whole_, row_bytes * std::size_t(size.height));
                decode_whole(whole_.data(), std::ptrdiff_t(row_bytes));
            }
            for (std::ptrdiff_t r = 0; r < count; ++r)
                std::copy_n(whole_.data() + (next_row_ + r) * row_bytes, row_bytes,
                            first + r * stride);
        }
        next_row_ += count;
    }

private:
    void decode_whole(unsigned char* first, std::ptrdiff_t stride) {
        std::vector<png_bytep> rows(static_cast<std::size_t>(size.height));
        for (std::ptrdiff_t y = 0; y < size.height; ++y) rows[y] = first + y * stride;
        if (!png_read_all(&s_, rows.data())) fail();
    }

    [[noreturn]] void fail() const { unreadable(name_, FileFormat::png, s_.message); }

    std::string name_;
    PngHandle handle_;
    PngState& s_;
    bool interlaced_ = false;
    std::ptrdiff_t next_row_ = 0;
    CountedBytes whole_;
};

// ---- writing

// Fast settings, measured on a 1200x800 photograph: zlib level 2 with the
// Up filter on every row encodes in a sixth of the time of libpng's
// defaults (level 6, filters chosen per row) for a file 2.7 % larger (25 %
// on a smooth synthetic picture). Level 1 saves another tenth of the time
// for up to 13 % more size; level 3 takes 40 % more time to save up to 9 %.
constexpr int png_level = 2;
constexpr int png_filters = PNG_FILTER_UP;

bool png_write_header(PngState* s, png_uint_32 width, png_uint_32 height, int depth,
                      int colour_type) {
    if (setjmp(png_jmpbuf(s->png))) return false;
    png_set_write_fn(s->png, s, png_put, png_flush_nothing);
    png_set_IHDR(s->png, s->info, width, height, depth, colour_type, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(s->png, png_level);
    png_set_filter(s->png, PNG_FILTER_TYPE_BASE, png_filters);
    png_write_info(s->png, s->info);
    if (depth == 16 && little_endian) png_set_swap(s->png);
    return true;
}

bool png_write_band(PngState* s, unsigned char const* first, std::ptrdiff_t stride,
                    std::ptrdiff_t count) {
    if (setjmp(png_jmpbuf(s->png))) return false;
    // libpng copies each row before filtering it; the caller's stay as they are.
    for (std::ptrdiff_t r = 0; r < count; ++r)
        png_write_row(s->png, const_cast<png_bytep>(first + r * stride));
    return true;
}

bool png_write_trailer(PngState* s) {
    if (setjmp(png_jmpbuf(s->png))) return false;
    png_write_end(s->png, nullptr);
    return true;
}

class PngEncoder final : public RowEncoder {
public:
    PngEncoder(OutputSink& sink, PixelFormat format, Size size, Warnings* warnings)
        : sink_(sink), handle_(true, sink.shown_name(), warnings), s_(handle_.s) {
        s_.sink = &sink;
        int const colour = format.colour == Colour::gray ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB;
        if (!png_write_header(&s_, png_uint_32(size.width), png_uint_32(size.height),
                              format.depth == Depth::u16 ? 16 : 8, colour))
            fail();
    }

    void write(unsigned char const* first, std::ptrdiff_t stride, std::ptrdiff_t count) override {
        if (!png_write_band(&s_, first, stride, count)) fail();
    }

    void finish() override {
        if (!png_write_trailer(&s_)) fail();
    }

private:
    [[noreturn]] void fail() const { sink_.fail(s_.message); }

    OutputSink& sink_;
    PngHandle handle_;
    PngState& s_;
};

}  // namespace

std::unique_ptr<RowDecoder> open_png_decoder(DecoderSource const& source) {
    return std::make_unique<PngDecoder>(source);
}

std::unique_ptr<RowEncoder> open_png_encoder(OutputSink& sink, PixelFormat format, Size size,
                                             Warnings* warnings) {
    return std::make_unique<PngEncoder>(sink, format, size, warnings);
}

}  // namespace WM::host::detail
