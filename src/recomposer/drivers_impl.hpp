// The two drivers of a run: recompose (hole filling) and retarget (size
// change), coarse to fine. Instantiated per depth in drivers_*.cpp.
#pragma once

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/image/roifill.hpp>
#include <weftmap/recomposer/hole_measures.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>

namespace WM {
namespace detail {

// The parameters a run changes, restored on every exit.
template <class Recomposer>
class SavedRunParameters {
public:
    explicit SavedRunParameters(Recomposer& r)
        : r_(r),
          nn_iters_(r.nn_iters),
          rs_max_(r.rs_max),
          patch_w_(r.patch_w),
          coherence_weight_(r.coherence_weight),
          complete_weight_(r.complete_weight),
          prefer_coherent_(r.prefer_coherent) {}
    ~SavedRunParameters() {
        r_.nn_iters = nn_iters_;
        r_.rs_max = rs_max_;
        r_.patch_w = patch_w_;
        r_.coherence_weight = coherence_weight_;
        r_.complete_weight = complete_weight_;
        r_.prefer_coherent = prefer_coherent_;
    }
    SavedRunParameters(SavedRunParameters const&) = delete;
    SavedRunParameters& operator=(SavedRunParameters const&) = delete;

private:
    Recomposer& r_;
    int nn_iters_;
    int rs_max_;
    int patch_w_;
    double coherence_weight_;
    double complete_weight_;
    bool prefer_coherent_;
};

// A coarse size of 0 has no pyramid to speak of; refused before a run
// touches anything.
inline void refuse_zero_coarse_size(int coarse_size) {
    if (coarse_size == 0)
        raise("WEFTMAP_INVALID_PARAMETERS: coarse_size must be at least 1 (got 0)");
}

// A level narrower than a patch has no field to search: its buffers would
// have negative sides.
inline void refuse_level_below_patch(Point const& level, int coarse_size) {
    if (level.x < 7 || level.y < 7)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: the coarsest level is %dx%d (coarse size %d), smaller "
            "than a 7x7 patch; the picture is too small for it (set a larger -coarse_size with "
            "-const_coarse_size)",
            static_cast<long long>(level.x), static_cast<long long>(level.y), coarse_size);
}

inline void refuse_negative_coarse_size(int coarse_size) {
    if (coarse_size < 0) raise("WEFTMAP_INTERNAL_ERROR:Non pyramid code disabled");
}

// The bounding box of the non-zero pixels of a hole as the caller passes it.
inline Box nonzero_bounding_box(ConstGrayView const& mask) {
    Box box{0x7fffffff, 0x7fffffff, -1, -1};
    for (std::ptrdiff_t y = 0; y < mask.height(); ++y)
        for (std::ptrdiff_t x = 0; x < mask.width(); ++x)
            if (mask(x, y)[0] != 0) {
                box.xmin = std::min(box.xmin, int(x));
                box.ymin = std::min(box.ymin, int(y));
                box.xmax = std::max(box.xmax, int(x) + 1);
                box.ymax = std::max(box.ymax, int(y) + 1);
            }
    return box.empty() ? Box{} : box;
}

// Field positions are 16-bit: no side of a source or target may pass this.
constexpr std::ptrdiff_t max_run_side = 65535;

inline void refuse_oversized(char const* what, Point const& size) {
    if (size.x > max_run_side || size.y > max_run_side)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: the %s is %dx%d; sides of at most %d pixels are "
            "supported",
            what, static_cast<long long>(size.x), static_cast<long long>(size.y),
            static_cast<long long>(max_run_side));
}

inline void refuse_size_mismatch(char const* what, Point const& size, char const* other,
                                 Point const& expected) {
    if (size != expected)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: the %s is %dx%d but the %s is %dx%d; they must be the "
            "same size",
            what, static_cast<long long>(size.x), static_cast<long long>(size.y), other,
            static_cast<long long>(expected.x), static_cast<long long>(expected.y));
}

