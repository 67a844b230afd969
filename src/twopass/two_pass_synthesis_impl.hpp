// Two-pass synthesis: the object, its progress mapping, the coarse pass and
// the host-facing front. The tiled pass lives in tiled_pass_impl.hpp.
// Instantiated per depth in two_pass_synthesis_*.cpp.
#pragma once

#include "frame/wrapping.hpp"
#include "twopass/inputs.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/twopass/two_pass_synthesis.hpp>

#include <cstdint>
#include <iostream>

namespace WM {
namespace detail {

inline std::int32_t low_32_bits(std::ptrdiff_t v) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
}

}  // namespace detail

template <class Compare>
TwoPassSynthesis<Compare>::TwoPassSynthesis(MultiScalePixelAccessBase<pixel_t>* access,
                                            ClientBase<pixel_t>* client)
    : recomposer(this, RecomposerModeDefault), pixel_access(access), client(client) {}

template <class Compare>
TwoPassSynthesis<Compare>::~TwoPassSynthesis() = default;

template <class Compare>
void TwoPassSynthesis<Compare>::updateProgress(float fraction) {
    if (client == nullptr) return;
    float const* const first = progress_table.data();
    float const* const end = first + progress_table.size();
    // Outside a run there is no step to map onto.
    if (progress_pos == nullptr || progress_pos <= first || progress_pos > end) {
        client->updateProgress(fraction);
        return;
    }
    if (progress_pos == end) {
        client->updateProgress(progress_table.back());
        return;
    }
    double const p = fraction;
    client->updateProgress(static_cast<float>((1.0 - p) * progress_pos[-1] + p * progress_pos[0]));
}

template <class Compare>
bool TwoPassSynthesis<Compare>::checkAbort() {
    return client != nullptr && client->checkAbort();
}

template <class Compare>
void TwoPassSynthesis<Compare>::finish_step() {
    if (progress_pos != nullptr && progress_pos < progress_table.data() + progress_table.size())
        ++progress_pos;
}

template <class Compare>
void TwoPassSynthesis<Compare>::run() {
    int const s = CoarsePass();
    if (s != 0) {
        TiledPass(s);
        return;
    }
    pixel_access->safeSetOutputPixels(view(output_buf), Point(0, 0));
}

