#include "dispatch.hpp"
#include "library_errors.hpp"
#include "recomposer_settings.hpp"
#include "retarget_policy.hpp"
#include "run_client.hpp"
#include "storage.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/mirrored_patches.hpp>
#include <weftmap/host/rim_texture.hpp>
#include <weftmap/host/row_bands.hpp>
#include <weftmap/host/search_window.hpp>
#include <weftmap/host/synthesis.hpp>
#include <weftmap/image/mipmap.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace WM::host {
namespace {

// Size ratio of each step of the coarsest level's walk to the new size.
constexpr double retarget_step_ratio = 0.98;

// The same for the walk of a narrowing in two runs: every step iterates to
// its size, so fewer and larger steps squeeze a picture's main object less
// (a cup stays round, a face whole). It reaches every size the walk of
// retarget_step_ratio does, in fewer steps.
constexpr double narrowing_step_ratio = 0.95;

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

// The library walks the new size towards its goal at the coarsest scale in
// at most this many steps of retarget_step_ratio, and fails after them.
constexpr int retarget_walk_steps = 100;

// Two patch widths.
constexpr std::ptrdiff_t max_one_way_growth = 14;

struct Job {
    ConstImageView image;
    ConstImageView const* hole;  // fill
    Size size;                   // retarget
    Options const& options;
    Mode mode;
    ConstImageView const* row_labels = nullptr;  // fill: row_bands
};

template <class Compare>
void configure(WeftmapRecomposer<Compare>& recomposer, std::map<std::string, std::string> options) {
    recomposer.setParameters(options);
    if (debug_output() != nullptr) recomposer.serialize();
}

template <class Pixel>
using Client = detail::RunClient<Pixel>;

// `source` is the library's copy of the picture, which it may write.
template <class Compare, class Pixel = typename Compare::pixel_t>
RecycledImage<Pixel> fill_hole(Job const& job, Client<Pixel>& client,
                               RecycledImage<Pixel>& source) {
    WeftmapRecomposer<Compare> recomposer(&client, detail::preset_of(job.mode));
    configure(recomposer, detail::fill_option_map(job.options));
    // The library inverts the hole mask: it gets a copy.
    auto hole = detail::library_copy<gray8_pixel_t>(*job.hole);
    GrayView const hole_view = view(hole);
    RecycledImage<gray8_pixel_t> bands;
    GrayView bands_view;
    if (job.row_labels != nullptr) {
        bands = detail::library_copy<gray8_pixel_t>(*job.row_labels);
        bands_view = view(bands);
    }
    GrayView const* const region = job.row_labels != nullptr ? &bands_view : nullptr;
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> result;
    if (!job.options.sample) {
        recomposer.recompose(view(source), constraints, result, &hole_view, nullptr, nullptr,
                             nullptr, nullptr, region, nullptr, nullptr);
        return result;
    }
    // Alone, a sampling mask would also say which pixels are fixed: the
    // picture itself is the constraint, every pixel outside the hole fixed,
    // and the hole never a place to sample from.
    auto sample = detail::library_copy<gray8_pixel_t>(*job.options.sample);
    GrayView const sample_view = view(sample);
    for (std::ptrdiff_t y = 0; y < sample_view.height(); ++y)
        for (std::ptrdiff_t x = 0; x < sample_view.width(); ++x) {
            auto& allowed = sample_view(x, y)[0];
            allowed = allowed != 0 && hole_view(x, y)[0] == 0 ? 255 : 0;
        }
    auto constraint = detail::library_copy<Pixel>(job.image);
    RecycledImage<gray8_pixel_t> fixed(hole.dimensions());
    gil::fill_pixels(view(fixed), gray8_pixel_t(255));
    auto const constraint_view = view(constraint);
    GrayView const fixed_view = view(fixed);
    recomposer.recompose(view(source), constraints, result, &hole_view, nullptr, nullptr,
                         &sample_view, &constraint_view, region, nullptr, &fixed_view);
    return result;
}

template <class Compare, class Pixel = typename Compare::pixel_t>
RecycledImage<Pixel> retarget_in_one_run(Job const& job, Client<Pixel>& client,
                                         RecycledImage<Pixel>& source) {
    WeftmapRecomposer<Compare> recomposer(&client, detail::preset_of(job.mode));
    auto const walk = detail::coarse_walk(job.options, job.mode, job.image.size(), job.size);
    configure(recomposer, detail::retarget_option_map(job.options, job.mode, walk));
    auto allowed = detail::retarget_valid(job.options);
    GrayView const allowed_view = view(allowed);
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> result;
    recomposer.retarget(view(source), constraints, result, Point(job.size.width, job.size.height),
                        retarget_step_ratio, nullptr,
                        allowed.width() != 0 ? &allowed_view : nullptr, nullptr, nullptr);
    return result;
}

// Share of a two-run retarget's progress that the walk takes.
constexpr float walk_share = 0.1f;

// The walk to the new size at the coarsest scale, voting both ways, then
// the finer levels from its result, voting one way (refines_one_way).
template <class Compare, class Pixel = typename Compare::pixel_t>
RecycledImage<Pixel> retarget_in_two_runs(Job const& job, Client<Pixel>& client,
                                          RecycledImage<Pixel>& source) {
    Point const goal(job.size.width, job.size.height);
    auto const walk = detail::coarse_walk(job.options, job.mode, job.image.size(), job.size);

    auto allowed = detail::retarget_valid(job.options);
    GrayView const allowed_view = view(allowed);
    std::vector<Constraint> constraints;
    RecycledImage<Pixel> walked;
    {
        MipMap<Pixel> pyramid;
        pyramid.build(const_view(source));
        RecycledImage<Pixel> coarse;
        pyramid.get(coarse, walk.picture.x, walk.picture.y);
        RecycledImage<gray8_pixel_t> coarse_allowed;
        if (allowed.width() != 0) {
            MipMap<gray8_pixel_t> masks;
            masks.build(const_view(allowed));
            masks.get(coarse_allowed, walk.picture.x, walk.picture.y);
        }
        GrayView const coarse_allowed_view = view(coarse_allowed);
        WeftmapRecomposer<Compare> walker(&client, detail::preset_of(job.mode));
        configure(walker, detail::retarget_option_map(job.options, job.mode, walk));
        client.set_progress_span(0.0f, walk_share);
        walker.retarget(view(coarse), constraints, walked, walk.goal, narrowing_step_ratio, nullptr,
                        allowed.width() != 0 ? &coarse_allowed_view : nullptr, nullptr, nullptr);
    }

    // Every pixel of the new picture is to be made, from the walk's result.
    RecycledImage<gray8_pixel_t> everywhere(goal);
    gil::fill_pixels(view(everywhere), gray8_pixel_t(255));
    RecycledImage<Pixel> blank(goal);
    gil::fill_pixels(view(blank), Pixel());
    GrayView const everywhere_view = view(everywhere);
    auto const blank_view = view(blank);
    auto const walked_view = view(walked);
    WeftmapRecomposer<Compare> refiner(&client, detail::preset_of(job.mode));
    configure(refiner,
              detail::refinement_option_map(job.options, std::min(walk.goal.x, walk.goal.y)));
    client.set_progress_span(walk_share, 1.0f);
    RecycledImage<Pixel> result;
    refiner.recompose(view(source), constraints, result, &everywhere_view, nullptr, &walked_view,
                      allowed.width() != 0 ? &allowed_view : nullptr, &blank_view, nullptr, nullptr,
                      nullptr);
    return result;
}

template <class Compare>
Image run(Job const& job) {
    using Pixel = typename Compare::pixel_t;
    Client<Pixel> client(job.options);
    return client.run([&] {
        // The library writes into its inputs (it blackens a fill's hole in
        // the source): it gets a copy.
        auto source = detail::library_copy<Pixel>(job.image);
        if (job.hole != nullptr) return detail::adopt(fill_hole<Compare>(job, client, source));
        if (detail::refines_one_way(job.options, job.mode, job.image.size(), job.size))
            return detail::adopt(retarget_in_two_runs<Compare>(job, client, source));
        return detail::adopt(retarget_in_one_run<Compare>(job, client, source));
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

void check_retarget_size(Size picture, Size size, Options const& options) {
    if (size.width < 1 || size.height < 1 || size.width > max_side || size.height > max_side)
        throw Error(ErrorCode::invalid_input,
                    "the new size " + size_text(size) + " is outside 1 to 65535 pixels a side");
    if (picture.width < 1 || picture.height < 1) return;
    // The recomposer sizes its voting buffers by the picture: the strip of a
    // one-way vote, and the coherent weights of the hole-fill preset, hold
    // a picture grown by two patches and no more.
    Mode const mode = options.mode.value_or(Mode::tapestry);
    if ((!detail::votes_both_ways(options, mode) || mode == Mode::hole_fill) &&
        (size.width > picture.width + max_one_way_growth ||
         size.height > picture.height + max_one_way_growth))
        throw Error(ErrorCode::invalid_input,
                    "the new size " + size_text(size) + " grows the picture's " +
                        size_text(picture) + " by more than " + std::to_string(max_one_way_growth) +
                        " pixels a side, which mode " + mode_name(mode) +
                        (mode == Mode::hole_fill ? "" : " with -bidir=0") +
                        " cannot (use mode default or tapestry)");
    // The walk of the library's retarget: from the picture at the coarsest
    // scale to the new size at that scale, a step at a time.
    auto const walk = detail::coarse_walk(options, mode, picture, size);
    Point const goal = walk.goal;
    Point c = walk.picture;
    for (int step = 0; step < retarget_walk_steps && c != goal; ++step)
        c = next_gradual_size(c, goal, retarget_step_ratio);
    if (c != goal)
        throw Error(ErrorCode::invalid_input,
                    "the new size " + size_text(size) + " is too far from the picture's " +
                        size_text(picture) +
                        ": retargeting grows a picture at most about 7 times a side (more when "
                        "it is small) and shrinks it to about a thirtieth");
}

namespace {

// The fill of `hole` with the picture's mirror image on `side` as a second
// place to sample from. Its hole holds what is being removed, so it is no
// place to sample either.
Image fill_with_mirror(ConstImageView const& image, ConstImageView const& hole,
                       Options const& options, MirrorSide side) {
    Image area =
        options.sample ? Image::copy_of(*options.sample) : Image(mask_format, image.size());
    ImageView const allowed = area.view();
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x) {
            unsigned char& a = *allowed.pixel(x, y);
            bool const asked = !options.sample || a != 0;
            a = asked && hole.pixel(x, y)[0] == 0 ? 255 : 0;
        }
    Image const pictures = beside_its_mirror(image, side);
    Image const areas = beside_its_mirror(area.view(), side);
    Image holes(mask_format, pictures.size());
    std::ptrdiff_t const x0 = picture_offset(image, side);
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x)
            *holes.view().pixel(x0 + x, y) = hole.pixel(x, y)[0];
    Options doubled = options;
    doubled.sample = areas.view();
    // Mirrored patches lie a picture's width away: search everywhere unless
    // the caller chose a window.
    doubled.recomposer_options.try_emplace("-hole_search_window", "0");
    ConstImageView const holes_view = holes.view();
    Image const both = dispatch(Job{pictures.view(), &holes_view, {}, doubled, Mode::hole_fill});
    return Image::copy_of(both.view().crop(x0, 0, image.width, image.height));
}

}  // namespace

Image fill(ConstImageView const& image, ConstImageView const& hole, Options const& options) {
    check_picture(image);
    check_mask(hole, image, "hole mask");
    if (options.sample) check_mask(*options.sample, image, "sampling mask");
    Mode const mode = options.mode.value_or(Mode::hole_fill);
    check_recomposer_options(options);
    check_comparator(options, false);
    if (is_all_zero(hole)) return Image::copy_of(image);
    Image grown;
    if (options.grow != 0) grown = grow_hole(hole, options.grow);
    ConstImageView const hole_used = options.grow != 0 ? grown.view() : hole;
    Image area;
    if (!options.sample && options.sample_like_rim && mode == Mode::hole_fill)
        area = sampling_like_rim(image, hole_used);
    Options used = options;
    if (!area.empty()) used.sample = area.view();
    MirrorSide const side = options.mirrored_patches && mode == Mode::hole_fill
                                ? mirror_side(image, hole_used)
                                : MirrorSide::none;
    if (side == MirrorSide::none && mode == Mode::hole_fill &&
        !options.recomposer_options.count("-hole_search_window")) {
        if (int const window = side_hole_search_window(hole_used); window > 0) {
            debug_log("side_hole_search_window: %d for a hole the picture's side cuts\n", window);
            used.recomposer_options["-hole_search_window"] = std::to_string(window);
        }
    }
    Image bands;
    if (side == MirrorSide::none && options.row_bands && mode == Mode::hole_fill)
        bands = row_bands(image, hole_used, used.sample ? &*used.sample : nullptr);
    ConstImageView const bands_view = bands.view();
    Image result =
        side != MirrorSide::none
            ? fill_with_mirror(image, hole_used, used, side)
            : dispatch(
                  Job{image, &hole_used, {}, used, mode, bands.empty() ? nullptr : &bands_view});
    if (options.texture_like_rim && mode == Mode::hole_fill) {
        Image textured = texture_like_rim(image, hole_used, result.view(),
                                          used.sample ? &*used.sample : nullptr);
        if (!textured.empty()) return textured;
    }
    return result;
}

Image retarget(ConstImageView const& image, Size size, Options const& options) {
    check_picture(image);
    if (options.sample) check_mask(*options.sample, image, "sampling mask");
    if (options.remove) check_mask(*options.remove, image, "remove mask");
    Mode const mode = options.mode.value_or(Mode::tapestry);
    check_recomposer_options(options);
    check_comparator(options, true);
    check_retarget_size(image.size(), size, options);
    return dispatch(Job{image, nullptr, size, options, mode});
}

}  // namespace WM::host
