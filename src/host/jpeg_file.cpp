// JPEG files through libjpeg, by scanlines. libjpeg reports failures by
// calling error_exit, which longjmps back here: every setjmp sits in a small
// function whose frame holds no object with a destructor.
#include "file_io.hpp"
#include "raster_codec.hpp"

// jpeglib.h needs size_t and FILE declared first.
#include <cstddef>
#include <cstdio>

#include <jerror.h>
#include <jpeglib.h>

#include <weftmap/host/runtime.hpp>

#include <algorithm>
#include <csetjmp>
#include <cstdint>
#include <limits>
#include <new>

namespace WM::host::detail {
namespace {

// The error manager comes first, so that the library's pointer to it is a
// pointer to the whole state.
struct JpegState {
    jpeg_error_mgr errors = {};
    std::jmp_buf jump = {};
    char message[JMSG_LENGTH_MAX] = {};
    Warnings* warnings = nullptr;
    std::string const* name = nullptr;
};

JpegState* state_of(j_common_ptr info) {
    return reinterpret_cast<JpegState*>(info->err);
}

extern "C" void jpeg_failed(j_common_ptr info) {
    JpegState* s = state_of(info);
    info->err->format_message(info, s->message);
    std::longjmp(s->jump, 1);
}

// Warnings (level -1: damaged data the decoder works around) become the
// caller's warnings; trace messages are dropped. Nothing is printed.
extern "C" void jpeg_emitted(j_common_ptr info, int level) {
    if (level >= 0) return;
    JpegState* s = state_of(info);
    // A damaged file can warn once per block: the first few tell enough.
    if (info->err->num_warnings++ >= 3) return;
    char text[JMSG_LENGTH_MAX];
    info->err->format_message(info, text);
    add_warning(s->warnings, *s->name, text);
}

void set_up_errors(JpegState* s, std::string const& name, Warnings* warnings) {
    jpeg_std_error(&s->errors);
    s->errors.error_exit = jpeg_failed;
    s->errors.emit_message = jpeg_emitted;
    s->name = &name;
    s->warnings = warnings;
}

// ---- reading

// Released by its destructor, also when a decoder's constructor throws;
// the setjmp frames only ever hold a pointer to it.
struct JpegRead {
    JpegState s;
    jpeg_decompress_struct info = {};
    bool created = false;

    JpegRead() = default;
    JpegRead(JpegRead const&) = delete;
    JpegRead& operator=(JpegRead const&) = delete;
    ~JpegRead() {
        if (created) jpeg_destroy_decompress(&info);
    }
};

bool jpeg_read_header(JpegRead* r, std::FILE* file) {
    if (setjmp(r->s.jump)) return false;
    r->info.err = &r->s.errors;
    jpeg_create_decompress(&r->info);
    r->created = true;
    jpeg_stdio_src(&r->info, file);
    jpeg_read_header(&r->info, TRUE);
    switch (r->info.jpeg_color_space) {
        case JCS_GRAYSCALE:
            r->info.out_color_space = JCS_GRAYSCALE;
            break;
        case JCS_CMYK:
        case JCS_YCCK:
            r->info.out_color_space = JCS_CMYK;
            break;
        default:
            r->info.out_color_space = JCS_RGB;
            break;
    }
    jpeg_calc_output_dimensions(&r->info);
    return true;
}

bool jpeg_start_reading(JpegRead* r, long memory_budget) {
    if (setjmp(r->s.jump)) return false;
    // Progressive files keep every coefficient of the picture; past what the
    // memory limit leaves, the library fails instead of growing the process.
    if (memory_budget != 0) r->info.mem->max_memory_to_use = memory_budget;
    jpeg_start_decompress(&r->info);
    return true;
}

bool jpeg_read_band(JpegRead* r, unsigned char* first, std::ptrdiff_t stride,
                    std::ptrdiff_t count) {
    if (setjmp(r->s.jump)) return false;
    for (std::ptrdiff_t done = 0; done < count;) {
        JSAMPROW row = first + done * stride;
        JDIMENSION const n = jpeg_read_scanlines(&r->info, &row, 1);
        // Only past the last row; the reader never asks for that.
        if (n == 0) ERREXIT(&r->info, JERR_BAD_STATE);
        done += n;
    }
    return true;
}

class JpegDecoder final : public RowDecoder {
public:
    explicit JpegDecoder(DecoderSource const& source) : name_(source.path) {
        set_up_errors(&r_.s, name_, source.warnings);
        if (!jpeg_read_header(&r_, source.file)) fail();
        int const components = r_.info.out_color_components;
        Colour const colour = r_.info.out_color_space == JCS_GRAYSCALE ? Colour::gray
                              : r_.info.out_color_space == JCS_CMYK    ? Colour::cmyk
                                                                       : Colour::rgb;
        size = {std::ptrdiff_t(r_.info.output_width), std::ptrdiff_t(r_.info.output_height)};
        format = {Depth::u8, colour};
        if (components != format.channels() || r_.info.data_precision != 8)
            bad_input(quoted(name_) + ": unsupported JPEG colour space");
    }

    void read(unsigned char* first, std::ptrdiff_t stride, std::ptrdiff_t count) override {
        // Decoding starts with the first rows, after the caller has found
        // room for the picture: a progressive file is read whole here.
        if (!started_) {
            auto const most = static_cast<std::uint64_t>(std::numeric_limits<long>::max());
            long const budget = static_cast<long>(std::min(codec_memory_budget(), most));
            if (!jpeg_start_reading(&r_, budget)) fail();
            started_ = true;
        }
        if (!jpeg_read_band(&r_, first, stride, count)) fail();
    }

private:
    [[noreturn]] void fail() const {
        int const code = r_.s.errors.msg_code;
        if (code == JERR_OUT_OF_MEMORY || code == JERR_NO_BACKING_STORE) {
            if (memory_limit() == ~0ull)
                throw Error(ErrorCode::memory_limit, "out of memory to decode " + quoted(name_));
            throw Error(ErrorCode::memory_limit,
                        "the memory limit of " + std::to_string(memory_limit()) +
                            " bytes is too small to decode " + quoted(name_));
        }
        unreadable(name_, FileFormat::jpeg, r_.s.message);
    }

