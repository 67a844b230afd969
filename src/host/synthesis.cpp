#include "dispatch.hpp"
#include "library_errors.hpp"
#include "recomposer_settings.hpp"
#include "run_client.hpp"
#include "storage.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/host/synthesis.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <string>
#include <vector>

namespace WM::host {
namespace {

// Size ratio of each step of the coarsest level's walk to the new size.
constexpr double retarget_step_ratio = 0.98;

void check_picture(ConstImageView const& image) {
    if (image.empty())
        throw Error(ErrorCode::invalid_input,
                    "the picture is " + size_text(image.size()) + "; it has no pixels");
    if (image.width > max_side || image.height > max_side)
        throw Error(ErrorCode::invalid_input,
                    "the picture is " + size_text(image.size()) +
                        " pixels; Weftmap works on pictures of at most 65535 pixels a side");
}

void check_mask(ConstImageView const& mask, ConstImageView const& image, char const* what) {
    if (mask.format != mask_format)
        throw Error(ErrorCode::invalid_input, std::string("the ") + what +
                                                  " must be an 8-bit gray mask, not " +
                                                  format_name(mask.format));
    if (mask.size() != image.size())
        throw Error(ErrorCode::invalid_input, std::string("the ") + what + " is " +
                                                  size_text(mask.size()) + " but the picture is " +
                                                  size_text(image.size()) +
                                                  "; they must be the same size");
}

struct Job {
    ConstImageView image;
    ConstImageView const* hole;  // fill
    Size size;                   // retarget
    Options const& options;
    Mode mode;
};

template <class Compare>
Image run(Job const& job) {
    using Pixel = typename Compare::pixel_t;
    detail::RunClient<Pixel> client(job.options);
    return client.run([&] {
        WeftmapRecomposer<Compare> recomposer(&client, detail::preset_of(job.mode));
        auto options = detail::option_map(job.options);
        recomposer.setParameters(options);
        if (debug_output() != nullptr) recomposer.serialize();

        // The library writes into its inputs: it blackens the hole of the
        // source and inverts the hole mask. It gets copies.
        auto source = detail::library_copy<Pixel>(job.image);
        RecycledImage<gray8_pixel_t> sample;
        if (job.options.sample) sample = detail::library_copy<gray8_pixel_t>(*job.options.sample);
        GrayView const sample_view = view(sample);
        GrayView const* valid = job.options.sample ? &sample_view : nullptr;
        std::vector<Constraint> constraints;
        RecycledImage<Pixel> result;
        if (job.hole != nullptr) {
            auto hole = detail::library_copy<gray8_pixel_t>(*job.hole);
            GrayView const hole_view = view(hole);
            recomposer.recompose(view(source), constraints, result, &hole_view, nullptr, nullptr,
                                 valid, nullptr, nullptr, nullptr, nullptr);
        } else {
            recomposer.retarget(view(source), constraints, result,
                                Point(job.size.width, job.size.height), retarget_step_ratio,
                                nullptr, valid, nullptr, nullptr);
        }
        return detail::adopt(std::move(result));
    });
}

Image dispatch(Job const& job) {
    detail::apply_process_settings(job.options);
    return detail::visit_format(job.image.format, [&](auto pixel) {
        using Pixel = typename decltype(pixel)::type;
        return detail::visit_comparator<Pixel>(job.options.comparator, [&](auto compare) {
            return run<typename decltype(compare)::type>(job);
        });
    });
}

}  // namespace

Image fill(ConstImageView const& image, ConstImageView const& hole, Options const& options) {
    check_picture(image);
    check_mask(hole, image, "hole mask");
    if (options.sample) check_mask(*options.sample, image, "sampling mask");
    if (is_all_zero(hole)) return Image::copy_of(image);
    return dispatch(Job{image, &hole, {}, options, options.mode.value_or(Mode::hole_fill)});
}

Image retarget(ConstImageView const& image, Size size, Options const& options) {
    check_picture(image);
    if (options.sample) check_mask(*options.sample, image, "sampling mask");
    if (size.width < 1 || size.height < 1 || size.width > max_side || size.height > max_side)
        throw Error(ErrorCode::invalid_input,
                    "the new size " + size_text(size) + " is outside 1 to 65535 pixels a side");
    return dispatch(Job{image, nullptr, size, options, options.mode.value_or(Mode::tapestry)});
}

}  // namespace WM::host
