// One level of synthesis: alternate correspondence search and voting.
// Instantiated per depth in em_*.cpp.
#pragma once

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/image/masks.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <boost/format.hpp>

#include <cmath>

namespace WM {
namespace detail {

// "<prefix><label>" checksums, with the prefix built only when wanted.
template <class ViewT>
void labelled_checksum(boost::format const& prefix, char const* label, ViewT const& view) {
    if (debug_output() == nullptr) return;
    OutputDebugChecksum(prefix.str(), label, view);
}

}  // namespace detail

template <class Compare>
void WeftmapRecomposer<Compare>::do_em(int level, std::vector<Constraint>& constraints,
                                       image_t& output, bool carry_target, bool use_regions,
                                       bool carry_source, int, int, Point) {
    double const saved_gamma = current_hole_gamma;
    auto const present = [](Point const& size) { return size.x != 0 || size.y != 0; };
    GrayView const smask_view = view(this->_smask_buf);
    GrayView const* smask = present(smask_view.dimensions()) ? &smask_view : nullptr;
    RegionMasks* tmask = present(this->_tmask.view.dimensions()) ? &this->_tmask : nullptr;
    SampleRegions const* samples =
        present(this->_sample_regions.dimensions()) ? &this->_sample_regions : nullptr;
    RegionMasks* regions = use_regions ? &this->_region_masks : nullptr;
    WeightInsetView const* tweights = do_weight ? &this->tweight_view : nullptr;
    WeightInsetView const* sweights =
        this->src_important_arg != nullptr ? &this->sweight_view : nullptr;
    const_view_t const source = const_view(this->_source_buf);

    if (!do_synthesis) {
        // The level only passes the resampled image on.
        if (&output != &this->_target_buf) swap(output, this->_target_buf);
        if (this->hole_arg != nullptr) {
            copy_pixels_masked<pixel_t>(this->tconstraint_view, view(output),
                                        this->tconstraint_mask_view);
            if (debug_output() != nullptr)
                detail::labelled_checksum(boost::format("do_em level %2d no synthesis: ") % level,
                                          "copy_pixels_masked output: ", view(output));
        }
        this->report_progress();
        return;
    }

    constexpr bool gain_bias = is_gain_bias_compare_v<Compare>;
    if constexpr (gain_bias)
        if (!bidir) this->comparator.set_simage(source, this->patch_w);

    bool const constrained = !constraints.empty();
    for (int i = 0; i < current_em_iters; ++i) {
        image_t& guess = i == 0 ? this->_target_buf : output;
        const_view_t const g = const_view(guess);
        boost::format prefix("do_em level %2d iter %2d: ");
        if (debug_output() != nullptr) prefix % level % i;
        auto const checksum = [&](char const* label, auto const& v) {
            if (debug_output() != nullptr) detail::labelled_checksum(prefix, label, v);
        };

        if constexpr (gain_bias)
            if (!bidir) this->comparator.set_timage(g, this->patch_w, tmask);
        this->prefer_coherent = level != 0;
        bool const minimise_target = carry_target && use_minnn;
        bool const minimise_source = carry_source && use_minnn;
        // Keep the last iteration's field as the one to minimise against.
        if (minimise_target && i > 0) swap(this->_target_nnf_buf, this->_target_nnf_guess_buf);
        if (minimise_source && i > 0) swap(this->_source_nnf_buf, this->_source_nnf_guess_buf);
        carry_target = carry_source = true;

        this->init_nnf(g.dimensions(), source.dimensions(), this->_target_nnf_buf, regions, tmask,
                       samples);
        checksum("init_nnf output: ", view(this->_target_nnf_buf));
        this->init_dist(g, source, view(this->_target_nnf_buf), this->_target_dist_buf, smask,
                        regions, tmask);
        checksum("init_dist output: ", view(this->_target_dist_buf));
        if (bidir) {
            this->init_nnf(source.dimensions(), g.dimensions(), this->_source_nnf_buf, nullptr,
                           nullptr, nullptr);
            checksum("bidir init_nnf output: ", view(this->_source_nnf_buf));
            this->init_dist(source, g, view(this->_source_nnf_buf), this->_source_dist_buf, nullptr,
                            nullptr, nullptr);
            checksum("bidir init_dist output: ", view(this->_source_dist_buf));
        }

        this->search(g, source, view(this->_target_nnf_buf), view(this->_target_dist_buf), tmask,
                     smask, nullptr, level, i, 0, regions);
        checksum("nn coordinates output: ", view(this->_target_nnf_buf));
        checksum("nn distances output: ", view(this->_target_dist_buf));
        if (minimise_target)
            minnn(g, source, view(this->_target_nnf_buf), view(this->_target_dist_buf),
                  view(this->_target_nnf_guess_buf), smask, nullptr, level, i, regions, tmask);
        if (bidir) {
            this->search(source, g, view(this->_source_nnf_buf), view(this->_source_dist_buf),
                         nullptr, nullptr, nullptr, level, i, 0, nullptr);
            checksum("bidir nn coordinates output: ", view(this->_source_nnf_buf));
            checksum("bidir nn distances output: ", view(this->_source_dist_buf));
            if (minimise_source)
                minnn(source, g, view(this->_source_nnf_buf), view(this->_source_dist_buf),
                      view(this->_source_nnf_guess_buf), nullptr, nullptr, level, i, nullptr,
                      nullptr);
        }

        // The guess is read as `init` for pixels without votes; output may
        // be the guess itself, which is safe pixel by pixel.
        view_t const guess_view = view(guess);
        this->vote(source, view(this->_target_nnf_buf), view(output),
                   bidir ? &view(this->_source_nnf_buf) : nullptr, smask, sweights,
                   coherence_weight, complete_weight, tmask, tweights, &guess_view, regions,
                   nullptr, constrained);
        checksum("vote output: ", view(output));
        if (this->hole_arg != nullptr) {
            copy_pixels_masked<pixel_t>(this->tconstraint_view, view(output),
                                        this->tconstraint_mask_view);
            checksum("copy_pixels_masked output: ", view(output));
        }
    }

    if (debug_output() != nullptr) {
        boost::format prefix("do_em level %2d ");
        prefix % level;
        detail::labelled_checksum(prefix, "final target_nnf: ", view(this->_target_nnf_buf));
        detail::labelled_checksum(prefix, "output: ", view(output));
    }
    current_hole_gamma = saved_gamma;
}

template <class Compare>
double WeftmapRecomposer<Compare>::get_objective_function() const {
    auto const& dist = const_view(this->_target_dist_buf);
    bool const masked = this->_tmask.view.width() != 0 || this->_tmask.view.height() != 0;
    Box const box = masked ? get_abox(this->patch_w, dist.dimensions(), &this->_tmask)
                           : get_abox(this->patch_w, dist.dimensions(), nullptr);
    double sum = 0.0;
    long long count = 0;
    for (int y = box.ymin; y < box.ymax; ++y)
        for (int x = box.xmin; x < box.xmax; ++x) {
            if (masked && this->_tmask.view(x, y)[0] != 0) continue;
            double const d = static_cast<double>(dist(x, y)[0]);
            if (d < 0) debug_log("Weftmap error: sqrt negative distance: %f\n", d);
            sum += std::sqrt(d);
            ++count;
        }
    return sum / static_cast<double>(count != 0 ? count : 1);
}

#define WEFTMAP_INSTANTIATE_EM_FOR(C)                                                             \
    template WEFTMAP_API void WeftmapRecomposer<C>::do_em(int, std::vector<Constraint>&,          \
                                                          RecycledImage<C::pixel_t>&, bool, bool, \
                                                          bool, int, int, Point);                 \
    template WEFTMAP_API double WeftmapRecomposer<C>::get_objective_function() const;
#define WEFTMAP_INSTANTIATE_EM(P) WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_EM_FOR)

}  // namespace WM