// Checks made before a run touches anything: the patch sizes the search
// supports (a patch of another size would read past the images' rows while
// the masks are measured, before the search could refuse it), the sides of
// the images, and the masks that must match the source or the target.
template <class Recomposer>
void check_run_inputs(Recomposer const& r, Point const& source, Point const& target,
                      GrayView const* hole, GrayView const* valid,
                      GrayView const* target_constraint_mask) {
    if (r.patch_w != 7) raise("WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: %d", r.patch_w);
    if (r.patch_w_refine >= 1 && r.patch_w_refine != 7)
        raise("WEFTMAP_INVALID_PARAMETERS:Patch refinement size unsupported: %d", r.patch_w_refine);
    refuse_oversized("source", source);
    refuse_oversized("target", target);
    if (hole != nullptr) refuse_size_mismatch("hole mask", hole->dimensions(), "target", target);
    if (valid != nullptr) refuse_size_mismatch("valid mask", valid->dimensions(), "source", source);
    if (target_constraint_mask != nullptr)
        refuse_size_mismatch("target constraint mask", target_constraint_mask->dimensions(),
                             "target", target);
}

}  // namespace detail

// Takes the inputs of a run and resets what an earlier run left behind.
template <class Compare>
void begin_run(WeftmapRecomposer<Compare>& r,
               typename WeftmapRecomposer<Compare>::view_t const& source, GrayView const* hole,
               typename WeftmapRecomposer<Compare>::view_t const* guess, GrayView const* valid,
               typename WeftmapRecomposer<Compare>::view_t const* target_constraint,
               GrayView const* region, GrayView const* src_important,
               GrayView const* target_constraint_mask) {
    r.source_view = source;
    r.hole_arg = hole;
    r.guess_arg = guess;
    r.valid_arg = valid;
    r.tconstraint_arg = target_constraint;
    r.region_arg = region;
    r.src_important_arg = src_important;
    r.tconstraint_mask_arg = target_constraint_mask;
    r.first_synthesis_level = 0;
    r.progress_table.assign(1, 0.0f);
    r.progress_cursor = 0;
    // A hole distance map of an earlier run would steer this run's windows.
    r._distance_view = DistanceInsetView();
}

// Between level 0 and level 1: a larger patch for the finer levels, and
// the finer levels' vote weights.
template <class Compare>
void refine_patches(WeftmapRecomposer<Compare>& r) {
    int const refined = r.patch_w_refine;
    if (refined >= 1 && refined != r.patch_w) {
        if (((128u >> (refined % 32)) & 1u) == 0)
            raise("WEFTMAP_INVALID_PARAMETERS:Patch refinement size unsupported: %d", refined);
        r.patch_w = refined;
        // Keep every match a whole patch inside the source.
        auto const max_x = static_cast<int>(r._source_buf.width() - refined);
        auto const max_y = static_cast<int>(r._source_buf.height() - refined);
        for (auto& p : view(r._target_nnf_buf)) {
            p[0] = static_cast<unsigned short>(std::clamp(int(p[0]), 0, std::max(max_x, 0)));
            p[1] = static_cast<unsigned short>(std::clamp(int(p[1]), 0, std::max(max_y, 0)));
        }
    }
    if (r.coherence_w_refine > 0) r.coherence_weight = r.coherence_w_refine;
    if (r.complete_w_refine > 0) r.complete_weight = r.complete_w_refine;
}

template <class Compare>
void WeftmapRecomposer<Compare>::gradual_resize(image_t& output, Point level_size, Point full_size,
                                                std::vector<Constraint>& constraints) {
    output.recreate(this->_target_buf.dimensions());
    gil::fill_pixels(view(output), pixel_t());
    Point const source_size = this->_source_buf.dimensions();
    GrayView const smask = view(this->_smask_buf);
    this->_sample_regions.build(&smask, nullptr,
                                static_cast<int>(source_size.x - this->patch_w + 1),
                                static_cast<int>(source_size.y - this->patch_w + 1));
    run_synthesis_checks(output.dimensions(), full_size, 0, 1);
    do_em(0, constraints, output, false, false, false, 0, 0, level_size);
    swap(output, this->_target_buf);
}

