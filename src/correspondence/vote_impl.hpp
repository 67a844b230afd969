// Voting: patches rebuild the image from correspondence fields.
// Instantiated per depth in vote_*.cpp.
#pragma once

#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/parallel.hpp>

#include "correspondence/vote_avx2.hpp"
#include "correspondence/vote_window.hpp"
#if defined(__SSE2__)
#include "correspondence/vote_sse2.hpp"
#endif

#include <tbb/task_arena.h>
#include <boost/gil/algorithm.hpp>

#include <atomic>

namespace WM {
namespace detail {

// The mean of the votes, rounded half up and clamped for integer channels.
template <class Channel>
inline Channel normalised_channel(double mean) {
    if constexpr (std::is_floating_point_v<Channel>) {
        return static_cast<Channel>(mean);
    } else {
        double const t = mean + 0.5;
        constexpr double limit = double(std::numeric_limits<Channel>::max()) + 1.0;
        if (!(t < limit)) return std::numeric_limits<Channel>::max();
        // Below zero only with negative weights; narrowing wraps as it would.
        return static_cast<Channel>(t > -2147483648.0 ? static_cast<int>(t) : 0);
    }
}

// Writes the weighted mean of `acc` to `out`; false when it holds no weight.
template <class Pixel>
inline bool normalise(accumulator_pixel_t<Pixel> const& acc, Pixel& out) {
    constexpr int n = num_channels_v<Pixel>;
    double const weight = acc[n];
    if (weight == 0.0) return false;
    double const q = 1.0 / weight;
    for (int c = 0; c < n; ++c)
        set_channel(out, c, normalised_channel<channel_base_t<Pixel>>(q * acc[c]));
    return true;
}

#if !defined(__SSE2__)
template <int Count>
inline void multiply_add(double* sums, double const* values, double weight) {
    for (int k = 0; k < Count; ++k) sums[k] += weight * values[k];
}
#endif

// Adds `count` consecutive source pixels to consecutive accumulator pixels.
// The weight slot is treated as one more channel whose value is 1, so that
// each accumulator pixel is one uniform multiply-add over n + 1 doubles.
template <class Pixel>
inline void add_votes(accumulator_pixel_t<Pixel>* acc, Pixel const* src, int count, double weight) {
    constexpr int n = num_channels_v<Pixel>;
    for (int i = 0; i < count; ++i) {
        double value[n + 1];
        for (int c = 0; c < n; ++c) value[c] = static_cast<double>(channel_value(src[i], c));
        value[n] = 1.0;
        multiply_add<n + 1>(&acc[i][0], value, weight);
    }
}

// The same through the widest kernel: its AVX2 twin where the processor
// has it (`avx2` is cpu_has_avx2(), asked once per vote).
template <class Pixel>
inline void add_votes(accumulator_pixel_t<Pixel>* acc, Pixel const* src, int count, double weight,
                      [[maybe_unused]] bool avx2) {
#if defined(WEFTMAP_AVX2_KERNELS)
    if (avx2) {
        add_votes_avx2(acc, src, count, weight);
        return;
    }
#endif
    add_votes(acc, src, count, weight);
}

// Adds the votes of the window's seven patches to one accumulator column
// of seven rows (row j takes row j of every patch), patch by patch in the
// window's order, through the widest kernel. Seven silent patches would
// add nothing.
template <class Pixel>
inline void add_column_votes(accumulator_pixel_t<Pixel>* const* rows, std::ptrdiff_t column,
                             VoteWindow<Pixel> const& window, [[maybe_unused]] bool avx2) {
    if (window.all_silent()) return;
#if defined(WEFTMAP_AVX2_KERNELS)
    if (avx2) {
        add_column_votes_avx2(rows, column, window);
        return;
    }
#endif
    for (int j = 0; j < 7; ++j)
        for (int k = 0; k < 7; ++k) {
            int const e = window.oldest + k;
            add_votes(&rows[j][column], window.row(e, j) + (6 - k), 1, window.weight[e]);
        }
}

template <class Pixel>
struct norm_image_body {
    ConstView<accumulator_pixel_t<Pixel>> acc;
    View<Pixel> out;  // the box's part of the output
    void operator()(BlockedRange const& rows) const {
        for (int r = rows.begin(); r < rows.end(); ++r)
            for (std::ptrdiff_t x = 0; x < out.width(); ++x) normalise(acc(x, r), out(x, r));
    }
};

template <class Pixel>
struct norm_image_init_body {
    ConstView<accumulator_pixel_t<Pixel>> acc;
    View<Pixel> out;
    View<Pixel> init;  // the same part of the initial image
    void operator()(BlockedRange const& rows) const {
        for (int r = rows.begin(); r < rows.end(); ++r)
            for (std::ptrdiff_t x = 0; x < out.width(); ++x)
                if (!normalise(acc(x, r), out(x, r))) out(x, r) = init(x, r);
    }
};

// One task of the low-memory vote: all rows, the columns [begin, end) and the
// patches that reach into them, through a ring of seven accumulator rows.
// Each patch row is voted column by column: a pixel column takes its votes
// from the seven patches that cover it, in raster order, so every pixel
// sums the same products in the same order as patch-by-patch voting would,
// whatever the split.
template <class Compare>
struct vote_n_lomem_body {
    using pixel_t = typename Compare::pixel_t;
    using acc_pixel_t = accumulator_pixel_t<pixel_t>;
    // The gain/bias comparator votes adjusted patches, built one per slot
    // of the window.
    static constexpr int adjusted_pixels = is_gain_bias_compare_v<Compare> ? 7 * 49 : 1;

