// The tunables of a synthesis run: the presets chosen by RecomposerMode, the
// plain struct of the tile-by-tile path, and the pure schedules that follow
// from the parameters (scale list, next size of the gradual walk).
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <cstdint>
#include <deque>

namespace WM {

enum RecomposerMode {
    RecomposerModeDefault = 0,
    RecomposerModeHoleFill = 1,
    RecomposerModeTapestry = 2,
    RecomposerModeKeep = 3  // the recomposer itself treats it like the default
};

// The fields the tile-by-tile path sets on its recomposer.
struct SynthesisParameters {
    std::int32_t half_search_window;
    std::int32_t coarse_size;
    bool const_coarse_size;
    double hole_gamma;
    std::int32_t em_iters_min;
    std::int32_t em_iters_final;
    double directional_roifill_angle;
};

// The recomposer's own part of the parameter block, in declared order; the
// search parameters before it live in Weftmap.
struct WEFTMAP_API RecomposerParameters {
    // Defaults, then the preset of `mode`.
    explicit RecomposerParameters(RecomposerMode mode = RecomposerModeDefault);

    bool generate_index_map = false;
    double hole_gamma = 1.3;
    std::int32_t nn_iters_max = 5;
    std::int32_t rs_max_max = 2147483647;
    bool bidir = true;
    std::int32_t coarse_size = 35;
    bool const_coarse_size = false;
    double pyramid_ratio = 0.7;
    double coherence_weight = 0.5;
    double complete_weight = 0.5;
    std::int32_t upsample_mode = 0;
    bool do_weight = false;
    bool weigh_similarity = false;
    bool weigh_hole = false;
    double last_upscale_step = 0.5;
    double min_hole_width = 0.75;
    std::int32_t first_synthesis_level = 0;
    std::int32_t em_iters_gradres = 20;
    std::int32_t em_iters_max = 6;
    std::int32_t em_iters_min = 3;
    double em_iters_step = 1.0;
    std::int32_t em_iters_final = 1;
    std::int32_t patch_w_refine = -1;
    double coherence_w_refine = -1.0;
    double complete_w_refine = -1.0;
    // The option "-minnn"; the operation of the same name is minnn().
    bool use_minnn = false;
    std::int32_t minnn_opt_levels = 3;
    std::int32_t minnn_optr_nn_iters = 2;
    std::int32_t minnn_optr_rs_max = 1;
    std::int32_t minnn_optp_nn_iters = 2;
    std::int32_t minnn_optp_rs_max = 1;
    // Printed and otherwise inert.
    std::int32_t line_correct_rad = 2;
    double line_move_rad = 8.0;
    double reshuffle_gamma = 1.05;
    double src_important_wt = 0.0;
    bool lines_are_free = false;
    double sigma_line = 0.5;
    double sigma_affine = 0.6;
    bool do_synthesis = false;
    std::int32_t synthesis_coarse_size = -1;
    std::int32_t min_sample_patches = 1;
    double min_search_hole_ratio = 0.0;
    double search_hole_ratio_factor = 0.33;
    double directional_roifill_angle = -1000.0;
    double current_em_iters = -1.0;
    double current_hole_gamma = 1.3;
};

// Level scales from the coarsest `s0` up to 1.0: the last step is
// `last_upscale_step`, all others `pyramid_ratio`, and a candidate within a
// factor of max(sqrt(ratio), 0.9) of `s0` is dropped.
WEFTMAP_API std::deque<double> build_scale_list(double s0, double pyramid_ratio,
                                                double last_upscale_step);

// The size of a level at `scale`: each side rounded half up.
WEFTMAP_API Point level_size(Point const& full_size, double scale);

// One step of the gradual walk from `current` towards `goal`, per axis.
WEFTMAP_API Point next_gradual_size(Point const& current, Point const& goal, double ratio);

}  // namespace WM