template <class Compare>
void WeftmapRecomposer<Compare>::recompose(view_t const& source,
                                           std::vector<Constraint>& constraints, image_t& output,
                                           GrayView const* hole, Box* target_box,
                                           view_t const* guess, GrayView const* valid,
                                           view_t const* target_constraint, GrayView const* region,
                                           GrayView const* src_important,
                                           GrayView const* target_constraint_mask) {
    detail::refuse_zero_coarse_size(coarse_size);
    detail::refuse_negative_coarse_size(coarse_size);
    if (hole == nullptr) raise("WEFTMAP_INVALID_PARAMETERS: recompose needs a hole mask");
    detail::check_run_inputs(
        *this, source.dimensions(),
        target_constraint != nullptr ? target_constraint->dimensions() : source.dimensions(), hole,
        valid, target_constraint_mask);
    detail::SavedRunParameters<WeftmapRecomposer> const saved(*this);
    begin_run(*this, source, hole, guess, valid, target_constraint, region, src_important,
              target_constraint_mask);

    Point reserve =
        target_box != nullptr ? target_box->size() : detail::nonzero_bounding_box(*hole).size();
    if (reserve.x <= 0 || reserve.y <= 0) reserve = Point(1, 1);  // nothing to fill
    preallocate_buffers(output, source.dimensions(), hole->dimensions(), reserve,
                        target_constraint != nullptr, valid != nullptr, region != nullptr,
                        src_important != nullptr, target_constraint_mask != nullptr);

    preprocess_input_buffers();
    Point const T = this->tconstraint_view.dimensions();
    get_hole_properties();
    if (!const_coarse_size) {
        int const requested = coarse_size;
        compute_adaptive_coarse_size(coarse_size, T);
        // The pyramid still starts at the requested size; levels below the
        // adaptive one are only resampled.
        if (coarse_size > requested) coarse_size = std::min(synthesis_coarse_size, requested);
    }

    long long width = -1, height = -1;
    double s0 = 0.0;
    get_resample_size(T, coarse_size, width, height, s0);
    Point const coarse(width, height);
    scales = build_scale_list(s0, pyramid_ratio, last_upscale_step);
    Point const coarse_source =
        target_constraint != nullptr ? level_size(source.dimensions(), s0) : coarse;
    detail::refuse_level_below_patch(coarse, coarse_size);
    detail::refuse_level_below_patch(coarse_source, coarse_size);

    bool const has_constraints = !constraints.empty();
    this->current_scale = scales.front();  // the pre-fill radius scales with it
    resample_buffers(0, coarse, coarse_source, output, has_constraints, false, true);
    prepare_progress_table(T, 1, 0);
    adjust_level_parameters(0, T, scales, current_em_iters, this->rs_max, this->nn_iters);
    this->current_scale = scales.front();

    gradual_resize(output, coarse, T, constraints);
    refine_patches(*this);

    for (std::size_t k = 1; k < scales.size(); ++k) {
        this->current_scale = scales[k];
        Point const target_size = level_size(T, scales[k]);
        Point const source_size = level_size(source.dimensions(), scales[k]);
        resample_buffers(k, target_size, source_size, output, has_constraints, false, false);
        bool const was_synthesising = do_synthesis;
        run_synthesis_checks(target_size, T, static_cast<int>(k), 1);
        adjust_level_parameters(k, T, scales, current_em_iters, this->rs_max, this->nn_iters);
        do_em(static_cast<int>(k), constraints, this->_target_buf, was_synthesising,
              region != nullptr, was_synthesising, 0, 0, target_size);
    }
    swap(output, this->_target_buf);
    scales.clear();
}