template <class Compare>
int TwoPassSynthesis<Compare>::CoarsePass() {
    auto& access = *pixel_access;
    // Sizing and reading follow this first answer, given at the finest scale.
    auto const in = detail::which_inputs(access);

    Point S, T, P, T0;
    int s = 0;
    bool fits = false;
    for (; s < access.getNumScales(); ++s) {
        access.setScale(s);
        S = access.getSourceSize();
        T = access.getTargetSize();
        P = access.getHoleBoundsSize();
        if (s == 0) T0 = T;
        try {
            input_buf.recreate(S);
            if (s != 0) {
                // A coarse scale also reserves what the tiles will need.
                counter_buf.recreate(S);
                init_buf.recreate(T);
                tconstraint_buf.recreate(T);
                tile_output_buf.recreate(T);
                valid_buf.recreate(S);
                tconstraint_mask_buf.recreate(T);
                temp_mask_buf.recreate(Point(std::max(S.x, T.x), std::max(S.y, T.y)));
                P = T;
            } else {
                if (in.init) init_buf.recreate(T);
                if (in.a_constraint) tconstraint_buf.recreate(T);
                if (in.a_constraint_mask) tconstraint_mask_buf.recreate(T);
                if (in.valid) valid_buf.recreate(S);
            }
            if (in.hole) hole_buf.recreate(T);
            if (in.b_weight) source_weight_buf.recreate(S);
            recomposer.preallocate_buffers(output_buf, S, T, P, in.a_constraint || s != 0,
                                           in.valid || s != 0, false, in.b_weight,
                                           in.a_constraint_mask || s != 0);
            fits = true;
            break;
        } catch (Exception const&) {
            // Most likely the memory limit: give everything back and try the
            // next coarser scale.
            output_buf.deallocate();
            input_buf.deallocate();
            counter_buf.deallocate();
            init_buf.deallocate();
            tconstraint_buf.deallocate();
            tile_output_buf.deallocate();
            hole_buf.deallocate();
            valid_buf.deallocate();
            tconstraint_mask_buf.deallocate();
            source_weight_buf.deallocate();
            temp_mask_buf.deallocate();
            recomposer.deallocate_buffers();
        }
    }
    if (!fits)
        raise_as(ErrorClass::MemoryLimit,
                 "WEFTMAP_NOT_ENOUGH_MEMORY: not enough memory to recompose coarsest scale.\n");

    // Every tile reuses these without a new allocation.
    input_buf.lock();
    counter_buf.lock();
    output_buf.lock();
    hole_buf.lock();
    init_buf.lock();
    valid_buf.lock();
    tconstraint_mask_buf.lock();
    source_weight_buf.lock();
    temp_mask_buf.lock();

    std::cout << "coarse scale " << s << '\n' << std::flush;

    // Tiles as large as the coarse target: each tile's job costs what the
    // coarse job has just been shown to fit in.
    if (s != 0) tiles.InitTiles(T, T0, overlap_fraction);
    PrepareProgressTable(P);

    Point const zero(0, 0);
    view_t input = view(input_buf);
    access.getInputPixels(input, zero);
    GrayView hole = view(hole_buf);
    if (in.hole) access.safeGetHolePixels(hole, zero);
    view_t init = view(init_buf);
    if (in.init) access.getInitPixels(init, zero);
    GrayView valid = view(valid_buf);
    if (in.valid) access.getValidPixels(valid, zero);
    view_t constraint = view(tconstraint_buf);
    if (in.a_constraint) access.getAConstraintPixels(constraint, zero);
    GrayView constraint_mask = view(tconstraint_mask_buf);
    if (in.a_constraint_mask) access.getAConstraintMaskPixels(constraint_mask, zero);
    GrayView weight = view(source_weight_buf);
    if (in.b_weight) access.getBWeightPixels(weight, zero);

    OutputDebugChecksum("multipass_coarse_input:", input);
    if (in.hole) OutputDebugChecksum("multipass_coarse_hole: ", hole);
    if (in.init) OutputDebugChecksum("multipass_coarse_init: ", init);
    if (in.valid) OutputDebugChecksum("multipass_coarse_valid: ", valid);
    if (in.a_constraint) OutputDebugChecksum("multipass_coarse_tconstraint: ", constraint);
    if (in.a_constraint_mask)
        OutputDebugChecksum("multipass_coarse_tconstraint_mask: ", constraint_mask);
    if (in.b_weight) OutputDebugChecksum("multipass_coarse_source_weight: ", weight);

    try {
        Recompose(output_buf, false);
    } catch (ExceptionNotEnoughPatches const&) {
        // At full size the host's picture is at fault, not the choice of scale.
        if (s != 0)
            raise(
                "WEFTMAP_COARSE_TOO_SMALL: Coarse scale input is so small that it doesn't have "
                "enough valid patches.\n");
        throw;
    }
    finish_step();
    return s;
}

template <class Compare>
void TwoPassSynthesis<Compare>::Recompose(image_t& out, bool tiled) {
    auto& access = *pixel_access;
    auto const in = detail::which_inputs(access);
    Point const origin = access.getHoleBoundsOrigin();
    Point const size = access.getHoleBoundsSize();
    std::int32_t const x0 = detail::low_32_bits(origin.x);
    std::int32_t const y0 = detail::low_32_bits(origin.y);
    Box box{x0, y0, wrap_add(x0, detail::low_32_bits(size.x)),
            wrap_add(y0, detail::low_32_bits(size.y))};

    std::vector<Constraint> constraints;
    view_t const source = view(input_buf);
    GrayView const hole = view(hole_buf);
    view_t const init = view(init_buf);
    GrayView const valid = view(valid_buf);
    view_t const constraint = view(tconstraint_buf);
    GrayView const weight = view(source_weight_buf);
    GrayView const constraint_mask = view(tconstraint_mask_buf);
    recomposer.recompose(
        source, constraints, out, in.hole ? &hole : nullptr, tiled ? nullptr : &box,
        tiled || in.init ? &init : nullptr, tiled || in.valid ? &valid : nullptr,
        tiled || in.a_constraint ? &constraint : nullptr, nullptr, in.b_weight ? &weight : nullptr,
        tiled || in.a_constraint_mask ? &constraint_mask : nullptr);
}

