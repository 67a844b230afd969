// A multi-level tapestry: level 0 shows every frame, each further level
// about half the frames of the one before and about half its width. Between
// two neighbouring levels, in-between pictures of intermediate width let the
// parts the levels share (islands) slide from their place in the finer level
// to their place in the coarser one while everything around them is made anew.
#pragma once

#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>
#include <weftmap/tapestry/frame_source.hpp>
#include <weftmap/tapestry/tile_cache.hpp>

#include <cstdint>
#include <iosfwd>
#include <vector>

namespace WM {

struct WEFTMAP_API MultiTapestryParameters {
    MultiTapestryParameters();

    std::int32_t inbetweens;        // pictures between two levels
    std::int32_t island_tolerance;  // largest step difference inside one island
    std::int32_t min_island_size;   // an island needs more pixels than this
    std::int32_t max_island_shift;  // an island must move less than this vertically
    bool generate_index_map;        // reverse index maps of the levels
};

// A connected region of the coarser picture that maps rigidly into the
// finer one, taken at its seed pixel.
struct Island {
    OffsetView::xy_locator field_at;  // the field at the seed
    IntView::xy_locator label_at;     // the labels at the seed
    std::int32_t x;
    std::int32_t y;
};

template <class Pixel>
class WEFTMAP_API MultiTapestryFactory : public ClientBase<Pixel>, public MultiTapestryParameters {
public:
    using view_t = View<Pixel>;
    using image_t = RecycledImage<Pixel>;

    // With `levels` not 0, plans the frame lists and widths (with the
    // default in-between count: later changes of `inbetweens` do not reach
    // `widths`).
    MultiTapestryFactory(TapestryFrameSource<Pixel> const& source, ClientBase<Pixel>* client,
                         unsigned levels);
    MultiTapestryFactory(MultiTapestryFactory const&) = delete;
    MultiTapestryFactory& operator=(MultiTapestryFactory const&) = delete;

    // Progress of the current step, placed between its two table entries.
    void updateProgress(float p) override;
    bool checkAbort() override;
    ~MultiTapestryFactory() override;

    MultiTapestryFactory& self() { return *this; }

    void Construct(MultiTapestryTileCache<Pixel>& cache, bool construct_levels,
                   bool construct_inbetweens);
    void Construct(UntiledMultiTapestry<Pixel>& out, bool construct_levels,
                   bool construct_inbetweens);
    Point GetTapestrySize(unsigned level, unsigned inbetween) const;
    // A horizontal position of one picture in another, by the ratio of
    // their widths; y stays.
    Point TransformPoint(Point p, unsigned from_level, unsigned to_level, unsigned from_inbetween,
                         unsigned to_inbetween) const;

    // Islands and in-betweens -------------------------------------------------
    void FindIslands(view_t const& finer, view_t const& coarser);
    void ConstructAnimationFrame(image_t& out, view_t const& previous, view_t const& finer,
                                 view_t& coarser, unsigned inbetween, GrayView const* tile_mask,
                                 view_t const* tile_constraint);
    void ConstructAnimationFrame(UntiledMultiTapestry<Pixel>& tapestry, unsigned level,
                                 unsigned inbetween);
    // Tile `tile` of level `level` with its in-betweens towards level - 1.
    void ConstructAnimationTiles(MultiTapestryTileCache<Pixel>& cache, unsigned level,
                                 unsigned tile);

    // The JSON description; `cache`, when given, writes "tile_info".
    void OutputJSON(std::ostream& out, MultiTapestryTileCache<Pixel> const* cache) const;

    TapestryFrameSource<Pixel> const* source;  // borrowed
    ClientBase<Pixel>* client;                 // borrowed
    std::vector<std::vector<std::uint32_t>> frame_lists;
    RecycledImage<offset_pixel_t> island_field;
    RecycledImage<int_gray_pixel_t> island_labels;
    std::vector<Island> islands;
    std::vector<std::vector<std::uint32_t>> widths;  // widths[level][inbetween]
    std::int64_t height = 0;
    std::vector<float> progress_table;
    float* progress_pos = nullptr;  // the entry the current step ends at

protected:
    void GenerateFrameLists(int levels);
    void PrecomputeWidths(unsigned levels);
    void PrepareProgressTable(unsigned tile_width, bool construct_levels,
                              bool construct_inbetweens);
    // Moves progress_pos on by one entry, never past the table's end.
    void AdvanceProgress();
    std::uint32_t Width(unsigned level, unsigned inbetween) const;
};

}  // namespace WM
