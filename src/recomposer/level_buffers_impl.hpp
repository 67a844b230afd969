// Level buffers: reserving every buffer of a run up front, and bringing
// images, masks and fields to the size of each level.
// Instantiated per depth in level_buffers_*.cpp.
#pragma once

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/masks.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/image/roifill.hpp>
#include <weftmap/recomposer/hole_measures.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>

namespace WM {
namespace detail {

inline Point axis_max(Point const& a, Point const& b) {
    return Point(std::max(a.x, b.x), std::max(a.y, b.y));
}

}  // namespace detail

template <class Compare>
void WeftmapRecomposer<Compare>::preallocate_buffers(image_t& output, Point const& source_size,
                                                     Point const& target_size,
                                                     Point const& reserve_size,
                                                     bool has_target_constraint, bool has_valid,
                                                     bool has_region, bool has_src_important,
                                                     bool has_target_constraint_mask) {
    int const w = this->patch_w;
    bool const has_reserve = reserve_size.x != 0 || reserve_size.y != 0;
    Point const S = source_size;
    Point const T = target_size;
    Point const R = has_reserve ? reserve_size : S;
    Point const P(R.x + 2 * w, R.y + 2 * w);
    Point const Q(P.x + 2 * (w / 2), P.y + 2 * (w / 2));
    Point const M = detail::axis_max(detail::axis_max(S, T), P);

    if constexpr (is_gain_bias_compare_v<Compare>)
        this->comparator.preallocate_buffers(T, S, R, has_target_constraint, has_valid, has_region,
                                             has_src_important, has_target_constraint_mask);

    // Each reservation is followed by a poll, so that a host can stop a
    // reservation of a large run early.
    auto const poll = [&] {
        if (this->client != nullptr && this->client->checkAbort()) raise("WEFTMAP_USER_CANCELED");
    };
    auto const reserve = [&](auto& image, Point const& size) {
        image.unlock();
        image.recreate(size);
        poll();
        image.lock();
    };
    // Optional buffers are locked even when not reserved, so they can
    // never grow later.
    auto const reserve_if = [&](bool wanted, auto& image, Point const& size) {
        if (wanted)
            reserve(image, size);
        else
            image.lock();
    };
    auto const reserve_masks = [&](bool wanted, RegionMasks& masks, Point const& size) {
        masks.image.unlock();
        if (wanted) {
            masks.recreate(size);
            poll();
        }
        masks.image.lock();
    };
    Point const vote_size = bidir ? M : Point(P.x, w);

    if (bidir) reserve(this->_vote_buf, vote_size);
    reserve(this->_target_dist_buf, T);
    reserve(this->_target_nnf_buf, T);
    reserve(this->_target_nnf_guess_buf, T);
    reserve_if(bidir, this->_source_dist_buf, S);
    reserve_if(bidir, this->_source_nnf_buf, S);
    reserve_if(bidir, this->_source_nnf_guess_buf, S);
    reserve(output, T);
    reserve(this->_target_buf, T);
    reserve(this->_source_buf, S);
    reserve_if(has_target_constraint, this->_tconstraint_buf, T);
    reserve_if(has_reserve, this->_hole_buf, T);
    this->_sample_regions.list.unlock();
    this->_sample_regions.preallocate(S);
    poll();
    this->_sample_regions.list.lock();
    reserve(this->_smask_buf, S);
    reserve(this->_prev_smask_buf, S);
    reserve_masks(true, this->_tmask, T);
    reserve_masks(true, this->_prev_tmask, T);
    reserve_if(this->valid_arg != nullptr || has_valid, this->_valid_buf, S);
    reserve_if(this->tconstraint_mask_arg != nullptr || has_target_constraint_mask,
               this->_tconstraint_mask_buf, T);
    bool const importance = this->src_important_arg != nullptr || has_src_important;
    reserve_if(importance, this->_src_important_buf, S);
    reserve_if(importance, this->_sweight_buf, S);
    reserve_masks(this->region_arg != nullptr || has_region, this->_region_masks, S);
    this->_source_mipmap.preallocate(S);
    poll();
    if (has_target_constraint) this->_tconstraint_mipmap.preallocate(T);
    if (has_reserve) this->_hole_mipmap.preallocate(T);
    if (has_valid) this->_valid_mipmap.preallocate(S);
    if (has_target_constraint_mask) this->_tconstraint_mask_mipmap.preallocate(T);
    reserve_if(this->allow_coherent || this->region_arg != nullptr || has_region, this->_weight_buf,
               P);
    reserve(this->_validnn_buf, M);
    if (!bidir) reserve(this->_vote_buf, vote_size);
    reserve(this->_tweight_buf, Q);
    reserve(this->_dist_buf, Q);
}

template <class Compare>
void WeftmapRecomposer<Compare>::deallocate_buffers() {
    this->_vote_buf.deallocate();
    this->_target_dist_buf.deallocate();
    this->_target_nnf_buf.deallocate();
    this->_target_nnf_guess_buf.deallocate();
    this->_source_dist_buf.deallocate();
    this->_source_nnf_buf.deallocate();
    this->_source_nnf_guess_buf.deallocate();
    this->_target_buf.deallocate();
    this->_source_buf.deallocate();
    this->_tconstraint_buf.deallocate();
    this->_hole_buf.deallocate();
    this->_smask_buf.deallocate();
    this->_prev_smask_buf.deallocate();
    this->_tmask.image.deallocate();
    this->_prev_tmask.image.deallocate();
    this->_valid_buf.deallocate();
    this->_src_important_buf.deallocate();
    this->_sweight_buf.deallocate();
    this->_region_masks.image.deallocate();
    this->_source_mipmap.clear();
    this->_tconstraint_mipmap.clear();
    this->_hole_mipmap.clear();
    this->_tconstraint_mask_mipmap.clear();
    this->_valid_mipmap.clear();
    this->_weight_buf.deallocate();
    this->_validnn_buf.deallocate();
    this->_tweight_buf.deallocate();
    this->_dist_buf.deallocate();
    if constexpr (is_gain_bias_compare_v<Compare>) this->comparator.deallocate_buffers();
}

template <class Compare>
void WeftmapRecomposer<Compare>::duplicate_missing_views() {
    if (this->tconstraint_arg == nullptr) this->tconstraint_view = this->source_level_view;
    if (this->hole_arg != nullptr && this->valid_arg == nullptr && this->tconstraint_arg == nullptr)
        this->valid_view = this->hole_view;
    if (this->hole_arg != nullptr && this->tconstraint_mask_arg == nullptr) {
        if (this->tconstraint_arg == nullptr && this->valid_arg != nullptr)
            this->tconstraint_mask_view = this->valid_view;
        else
            this->tconstraint_mask_view = this->hole_view;
    }
}

template <class Compare>
void WeftmapRecomposer<Compare>::preprocess_input_buffers() {
    if (this->hole_arg != nullptr) {
        GrayView const& hole = *this->hole_arg;
        // Hole pixels leave the mask of fixed pixels (or of valid ones).
        auto const take_hole_out = [&](GrayView const& mask) {
            for (std::ptrdiff_t y = 0; y < mask.height(); ++y)
                for (std::ptrdiff_t x = 0; x < mask.width(); ++x) {
                    int const v = int(mask(x, y)[0]) - int(hole(x, y)[0]);
                    mask(x, y)[0] = static_cast<unsigned char>(std::max(v, 0));
                }
        };
        if (this->tconstraint_mask_arg != nullptr) {
            take_hole_out(*this->tconstraint_mask_arg);
            OutputDebugChecksum("combined target_constraint mask: ", *this->tconstraint_mask_arg);
        } else if (this->valid_arg != nullptr && this->tconstraint_arg == nullptr) {
            take_hole_out(*this->valid_arg);
            OutputDebugChecksum("combined valid mask: ", *this->valid_arg);
        }
        // From here on 255 means known.
        for (auto& p : hole) p[0] = static_cast<unsigned char>(255 - p[0]);
    }

    this->source_level_view = this->source_view;
    if (this->hole_arg != nullptr) this->hole_view = *this->hole_arg;
    if (this->valid_arg != nullptr) this->valid_view = *this->valid_arg;
    if (this->tconstraint_mask_arg != nullptr)
        this->tconstraint_mask_view = *this->tconstraint_mask_arg;
    if (this->tconstraint_arg != nullptr) this->tconstraint_view = *this->tconstraint_arg;
    duplicate_missing_views();

    calculate_masks(this->tconstraint_view.dimensions(), this->source_view.dimensions());
    ConstGrayView const smask = const_view(this->_smask_buf);
    ConstGrayView const tmask = this->_tmask.view;
    if (!check_enough_patches_to_sample_from(this->patch_w, smask, tmask, min_sample_patches, true,
                                             0.0))
        raise_as(ErrorClass::NotEnoughPatches,
                 "WEFTMAP_HOLE_TOO_LARGE: Not enough patches to sample from at fine scale.");
    int source_count = 0;
    min_search_hole_ratio =
        compute_search_hole_patch_ratio(this->patch_w, smask, tmask, source_count) *
        search_hole_ratio_factor;

    this->_source_buf.recreate(this->source_view.dimensions());
    gil::copy_pixels(this->source_view, view(this->_source_buf));
    if (this->hole_arg != nullptr || this->tconstraint_mask_arg != nullptr ||
        this->valid_arg != nullptr)
        blackfill<pixel_t>(this->tconstraint_view, this->tconstraint_mask_view, true);
    OutputDebugChecksum("Blackfill Output: ", this->tconstraint_view);
}

template <class Compare>
void WeftmapRecomposer<Compare>::resample_buffers(unsigned long long level,
                                                  Point const& target_size,
                                                  Point const& source_size, image_t& output,
                                                  bool has_constraints, bool retarget_form,
                                                  bool first_level) {
    using Gray = RecycledImage<gray8_pixel_t>;
    Point const old_target_field_size = this->_target_nnf_buf.dimensions();
    Point const old_source_size = this->_source_buf.dimensions();

    if (first_level) {
        this->_source_mipmap.build(this->source_view);
        if (this->hole_arg != nullptr) this->_hole_mipmap.build(*this->hole_arg);
        if (this->tconstraint_mask_arg != nullptr)
            this->_tconstraint_mask_mipmap.build(*this->tconstraint_mask_arg);
        if (this->valid_arg != nullptr) this->_valid_mipmap.build(*this->valid_arg);
    }
    this->_source_mipmap.get(this->_source_buf, source_size.x, source_size.y);
    this->source_level_view = view(this->_source_buf);
    OutputDebugChecksum("resampled _source_buf from MipMap: ", this->source_level_view);
    if (this->tconstraint_arg != nullptr) {
        if (first_level) this->_tconstraint_mipmap.build(*this->tconstraint_arg);
        this->_tconstraint_mipmap.get(this->_tconstraint_buf, target_size.x, target_size.y);
        this->tconstraint_view = view(this->_tconstraint_buf);
        OutputDebugChecksum("Resampled Tconstraint: ", this->tconstraint_view);
    }
    auto const mask_at = [](MipMap<gray8_pixel_t>& mipmap, Gray& buffer, Point const& size) {
        mipmap.get(buffer, size.x, size.y);
        return view(buffer);
    };
    if (this->hole_arg != nullptr) {
        this->hole_view = mask_at(this->_hole_mipmap, this->_hole_buf, target_size);
        if (debug_output() != nullptr)
            OutputDebugChecksum(
                (boost::format("Resampled Hole, scale %d (%dx%d): ") % level %
                 static_cast<long long>(target_size.x) % static_cast<long long>(target_size.y))
                    .str()
                    .c_str(),
                this->hole_view);
    }
    if (this->valid_arg != nullptr) {
        this->valid_view = mask_at(this->_valid_mipmap, this->_valid_buf, source_size);
        OutputDebugChecksum("Resampled Valid Mask: ", this->valid_view);
    }
    if (this->tconstraint_mask_arg != nullptr) {
        this->tconstraint_mask_view =
            mask_at(this->_tconstraint_mask_mipmap, this->_tconstraint_mask_buf, target_size);
        OutputDebugChecksum("Resampled Tconstraint Mask: ", this->tconstraint_mask_view);
    }
    duplicate_missing_views();

    if (first_level) {
        if (this->guess_arg != nullptr) {
            resample<pixel_t>(*this->guess_arg, this->_target_buf, target_size, ResampleBilinear,
                              -1);
        } else {
            this->_target_buf.recreate(target_size);
            gil::copy_pixels(retarget_form ? this->source_level_view : this->tconstraint_view,
                             view(this->_target_buf));
        }
        OutputDebugChecksum("initializing buffers: Resampled Guess: ", view(this->_target_buf));
        if (this->hole_arg != nullptr && !retarget_form && this->guess_arg == nullptr) {
            // A smooth first colour for the hole at the coarsest level.
            double const radius = this->hole_max_dist_bound * this->current_scale;
            double const angle = directional_roifill_angle;
            output.recreate(target_size);
            gil::fill_pixels(view(output), pixel_t());
            ConstGrayView const constraint_mask = this->tconstraint_mask_view;
            roifill<pixel_t>(view(this->_target_buf), this->hole_view, view(output), nullptr,
                             &constraint_mask, &radius, angle > -10.0 ? &angle : nullptr);
            swap(output, this->_target_buf);
            OutputDebugChecksum("initializing buffers: Coarse scale initial guess: ",
                                view(this->_target_buf));
        }
    } else {
        this->_tmask.swap(this->_prev_tmask);
        swap(this->_smask_buf, this->_prev_smask_buf);
    }

    calculate_masks(target_size, source_size);
    OutputDebugChecksum("SMask: ", view(this->_smask_buf));
    OutputDebugChecksum("TMask: ", this->_tmask.view);

    if (this->src_important_arg != nullptr) {
        resample<gray8_pixel_t>(*this->src_important_arg, this->_src_important_buf, source_size,
                                ResampleBilinear, -1);
        this->sweight_view = make_source_weights(const_view(this->_src_important_buf),
                                                 src_important_wt, this->_sweight_buf);
        OutputDebugChecksum("SWeights: ", this->sweight_view.data);
    }
    bool const regions = this->region_arg != nullptr && !first_level;
    if (regions) {
        if (target_size != source_size)
            raise(
                "WEFTMAP_INTERNAL_ERROR: region map needs equal target (%dx%d) and source "
                "(%dx%d) sizes",
                static_cast<long long>(target_size.x), static_cast<long long>(target_size.y),
                static_cast<long long>(source_size.x), static_cast<long long>(source_size.y));
        // Labels must not blend: the nearest filter keeps them whole.
        resample_core<gray8_pixel_t>(*this->region_arg, this->_region_masks.image, source_size.x,
                                     source_size.y, ResampleNearest);
        this->_region_masks.view = view(this->_region_masks.image);
        this->_region_masks.update_boxes(this->patch_w);
        OutputDebugChecksum("region_masks: ", this->_region_masks.view);
    }
    GrayView const smask = view(this->_smask_buf);
    this->_sample_regions.build(&smask, regions ? &this->_region_masks : nullptr,
                                static_cast<int>(source_size.x - this->patch_w + 1),
                                static_cast<int>(source_size.y - this->patch_w + 1));

    if (!first_level) {
        int const mode = do_synthesis ? upsample_mode : 1;
        if (mode == 0) {
            ConstGrayView const tmask = this->_tmask.view, prev_tmask = this->_prev_tmask.view;
            ConstGrayView const smask_c = smask, prev_smask = const_view(this->_prev_smask_buf);
            upsample_field2(view(this->_target_nnf_buf), target_size, old_source_size, source_size,
                            this->_target_nnf_guess_buf, &this->_tmask, &prev_tmask, &prev_smask,
                            &tmask, &smask_c);
            OutputDebugChecksum("upsampled _target_nnf_buf: ", view(this->_target_nnf_guess_buf));
            if (bidir) {
                upsample_field2(view(this->_source_nnf_buf), source_size, old_target_field_size,
                                target_size, this->_source_nnf_guess_buf, nullptr, &prev_smask,
                                &prev_tmask, &smask_c, &tmask);
                OutputDebugChecksum("upsampled _source_nnf_buf: ",
                                    view(this->_source_nnf_guess_buf));
            }
            output.recreate(target_size);
            gil::fill_pixels(view(output), pixel_t());
            if constexpr (is_gain_bias_compare_v<Compare>) {
                // The statistics still describe the last level; the vote
                // reads them at this level's positions.
                this->comparator.set_simage(const_view(this->_source_buf), this->patch_w);
                this->comparator.set_timage(this->tconstraint_view, this->patch_w, &this->_tmask);
            }
            OffsetView const* source_field = bidir ? &view(this->_source_nnf_guess_buf) : nullptr;
            this->vote(const_view(this->_source_buf), view(this->_target_nnf_guess_buf),
                       view(output), source_field, &smask,
                       this->src_important_arg != nullptr ? &this->sweight_view : nullptr,
                       coherence_weight, complete_weight, &this->_tmask, nullptr,
                       &this->tconstraint_view, regions ? &this->_region_masks : nullptr, nullptr,
                       has_constraints);
            OutputDebugChecksum("upsample output (with patches from vote): ", view(output));
        } else if (mode == 1) {
            resample<pixel_t>(const_view(this->_target_buf), output, target_size, ResampleBilinear,
                              -1);
            OutputDebugChecksum("upsample output via bilinear resampling: ", view(output));
        } else {
            raise("WEFTMAP_INVALID_PARAMETERS:Unknown upsample mode: %d", mode);
        }
        swap(output, this->_target_buf);
        if (this->hole_arg != nullptr)
            copy_pixels_masked<pixel_t>(this->tconstraint_view, view(this->_target_buf),
                                        this->tconstraint_mask_view);
    }

    if (do_weight) {
        ConstGrayView const constraint_mask = this->tconstraint_mask_view;
        this->tweight_view =
            compute_weights(this->hole_view, &this->_tmask, this->_tweight_buf, &constraint_mask);
        OutputDebugChecksum("TWeight: ", this->tweight_view.data);
    }
}

#define WEFTMAP_INSTANTIATE_LEVEL_BUFFERS_FOR(C)                                                \
    template WEFTMAP_API void WeftmapRecomposer<C>::preallocate_buffers(                        \
        RecycledImage<C::pixel_t>&, Point const&, Point const&, Point const&, bool, bool, bool, \
        bool, bool);                                                                            \
    template WEFTMAP_API void WeftmapRecomposer<C>::deallocate_buffers();                       \
    template WEFTMAP_API void WeftmapRecomposer<C>::duplicate_missing_views();                  \
    template WEFTMAP_API void WeftmapRecomposer<C>::preprocess_input_buffers();                 \
    template WEFTMAP_API void WeftmapRecomposer<C>::resample_buffers(                           \
        unsigned long long, Point const&, Point const&, RecycledImage<C::pixel_t>&, bool, bool, \
        bool);
#define WEFTMAP_INSTANTIATE_LEVEL_BUFFERS(P) \
    WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_LEVEL_BUFFERS_FOR)

}  // namespace WM
