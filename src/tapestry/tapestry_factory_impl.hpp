// The single tapestry: planning formulas, the brick-wall layout, and the
// tile-by-tile construction with constraints from finished neighbours.
// Instantiated per depth in tapestry_factory_*.cpp.
#pragma once

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/tapestry/tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_json.hpp>

#include "frame/wrapping.hpp"
#include "tapestry/clipped_views.hpp"
#include "tapestry/tile_geometry.hpp"

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace WM {

template <class Pixel>
TapestryFactory<Pixel>::TapestryFactory(TapestryFrameSource<Pixel> const& source,
                                        ClientBase<Pixel>* client)
    : recomposer(this, RecomposerModeTapestry), source(&source), client(client) {}

template <class Pixel>
TapestryFactory<Pixel>::~TapestryFactory() = default;

template <class Pixel>
void TapestryFactory<Pixel>::updateProgress(float p) {
    if (client != nullptr) client->updateProgress(p * progress_scale + progress_offset);
}

template <class Pixel>
bool TapestryFactory<Pixel>::uheckAbort() {
    return client != nullptr && client->checkAbort();
}

// Planning ---------------------------------------------------------------------

namespace tapestry_detail {
inline std::uint32_t divide(std::uint32_t a, std::uint32_t b) {
    if (b == 0) raise("WEFTMAP_INVALID_PARAMETERS: tapestry planning with a zero divisor");
    return a / b;
}
}  // namespace tapestry_detail

template <class Pixel>
std::uint32_t TapestryFactory<Pixel>::ComputeFrameHeight(std::uint32_t tapestry_height) {
    return tapestry_detail::truncate_u32(tapestry_detail::as_float(tapestry_height) / 1.5f);
}

template <class Pixel>
std::uint32_t TapestryFactory<Pixel>::ComputeTapestryHeight(std::uint32_t frame_height) {
    return tapestry_detail::truncate_u32(tapestry_detail::as_float(frame_height * 2u) * 0.75f);
}

template <class Pixel>
std::uint32_t TapestryFactory<Pixel>::ComputeFrameWidth(std::uint32_t tapestry_width,
                                                        std::uint32_t frames) {
    if (frames == 0) return 0;
    return tapestry_detail::divide(tapestry_width * 2u, frames + 1u);
}

template <class Pixel>
std::uint32_t TapestryFactory<Pixel>::ComputeTapestryWidth(std::uint32_t frame_width,
                                                           std::uint32_t frames) {
    if (frames == 0) return 0;
    return (frames + 1u) * frame_width >> 1;
}

template <class Pixel>
std::uint32_t TapestryFactory<Pixel>::ComputeMaxFrames(std::uint32_t frame_width,
                                                       std::uint32_t tapestry_width) {
    if (tapestry_width < frame_width) return 0;
    return tapestry_detail::divide(tapestry_width * 2u, frame_width) - 1u;
}

// Layout -----------------------------------------------------------------------

template <class Pixel>
Point TapestryFactory<Pixel>::FrameOrigin(int frame) const {
    Point const size = source->GetFrameSize();
    Point origin(static_cast<std::ptrdiff_t>(frame / 2) * size.x, 0);
    if (frame % 2 != 0) {  // the lower row, half a frame to the right
        origin.x += size.x / 2;
        origin.y = size.y;
    }
    return origin;
}

template <class Pixel>
Point TapestryFactory<Pixel>::GridDimensions(int frames) const {
    Point const size = source->GetFrameSize();
    if (frames == -1) frames = source->GetFrameCount();
    double const width = (static_cast<double>(frames) + 1.0) * 0.5 * static_cast<double>(size.x);
    return Point(tapestry_detail::truncate_i32(width), 2 * size.y);
}

template <class Pixel>
Point TapestryFactory<Pixel>::Dimensions(int frames) const {
    Point const size = source->GetFrameSize();
    auto const grid_height = static_cast<std::uint32_t>(size.y) * 2u;
    return Point(GridDimensions(frames).x,
                 tapestry_detail::truncate_i32(tapestry_detail::as_float(grid_height) * 0.75f));
}

template <class Pixel>
unsigned TapestryFactory<Pixel>::GetFrameByGridPixel(Point p) const {
    Point const size = source->GetFrameSize();
    if (size.x <= 0 || size.y <= 0)
        raise("WEFTMAP_INTERNAL_ERROR: input tapestry pixel out of bounds");
    auto const row = static_cast<std::uint32_t>(p.y / size.y);
    if (row >= 2) raise("WEFTMAP_INTERNAL_ERROR: input tapestry pixel out of bounds");
    std::int64_t const t = p.x - (size.x / 2) * static_cast<std::int64_t>(row);
    std::int64_t const col = t >= 0 ? t / size.x : (t + 1) / size.x - 1;  // floor
    return static_cast<unsigned>(static_cast<std::uint64_t>(row + 2 * col));
}

template <class Pixel>
void TapestryFactory<Pixel>::ValidateFrameNumber(int frame) const {
    if (frame < 0 || frame > source->GetFrameCount())
        raise("WEFTMAP_INVALID_PARAMETERS: Invalid frame numbers in Tapestry::Construct request");
}

template <class Pixel>
void TapestryFactory<Pixel>::ComputeTileRange(unsigned tile_width, int first, int count,
                                              unsigned& begin, unsigned& end) {
    int const stop = wrap_add(first, count);
    ValidateFrameNumber(first);
    ValidateFrameNumber(stop);
    if (tile_width == 0) raise("WEFTMAP_INVALID_PARAMETERS: tile width must be positive (got 0)");
    std::int64_t const tw = tile_width;
    std::int64_t const w = source->GetFrameSize().x;
    begin = static_cast<unsigned>(FrameOrigin(first).x / tw);
    end = static_cast<unsigned>((FrameOrigin(wrap_sub(stop, 1)).x + w - 1) / tw + 1);
}

template <class Pixel>
void TapestryFactory<Pixel>::InitializeLayout(Point o) {
    Point const size = source->GetFrameSize();
    Point const B = input_buf.dimensions();
    int const n = source->GetFrameCount();
    bool const weights = source->HasWeights();
    view_t input = view(input_buf);
    GrayView weight = view(weight_buf);
    GrayView const& valid = view(valid_buf);

    gil::fill_pixels(valid, gray8_pixel_t(255));
    // Where no frame paints (past the ends, and left of the lower row's
    // first frame) the wall is empty: zeros, never an earlier tile's pixels.
    gil::fill_pixels(input, Pixel());
    if (weights) gil::fill_pixels(weight, gray8_pixel_t(0));

    unsigned const bottom_left = GetFrameByGridPixel(Point(o.x, o.y + B.y - 1));
    unsigned const top_left = GetFrameByGridPixel(o);
    unsigned const bottom_right = GetFrameByGridPixel(Point(o.x + B.x - 1, o.y + B.y - 1));
    unsigned const top_right = GetFrameByGridPixel(Point(o.x + B.x - 1, o.y));
    // Chosen as unsigned, used as signed.
    auto const first = static_cast<int>(std::min(bottom_left, top_left));
    auto const last = static_cast<int>(std::max(bottom_right, top_right));

    for (std::int64_t f = first; f <= last; ++f) {
        auto const frame = static_cast<int>(f);
        Point const origin = FrameOrigin(frame);
        Point const r(origin.x - o.x, origin.y - o.y);
        if (frame >= 0 && frame < n) {
            source->GetFramePixels(frame, input, r);
            if (weights) source->GetWeights(frame, weight, r);
        } else {
            tapestry_detail::fill_at(input, r, size, Pixel());
            tapestry_detail::fill_at(weight, r, size, gray8_pixel_t(0));
        }
        // No patch may straddle the join at a frame's left edge.
        if (r.x > 0 && r.x < valid.width() - 1)
            tapestry_detail::fill_at(valid, r, Point(2, size.y), gray8_pixel_t(0));
    }
    // Nor the join between the rows.
    tapestry_detail::fill_at(valid, Point(0, size.y - 1), Point(valid.width(), 2),
                             gray8_pixel_t(0));
    OutputDebugChecksum("Input tile layout: ", input);
    OutputDebugChecksum("Valid_mask tile layout: ", valid);
}

// Construction -----------------------------------------------------------------

template <class Pixel>
void TapestryFactory<Pixel>::Construct(TapestryTileCache<Pixel>& cache, int first_frame,
                                       int frame_count) {
    Point const tile = cache.GetTileSize();
    std::ptrdiff_t const w = source->GetFrameSize().x;
    float const overlap = static_cast<float>(w) * 0.25f;
    if (overlap > static_cast<float>(tile.x))
        raise("WEFTMAP_INTERNAL_ERROR: tile overlap greater than tile width");
    if (tile.x <= 0 || tile.y <= 0)
        raise("WEFTMAP_INVALID_PARAMETERS: tile size must be positive (got %dx%d)",
              static_cast<long long>(tile.x), static_cast<long long>(tile.y));

    int const first = std::max(first_frame, 0);
    int const count = frame_count < 0 ? wrap_sub(source->GetFrameCount(), first) : frame_count;
    int const stop = wrap_add(first, count);
    ValidateFrameNumber(first);
    ValidateFrameNumber(stop);
    std::int64_t const begin = FrameOrigin(first).x / tile.x;
    std::int64_t const end = (FrameOrigin(wrap_sub(stop, 1)).x + w - 1) / tile.x + 1;
    std::int64_t const tiles = end - begin;

    PreallocateTileBuffers(tile);
    if (search_window_fraction != 0.0f) {
        recomposer.half_search_window =
            tapestry_detail::truncate_i32(static_cast<float>(w) * search_window_fraction * 0.5f);
        debug_log("half_search_window reset to %d\n", recomposer.half_search_window);
    }
    debug_log("Beginning tiled tapestry construction, tiles %d to %d\n",
              static_cast<long long>(begin), static_cast<long long>(end));
    progress_scale = tiles > 0 ? static_cast<float>(1.0 / static_cast<double>(tiles)) : 1.0f;
    for (std::int64_t t = begin; t < end; ++t) {
        progress_offset = static_cast<float>(t - begin) / static_cast<float>(tiles);
        if (cache.TileExists(static_cast<int>(t))) {
            debug_log("Skipping preexisting tile %d\n", static_cast<long long>(t));
            continue;
        }
        debug_log("Constructing tile %d\n", static_cast<long long>(t));
        ConstructOneTile(cache, static_cast<unsigned>(t));
    }
}

template <class Pixel>
void TapestryFactory<Pixel>::Construct(image_t& out, IndexMapImage& index_map, int first_frame,
                                       int frame_count) {
    Point const size = Dimensions(frame_count < 0 ? -1 : frame_count);
    out.recreate(size);
    index_map.recreate(size);
    // Parts that no tile maps (and all of it without index maps) show no frame.
    gil::fill_pixels(view(index_map), rgb8_pixel_t(0, 0, 0));
    OneTileCache<Pixel> cache(&out, &index_map);
    Construct(cache, first_frame, frame_count);
    OutputDebugChecksum("output buffer: ", view(out));
    OutputDebugChecksum("output reverse index map: ", view(index_map));
}

template <class Pixel>
void TapestryFactory<Pixel>::Construct(image_t& out, int first_frame, int frame_count) {
    out.recreate(Dimensions(frame_count < 0 ? -1 : frame_count));
    OneTileCache<Pixel> cache(&out);
    Construct(cache, first_frame, frame_count);
    OutputDebugChecksum("output buffer: ", view(out));
}

template <class Pixel>
void TapestryFactory<Pixel>::Construct(view_t&, int, int) {
    raise("WEFTMAP_NOT_IMPLEMENTED");
}

template <class Pixel>
void TapestryFactory<Pixel>::PreallocateTileBuffers(Point tile_size) {
    Point const frame = source->GetFrameSize();
    std::int32_t const overlap = tapestry_detail::tile_overlap(frame.x);
    std::int32_t const bw =
        wrap_add(static_cast<std::int32_t>(tile_size.x), wrap_mul(overlap, std::int32_t(2)));
    std::int32_t const grid_height = wrap_mul(static_cast<std::int32_t>(frame.y), std::int32_t(2));
    auto const th = static_cast<std::int32_t>(tile_size.y);
    input_buf.recreate(bw, grid_height);
    valid_buf.recreate(bw, grid_height);
    if (source->HasWeights()) weight_buf.recreate(bw, grid_height);
    hole_buf.recreate(bw, th);
    constraint_buf.recreate(bw, th);
    output_buf.recreate(bw, th);
    index_map_buf.recreate(bw, th);
}

template <class Pixel>
void TapestryFactory<Pixel>::ConstructOneTile(TapestryTileCache<Pixel>& cache, unsigned tile) {
    Point const tile_size = cache.GetTileSize();
    std::int64_t const tw = tile_size.x, th = tile_size.y;
    std::int64_t const ov = tapestry_detail::tile_overlap(source->GetFrameSize().x);
    auto const t = static_cast<int>(tile);
    InitializeLayout(Point(static_cast<std::int64_t>(t) * tw - ov, 0));

    bool const left = cache.TileExists(wrap_sub(t, 1));
    bool const right = cache.TileExists(wrap_add(t, 1));
    bool const bound = left || right;
    view_t constraint = view(constraint_buf);
    GrayView hole = view(hole_buf);
    if (bound) {
        Pixel const zero{};
        tapestry_detail::fill_at(constraint, Point(ov, 0), Point(tw, th), zero);
        if (left)  // the last ov columns of the left tile
            cache.GetPixels(wrap_sub(t, 1), constraint, Point(tw - ov, 0));
        else
            tapestry_detail::fill_at(constraint, Point(ov - tw, 0), Point(tw, th), zero);
        if (right)  // the first ov columns of the right tile
            cache.GetPixels(wrap_add(t, 1), constraint, Point(-(ov + tw), 0));
        else
            tapestry_detail::fill_at(constraint, Point(ov + tw, 0), Point(tw, th), zero);
        OutputDebugChecksum("tile constraints: ", constraint);
        tapestry_detail::build_tile_hole(hole, left, right, static_cast<std::int32_t>(ov));
        OutputDebugChecksum("tile hole: ", hole);
    }

    std::vector<Constraint> constraints;
    GrayView valid = view(valid_buf);
    GrayView weight = view(weight_buf);
    recomposer.retarget(view(input_buf), constraints, output_buf, Point(input_buf.width(), th),
                        0.98, bound ? &hole : nullptr, &valid, bound ? &constraint : nullptr,
                        source->HasWeights() ? &weight : nullptr);

    if (recomposer.generate_index_map) {
        BuildIndexMap(tile, tw, ov);
        IndexMapView map = view(index_map_buf);
        cache.SetIndexMapPixels(tile, map, Point(-ov, 0));
    }
    OutputDebugChecksum("retargeted tile buffer with overlap: ", view(output_buf));

    // The neighbours' strips are replaced with what this tile made of them,
    // so that neighbouring tiles agree exactly along the seam.
    view_t const output = view(output_buf);
    cache.SetPixels(t, output, Point(-ov, 0));
    if (left) cache.SetPixels(wrap_sub(t, 1), output, Point(tw - ov, 0));
    if (right) cache.SetPixels(wrap_add(t, 1), output, Point(-(ov + tw), 0));
}

template <class Pixel>
void TapestryFactory<Pixel>::BuildIndexMap(unsigned tile, std::int64_t tile_width,
                                           std::int64_t overlap) {
    OffsetView const field = view(recomposer._target_nnf_buf);
    std::ptrdiff_t const W = field.width(), H = field.height();
    std::ptrdiff_t const patch_w = recomposer.patch_w, half = patch_w / 2;
    index_map_buf.recreate(field.dimensions());
    IndexMapView const map = view(index_map_buf);
    gil::fill_pixels(map, rgb8_pixel_t(0, 0, 0));
    if (W < patch_w || H < patch_w || patch_w < 1) return;

    int const frames = source->GetFrameCount();
    std::vector<unsigned> const* table = source->GetLookupTableForFrameNumbers();
    if (table != nullptr && table->size() < static_cast<std::size_t>(std::max(frames, 0)))
        raise(
            "WEFTMAP_INVALID_PARAMETERS: frame number lookup table has %d entries for %d "
            "frames",
            static_cast<long long>(table->size()), frames);
    std::int64_t const shift =
        static_cast<std::int64_t>(static_cast<int>(tile)) * tile_width - overlap;
    // Field entries are valid for whole patches only: the patch centres.
    for (std::ptrdiff_t y = 0; y <= H - patch_w; ++y)
        for (std::ptrdiff_t x = 0; x <= W - patch_w; ++x) {
            auto const entry = field(x, y);
            auto f = static_cast<std::int32_t>(
                GetFrameByGridPixel(Point(std::int64_t(entry[0]) + shift, entry[1])));
            std::uint32_t value = 0;
            if (f >= 0) {
                if (f >= frames) f = frames - 1;
                if (f >= 0)
                    value = (table != nullptr ? (*table)[static_cast<std::size_t>(f)]
                                              : static_cast<std::uint32_t>(f)) +
                            1u;
            }
            map(x + half, y + half) = IndexMapPixel(value);
        }
    tapestry_detail::fill_index_map_band(map, patch_w);
}

template <class Pixel>
void TapestryFactory<Pixel>::OutputJSON(std::ostream& out, TapestryTileCache<Pixel> const*) const {
    WriteTapestryJSON(out, source->GetFrameSize(), source->GetFrameCount());
}

#define WEFTMAP_INSTANTIATE_TAPESTRY_FACTORY(P) template class WEFTMAP_API TapestryFactory<P>;

}  // namespace WM
