#include "synthesis.hpp"

#include "errors.hpp"
#include "host_client.hpp"
#include "image_file.hpp"
#include "interrupt.hpp"
#include "output_file.hpp"
#include "progress.hpp"

#include <weftmap/recomposer/recomposer.hpp>

#include <boost/gil/algorithm.hpp>
#include <boost/gil/image_view_factory.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>

namespace weftmap_tool {
namespace {

// Size ratio of each step of the coarsest level's walk to the new size.
constexpr double retarget_step_ratio = 0.98;

std::string size_text(WM::Point const& size) {
    return std::to_string(size.x) + "x" + std::to_string(size.y);
}

// Everything a run needs besides the picture itself.
struct Job {
    Arguments const& args;
    MaskImage const* mask;  // fill only
    WM::Point target_size;  // retarget only
    FileFormat output_format;
    OutputFile& output;
    OutputFile* compare;  // fill only, optional
};

void check_cancel() {
    if (interrupt_requested()) throw Cancelled();
}

// The input with the hole tinted red, a white gap, and the result, as 8-bit RGB.
FileImage<WM::rgb8_pixel_t> compare_picture(AnyConstView const& input, MaskImage const& hole,
                                            AnyConstView const& result) {
    auto const w = hole.width(), h = hole.height();
    std::ptrdiff_t const gap = std::max<std::ptrdiff_t>(4, w / 100);
    FileImage<WM::rgb8_pixel_t> picture(2 * w + gap, h);
    auto const all = gil::view(picture);
    gil::fill_pixels(all, WM::rgb8_pixel_t(255, 255, 255));
    auto const left = gil::subimage_view(all, 0, 0, w, h);
    copy_to_rgb8(input, left);
    copy_to_rgb8(result, gil::subimage_view(all, w + gap, 0, w, h));
    auto const mask = gil::const_view(hole);
    static constexpr double tint[3] = {255, 40, 40};
    for (std::ptrdiff_t y = 0; y < h; ++y)
        for (std::ptrdiff_t x = 0; x < w; ++x) {
            double const a = 0.6 * mask(x, y)[0] / 255.0;
            for (int c = 0; c < 3; ++c)
                left(x, y)[c] = static_cast<unsigned char>(
                    std::lround(left(x, y)[c] * (1.0 - a) + tint[c] * a));
        }
    return picture;
}

// Writes the compare picture under `file`'s temporary name.
std::string write_compare_picture(OutputFile const& file, AnyConstView const& input,
                                  MaskImage const& hole, AnyConstView const& result) {
    auto const picture = compare_picture(input, hole, result);
    return write_image_file(
        file.temporary_path(), file.path(), output_format(file.path(), FileFormat::png),
        AnyConstView(WM::ConstView<WM::rgb8_pixel_t>(gil::const_view(picture))));
}

// The one generic run: any pixel type, either comparator, fill or retarget.
template <class Compare>
void run(Job const& job, FileImage<typename Compare::pixel_t> const& input) {
    using Pixel = typename Compare::pixel_t;
    Arguments const& args = job.args;
    bool const filling = args.command == Command::fill;

    WM::RecycledImage<Pixel> result;
    {
        ProgressDisplay progress(filling ? "filling" : "retargeting", !args.quiet);
        RunClient<Pixel> client(progress);
        WM::WeftmapRecomposer<Compare> recomposer(&client, args.mode);
        auto options = args.options;
        recomposer.setParameters(options);
        if (args.checksums) recomposer.serialize();

        // The library writes into both: it blackens the hole of the source
        // and inverts the hole mask.
        FileImage<Pixel> source(input);
        WM::View<Pixel> const source_view = gil::view(source);
        std::vector<WM::Constraint> constraints;
        check_cancel();
        if (filling) {
            MaskImage hole(*job.mask);
            WM::GrayView const hole_view = gil::view(hole);
            recomposer.recompose(source_view, constraints, result, &hole_view, nullptr, nullptr,
                                 nullptr, nullptr, nullptr, nullptr, nullptr);
        } else {
            recomposer.retarget(source_view, constraints, result, job.target_size,
                                retarget_step_ratio, nullptr, nullptr, nullptr, nullptr);
        }
        progress.update(1.0f);
    }
    check_cancel();

    AnyConstView const result_view = const_view(result);
    std::string const written = write_image_file(job.output.temporary_path(), job.output.path(),
                                                 job.output_format, result_view);
    std::string compare_written;
    if (job.compare != nullptr)
        compare_written = write_compare_picture(*job.compare, AnyConstView(gil::const_view(input)),
                                                *job.mask, result_view);
    check_cancel();
    job.output.commit();
    if (job.compare != nullptr) job.compare->commit();
    if (!args.quiet) {
        std::printf("wrote %s (%s, %s)\n", job.output.path().c_str(),
                    size_text(result.dimensions()).c_str(), written.c_str());
        if (job.compare != nullptr)
            std::printf("wrote %s (input with the hole tinted | result, %s)\n",
                        job.compare->path().c_str(), compare_written.c_str());
    }
}

void dispatch(Job const& job, AnyImage const& input) {
    std::visit(
        [&](auto const& image) {
            using Pixel = typename std::decay_t<decltype(image)>::value_type;
            if (job.args.comparator == Comparator::translate)
                run<WM::TranslatePatchCompare<Pixel>>(job, image);
            else
                run<WM::GainBiasPatchCompare<Pixel>>(job, image);
        },
        input);
}

bool is_empty(MaskImage const& mask) {
    auto const v = gil::const_view(mask);
    return std::all_of(v.begin(), v.end(), [](WM::gray8_pixel_t p) { return p[0] == 0; });
}

}  // namespace

int run_fill(Arguments const& args) {
    std::string const& image_path = args.files[0];
    std::string const& mask_path = args.files[1];
    std::string const& output_path = args.files[2];
    output_format(output_path, FileFormat::png);  // refuse an unknown type before reading
    if (!args.compare_path.empty()) output_format(args.compare_path, FileFormat::png);

    ImageFile const input = read_image_file(image_path);
    check_cancel();
    MaskImage const mask = read_mask_file(mask_path);
    check_cancel();
    WM::Point const size = dimensions(input.image);
    if (mask.dimensions() != size)
        throw ToolError(exit_input, "the mask '" + mask_path + "' is " +
                                        size_text(mask.dimensions()) + " but the image '" +
                                        image_path + "' is " + size_text(size) +
                                        "; they must be the same size");

    FileFormat const format = output_format(output_path, input.format);
    OutputFile output(output_path);
    std::optional<OutputFile> compare;
    if (!args.compare_path.empty()) compare.emplace(args.compare_path);
    if (is_empty(mask)) {
        AnyConstView const view = const_view_of(input.image);
        std::string const written =
            write_image_file(output.temporary_path(), output_path, format, view);
        if (compare) write_compare_picture(*compare, view, mask, view);
        check_cancel();
        output.commit();
        if (compare) compare->commit();
        std::fprintf(stderr,
                     "weftmap: the mask '%s' marks no hole, nothing to fill; '%s' is a copy of "
                     "the input (%s)\n",
                     mask_path.c_str(), output_path.c_str(), written.c_str());
        return exit_ok;
    }
    dispatch(Job{args, &mask, WM::Point(0, 0), format, output, compare ? &*compare : nullptr},
             input.image);
    return exit_ok;
}

int run_retarget(Arguments const& args) {
    std::string const& image_path = args.files[0];
    std::string const& output_path = args.files[1];
    output_format(output_path, FileFormat::png);

    ImageFile const input = read_image_file(image_path);
    check_cancel();
    WM::Point const size = dimensions(input.image);
    WM::Point target = size;
    if (args.scale > 0.0) {
        target = WM::Point(std::llround(size.x * args.scale), std::llround(size.y * args.scale));
    } else {
        if (args.width != 0) target.x = args.width;
        if (args.height != 0) target.y = args.height;
    }
    if (target.x < 1 || target.y < 1 || target.x > max_side || target.y > max_side)
        throw ToolError(exit_usage, "the new size " + size_text(target) +
                                        " is outside 1 to 65535 pixels a side");

    FileFormat const format = output_format(output_path, input.format);
    OutputFile output(output_path);
    dispatch(Job{args, nullptr, target, format, output, nullptr}, input.image);
    return exit_ok;
}

}  // namespace weftmap_tool