    ConstView<pixel_t> b;
    OffsetView nnf;
    View<pixel_t> out;
    View<acc_pixel_t> ring;
    GrayView const* b_mask;
    WeightInsetView const* b_weights;
    RegionMasks const* a_mask;
    WeightInsetView const* a_weights;
    View<pixel_t> const* init;
    bool constrained;
    Box box;  // grown by six
    Compare const* comparator;
    ClientBase<pixel_t>* client;
    std::atomic<bool>* abort_flag;
    bool avx2 = cpu_has_avx2();

    void operator()(BlockedRange const& columns) const {
        int const begin = columns.begin(), end = columns.end();
        int const first = std::max(box.xmin, begin - 6);
        VoteWindow<pixel_t> window;
        pixel_t adjusted[adjusted_pixels];
        for (int y = box.ymin; y < box.ymax; ++y) {
            // Accumulator rows y .. y + 6; row y is complete after this patch row.
            acc_pixel_t* rows[7];
            for (int j = 0; j < 7; ++j) rows[j] = &*ring.row_begin((y + j) % 7);
            window.clear();
            for (int x = first; x < end; ++x) {
                enter_patch(window, adjusted, x, y);
                if (x < begin) continue;
                std::ptrdiff_t const column = x - box.xmin;
                add_column_votes(rows, column, window, avx2);
                finish_pixel(rows[0][column], x, y);
            }
        }
        abort_flag->store(client != nullptr && client->checkAbort(), std::memory_order_relaxed);
    }

    // Patch (x, y) enters the window as it votes, or silent where it does not.
    void enter_patch(VoteWindow<pixel_t>& window, pixel_t* adjusted, int x, int y) const {
        if (a_mask != nullptr && a_mask->view(x, y)[0] != 0) {
            window.push_silent();
            return;
        }
        auto const match = nnf(x, y);
        int const sx = match[0], sy = match[1];
        bool const source_filter = !constrained;
        if (source_filter && b_mask != nullptr && (*b_mask)(sx, sy)[0] != 0) {
            window.push_silent();
            return;
        }
        double weight =
            a_weights != nullptr ? double(channel_value((*a_weights)(x + 3, y + 3), 0)) : 1.0;
        if (source_filter && b_weights != nullptr)
            weight *= double(channel_value((*b_weights)(sx + 3, sy + 3), 0));
        if constexpr (is_gain_bias_compare_v<Compare>) {
            pixel_t* const patch = adjusted + 49 * window.next_slot();
            comparator->patch_transform(b, sx, sy, x, y,
                                        gil::interleaved_view(7, 7, patch, 7 * sizeof(pixel_t)));
            window.push(patch, 7 * sizeof(pixel_t), weight);
        } else {
            window.push(&b(sx, sy), b.pixels().row_size(), weight);
        }
    }