template <class Compare>
void WeftmapRecomposer<Compare>::retarget(view_t const& source,
                                          std::vector<Constraint>& constraints, image_t& output,
                                          Point target_dimensions, double retargetRatio,
                                          GrayView const* hole, GrayView const* valid,
                                          view_t const* target_constraint,
                                          GrayView const* src_important) {
    detail::refuse_zero_coarse_size(coarse_size);
    detail::check_run_inputs(*this, source.dimensions(), target_dimensions, nullptr, valid,
                             nullptr);
    if (hole != nullptr && target_constraint != nullptr)
        detail::refuse_size_mismatch("hole mask", hole->dimensions(), "target constraint",
                                     target_constraint->dimensions());
    debug_log("Begin Weftmap retarget\n");
    detail::SavedRunParameters<WeftmapRecomposer> const saved(*this);
    begin_run(*this, source, hole, nullptr, valid, target_constraint, nullptr, src_important,
              nullptr);

    if (hole != nullptr) {
        if (target_constraint == nullptr)
            raise(
                "WEFTMAP_INTERNAL_ERROR: retarget requires target_constraint argument when "
                "filling a hole");
        blackfill<pixel_t>(*target_constraint, *hole, false);
        OutputDebugChecksum("Blackfill Output: ", *target_constraint);
        for (auto& p : *hole) p[0] = static_cast<unsigned char>(255 - p[0]);
        this->hole_view = *hole;
    }
    if (valid != nullptr) this->valid_view = *valid;
    detail::refuse_negative_coarse_size(coarse_size);

    Point const source_size = source.dimensions();
    int const w = this->patch_w;
    if (std::min(source_size.x, source_size.y) < w ||
        std::min(target_dimensions.x, target_dimensions.y) < w)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: retarget needs at least %d pixels per side (source "
            "%dx%d, target %dx%d)",
            w, static_cast<long long>(source_size.x), static_cast<long long>(source_size.y),
            static_cast<long long>(target_dimensions.x),
            static_cast<long long>(target_dimensions.y));

    // The coarsest level never enlarges the source, so that the pyramid ends
    // at the requested size.
    long long width = -1, height = -1;
    double s0 = 0.0;
    get_resample_size(
        source_size,
        static_cast<int>(std::min<long long>(coarse_size, std::min(source_size.x, source_size.y))),
        width, height, s0);
    Point const coarse(width, height);
    // The search works on whole patches: a walk that ended narrower than
    // one would read past its images.
    Point const coarse_goal = level_size(target_dimensions, s0);
    if (std::min(coarse_goal.x, coarse_goal.y) < w)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: retarget target %dx%d is %dx%d at the coarsest scale, "
            "less than a patch; raise coarse_size",
            static_cast<long long>(target_dimensions.x),
            static_cast<long long>(target_dimensions.y), static_cast<long long>(coarse_goal.x),
            static_cast<long long>(coarse_goal.y));
    // The walk at the coarsest scale starts at the source's coarse size,
    // which a small target may not contain.
    Point const target_reserve(std::max(target_dimensions.x, coarse.x),
                               std::max(target_dimensions.y, coarse.y));
    preallocate_buffers(output, source_size, target_reserve,
                        hole != nullptr ? hole->dimensions() : Point(0, 0), hole != nullptr,
                        valid != nullptr, false, src_important != nullptr, false);
    this->_source_buf.recreate(source_size);
    gil::copy_pixels(source, view(this->_source_buf));

    this->current_scale = s0;
    scales = build_scale_list(s0, pyramid_ratio, last_upscale_step);
    Point const goal = level_size(target_dimensions, scales.front());

    int steps = 0;
    for (Point c = coarse; c != goal && steps <= 100; ++steps)
        c = next_gradual_size(c, goal, retargetRatio);
    prepare_progress_table(source_size, steps, 0);

    resample_buffers(0, coarse, coarse, output, false, true, true);
    adjust_level_parameters(0, target_dimensions, scales, current_em_iters, this->rs_max,
                            this->nn_iters);
    this->current_scale = scales.front();
    if (src_important != nullptr) {
        resample<gray8_pixel_t>(*src_important, this->_src_important_buf, coarse, ResampleBilinear,
                                -1);
        this->sweight_view = make_source_weights(const_view(this->_src_important_buf),
                                                 src_important_wt, this->_sweight_buf);
    }

    // Walk the target size to its goal in small steps at the coarsest scale.
    int walked = 0;
    for (; walked < 100; ++walked) {
        Point const next = next_gradual_size(this->_target_buf.dimensions(), goal, retargetRatio);
        if (hole != nullptr) {
            this->_hole_mipmap.get(this->_hole_buf, next.x, next.y);
            this->hole_view = view(this->_hole_buf);
            if (debug_output() != nullptr)
                OutputDebugChecksum(
                    (boost::format("Resampled Hole, gradual resize (%dx%d): ") %
                     static_cast<long long>(next.x) % static_cast<long long>(next.y))
                        .str()
                        .c_str(),
                    this->hole_view);
            if (this->tconstraint_mask_arg == nullptr &&
                (this->tconstraint_arg != nullptr || this->valid_arg == nullptr))
                this->tconstraint_mask_view = this->hole_view;
        }
        calculate_masks(next, coarse);
        if (this->tconstraint_arg != nullptr) {
            this->_tconstraint_mipmap.get(this->_tconstraint_buf, next.x, next.y);
            this->tconstraint_view = view(this->_tconstraint_buf);
            OutputDebugChecksum("Resampled Tconstraint: ", this->tconstraint_view);
        }
        resample<pixel_t>(const_view(this->_target_buf), output, next, ResampleBilinear, -1);
        swap(output, this->_target_buf);
        output.recreate(next);
        gil::fill_pixels(view(output), pixel_t());
        run_synthesis_checks(next, source_size, 0, steps - walked);
        do_em(0, constraints, output, false, false, false, 0, 0, next);
        swap(output, this->_target_buf);
        if (this->_target_buf.dimensions() == goal) break;
    }
    if (walked == 100)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: Problem with gradient resize, current_buf = %dx%d, "
            "target_dimensions = %dx%d, retargetRatio = %f",
            static_cast<long long>(this->_target_buf.width()),
            static_cast<long long>(this->_target_buf.height()),
            static_cast<long long>(target_dimensions.x),
            static_cast<long long>(target_dimensions.y), retargetRatio);
    if (this->_target_nnf_buf.width() == 0 || this->_target_nnf_buf.height() == 0)
        raise("WEFTMAP_INTERNAL_ERROR:No _target_nnf_buf field, did we run one iteration?");
    refine_patches(*this);

    for (std::size_t k = 1; k < scales.size(); ++k) {
        this->current_scale = scales[k];
        Point const target_size = level_size(target_dimensions, scales[k]);
        Point const level_source = level_size(source_size, scales[k]);
        resample_buffers(k, target_size, level_source, output, false, true, false);
        bool const was_synthesising = do_synthesis;
        run_synthesis_checks(target_size, source_size, static_cast<int>(k), 1);
        adjust_level_parameters(k, target_dimensions, scales, current_em_iters, this->rs_max,
                                this->nn_iters);
        do_em(static_cast<int>(k), constraints, this->_target_buf, was_synthesising, false,
              was_synthesising, 0, 0, target_size);
    }
    swap(output, this->_target_buf);
}

#define WEFTMAP_INSTANTIATE_DRIVERS_FOR(C)                                                        \
    template WEFTMAP_API void WeftmapRecomposer<C>::gradual_resize(                               \
        RecycledImage<C::pixel_t>&, Point, Point, std::vector<Constraint>&);                      \
    template WEFTMAP_API void WeftmapRecomposer<C>::recompose(                                    \
        View<C::pixel_t> const&, std::vector<Constraint>&, RecycledImage<C::pixel_t>&,            \
        GrayView const*, Box*, View<C::pixel_t> const*, GrayView const*, View<C::pixel_t> const*, \
        GrayView const*, GrayView const*, GrayView const*);                                       \
    template WEFTMAP_API void WeftmapRecomposer<C>::retarget(                                     \
        View<C::pixel_t> const&, std::vector<Constraint>&, RecycledImage<C::pixel_t>&, Point,     \
        double, GrayView const*, GrayView const*, View<C::pixel_t> const*, GrayView const*);
#define WEFTMAP_INSTANTIATE_DRIVERS(P) WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_DRIVERS_FOR)

}  // namespace WM
