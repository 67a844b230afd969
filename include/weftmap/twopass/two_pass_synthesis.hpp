// Hole filling for pictures too large for memory: the whole job is solved at
// the finest scale that fits, then, when that scale is not the full size,
// repeated at full size tile by tile with the coarse result as guide and
// finished tiles as constraints. Each tile costs what the coarse job cost.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>
#include <weftmap/recomposer/parameters.hpp>
#include <weftmap/recomposer/recomposer.hpp>
#include <weftmap/twopass/pixel_access.hpp>
#include <weftmap/twopass/tile_array.hpp>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace WM {

// Sits between its recomposer and the host's client: the recomposer reports
// the progress of one recomposition, and this object maps it onto the whole
// job (the coarse job, then every tile) before passing it on.
template <class Compare>
class WEFTMAP_API TwoPassSynthesis : public ClientBase<typename Compare::pixel_t> {
public:
    using pixel_t = typename Compare::pixel_t;
    using view_t = View<pixel_t>;
    using image_t = RecycledImage<pixel_t>;
    using mask_t = RecycledImage<gray8_pixel_t>;

    TwoPassSynthesis(MultiScalePixelAccessBase<pixel_t>* access, ClientBase<pixel_t>* client);
    TwoPassSynthesis(TwoPassSynthesis const&) = delete;
    TwoPassSynthesis& operator=(TwoPassSynthesis const&) = delete;

    // Forwards the recomposer's fraction of the current step as a fraction
    // of the whole job.
    void updateProgress(float fraction) override;
    bool checkAbort() override;
    ~TwoPassSynthesis() override;
    // The whole job: the coarse pass, then the tiled pass when the coarse
    // scale is not the full size. Meant to run once per object.
    virtual void run();

    ClientBase<pixel_t>* GetClient() const { return client; }

    WeftmapRecomposer<Compare> recomposer;
    // Fraction of a tile that overlaps its neighbour.
    float overlap_fraction = 0.1f;
    // The coarse result, at the coarse scale.
    image_t output_buf;
    TileArray tiles;
    // Cumulative fractions of the job, one entry per finished step.
    std::vector<float> progress_table;
    // The entry the current step ends at.
    float* progress_pos = nullptr;
    image_t input_buf;
    image_t init_buf;
    image_t tconstraint_buf;
    mask_t hole_buf;
    mask_t valid_buf;
    mask_t tconstraint_mask_buf;
    mask_t source_weight_buf;
    mask_t temp_mask_buf;
    // How often each coarse source pixel is drawn on by a tile.
    RecycledImage<int_gray_pixel_t> counter_buf;
    image_t tile_output_buf;
    MultiScalePixelAccessBase<pixel_t>* pixel_access;
    ClientBase<pixel_t>* client;

protected:
    // Chooses the scale, runs the coarse job and returns the scale number.
    int CoarsePass();
    void TiledPass(int coarse_scale);
    void PrepareProgressTable(Point first_size);
    // One recomposition from the member buffers into `out`.
    void Recompose(image_t& out, bool tiled);

    // Steps of the tiled pass.
    void ChooseSourceRegion(Tile& tile, int coarse_scale, Point window);
    void SortTiles(int coarse_scale);
    void ConstructInitialGuess(Tile const& tile, int coarse_scale);
    void ConstructConstraints(Tile const& tile, bool hole, bool a_constraint);
    void ConstructMasks(Tile const& tile, bool valid, bool a_constraint, bool a_constraint_mask);

private:
    // Moves on to the next entry of the progress table.
    void finish_step();
};

// The front a host creates and runs, the same for every comparator.
template <class Pixel>
class WEFTMAP_API TwoPassSynthesisInterface {
public:
    using synthesis_t = TwoPassSynthesis<TranslatePatchCompare<Pixel>>;

    // `compare` is accepted and has no effect: two-pass synthesis always
    // compares plain patches. With RecomposerModeKeep the recomposer keeps
    // the default preset and reports through the progress table; any other
    // mode gives it that preset and makes it report straight to `client`.
    TwoPassSynthesisInterface(MultiScalePixelAccessBase<Pixel>* access, ClientBase<Pixel>* client,
                              PatchCompareMode compare, RecomposerMode mode);

    void run();
    // The preset of `mode`, reporting through the progress table again.
    void setSynthesisMode(RecomposerMode mode);
    void setSynthesisParameters(std::map<std::string, std::string>& options);
    void setSynthesisParameters(SynthesisParameters const& params);
    bool checkAbort();
    void updateProgress(float fraction);

    // Copies share the object; it goes with the last of them.
    std::shared_ptr<synthesis_t> synthesis;
};

}  // namespace WM
