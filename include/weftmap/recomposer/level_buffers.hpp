// Every image a run works on, reserved once at its largest size and
// re-viewed at each level, with the views that describe the current level
// and the caller's inputs.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/correspondence/sample_regions.hpp>
#include <weftmap/correspondence/vote.hpp>
#include <weftmap/image/mipmap.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

namespace WM {

template <class Pixel>
struct RecomposerLevelBuffers {
    using Gray = RecycledImage<gray8_pixel_t>;

    // Fields: target to source, and source to target when searching both ways.
    RecycledImage<distance_pixel_t<Pixel>> _target_dist_buf;
    RecycledImage<offset_pixel_t> _target_nnf_buf;
    RecycledImage<offset_pixel_t> _target_nnf_guess_buf;
    RecycledImage<distance_pixel_t<Pixel>> _source_dist_buf;
    RecycledImage<offset_pixel_t> _source_nnf_buf;
    RecycledImage<offset_pixel_t> _source_nnf_guess_buf;

    // Images at the level's size.
    RecycledImage<Pixel> _target_buf;
    RecycledImage<Pixel> _source_buf;
    RecycledImage<Pixel> _tconstraint_buf;
    Gray _hole_buf;

    // Patch masks: which source corners may be sampled (0) and which target
    // corners are synthesised (0), for this level and the last.
    SampleRegions _sample_regions;
    Gray _smask_buf;
    Gray _prev_smask_buf;
    RegionMasks _tmask;
    RegionMasks _prev_tmask;

    Gray _valid_buf;
    Gray _tconstraint_mask_buf;
    Gray _src_important_buf;
    RecycledImage<weight_pixel_t> _sweight_buf;
    RegionMasks _region_masks;

    MipMap<Pixel> _source_mipmap;
    MipMap<Pixel> _tconstraint_mipmap;
    MipMap<gray8_pixel_t> _hole_mipmap;
    MipMap<gray8_pixel_t> _valid_mipmap;
    MipMap<gray8_pixel_t> _tconstraint_mask_mipmap;

    // Field entries that survived upsampling (255), were filled (less), or
    // are missing (0).
    Gray _validnn_buf;
    RecycledImage<weight_pixel_t> _tweight_buf;

    // The current level.
    View<Pixel> source_level_view;
    GrayView hole_view;
    GrayView valid_view;
    View<Pixel> tconstraint_view;
    GrayView tconstraint_mask_view;
    WeightInsetView tweight_view;
    WeightInsetView sweight_view;

    // The caller's inputs, valid for the duration of a run.
    View<Pixel> source_view;
    View<Pixel> const* guess_arg = nullptr;
    GrayView const* hole_arg = nullptr;
    GrayView const* valid_arg = nullptr;
    GrayView const* region_arg = nullptr;
    View<Pixel> const* tconstraint_arg = nullptr;
    GrayView const* src_important_arg = nullptr;
    GrayView const* tconstraint_mask_arg = nullptr;
};

}  // namespace WM
