// A single tapestry: the frames laid as a two-row brick wall (even frames
// above, odd frames below and shifted by half a frame), which the recomposer
// squeezes tile by tile to three quarters of its height so that the rows
// melt into one band. Finished neighbours constrain each new tile, and a
// cache that already holds tiles is resumed.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>
#include <weftmap/recomposer/recomposer.hpp>
#include <weftmap/tapestry/frame_source.hpp>
#include <weftmap/tapestry/tile_cache.hpp>

#include <cstdint>
#include <iosfwd>

namespace WM {

template <class Pixel>
class WEFTMAP_API TapestryFactory : public ClientBase<Pixel> {
public:
    using view_t = View<Pixel>;
    using image_t = RecycledImage<Pixel>;
    using Gray = RecycledImage<gray8_pixel_t>;

    TapestryFactory(TapestryFrameSource<Pixel> const& source, ClientBase<Pixel>* client);
    TapestryFactory(TapestryFactory const&) = delete;
    TapestryFactory& operator=(TapestryFactory const&) = delete;

    // Progress of the current tile, placed within the whole run.
    void updateProgress(float p) override;
    ~TapestryFactory() override;
    // The host's cancellation answer. checkAbort keeps the default (false),
    // so a construction is never stopped from inside the recomposer.
    virtual bool uheckAbort();

    TapestryFrameSource<Pixel> const& GetSource() const { return *source; }

    // Planning, all unsigned 32-bit with wrap-around ---------------------
    static std::uint32_t ComputeFrameHeight(std::uint32_t tapestry_height);
    static std::uint32_t ComputeTapestryHeight(std::uint32_t frame_height);
    static std::uint32_t ComputeFrameWidth(std::uint32_t tapestry_width, std::uint32_t frames);
    static std::uint32_t ComputeTapestryWidth(std::uint32_t frame_width, std::uint32_t frames);
    static std::uint32_t ComputeMaxFrames(std::uint32_t frame_width, std::uint32_t tapestry_width);

    // Layout of the wall ("grid", 2 frame heights) and the tapestry ---------
    Point FrameOrigin(int frame) const;
    // `frames` -1 means all frames of the source.
    Point GridDimensions(int frames) const;
    Point Dimensions(int frames) const;
    // The frame under a grid pixel; negative (read as signed) left of a
    // row's first frame, and possibly past the last frame.
    unsigned GetFrameByGridPixel(Point p) const;
    // The frame count itself is allowed, as an end position.
    void ValidateFrameNumber(int frame) const;
    void ComputeTileRange(unsigned tile_width, int first, int count, unsigned& begin,
                          unsigned& end);
    // Paints the wall under the grid rectangle at `tile_grid_origin` into
    // input_buf (and weight_buf) and marks the joins in valid_buf.
    void InitializeLayout(Point tile_grid_origin);

    // Construction -----------------------------------------------------------
    // `frame_count` negative: to the end; `first_frame` negative: 0.
    void Construct(TapestryTileCache<Pixel>& cache, int first_frame, int frame_count);
    void Construct(image_t& out, IndexMapImage& index_map, int first_frame, int frame_count);
    void Construct(image_t& out, int first_frame, int frame_count);
    // Not available: always throws "WEFTMAP_NOT_IMPLEMENTED".
    void Construct(view_t& out, int first_frame, int frame_count);

    // The JSON description; `cache` is not used.
    void OutputJSON(std::ostream& out, TapestryTileCache<Pixel> const* cache) const;

    WeftmapRecomposer<TranslatePatchCompare<Pixel>> recomposer;
    float search_window_fraction = 0.0f;
    TapestryFrameSource<Pixel> const* source;  // borrowed
    float progress_scale = 1.0f;
    float progress_offset = 0.0f;
    image_t input_buf;   // the wall under the current tile with its margins
    image_t output_buf;  // the current tile with its margins
    IndexMapImage index_map_buf;
    image_t constraint_buf;  // strips of the finished neighbours
    Gray hole_buf;
    Gray valid_buf;
    Gray weight_buf;
    ClientBase<Pixel>* client;  // borrowed

protected:
    void PreallocateTileBuffers(Point tile_size);
    void ConstructOneTile(TapestryTileCache<Pixel>& cache, unsigned tile);
    // The reverse index map of tile `tile` from the recomposer's last field.
    void BuildIndexMap(unsigned tile, std::int64_t tile_width, std::int64_t overlap);
};

}  // namespace WM
