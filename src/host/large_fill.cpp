#include "disk_pyramid.hpp"
#include "dispatch.hpp"
#include "library_errors.hpp"
#include "pyramid_access.hpp"
#include "recomposer_settings.hpp"
#include "run_client.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/host/large_fill.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/host/synthesis.hpp>
#include <weftmap/image/memory.hpp>
#include <weftmap/recomposer/recomposer.hpp>
#include <weftmap/twopass/two_pass_synthesis.hpp>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <new>
#include <streambuf>

namespace WM::host {
namespace {

using detail::DiskPyramid;
using detail::RasterFile;
using detail::Rect;
using detail::Reduction;

// Shares of the job's progress: reading the mask and the picture, the two
// passes, writing the result.
constexpr float mask_share = 0.01f;
constexpr float picture_share = 0.04f;
constexpr float writing_share = 0.05f;
constexpr float synthesis_start = mask_share + picture_share;
constexpr float synthesis_share = 1.0f - synthesis_start - writing_share;

// Bands of rows read and written at a time: about this many bytes.
constexpr std::size_t band_bytes = std::size_t(4) << 20;

std::ptrdiff_t band_rows(Size size, PixelFormat format) {
    std::size_t const row = std::size_t(size.width) * format.pixel_bytes();
    return std::clamp<std::ptrdiff_t>(std::ptrdiff_t(band_bytes / std::max<std::size_t>(row, 1)), 1,
                                      size.height);
}

// The host's progress callback and cancel flag outside the library's run.
class Job {
public:
    explicit Job(Options const& options) : options_(options) {}
    void report(float fraction) const {
        if (options_.progress) options_.progress(fraction);
    }
    void poll() const {
        if (options_.cancel != nullptr && options_.cancel->requested())
            throw Error(ErrorCode::cancelled, "cancelled");
    }

private:
    Options const& options_;
};

// Streams `reader` into `pyramid`, reporting progress from `start` over
// `share` of the job. Masks come in any format and become masks band by band.
void stream_into(RasterReader& reader, DiskPyramid& pyramid, bool mask, Job const& job, float start,
                 float share) {
    Size const size = reader.size();
    PixelFormat const read_as = mask ? reader.format() : pyramid.format();
    std::ptrdiff_t const rows = band_rows(size, read_as);
    Image band(read_as, {size.width, rows});
    for (std::ptrdiff_t y = 0; y < size.height; y += rows) {
        job.poll();
        std::ptrdiff_t const n = std::min(rows, size.height - y);
        ImageView const part = band.view().crop(0, 0, size.width, n);
        reader.read_rows(part);
        if (mask && read_as != mask_format)
            pyramid.append_rows(make_mask(part).view());
        else
            pyramid.append_rows(part);
        job.report(start + share * float(y + n) / float(size.height));
    }
}

// The picture's rows with the result over the hole's bounds, band by band.
void write_result(RasterFile const& picture, RasterFile const* result, Rect const& bounds,
                  RasterWriter& output, Job const& job) {
    Size const size = picture.size();
    std::ptrdiff_t const rows = band_rows(size, picture.format());
    Image band(picture.format(), {size.width, rows});
    for (std::ptrdiff_t y = 0; y < size.height; y += rows) {
        job.poll();
        std::ptrdiff_t const n = std::min(rows, size.height - y);
        ImageView const part = band.view().crop(0, 0, size.width, n);
        picture.read(part, 0, y);
        std::ptrdiff_t const top = std::max(y, bounds.y);
        std::ptrdiff_t const bottom = std::min(y + n, bounds.y + bounds.height);
        if (result != nullptr && top < bottom)
            result->read(part.crop(bounds.x, top - y, bounds.width, bottom - top), 0,
                         top - bounds.y);
        output.write_rows(part);
        job.report(1.0f - writing_share + writing_share * float(y + n) / float(size.height));
    }
}

// Copies the picture through unchanged when there is no hole.
void copy_through(RasterReader& image, RasterWriter& output, Job const& job) {
    Size const size = image.size();
    std::ptrdiff_t const rows = band_rows(size, image.format());
    Image band(image.format(), {size.width, rows});
    for (std::ptrdiff_t y = 0; y < size.height; y += rows) {
        job.poll();
        std::ptrdiff_t const n = std::min(rows, size.height - y);
        ImageView const part = band.view().crop(0, 0, size.width, n);
        image.read_rows(part);
        output.write_rows(part);
        job.report(mask_share + (1.0f - mask_share) * float(y + n) / float(size.height));
    }
}

// Holds back what the library writes to standard output (its line naming
// the coarse scale, which the report carries instead) while it lives.
class QuietStdout {
public:
    QuietStdout() : previous_(std::cout.rdbuf(&sink_)) {}
    ~QuietStdout() { std::cout.rdbuf(previous_); }
    QuietStdout(QuietStdout const&) = delete;
    QuietStdout& operator=(QuietStdout const&) = delete;

private:
    struct Sink : std::streambuf {
        int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    } sink_;
    std::streambuf* previous_;
};

template <class Pixel>
LargeFillReport solve(DiskPyramid const& picture, DiskPyramid const& hole, RasterFile& result,
                      Options const& options) {
    detail::RunClient<Pixel> client(options);
    detail::PyramidAccess<Pixel> access(picture, hole, result, options.cancel);
    return client.run([&] {
        // Built to report through the progress table of the whole job.
        TwoPassSynthesisInterface<Pixel> synthesis(&access, &client, PatchCompareTranslate,
                                                   RecomposerModeKeep);
        synthesis.setSynthesisMode(detail::preset_of(options.mode.value_or(Mode::hole_fill)));
        auto map = detail::fill_option_map(options);
        synthesis.setSynthesisParameters(map);
        if (debug_output() != nullptr) synthesis.synthesis->recomposer.serialize();
        {
            QuietStdout const quiet;
            synthesis.run();
        }
        LargeFillReport report;
        report.coarse_scale = access.deepest_scale();
        report.coarse_size = picture.size(report.coarse_scale);
        TileArray const& tiles = synthesis.synthesis->tiles;
        report.tiles = int(tiles.tiles.size());
        report.tiles_filled = int(std::count_if(tiles.tiles.begin(), tiles.tiles.end(),
                                                [](Tile const& t) { return t.done; }));
        return report;
    });
}

void check_inputs(RasterReader const& image, RasterReader const& hole, RasterWriter const& output,
                  Options const& options) {
    auto const refuse = [](std::string const& text) {
        throw Error(ErrorCode::invalid_input, text);
    };
    if (options.comparator == Comparator::gain_bias)
        refuse(
            "a fill in two passes compares patches plainly; the gain-bias comparator is not "
            "available for it");
    if (options.sample) refuse("a fill in two passes takes no sampling mask");
    if (options.grow != 0)
        refuse("a fill in two passes does not grow the hole; grow the mask before (grow_hole)");
    check_recomposer_options(options);
    Size const size = image.size();
    if (size.width > max_side || size.height > max_side)
        refuse("'" + image.path() + "' is " + size_text(size) +
               " pixels; Weftmap works on pictures of at most 65535 pixels a side");
    if (hole.size() != size)
        refuse("the mask '" + hole.path() + "' is " + size_text(hole.size()) +
               " but the picture '" + image.path() + "' is " + size_text(size) +
               "; they must be the same size");
    if (image.row() != 0 || hole.row() != 0)
        refuse("a fill in two passes reads its files from the first row");
    if (output.size() != size || output.row() != 0)
        refuse("the output is made for " + size_text(output.size()) + " pixels, not " +
               size_text(size));
}

}  // namespace

bool fill_fits_in_memory(PixelFormat format, Size size, Options const& options) {
    if (size.width <= 0 || size.height <= 0) return true;
    {
        // Checked as every run checks them; the run itself tells the warnings.
        Options quiet = options;
        quiet.warning = nullptr;
        check_recomposer_options(quiet);
    }
    detail::apply_process_settings(options);
    unsigned long long const limit = memory_limit();
    unsigned long long const held = memory_in_use();
    unsigned long long const pixels =
        static_cast<unsigned long long>(size.width) * static_cast<unsigned long long>(size.height);
    // The picture and the mask as read, and the kit's copies of both.
    unsigned long long host = 2 * (pixels * format.pixel_bytes() + 15) + 2 * (pixels + 15);
    if (options.sample) host += pixels + 15;
    if (held > limit || host > limit - held) return false;
    return detail::visit_format(format, [&](auto pixel) {
        using Pixel = typename decltype(pixel)::type;
        return detail::visit_comparator<Pixel>(options.comparator, [&](auto compare) {
            using Compare = typename decltype(compare)::type;
            detail::RunClient<Pixel> client(options);
            return client.run([&] {
                WeftmapRecomposer<Compare> recomposer(
                    &client, detail::preset_of(options.mode.value_or(Mode::hole_fill)));
                auto map = detail::fill_option_map(options);
                recomposer.setParameters(map);
                RecycledImage<Pixel> output;
                Point const S(size.width, size.height);
                // What the recomposer may reserve is what the host leaves.
                BaseLimitedByteMemoryAllocator::setLimit(limit - host);
                struct Restore {
                    unsigned long long limit;
                    ~Restore() { BaseLimitedByteMemoryAllocator::setLimit(limit); }
                } const restore{limit};
                try {
                    recomposer.preallocate_buffers(output, S, S, S, false,
                                                   options.sample.has_value(), false, false, false);
                } catch (ExceptionMemoryLimit const&) {
                    return false;
                } catch (std::bad_alloc const&) {
                    return false;
                }
                return true;
            });
        });
    });
}

unsigned long long default_memory_limit() {
    long const pages = sysconf(_SC_PHYS_PAGES);
    long const page = sysconf(_SC_PAGE_SIZE);
    unsigned long long memory = pages > 0 && page > 0 ? static_cast<unsigned long long>(pages) *
                                                            static_cast<unsigned long long>(page)
                                                      : 4ull << 30;
    // A container's own limit, where it is lower.
    std::ifstream cgroup("/sys/fs/cgroup/memory.max");
    unsigned long long contained = 0;
    if (cgroup >> contained && contained > 0 && contained < memory) memory = contained;
    return memory / 2;
}

std::string default_temporary_folder() {
    char const* folder = std::getenv("TMPDIR");
    return folder != nullptr && *folder != '\0' ? folder : "/tmp";
}

LargeFillReport fill_large(RasterReader& image, RasterReader& hole, RasterWriter& output,
                           Options const& options, std::string const& temporary_folder) {
    check_inputs(image, hole, output, options);
    detail::apply_process_settings(options);
    Job const job(options);
    Size const size = image.size();
    int const scales = DiskPyramid::scale_count(size);

    DiskPyramid holes(temporary_folder, mask_format, size, Reduction::maximum, scales);
    stream_into(hole, holes, true, job, 0.0f, mask_share);
    Rect const bounds = holes.nonzero_bounds(0);
    LargeFillReport report;
    if (bounds.empty()) {
        copy_through(image, output, job);
        output.finish();
        report.hole_empty = true;
        return report;
    }

    DiskPyramid picture(temporary_folder, image.format(), size, Reduction::mean, scales);
    stream_into(image, picture, false, job, mask_share, picture_share);
    RasterFile result(temporary_folder, image.format(), {bounds.width, bounds.height});

    // The passes' progress as a part of the job's.
    Options run = options;
    run.progress = [&options](float f) {
        if (options.progress) options.progress(synthesis_start + synthesis_share * f);
    };
    try {
        report = detail::visit_format(image.format(), [&](auto pixel) {
            return solve<typename decltype(pixel)::type>(picture, holes, result, run);
        });
    } catch (Error const& e) {
        // A cancel during the sizing of the first pass looks to the library
        // like memory running out at every scale.
        if (e.code() != ErrorCode::cancelled && options.cancel != nullptr &&
            options.cancel->requested())
            throw Error(ErrorCode::cancelled, "cancelled");
        if (e.library_message().rfind("WEFTMAP_COARSE_TOO_SMALL", 0) == 0)
            throw Error(ErrorCode::hole_too_large,
                        "the hole is too large for the first pass: at the scale that fits the "
                        "memory limit too little of the picture is left outside it to take "
                        "patches from (raise the memory limit or make the hole smaller)",
                        e.library_message());
        throw;
    }
    write_result(picture.level(0), &result, bounds, output, job);
    output.finish();
    job.report(1.0f);
    return report;
}

}  // namespace WM::host
