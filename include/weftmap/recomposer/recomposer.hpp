// The driver of a whole synthesis: from input views to the output image,
// coarse to fine, for hole filling (recompose) and size changes (retarget).
#pragma once

#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/recomposer/level_buffers.hpp>
#include <weftmap/recomposer/parameters.hpp>

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace WM {

// Line and affine constraints are part of the interface only: a run merely
// asks whether the list is empty.
struct Constraint {};

template <class Compare>
class WEFTMAP_API WeftmapRecomposer : public Weftmap<Compare>,
                                      public RecomposerParameters,
                                      public RecomposerLevelBuffers<typename Compare::pixel_t> {
public:
    using Base = Weftmap<Compare>;
    using pixel_t = typename Compare::pixel_t;
    using view_t = View<pixel_t>;
    using const_view_t = ConstView<pixel_t>;
    using image_t = RecycledImage<pixel_t>;

    WeftmapRecomposer(ClientBase<pixel_t>* client, RecomposerMode mode);
    // Copies the parameter block and the client; buffers start empty.
    WeftmapRecomposer(WeftmapRecomposer const& other);
    // Copies the parameter block only (no buffer, no client), except
    // first_synthesis_level, min_sample_patches, min_search_hole_ratio,
    // search_hole_ratio_factor and current_hole_gamma.
    WeftmapRecomposer& operator=(WeftmapRecomposer const& other);
    ~WeftmapRecomposer() override;

    // Options ------------------------------------------------------------
    void setParameters(std::map<std::string, std::string>& options);
    // Prints the parameter block through the diagnostic channel.
    void serialize() const;

    // Drivers ------------------------------------------------------------
    // Fills `hole` (non-zero = hole; left inverted on return).
    void recompose(view_t const& source, std::vector<Constraint>& constraints, image_t& output,
                   GrayView const* hole, Box* target_box, view_t const* guess,
                   GrayView const* valid, view_t const* target_constraint, GrayView const* region,
                   GrayView const* src_important, GrayView const* target_constraint_mask);
    // Produces an image of `target_dimensions` from `source`.
    void retarget(view_t const& source, std::vector<Constraint>& constraints, image_t& output,
                  Point target_dimensions, double retargetRatio, GrayView const* hole,
                  GrayView const* valid, view_t const* target_constraint,
                  GrayView const* src_important);
    void gradual_resize(image_t& output, Point level_size, Point full_size,
                        std::vector<Constraint>& constraints);
    void adjust_level_parameters(unsigned long long level, Point const& dimensions,
                                 std::deque<double> const& scales, double& em_iters, int& rs_max,
                                 int& nn_iters);
    void run_synthesis_checks(Point const& target_size, Point const& full_size, int level,
                              int repeat);
    void compute_adaptive_coarse_size(int& coarse_size, Point const& dimensions);
    void shift_constrained_regions(std::vector<Constraint>& constraints, Point const& offset);

    // The EM loop ---------------------------------------------------------
    void do_em(int level, std::vector<Constraint>& constraints, image_t& output, bool carry_target,
               bool use_regions, bool carry_source, int, int, Point);
    // Mean square root of the target field's distances over free patches.
    double get_objective_function() const;
    void minnn(const_view_t const& a, const_view_t const& b, OffsetView const& nnf,
               typename Base::distance_view_t const& dist, OffsetView const& prev_nnf,
               GrayView const* b_mask, ConstGrayView const* patch_mask, int level, int iteration,
               RegionMasks* region_masks, RegionMasks* a_mask);

    // Level buffers -------------------------------------------------------
    void preallocate_buffers(image_t& output, Point const& source_size, Point const& target_size,
                             Point const& reserve_size, bool has_target_constraint, bool has_valid,
                             bool has_region, bool has_src_important,
                             bool has_target_constraint_mask);
    void deallocate_buffers();
    void resample_buffers(unsigned long long level, Point const& target_size,
                          Point const& source_size, image_t& output, bool has_constraints,
                          bool retarget_form, bool first_level);
    void preprocess_input_buffers();
    void duplicate_missing_views();
    OffsetView const& get_target_nnf() { return view(this->_target_nnf_buf); }
    GrayView const& get_tmask() const { return this->_tmask.view; }

    // Masks, weights and hole measures ----------------------------------------
    void calculate_masks(Point const& target_size, Point const& source_size);
    void get_hole_properties();
    WeightInsetView compute_weights(ConstGrayView const& hole, RegionMasks* tmask,
                                    RecycledImage<weight_pixel_t>& weights,
                                    ConstGrayView const* tconstraint_mask);
    void hole_weight(ConstGrayView const& hole, Box const& box, WeightInsetView& weights,
                     ConstGrayView const* tconstraint_mask);

    // Field upsampling and progress -----------------------------------------
    void upsample_field2(OffsetView const& old_field, Point const& new_target_size,
                         Point const& old_source_size, Point const& new_source_size,
                         RecycledImage<offset_pixel_t>& new_field, RegionMasks const* tmask,
                         ConstGrayView const* prev_tmask, ConstGrayView const* prev_smask,
                         ConstGrayView const* tmask_view, ConstGrayView const* smask_view);
    void prepare_progress_table(Point const& dimensions, int repeat, int first_level);

    // Level scales of the run, coarsest first, the last one 1.0.
    std::deque<double> scales;

    // Set once a level of this pixel type and comparator has had enough
    // patches to sample from; later runs in the process skip that test.
    static unsigned char synthesis_possible;
};

// Applies the option map to a recomposer: flags by presence (the positive
// key wins), values read by stream into the field's type.
template <class Compare>
WEFTMAP_API void ConfigureRecomposerFromOptions(std::map<std::string, std::string>& options,
                                                WeftmapRecomposer<Compare>& recomposer);

}  // namespace WM