    // Every patch covering (x, y) has voted: normalise and reset.
    void finish_pixel(acc_pixel_t& acc, int x, int y) const {
        if (!normalise(acc, out(x, y)) && init != nullptr) out(x, y) = (*init)(x, y);
        acc = acc_pixel_t(0.0);
    }
};

// The accumulation of the two-field vote for accumulator rows [begin, end).
template <class Pixel>
struct vote_n_body {
    ConstView<Pixel> b;
    OffsetView nnf;
    OffsetView bnn;
    View<accumulator_pixel_t<Pixel>> acc;
    GrayView const* b_mask;
    WeightInsetView const* b_weights;
    RegionMasks const* a_mask;
    WeightInsetView const* a_weights;
    bool constrained;
    Box box;
    double cs;  // coherence weight per target patch
    double ps;  // completeness weight per source patch
    bool avx2 = cpu_has_avx2();

    // Adds patch rows of source patch (sx, sy), placed with its top-left at
    // accumulator (ax, ay), that fall in [begin, end) and inside the
    // accumulator.
    void add_patch(int begin, int end, int sx, int sy, int ax, int ay, double weight) const {
        int const i0 = std::max(0, -ax), i1 = std::min(7, int(acc.width()) - ax);
        if (i0 >= i1) return;  // entirely left or right of the accumulator
        int const j0 = std::max(-ay, begin - ay), j1 = std::min(7, end - ay);
        for (int j = std::max(0, j0); j < j1; ++j)
            add_votes(&acc(ax + i0, ay + j), &b(sx + i0, sy + j), i1 - i0, weight, avx2);
    }