template <class Compare>
void TwoPassSynthesis<Compare>::PrepareProgressTable(Point first_size) {
    // The work of a step is its pixel count, in wrapping 32-bit arithmetic.
    auto const work = [](Point const& size) {
        return static_cast<std::uint32_t>(size.x) * static_cast<std::uint32_t>(size.y);
    };
    std::vector<std::uint32_t> sums{work(first_size)};
    for (Tile const& tile : tiles) sums.push_back(sums.back() + work(tile.size));
    std::uint32_t const total = sums.back();
    progress_table.clear();
    progress_table.push_back(0.0f);
    // A job without any work is done as soon as it starts.
    for (std::uint32_t sum : sums)
        progress_table.push_back(total == 0 ? 1.0f
                                            : static_cast<float>(sum) / static_cast<float>(total));
    progress_pos = progress_table.data() + 1;
}

template <class Pixel>
TwoPassSynthesisInterface<Pixel>::TwoPassSynthesisInterface(
    MultiScalePixelAccessBase<Pixel>* access, ClientBase<Pixel>* client, PatchCompareMode,
    RecomposerMode mode)
    : synthesis(std::make_shared<synthesis_t>(access, client)) {
    if (mode == RecomposerModeKeep) return;
    // This recomposer reports straight to the host, each recomposition from
    // 0 to 1, bypassing the progress table.
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> const fresh(client, mode);
    synthesis->recomposer = fresh;
    synthesis->recomposer.client = client;
}

template <class Pixel>
void TwoPassSynthesisInterface<Pixel>::run() {
    synthesis->run();
}

template <class Pixel>
void TwoPassSynthesisInterface<Pixel>::setSynthesisMode(RecomposerMode mode) {
    // Assignment keeps the long-lived buffers of the held recomposer.
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> const fresh(synthesis.get(), mode);
    synthesis->recomposer = fresh;
    synthesis->recomposer.client = synthesis.get();
}

template <class Pixel>
void TwoPassSynthesisInterface<Pixel>::setSynthesisParameters(
    std::map<std::string, std::string>& options) {
    ConfigureRecomposerFromOptions(options, synthesis->recomposer);
}

template <class Pixel>
void TwoPassSynthesisInterface<Pixel>::setSynthesisParameters(SynthesisParameters const& params) {
    auto& r = synthesis->recomposer;
    r.half_search_window = params.half_search_window;
    r.coarse_size = params.coarse_size;
    r.const_coarse_size = params.const_coarse_size;
    r.hole_gamma = params.hole_gamma;
    r.em_iters_min = params.em_iters_min;
    r.em_iters_final = params.em_iters_final;
    r.directional_roifill_angle = params.directional_roifill_angle;
}

template <class Pixel>
bool TwoPassSynthesisInterface<Pixel>::checkAbort() {
    return synthesis->checkAbort();
}

template <class Pixel>
void TwoPassSynthesisInterface<Pixel>::updateProgress(float fraction) {
    synthesis->updateProgress(fraction);
}

#define WEFTMAP_INSTANTIATE_TWO_PASS_SYNTHESIS(P)                          \
    template class WEFTMAP_API TwoPassSynthesis<TranslatePatchCompare<P>>; \
    template class WEFTMAP_API TwoPassSynthesisInterface<P>;

}  // namespace WM
