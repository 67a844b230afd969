// The recomposer object: construction, the parameter block and its option
// strings, the per-level schedules and the progress plan.
// Instantiated per depth in recomposer_*.cpp.
#pragma once

#include <weftmap/correspondence/minnn.hpp>
#include <weftmap/correspondence/random.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/hole_measures.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <algorithm>
#include <cmath>
#include <sstream>

namespace WM {

template <class Compare>
unsigned char WeftmapRecomposer<Compare>::synthesis_possible = 0;

namespace detail {

// The search parameters that belong to the parameter block.
template <class Compare>
void copy_search_parameters(Weftmap<Compare> const& from, Weftmap<Compare>& to) {
    to.patch_w = from.patch_w;
    to.nn_iters = from.nn_iters;
    to.rs_max = from.rs_max;
    to.rs_min = from.rs_min;
    to.rs_ratio = from.rs_ratio;
    to.rs_iters = from.rs_iters;
    to.do_propagate = from.do_propagate;
    to.min_update_box = from.min_update_box;
    to.prefer_coherent = from.prefer_coherent;
    to.allow_coherent = from.allow_coherent;
    to.half_search_window = from.half_search_window;
}

}  // namespace detail

template <class Compare>
WeftmapRecomposer<Compare>::WeftmapRecomposer(ClientBase<pixel_t>* client, RecomposerMode mode)
    : Base(client), RecomposerParameters(mode) {
    if (mode == RecomposerModeHoleFill) {
        this->patch_w = 7;
        this->rs_iters = 1.0;
        this->allow_coherent = true;
        this->half_search_window = -500;
    } else if (mode == RecomposerModeTapestry) {
        this->patch_w = 7;
        this->allow_coherent = true;
    }
}

template <class Compare>
WeftmapRecomposer<Compare>::WeftmapRecomposer(WeftmapRecomposer const& other)
    : Base(other.client), RecomposerParameters(other) {
    detail::copy_search_parameters<Compare>(other, *this);
}

template <class Compare>
WeftmapRecomposer<Compare>& WeftmapRecomposer<Compare>::operator=(WeftmapRecomposer const& other) {
    if (this == &other) return *this;
    detail::copy_search_parameters<Compare>(other, *this);
    // These describe the run in progress, not the configuration.
    auto const kept_first_level = first_synthesis_level;
    auto const kept_min_patches = min_sample_patches;
    auto const kept_min_ratio = min_search_hole_ratio;
    auto const kept_ratio_factor = search_hole_ratio_factor;
    auto const kept_gamma = current_hole_gamma;
    static_cast<RecomposerParameters&>(*this) = other;
    first_synthesis_level = kept_first_level;
    min_sample_patches = kept_min_patches;
    min_search_hole_ratio = kept_min_ratio;
    search_hole_ratio_factor = kept_ratio_factor;
    current_hole_gamma = kept_gamma;
    return *this;
}

template <class Compare>
WeftmapRecomposer<Compare>::~WeftmapRecomposer() = default;

template <class Compare>
void WeftmapRecomposer<Compare>::setParameters(std::map<std::string, std::string>& options) {
    ConfigureRecomposerFromOptions(options, *this);
}

template <class Compare>
void ConfigureRecomposerFromOptions(std::map<std::string, std::string>& options,
                                    WeftmapRecomposer<Compare>& r) {
    auto const has = [&](char const* key) { return options.find(key) != options.end(); };
    // The positive key of a pair wins; the negative one is read only alone.
    auto const flag_pair = [&](char const* on, char const* off, bool& field) {
        if (has(on))
            field = true;
        else if (has(off))
            field = false;
    };
    // Values are read by stream into the field's type; an unreadable value
    // leaves the field as it was.
    auto const read = [&](char const* key, auto& field) -> bool {
        if (!has(key)) return false;
        std::istringstream in(options[key]);
        auto value = field;
        if (!(in >> value)) return false;
        field = value;
        return true;
    };

    if (has("-no_sim_weight")) r.weigh_similarity = false;
    if (has("-no_hole_weight")) r.weigh_hole = false;
    flag_pair("-coherent", "-no_coherent", r.allow_coherent);
    flag_pair("-minnn", "-no_minnn", r.use_minnn);
    if (has("-const_coarse_size")) r.const_coarse_size = true;
    if (has("-generate_index_map")) r.generate_index_map = true;
    flag_pair("-do_propagate", "-no_propagate", r.do_propagate);
    read("-patch_w", r.patch_w);
    read("-nn_iters_max", r.nn_iters_max);
    read("-rs_max_max", r.rs_max_max);
    read("-rs_min", r.rs_min);
    read("-rs_ratio", r.rs_ratio);
    read("-rs_iters", r.rs_iters);
    read("-last_upscale_step", r.last_upscale_step);
    if (read("-em_iters", r.em_iters_gradres))
        r.em_iters_max = r.em_iters_min = r.em_iters_final = r.em_iters_gradres;
    read("-em_iters_gradres", r.em_iters_gradres);
    read("-em_iters_max", r.em_iters_max);
    read("-em_iters_min", r.em_iters_min);
    read("-em_iters_step", r.em_iters_step);
    read("-em_iters_final", r.em_iters_final);
    read("-patch_w_refine", r.patch_w_refine);
    read("-coherence_w_refine", r.coherence_w_refine);
    read("-complete_w_refine", r.complete_w_refine);
    read("-minnn_opt_levels", r.minnn_opt_levels);
    read("-minnn_optr_nn_iters", r.minnn_optr_nn_iters);
    read("-minnn_optr_rs_max", r.minnn_optr_rs_max);
    read("-minnn_optp_nn_iters", r.minnn_optp_nn_iters);
    read("-minnn_optp_rs_max", r.minnn_optp_rs_max);
    read("-bidir", r.bidir);
    read("-coarse_size", r.coarse_size);
    read("-min_hole_width", r.min_hole_width);
    read("-pyramid_ratio", r.pyramid_ratio);
    read("-coherence_weight", r.coherence_weight);
    read("-complete_weight", r.complete_weight);
    read("-hole_gamma", r.hole_gamma);
    read("-src_important_weight", r.src_important_wt);
    read("-directional_roifill_angle", r.directional_roifill_angle);
    read("-upsample_mode", r.upsample_mode);
    int window = r.half_search_window;
    if (read("-hole_search_window", window)) r.half_search_window = window / 2;
    int seed = 0;
    if (read("-rand", seed))
        seed_random(seed < 1 ? static_cast<unsigned>(elapsed_seconds())
                             : static_cast<unsigned>(seed));
}

template <class Compare>
void WeftmapRecomposer<Compare>::serialize() const {
    if (debug_output() == nullptr) return;
    auto const text = [](bool b) { return b ? "true" : "false"; };
    Box const& box = this->min_update_box;
    debug_log("patch_w:             %d\n", this->patch_w);
    debug_log("nn_iters_max:        %d\n", nn_iters_max);
    debug_log("rs_max:              %d\n", this->rs_max);
    debug_log("rs_min:              %d\n", this->rs_min);
    debug_log("rs_ratio:            %f\n", this->rs_ratio);
    debug_log("rs_iters:            %f\n", this->rs_iters);
    debug_log("do_propagate:        %s\n", text(this->do_propagate));
    debug_log("min_update_box:      (%d,%d)-(%d,%d)\n", box.xmin, box.ymin, box.xmax, box.ymax);
    debug_log("prefer_coherent:     %s\n", text(this->prefer_coherent));
    debug_log("allow_coherent:      %s\n", text(this->allow_coherent));
    debug_log("half_search_window:  %d\n", this->half_search_window);
    debug_log("current_em_iters:    %s\n", current_em_iters);
    debug_log("bidir:               %d\n", text(bidir));
    debug_log("coarse_size:         %d\n", coarse_size);
    debug_log("const_coarse_size:   %s\n", text(const_coarse_size));
    debug_log("min_hole_width:      %f\n", min_hole_width);
    debug_log("pyramid_ratio:       %f\n", pyramid_ratio);
    debug_log("coherence_weight:    %f\n", coherence_weight);
    debug_log("complete_weight:     %f\n", complete_weight);
    debug_log("do_weight:           %s\n", text(do_weight));
    debug_log("weigh_similarity:    %s\n", text(weigh_similarity));
    debug_log("weigh_hole:          %s\n", text(weigh_hole));
    debug_log("last_upscale_step:   %f\n", last_upscale_step);
    debug_log("em_iters_gradres:    %d\n", em_iters_gradres);
    debug_log("em_iters_max:        %d\n", em_iters_max);
    debug_log("em_iters_min:        %d\n", em_iters_min);
    debug_log("em_iters_step:       %f\n", em_iters_step);
    debug_log("em_iters_final:      %d\n", em_iters_final);
    debug_log("patch_w_refine:      %d\n", patch_w_refine);
    debug_log("coherence_w_refine:  %f\n", coherence_w_refine);
    debug_log("complete_w_refine:   %f\n", complete_w_refine);
    debug_log("minnn:               %s\n", text(use_minnn));
    debug_log("minnn_opt_levels:    %d\n", minnn_opt_levels);
    debug_log("minnn_optr_nn_iters: %d\n", minnn_optr_nn_iters);
    debug_log("minnn_optr_rs_max:   %d\n", minnn_optr_rs_max);
    debug_log("minnn_optp_nn_iters: %d\n", minnn_optp_nn_iters);
    debug_log("minnn_optp_rs_max:   %d\n", minnn_optp_rs_max);
    debug_log("line_correct_rad:    %d\n", line_correct_rad);
    debug_log("line_move_rad:       %f\n", line_move_rad);
    debug_log("hole_gamma:          %f\n", hole_gamma);
    debug_log("reshuffle_gamma:     %f\n", reshuffle_gamma);
    debug_log("src_important_wt:    %f\n", src_important_wt);
    debug_log("lines_are_free:      %s\n", text(lines_are_free));
    debug_log("sigma_line:          %f\n", sigma_line);
    debug_log("sigma_affine:        %f\n\n", sigma_affine);
    debug_log("do_synthesis:        %s\n\n", text(do_synthesis));
    debug_log("synthesis_coarse_size: %d\n\n", synthesis_coarse_size);
    debug_log("directional_roifill_angle: %f\n\n", directional_roifill_angle);
}

template <class Compare>
void WeftmapRecomposer<Compare>::adjust_level_parameters(unsigned long long level,
                                                         Point const& dimensions,
                                                         std::deque<double> const& level_scales,
                                                         double& em_iters, int& rs_max,
                                                         int& nn_iters) {
    auto const n = static_cast<long long>(level_scales.size());
    auto const L = static_cast<long long>(level);
    long long const f = first_synthesis_level;
    if (L == f) {
        em_iters = em_iters_gradres;
    } else if (L == n - 1) {
        em_iters = em_iters_final;
    } else if (L == n - 2) {
        em_iters = em_iters_min;
    } else {
        double const a = static_cast<double>(n - L - 2) * em_iters_step + em_iters_min;
        double const b = em_iters_max * 0.8 - static_cast<double>(L - f - 1) * 2.0 * em_iters_step;
        em_iters = std::min<double>(std::max<double>(std::max(a, b), em_iters_min), em_iters_max);
    }
    if (use_minnn && minnn_opt_levels > 0 && L >= n - minnn_opt_levels && L > f + 1) {
        rs_max = minnn_optr_rs_max;
        nn_iters = minnn_optr_nn_iters;
    } else {
        Point const size = level_size(dimensions, level_scales[level]);
        rs_max = static_cast<int>(std::min<std::ptrdiff_t>(std::max(size.x, size.y), rs_max_max));
        nn_iters = nn_iters_max;
    }
    current_hole_gamma = hole_gamma;
}

template <class Compare>
void WeftmapRecomposer<Compare>::run_synthesis_checks(Point const& target_size,
                                                      Point const& full_size, int level,
                                                      int repeat) {
    if (do_synthesis) return;
    if (!synthesis_possible) {
        int count = 0;
        double const ratio = compute_search_hole_patch_ratio(
            this->patch_w, const_view(this->_smask_buf), this->_tmask.view, count);
        if (count >= min_sample_patches && ratio >= min_search_hole_ratio) synthesis_possible = 1;
    }
    do_synthesis =
        synthesis_possible && std::min(target_size.x, target_size.y) >= synthesis_coarse_size;
    if (do_synthesis) {
        first_synthesis_level = level;
        prepare_progress_table(full_size, repeat, level);
    }
}

template <class Compare>
void WeftmapRecomposer<Compare>::compute_adaptive_coarse_size(int& c, Point const& dimensions) {
    double const wanted = this->patch_w * min_hole_width;
    long long width = -1, height = -1;
    double s = 0.0;
    get_resample_size(dimensions, c, width, height, s);
    double const now = this->hole_max_dist_bound * s * 2.0;
    if (wanted > now) c = static_cast<int>(c * wanted / std::max(now, 0.001));
    int const a = static_cast<int>(static_cast<double>(dimensions.x) * last_upscale_step);
    int const b = static_cast<int>(static_cast<double>(dimensions.y) * last_upscale_step);
    c = std::min({c, a, b});
    synthesis_coarse_size = c;
}

template <class Compare>
void WeftmapRecomposer<Compare>::shift_constrained_regions(std::vector<Constraint>&, Point const&) {
}

template <class Compare>
void WeftmapRecomposer<Compare>::prepare_progress_table(Point const& dimensions, int repeat,
                                                        int first_level) {
    double const s = static_cast<double>(coarse_size) /
                     static_cast<double>(std::min(dimensions.x, dimensions.y));
    std::deque<double> const plan = build_scale_list(s, pyramid_ratio, last_upscale_step);
    double const log_ratio = std::log(this->rs_ratio);
    auto const rounds_of = [&](int radius) {
        return std::trunc(std::max(-std::log(static_cast<double>(radius)) / log_ratio, 1.0));
    };
    double acc = 0.0;
    std::vector<double> sums;
    for (std::size_t L = first_level; L < plan.size(); ++L) {
        double em = 0.0;
        int radius = 0, sweeps = 0;
        adjust_level_parameters(L, dimensions, plan, em, radius, sweeps);
        Point const size = level_size(dimensions, plan[L]);
        double const pix = static_cast<double>(size.x) * static_cast<double>(size.y);
        if (!do_synthesis) {
            acc += pix;
            sums.push_back(acc);
            continue;
        }
        struct Phase {
            int sweeps;
            double rounds;
        };
        Phase const phases_of[2] = {{sweeps, rounds_of(radius)},
                                    {minnn_optp_nn_iters, rounds_of(minnn_optp_rs_max)}};
        int const reps = L == 0 ? repeat : 1;
        for (int rep = 0; rep < reps; ++rep)
            for (int i = 0; i < em; ++i) {
                int const phases = L == std::size_t(first_level) && i == 0 ? 1 : 1 + use_minnn;
                for (int p = 0; p < phases; ++p)
                    for (int sweep = 0; sweep < phases_of[p].sweeps; ++sweep) {
                        double const cost =
                            std::trunc((phases_of[p].rounds * this->rs_iters + 2.0) * pix);
                        for (int direction = 0; direction < (bidir ? 2 : 1); ++direction) {
                            acc += cost;
                            sums.push_back(acc);
                        }
                    }
            }
    }
    float const end = do_synthesis ? 1.0f : 0.1f;
    float const start =
        this->progress_table.empty() ? 0.0f : this->progress_table[this->progress_cursor];
    float const span = std::max(end - start, 0.0f);
    double const total = std::max(acc, 1.0);
    this->progress_table.resize(sums.size());
    for (std::size_t i = 0; i < sums.size(); ++i)
        this->progress_table[i] =
            std::min(static_cast<float>(sums[i] / total) * span + start, 1.0f);
    this->progress_cursor = 0;
}

template <class Compare>
void WeftmapRecomposer<Compare>::minnn(const_view_t const& a, const_view_t const& b,
                                       OffsetView const& nnf,
                                       typename Base::distance_view_t const& dist,
                                       OffsetView const& prev_nnf, GrayView const* b_mask,
                                       ConstGrayView const* patch_mask, int level, int iteration,
                                       RegionMasks* region_masks, RegionMasks* a_mask) {
    WM::minnn<Compare>(*this, a, b, nnf, dist, prev_nnf, b_mask, patch_mask, level, iteration,
                       region_masks, a_mask, minnn_optp_nn_iters, minnn_optp_rs_max);
}

#define WEFTMAP_INSTANTIATE_RECOMPOSER_FOR(C)                                                     \
    template class WEFTMAP_API WeftmapRecomposer<C>;                                              \
    template WEFTMAP_API void ConfigureRecomposerFromOptions(std::map<std::string, std::string>&, \
                                                             WeftmapRecomposer<C>&);
#define WEFTMAP_INSTANTIATE_RECOMPOSER(P) \
    WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_RECOMPOSER_FOR)

}  // namespace WM
