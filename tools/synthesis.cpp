#include "synthesis.hpp"

#include "errors.hpp"
#include "interrupt.hpp"
#include "progress.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/large_fill.hpp>
#include <weftmap/host/output_file.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/host/synthesis.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>

namespace weftmap_tool {
namespace {

namespace host = WM::host;

void check_cancel() {
    if (interrupt_requested()) throw Cancelled();
}

void show(host::Warnings const& warnings) {
    for (auto const& text : warnings) warn(text);
}

host::FileFormat output_format(std::string const& path, host::FileFormat fallback) {
    if (auto const format = host::format_for_name(path, fallback)) return *format;
    std::string const extension = path.substr(path.find_last_of('.'));
    throw ToolError(exit_usage, "'" + path + "': unknown output type '" + extension +
                                    "'; use .png, .jpg or .tif (no extension keeps the " +
                                    "input's format)");
}

// The path with its folder resolved (links, "." and ".."), or as it
// stands when the folder does not exist.
std::string resolved(std::string const& path) {
    std::size_t const slash = path.find_last_of('/');
    std::string const folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    char real[PATH_MAX];
    if (realpath(folder.c_str(), real) == nullptr) return path;
    return std::string(real) + "/" + path.substr(slash == std::string::npos ? 0 : slash + 1);
}

// True when both names reach one file: the same file now, or the same
// name in the same folder.
bool same_file(std::string const& a, std::string const& b) {
    struct stat sa = {}, sb = {};
    if (stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0)
        return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
    return resolved(a) == resolved(b);
}

host::ImageFile read_image(std::string const& path) {
    host::Warnings warnings;
    auto file = host::read_image_file(path, &warnings);
    show(warnings);
    check_cancel();
    return file;
}

std::string write_image(host::OutputFile const& file, host::FileFormat format,
                        host::ConstImageView const& view) {
    host::Warnings warnings;
    std::string const written =
        host::write_image_file(file.temporary_path(), file.path(), format, view, &warnings);
    show(warnings);
    return written;
}

// The input with the hole tinted red, a white gap, and the result, as 8-bit RGB.
host::Image compare_picture(host::ConstImageView const& input, host::ConstImageView const& hole,
                            host::ConstImageView const& result) {
    std::ptrdiff_t const w = hole.width, h = hole.height;
    std::ptrdiff_t const gap = std::max<std::ptrdiff_t>(4, w / 100);
    host::PixelFormat const rgb8{host::Depth::u8, host::Colour::rgb};
    host::Image picture(rgb8, {2 * w + gap, h});
    auto const all = picture.view();
    for (std::ptrdiff_t y = 0; y < h; ++y) std::fill(all.pixel(w, y), all.pixel(w + gap, y), 255);
    host::convert(input, all.crop(0, 0, w, h));
    host::convert(result, all.crop(w + gap, 0, w, h));
    static constexpr double tint[3] = {255, 40, 40};
    for (std::ptrdiff_t y = 0; y < h; ++y)
        for (std::ptrdiff_t x = 0; x < w; ++x) {
            double const a = 0.6 * *hole.pixel(x, y) / 255.0;
            unsigned char* p = all.pixel(x, y);
            for (int c = 0; c < 3; ++c)
                p[c] = static_cast<unsigned char>(std::lround(p[c] * (1.0 - a) + tint[c] * a));
        }
    return picture;
}

host::Options kit_options(Arguments const& args) {
    host::Options options;
    options.mode = args.mode;
    options.comparator = args.comparator;
    options.recomposer_options = args.options;
    options.seed = args.seed;
    options.bands = args.threads;
    options.scalar_kernels = args.scalar;
    options.cancel = &interrupt_flag();
    options.grow = args.grow;
    options.sample_like_rim = !args.sample_anywhere;
    options.texture_like_rim = !args.no_texture;
    options.mirrored_patches = !args.no_mirror;
    options.row_bands = !args.no_rows;
    return options;
}

host::Options kit_options(Arguments const& args, ProgressDisplay& progress) {
    host::Options options = kit_options(args);
    options.progress = [&progress](float fraction) { progress.update(fraction); };
    return options;
}

void report(host::OutputFile const& file, host::Size size, std::string const& written,
            Arguments const& args) {
    if (!args.quiet)
        std::printf("wrote %s (%s, %s)\n", file.path().c_str(), host::size_text(size).c_str(),
                    written.c_str());
}

void report_empty_hole(std::string const& mask_path, std::string const& output_path,
                       std::string const& written) {
    std::fprintf(stderr,
                 "weftmap: the mask '%s' marks no hole, nothing to fill; '%s' is a copy of the "
                 "input (%s)\n",
                 mask_path.c_str(), output_path.c_str(), written.c_str());
}

// The mask of --sample, or the complement of the mask of --exclude.
std::optional<host::Image> sampling_mask(Arguments const& args, host::Size size) {
    bool const excluding = !args.exclude_path.empty();
    std::string const& path = excluding ? args.exclude_path : args.sample_path;
    if (path.empty()) return std::nullopt;
    host::Warnings warnings;
    host::Image mask = host::read_mask_file(path, &warnings);
    show(warnings);
    if (mask.size() != size)
        throw ToolError(exit_input, "the mask '" + path + "' is " + host::size_text(mask.size()) +
                                        " but the image is " + host::size_text(size) +
                                        "; they must be the same size");
    if (excluding) return host::sampling_outside(mask.view());
    return mask;
}

// The whole picture in memory, in one pass.
int fill_whole(Arguments const& args, host::FileFormat format) {
    std::string const& image_path = args.files[0];
    std::string const& mask_path = args.files[1];
    std::string const& output_path = args.files[2];
    host::ImageFile const input = read_image(image_path);
    host::Warnings warnings;
    host::Image const mask = host::read_mask_file(mask_path, &warnings);
    show(warnings);
    check_cancel();

    host::OutputFile output(output_path);
    std::optional<host::OutputFile> compare;
    if (!args.compare_path.empty()) compare.emplace(args.compare_path);
    bool const empty_hole = host::is_all_zero(mask.view());

    std::optional<host::Image> const sampling = sampling_mask(args, input.image.size());
    check_cancel();

    host::Image result;
    if (empty_hole) {
        result = input.image.clone();
    } else {
        ProgressDisplay progress("filling", !args.quiet);
        host::Options options = kit_options(args, progress);
        if (sampling) options.sample = sampling->view();
        result = host::fill(input.image.view(), mask.view(), options);
        progress.update(1.0f);
    }
    check_cancel();
    std::string const written = write_image(output, format, result.view());
    std::string compare_written;
    if (compare)
        compare_written =
            write_image(*compare, output_format(compare->path(), host::FileFormat::png),
                        compare_picture(input.image.view(), mask.view(), result.view()).view());
    check_cancel();
    output.commit();
    if (compare) compare->commit();
    if (empty_hole) {
        report_empty_hole(mask_path, output_path, written);
        return exit_ok;
    }
    report(output, result.size(), written, args);
    if (compare && !args.quiet)
        std::printf("wrote %s (input with the hole tinted | result, %s)\n", compare->path().c_str(),
                    compare_written.c_str());
    return exit_ok;
}

// Two passes over working files: the picture never in memory as a whole.
int fill_tiled(Arguments const& args, host::FileFormat format) {
    std::string const& image_path = args.files[0];
    std::string const& mask_path = args.files[1];
    std::string const& output_path = args.files[2];
    if (!args.sample_path.empty() || !args.exclude_path.empty() || args.grow != 0)
        throw ToolError(exit_usage,
                        "a fill in two passes (--tiled, or a picture beyond --memory-limit) "
                        "takes no --sample, --exclude or --grow; prepare the mask before");
    host::Options options = kit_options(args);
    if (!args.compare_path.empty())
        warn(
            "no side-by-side picture (--compare) for a fill in two passes, which never holds "
            "the whole picture");
    if (options.comparator == host::Comparator::gain_bias) {
        warn("a fill in two passes compares patches plainly; --comparator gain-bias is ignored");
        options.comparator = host::Comparator::translate;
    }

    host::Warnings warnings;
    host::RasterReader image(image_path, &warnings);
    host::RasterReader mask(mask_path, &warnings);
    show(warnings);
    warnings.clear();
    host::OutputFile output(output_path);
    host::RasterWriter writer(output.temporary_path(), output.path(), format, image.format(),
                              image.size(), &warnings);
    host::LargeFillReport done;
    {
        ProgressDisplay progress("filling", !args.quiet);
        options.progress = [&progress](float fraction) { progress.update(fraction); };
        done = host::fill_large(image, mask, writer, options, host::default_temporary_folder());
        progress.update(1.0f);
    }
    show(warnings);
    check_cancel();
    output.commit();
    std::string const written = writer.description();
    if (done.hole_empty) {
        report_empty_hole(mask_path, output_path, written);
        return exit_ok;
    }
    if (args.quiet) return exit_ok;
    std::string passes;
    if (done.coarse_scale == 0)
        passes = "one pass at full size from working files";
    else
        passes = "two passes: the whole at " + host::size_text(done.coarse_size) + ", then " +
                 std::to_string(done.tiles_filled) + " of " + std::to_string(done.tiles) +
                 " tiles at full size";
    std::printf("wrote %s (%s, %s; %s)\n", output.path().c_str(),
                host::size_text(image.size()).c_str(), written.c_str(), passes.c_str());
    return exit_ok;
}

}  // namespace

int run_fill(Arguments const& args) {
    std::string const& image_path = args.files[0];
    std::string const& mask_path = args.files[1];
    std::string const& output_path = args.files[2];
    output_format(output_path, host::FileFormat::png);  // refuse an unknown type before reading
    if (!args.compare_path.empty()) {
        output_format(args.compare_path, host::FileFormat::png);
        // The second rename would replace the first file.
        if (same_file(args.compare_path, output_path))
            throw ToolError(exit_usage, "--compare names the output '" + output_path +
                                            "' again; give the side-by-side picture a name of "
                                            "its own (see 'weftmap --help')");
    }

    // The headers alone: sizes are checked and the way of filling chosen
    // before anything is decoded.
    host::Size size;
    host::PixelFormat pixel_format;
    host::FileFormat input_format;
    {
        host::RasterReader const image(image_path);
        host::RasterReader const mask(mask_path);
        check_cancel();
        if (mask.size() != image.size())
            throw ToolError(exit_input, "the mask '" + mask_path + "' is " +
                                            host::size_text(mask.size()) + " but the image '" +
                                            image_path + "' is " + host::size_text(image.size()) +
                                            "; they must be the same size");
        size = image.size();
        pixel_format = image.format();
        input_format = image.file_format();
    }
    host::FileFormat const format = output_format(output_path, input_format);

    bool const fits =
        args.tiled || host::fill_fits_in_memory(pixel_format, size, kit_options(args));
    if (!fits && !args.quiet) {
        std::printf(
            "filling in two passes: one pass over %s pixels would need more than the "
            "memory limit of %s\n",
            host::size_text(size).c_str(), byte_count_text(host::memory_limit()).c_str());
        // Before the progress lines of a long run, also into a pipe.
        std::fflush(stdout);
    }
    if (args.tiled || !fits) return fill_tiled(args, format);
    try {
        return fill_whole(args, format);
    } catch (host::Error const& e) {
        // The estimate missed: the limit is the limit, so go on in two passes.
        if (e.code() != host::ErrorCode::memory_limit || interrupt_requested()) throw;
        if (!args.quiet)
            std::printf("filling in two passes: one pass passed the memory limit of %s\n",
                        byte_count_text(host::memory_limit()).c_str());
        std::fflush(stdout);
        return fill_tiled(args, format);
    }
}

int run_retarget(Arguments const& args) {
    std::string const& image_path = args.files[0];
    std::string const& output_path = args.files[1];
    output_format(output_path, host::FileFormat::png);

    // The header alone: the new size is checked before anything is decoded.
    host::Size const size = host::RasterReader(image_path).size();
    check_cancel();
    host::Size target = size;
    if (args.scale > 0.0) {
        target = {std::llround(size.width * args.scale), std::llround(size.height * args.scale)};
    } else {
        if (args.width != 0) target.width = args.width;
        if (args.height != 0) target.height = args.height;
    }
    if (target.width < 1 || target.height < 1 || target.width > host::max_side ||
        target.height > host::max_side)
        throw ToolError(exit_usage, "the new size " + host::size_text(target) +
                                        " is outside 1 to 65535 pixels a side");
    try {
        host::check_retarget_size(size, target, kit_options(args));
    } catch (host::Error const& e) {
        throw ToolError(exit_usage, e.what());
    }

    host::ImageFile const input = read_image(image_path);
    host::FileFormat const format = output_format(output_path, input.format);
    std::optional<host::Image> remove;
    if (!args.remove_path.empty()) {
        host::Warnings warnings;
        remove = host::read_mask_file(args.remove_path, &warnings);
        show(warnings);
        check_cancel();
    }
    host::OutputFile output(output_path);
    host::Image result;
    {
        ProgressDisplay progress("retargeting", !args.quiet);
        host::Options options = kit_options(args, progress);
        if (remove) options.remove = remove->view();
        result = host::retarget(input.image.view(), target, options);
        progress.update(1.0f);
    }
    check_cancel();
    std::string const written = write_image(output, format, result.view());
    check_cancel();
    output.commit();
    report(output, result.size(), written, args);
    return exit_ok;
}

}  // namespace weftmap_tool