    void operator()(BlockedRange const& rows) const {
        int const begin = rows.begin(), end = rows.end();
        // Coherence: target patches whose rows reach into the band.
        for (int y = std::max(box.ymin, box.ymin + begin - 6);
             y < std::min(box.ymax, box.ymin + end); ++y)
            for (int x = box.xmin; x < box.xmax; ++x) {
                if (a_mask != nullptr && a_mask->view(x, y)[0] != 0) continue;
                auto const match = nnf(x, y);
                int const sx = match[0], sy = match[1];
                if (!constrained && b_mask != nullptr && (*b_mask)(sx, sy)[0] != 0) continue;
                double weight = cs;
                if (a_weights != nullptr)
                    weight = double(channel_value((*a_weights)(x + 3, y + 3), 0)) * cs;
                if (!constrained && b_weights != nullptr)
                    weight *= double(channel_value((*b_weights)(sx + 3, sy + 3), 0));
                add_patch(begin, end, sx, sy, x - box.xmin, y - box.ymin, weight);
            }
        // Completeness: every source patch, onto where it is used. Votes
        // beyond the accumulated box only reach frozen pixels.
        for (int sy = 0; sy <= bnn.height() - 7; ++sy)
            for (int sx = 0; sx <= bnn.width() - 7; ++sx) {
                auto const target = bnn(sx, sy);
                int const ay = target[1] - box.ymin;
                if (ay + 7 <= begin || ay >= end) continue;
                if (b_mask != nullptr && (*b_mask)(sx, sy)[0] != 0) continue;
                double const weight =
                    b_weights != nullptr
                        ? double(channel_value((*b_weights)(sx + 3, sy + 3), 0)) * ps
                        : ps;
                add_patch(begin, end, sx, sy, target[0] - box.xmin, ay, weight);
            }
    }
};

// A copy of the box's part of a weights view that keeps its lookup
// coordinates: patch (x, y) of the box finds its centre weight.
template <class Weights>
WeightInsetView box_weights(Weights& buffer, Box const& box, WeightInsetView const& given) {
    WeightInsetView result(view(buffer), given.dimensions(), Point(box.xmin + 3, box.ymin + 3));
    return result;
}

}  // namespace detail

template <class Compare>
void Weftmap<Compare>::vote(const_image_view_t const& b, OffsetView const& nnf,
                            image_view_t const& out, OffsetView const* bnn, GrayView const* b_mask,
                            WeightInsetView const* b_weights, double coherence_weight,
                            double complete_weight, RegionMasks* a_mask,
                            WeightInsetView const* a_weights, image_view_t const* init,
                            RegionMasks* region_masks, image_view_t const*, bool constrained) {
    if (vote_algorithm == VoteCentroid) raise("Centroid unsupported\n");
    if (vote_algorithm != VoteWeightedMean)
        raise("WEFTMAP_INVALID_PARAMETERS:Unknown voting algorithm: %d", vote_algorithm);
    if (patch_w != 7) raise("WEFTMAP_INVALID_PARAMETERS:Patch size unsupported: %d", patch_w);

    Box box = get_abox(7, nnf.dimensions(), a_mask);
    Point const box_size = box.size();

    // Coherent weights: a patch whose diagonal neighbours continue its
    // match keeps its weight, a lone one keeps a tenth.
    WeightInsetView weights_in_buffer;
    if (prefer_coherent && allow_coherent && a_weights != nullptr) {
        _weight_buf.recreate(box_size);
        auto const& w = view(_weight_buf);
        static constexpr double table[5] = {0.1, 0.2, 0.3, 0.6, 1.0};
        WeightInsetView const& given = *a_weights;
        parallel_rows(box.ymin, box.ymax, box.xmax - box.xmin, [&](BlockedRange const& rows) {
            for (int y = rows.begin(); y < rows.end(); ++y)
                for (int x = box.xmin; x < box.xmax; ++x) {
                    auto& weight = w(x - box.xmin, y - box.ymin);
                    weight = given(x + 3, y + 3);
                    if (a_mask != nullptr && a_mask->view(x, y)[0] != 0) continue;
                    auto const match = nnf(x, y);
                    int count = 0;
                    for (int j : {-1, 1})
                        for (int i : {-1, 1}) {
                            int const nx = x + i, ny = y + j;
                            if (nx < 0 || nx > nnf.width() - 7 || ny < 0 || ny > nnf.height() - 7)
                                continue;
                            auto const n = nnf(nx, ny);
                            count += n[0] == match[0] + i && n[1] == match[1] + j;
                        }
                    weight = weight_pixel_t(
                        static_cast<float>(double(channel_value(weight, 0)) * table[count]));
                }
        });
        weights_in_buffer = detail::box_weights(_weight_buf, box, *a_weights);
        a_weights = &weights_in_buffer;
    }
    if (region_masks != nullptr && a_weights != nullptr && a_weights != &weights_in_buffer) {
        _weight_buf.recreate(box_size);
        auto const& w = view(_weight_buf);
        for (int y = box.ymin; y < box.ymax; ++y)
            for (int x = box.xmin; x < box.xmax; ++x)
                w(x - box.xmin, y - box.ymin) = (*a_weights)(x + 3, y + 3);
        weights_in_buffer = detail::box_weights(_weight_buf, box, *a_weights);
        a_weights = &weights_in_buffer;
    }

    auto const grow_checked = [&] {
        box.xmax += 6;
        box.ymax += 6;
        if (box.xmax > out.width())
            raise("WEFTMAP_INTERNAL_ERROR: box.xmax > out.width inside vote_n");
        if (box.ymax > out.height())
            raise("WEFTMAP_INTERNAL_ERROR: box.ymax > out.height inside vote_n");
    };
    auto const acc_size = Point(box_size.x + 6, box_size.y + 6);

    if (bnn == nullptr) {
        // Low-memory vote: a ring of seven rows, parallel over columns.
        _vote_buf.recreate(Point(acc_size.x, 7));
        gil::fill_pixels(view(_vote_buf), accumulator_pixel_t<pixel_t>(0.0));
        grow_checked();
        std::atomic<bool> abort_flag{false};
        detail::vote_n_lomem_body<Compare> const body{
            b,    nnf,         out, view(_vote_buf), b_mask, b_weights,  a_mask, a_weights,
            init, constrained, box, &comparator,     client, &abort_flag};
        // Tasks are strips at least 64 columns wide: every task enters the
        // six patches left of its strip again on every row.
        parallel_range(box.xmin, box.xmax, std::max(grain_for_width(box.ymax - box.ymin), 64),
                       body);
        if (abort_flag.load()) raise("WEFTMAP_USER_CANCELED");
        OutputDebugChecksum("vote_p_lomem: output: ", out);
        return;
    }

    // Both fields: a full accumulator. Tasks own bands of accumulator rows
    // and visit the patches in raster order, coherence votes first, so every
    // pixel sums its votes in the same order whatever the split.
    if (is_gain_bias_compare_v<Compare>) {
        debug_log("Not implemented: color transform for completeness\n");
        raise("WEFTMAP_INTERNAL_ERROR: patch transform not implemented for completeness (vote_n)");
    }
    _vote_buf.recreate(acc_size);
    auto const& acc = view(_vote_buf);
    gil::fill_pixels(acc, accumulator_pixel_t<pixel_t>(0.0));
    double const cs =
        coherence_weight / static_cast<double>((nnf.height() - 6) * (nnf.width() - 6));
    double const ps =
        complete_weight / static_cast<double>((bnn->width() - 6) * (bnn->height() - 6));
    detail::vote_n_body<pixel_t> const accumulate{
        b, nnf, *bnn, acc, b_mask, b_weights, a_mask, a_weights, constrained, box, cs, ps};
    // Every task scans all source patches: a few bands per thread, no more.
    int const band_rows =
        static_cast<int>(acc.height()) / (4 * tbb::this_task_arena::max_concurrency());
    parallel_range(0, static_cast<int>(acc.height()),
                   std::max({grain_for_width(acc.width()), 16, band_rows}), accumulate);

    grow_checked();
    auto const out_box = gil::subimage_view(out, box.xmin, box.ymin, acc_size.x, acc_size.y);
    int const grain = grain_for_width(acc_size.x);
    if (init != nullptr) {
        auto const init_box = gil::subimage_view(*init, box.xmin, box.ymin, acc_size.x, acc_size.y);
        parallel_range(0, static_cast<int>(acc_size.y), grain,
                       detail::norm_image_init_body<pixel_t>{acc, out_box, init_box});
    } else {
        OutputDebugChecksum("norm_image: subimage before: ", out_box);
        parallel_range(0, static_cast<int>(acc_size.y), grain,
                       detail::norm_image_body<pixel_t>{acc, out_box});
        OutputDebugChecksum("norm_image: subimage after: ", out_box);
    }
}

#define WEFTMAP_INSTANTIATE_VOTE_FOR(C)                                                           \
    template WEFTMAP_API void Weftmap<C>::vote(                                                   \
        ConstView<C::pixel_t> const&, OffsetView const&, View<C::pixel_t> const&,                 \
        OffsetView const*, GrayView const*, WeightInsetView const*, double, double, RegionMasks*, \
        WeightInsetView const*, View<C::pixel_t> const*, RegionMasks*, View<C::pixel_t> const*,   \
        bool);
#define WEFTMAP_INSTANTIATE_VOTE(P) WEFTMAP_FOR_BOTH_COMPARES(P, WEFTMAP_INSTANTIATE_VOTE_FOR)

}  // namespace WM
