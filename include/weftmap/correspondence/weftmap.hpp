// The correspondence object: a comparator, the search parameters, the
// scratch images of voting and the link to the client. The recomposer
// derives from it and sets its public members at every level.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/correspondence/sample_regions.hpp>
#include <weftmap/correspondence/vote.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/inset_view.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <cstdint>
#include <type_traits>
#include <vector>

namespace WM {

// What a run reports to, and asks for cancellation.
template <class Pixel>
class ClientBase {
public:
    // A fraction from 0.0 to 1.0 of the whole job.
    virtual void updateProgress(float fraction) = 0;
    virtual bool checkAbort() { return false; }
    virtual ~ClientBase() = default;
};

template <class Compare>
class WEFTMAP_API Weftmap {
public:
    using compare_t = Compare;
    using pixel_t = typename Compare::pixel_t;
    using distance_type = distance_t<pixel_t>;
    using distance_pixel = distance_pixel_t<pixel_t>;
    using image_view_t = View<pixel_t>;
    using const_image_view_t = ConstView<pixel_t>;
    using distance_view_t = View<distance_pixel>;

    explicit Weftmap(ClientBase<pixel_t>* client);
    Weftmap(Weftmap const& other) = default;
    Weftmap& operator=(Weftmap const& other) = default;
    virtual ~Weftmap();

    // Field initialisation: a random field under masks, regions and window.
    void init_nnf(Point const& a_size, Point const& b_size, RecycledImage<offset_pixel_t>& nnf,
                  RegionMasks* region_masks, RegionMasks* a_mask,
                  SampleRegions const* sample_regions);
    // The distance image that goes with a field.
    void init_dist(const_image_view_t const& a, const_image_view_t const& b, OffsetView const& nnf,
                   RecycledImage<distance_pixel>& dist, GrayView const* b_mask,
                   RegionMasks* region_masks, RegionMasks* a_mask);
    DistanceInsetView const& get_distance() const { return _distance_view; }
    // Half side of the local search window at (x, y); 0 means no window.
    int get_half_search_window(int x, int y, double scale) const;

    // Improves the field and its distances in place: propagation and random
    // search, in parallel horizontal bands, `nn_iters` passes.
    void search(const_image_view_t const& a, const_image_view_t const& b, OffsetView const& nnf,
                distance_view_t const& dist, RegionMasks* a_mask, GrayView const* b_mask,
                ConstGrayView const* patch_mask, int level, int iteration, int start_iteration,
                RegionMasks* region_masks);

    // Rebuilds `out` from the target-to-source field `nnf` and, when `bnn`
    // is given, the source-to-target field: every patch votes its source
    // patch onto the pixels it covers and each pixel takes the weighted mean.
    // Pixels without votes keep their value, or take `init` when given.
    void vote(const_image_view_t const& b, OffsetView const& nnf, image_view_t const& out,
              OffsetView const* bnn, GrayView const* b_mask, WeightInsetView const* b_weights,
              double coherence_weight, double complete_weight, RegionMasks* a_mask,
              WeightInsetView const* a_weights, image_view_t const* init, RegionMasks* region_masks,
              image_view_t const* spare_view, bool constrained);

    Compare comparator;
    std::int32_t patch_w = 7;
    std::int32_t nn_iters = 5;
    std::int32_t rs_max = 0x7fffffff;
    std::int32_t rs_min = 1;
    double rs_ratio = 0.5;
    double rs_iters = 1.0;
    bool do_propagate = true;
    Box min_update_box{-1, -1, -1, -1};
    bool prefer_coherent = false;
    bool allow_coherent = false;
    std::int32_t half_search_window = 0;
    bool spare_flag = false;
    // One value per search pass for updateProgress; the cursor is the index
    // of the next value to report.
    std::vector<float> progress_table;
    std::size_t progress_cursor = 0;
    double current_scale = 1.0;
    RecycledImage<accumulator_pixel_t<pixel_t>> _vote_buf;
    RecycledImage<weight_pixel_t> _weight_buf;
    RecycledImage<int_gray_pixel_t> _dist_buf;
    DistanceInsetView _distance_view;
    std::int32_t hole_area = -1;
    std::int32_t spare_int = -1;
    std::int32_t hole_max_dist_bound = -1;
    ClientBase<pixel_t>* client;
    std::uint32_t spare_word = 0;
    std::int32_t vote_algorithm = 0;

protected:
    // Reports the value under the cursor and moves it on, stopping at the
    // last entry.
    void report_progress();
};

template <class Compare>
struct is_gain_bias_compare : std::false_type {};
template <class Pixel>
struct is_gain_bias_compare<GainBiasPatchCompare<Pixel>> : std::true_type {};
template <class Compare>
constexpr bool is_gain_bias_compare_v = is_gain_bias_compare<Compare>::value;

// The eighteen pixel x comparator pairs, built from the pixel lists.
#define WEFTMAP_FOR_BOTH_COMPARES(P, X) \
    X(WM::TranslatePatchCompare<P>) X(WM::GainBiasPatchCompare<P>)

}  // namespace WM