    std::string name_;
    JpegRead r_;
    bool started_ = false;
};

// ---- writing

constexpr int jpeg_quality = 95;
constexpr std::size_t jpeg_buffer_bytes = 1 << 16;

// The destination manager comes first, so that the library's pointer to it
// is a pointer to the whole.
struct JpegDestination {
    jpeg_destination_mgr manager = {};
    OutputSink* sink = nullptr;
    JOCTET buffer[jpeg_buffer_bytes];
};

extern "C" void jpeg_begin_output(j_compress_ptr info) {
    auto* d = reinterpret_cast<JpegDestination*>(info->dest);
    d->manager.next_output_byte = d->buffer;
    d->manager.free_in_buffer = jpeg_buffer_bytes;
}

extern "C" boolean jpeg_empty_output(j_compress_ptr info) {
    auto* d = reinterpret_cast<JpegDestination*>(info->dest);
    // The whole buffer, whatever free_in_buffer says (the library's rule).
    if (!d->sink->write(d->buffer, jpeg_buffer_bytes)) ERREXIT(info, JERR_FILE_WRITE);
    jpeg_begin_output(info);
    return TRUE;
}

extern "C" void jpeg_end_output(j_compress_ptr info) {
    auto* d = reinterpret_cast<JpegDestination*>(info->dest);
    std::size_t const used = jpeg_buffer_bytes - d->manager.free_in_buffer;
    if (!d->sink->write(d->buffer, used)) ERREXIT(info, JERR_FILE_WRITE);
}

struct JpegWrite {
    JpegState s;
    jpeg_compress_struct info = {};
    JpegDestination destination;
    bool created = false;

    JpegWrite() = default;
    JpegWrite(JpegWrite const&) = delete;
    JpegWrite& operator=(JpegWrite const&) = delete;
    ~JpegWrite() {
        if (created) jpeg_destroy_compress(&info);
    }
};

bool jpeg_write_header(JpegWrite* w, JDIMENSION width, JDIMENSION height, int components,
                       J_COLOR_SPACE colour_space) {
    if (setjmp(w->s.jump)) return false;
    w->info.err = &w->s.errors;
    jpeg_create_compress(&w->info);
    w->created = true;
    w->destination.manager.init_destination = jpeg_begin_output;
    w->destination.manager.empty_output_buffer = jpeg_empty_output;
    w->destination.manager.term_destination = jpeg_end_output;
    w->info.dest = &w->destination.manager;
    w->info.image_width = width;
    w->info.image_height = height;
    w->info.input_components = components;
    w->info.in_color_space = colour_space;
    jpeg_set_defaults(&w->info);
    jpeg_set_quality(&w->info, jpeg_quality, TRUE);
    jpeg_start_compress(&w->info, TRUE);
    return true;
}

bool jpeg_write_band(JpegWrite* w, unsigned char const* first, std::ptrdiff_t stride,
                     std::ptrdiff_t count) {
    if (setjmp(w->s.jump)) return false;
    for (std::ptrdiff_t done = 0; done < count;) {
        // The library only reads the rows.
        JSAMPROW row = const_cast<JSAMPROW>(first + done * stride);
        JDIMENSION const n = jpeg_write_scanlines(&w->info, &row, 1);
        if (n == 0) ERREXIT(&w->info, JERR_BAD_STATE);
        done += n;
    }
    return true;
}

bool jpeg_write_trailer(JpegWrite* w) {
    if (setjmp(w->s.jump)) return false;
    jpeg_finish_compress(&w->info);
    return true;
}

class JpegEncoder final : public RowEncoder {
public:
    JpegEncoder(OutputSink& sink, PixelFormat format, Size size, Warnings* warnings)
        : sink_(sink), w_(new JpegWrite) {
        set_up_errors(&w_->s, sink.shown_name(), warnings);
        w_->destination.sink = &sink;
        J_COLOR_SPACE const space = format.colour == Colour::gray  ? JCS_GRAYSCALE
                                    : format.colour == Colour::rgb ? JCS_RGB
                                                                   : JCS_CMYK;
        if (!jpeg_write_header(w_.get(), JDIMENSION(size.width), JDIMENSION(size.height),
                               format.channels(), space))
            fail();
    }

    void write(unsigned char const* first, std::ptrdiff_t stride, std::ptrdiff_t count) override {
        if (!jpeg_write_band(w_.get(), first, stride, count)) fail();
    }

    void finish() override {
        if (!jpeg_write_trailer(w_.get())) fail();
    }

private:
    [[noreturn]] void fail() const { sink_.fail(w_->s.message); }

    OutputSink& sink_;
    // On the heap: the destination buffer is large.
    std::unique_ptr<JpegWrite> w_;
};

}  // namespace

std::unique_ptr<RowDecoder> open_jpeg_decoder(DecoderSource const& source) {
    return std::make_unique<JpegDecoder>(source);
}

std::unique_ptr<RowEncoder> open_jpeg_encoder(OutputSink& sink, PixelFormat format, Size size,
                                              Warnings* warnings) {
    static_assert(JPEG_MAX_DIMENSION == jpeg_max_side);
    return std::make_unique<JpegEncoder>(sink, format, size, warnings);
}

}  // namespace WM::host::detail
