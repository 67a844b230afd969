// The multi-level tapestry: frame lists and widths of the levels, the
// progress table of the whole job, and the two Construct forms.
// Instantiated per depth in multi_tapestry_factory_*.cpp; the islands and
// in-betweens live in islands_impl.hpp.
#pragma once

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/tapestry/multi_tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_json.hpp>

#include "frame/wrapping.hpp"
#include "tapestry/tile_geometry.hpp"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace WM {

template <class Pixel>
MultiTapestryFactory<Pixel>::MultiTapestryFactory(TapestryFrameSource<Pixel> const& source,
                                                  ClientBase<Pixel>* client, unsigned levels)
    : source(&source), client(client), progress_table(1, 0.0f) {
    progress_pos = progress_table.data() + 1;
    if (levels != 0) {
        GenerateFrameLists(static_cast<int>(levels));
        PrecomputeWidths(levels);
    }
}

template <class Pixel>
MultiTapestryFactory<Pixel>::~MultiTapestryFactory() = default;

template <class Pixel>
void MultiTapestryFactory<Pixel>::updateProgress(float p) {
    if (client == nullptr) return;
    if (progress_table.empty() || progress_pos == nullptr) {
        client->updateProgress(0.0f);
        return;
    }
    std::ptrdiff_t const i = progress_pos - progress_table.data();
    auto const size = static_cast<std::ptrdiff_t>(progress_table.size());
    // Before the first step and after the table's end the position stands still.
    if (i <= 0) {
        client->updateProgress(progress_table.front());
    } else if (i >= size) {
        client->updateProgress(progress_table.back());
    } else {
        float const from = progress_table[static_cast<std::size_t>(i - 1)];
        float const to = progress_table[static_cast<std::size_t>(i)];
        client->updateProgress(from + (to - from) * p);
    }
}

template <class Pixel>
bool MultiTapestryFactory<Pixel>::checkAbort() {
    return client != nullptr && client->checkAbort();
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::AdvanceProgress() {
    if (progress_pos != nullptr && progress_pos < progress_table.data() + progress_table.size())
        ++progress_pos;
}

// Planning -----------------------------------------------------------------------

template <class Pixel>
void MultiTapestryFactory<Pixel>::GenerateFrameLists(int levels) {
    frame_lists.resize(static_cast<std::size_t>(std::max(levels, 0)));
    if (frame_lists.empty()) return;
    frame_lists[0].clear();
    for (int i = 0; i < source->GetFrameCount(); ++i)
        frame_lists[0].push_back(static_cast<std::uint32_t>(i));
    // Of each group of four positions, the first and the last stay: the
    // kept frames again form a two-row wall with half the frames.
    for (std::size_t l = 1; l < frame_lists.size(); ++l) {
        frame_lists[l].clear();
        auto const& finer = frame_lists[l - 1];
        for (std::size_t i = 0; i < finer.size(); ++i)
            if ((((i >> 1) ^ i) & 1u) == 0) frame_lists[l].push_back(finer[i]);
    }
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::PrecomputeWidths(unsigned levels) {
    Point const frame = source->GetFrameSize();
    height = tapestry_detail::truncate_i32(
        tapestry_detail::as_float(static_cast<std::uint32_t>(frame.y) * 2u) * 0.75f);
    widths.resize(levels);
    auto const w = static_cast<std::uint32_t>(frame.x);
    for (unsigned l = 0; l < levels; ++l) {
        auto const n =
            l < frame_lists.size() ? static_cast<std::uint32_t>(frame_lists[l].size()) : 0u;
        widths[l].assign(1, n == 0 ? 0u : (n + 1u) * w >> 1);
    }
    if (levels == 1) return;
    for (unsigned l = 0; l + 1 < levels; ++l) {
        auto const a = static_cast<float>(widths[l][0]);
        auto const b = static_cast<float>(widths[l + 1][0]);
        for (std::int32_t i = 1; i <= inbetweens; ++i) {
            float const t = static_cast<float>(i) / tapestry_detail::steps_between(inbetweens);
            widths[l].push_back(tapestry_detail::truncate_u32((1.0 - t) * a + double(b * t)));
        }
    }
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::PrepareProgressTable(unsigned tile_width, bool construct_levels,
                                                       bool construct_inbetweens) {
    std::size_t const levels = widths.size();
    std::vector<std::uint64_t> tiles(levels, 0);
    std::vector<std::uint64_t> steps(1, 0);
    std::uint64_t c = 0;
    if (construct_levels)
        for (std::size_t l = 0; l < levels; ++l) {
            std::uint32_t const width = widths[l].empty() ? 0u : widths[l][0];
            if (width != 0) {  // an empty level has no tile
                if (tile_width == 0)
                    raise("WEFTMAP_INVALID_PARAMETERS: tile width must be positive (got 0)");
                tiles[l] = (width - 1u) / tile_width + 1u;
            }
            c += tiles[l];
            steps.push_back(c);
        }
    // One step for the island search of a tile, one per in-between.
    if (construct_inbetweens && levels >= 2)
        for (std::size_t l = 1; l < levels; ++l)
            for (std::uint64_t t = 0; t < tiles[l]; ++t) {
                steps.push_back(++c);
                for (std::int32_t i = 0; i < inbetweens; ++i) steps.push_back(++c);
            }
    progress_table.resize(steps.size());
    for (std::size_t k = 0; k < steps.size(); ++k)
        progress_table[k] =
            c == 0 ? 0.0f : static_cast<float>(static_cast<double>(steps[k]) / double(c));
    progress_pos = progress_table.data() + 1;
}

// Pictures -------------------------------------------------------------------------

template <class Pixel>
std::uint32_t MultiTapestryFactory<Pixel>::Width(unsigned level, unsigned inbetween) const {
    if (level >= widths.size() || inbetween >= widths[level].size())
        raise("WEFTMAP_INVALID_PARAMETERS: no tapestry picture at level %d in-between %d", level,
              inbetween);
    return widths[level][inbetween];
}

template <class Pixel>
Point MultiTapestryFactory<Pixel>::GetTapestrySize(unsigned level, unsigned inbetween) const {
    return Point(Width(level, inbetween), height);
}

template <class Pixel>
Point MultiTapestryFactory<Pixel>::TransformPoint(Point p, unsigned from_level, unsigned to_level,
                                                  unsigned from_inbetween,
                                                  unsigned to_inbetween) const {
    std::int64_t const to = Width(to_level, to_inbetween);
    std::int64_t const from = Width(from_level, from_inbetween);
    if (from == 0)
        raise("WEFTMAP_INVALID_PARAMETERS: no position in a picture of width 0 (level %d)",
              from_level);
    return Point(wrap_mul(to, static_cast<std::int64_t>(p.x)) / from, p.y);
}

// Construction -----------------------------------------------------------------------

template <class Pixel>
void MultiTapestryFactory<Pixel>::Construct(MultiTapestryTileCache<Pixel>& cache,
                                            bool construct_levels, bool construct_inbetweens) {
    if (!construct_levels && !construct_inbetweens) return;
    std::size_t const levels = frame_lists.size();
    if (levels == 0) return;
    PrepareProgressTable(static_cast<unsigned>(cache.GetTileSize().x), construct_levels,
                         construct_inbetweens);
    if (construct_levels)
        for (std::size_t l = 0; l < levels; ++l) {
            MultiTileCacheAdaptor<Pixel> adaptor(static_cast<unsigned>(l), 0, &cache);
            SubFrameSource<Pixel> frames(source, &frame_lists[l]);
            TapestryFactory<Pixel> factory(frames, this);
            factory.recomposer.generate_index_map = generate_index_map;
            debug_log("Constructing discrete tapestry level %d\n", static_cast<long long>(l));
            factory.Construct(adaptor, 0, -1);
            AdvanceProgress();
        }
    if (construct_inbetweens && levels >= 2)
        for (unsigned l = 1; l < levels; ++l) {
            unsigned const n = cache.GetTileCount(l, 0);
            for (unsigned t = 0; t < n; ++t) ConstructAnimationTiles(cache, l, t);
        }
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::Construct(UntiledMultiTapestry<Pixel>& out, bool construct_levels,
                                            bool construct_inbetweens) {
    if (!construct_levels && !construct_inbetweens) return;
    std::size_t const levels = frame_lists.size();
    if (construct_levels) {
        out.levels.resize(levels);
        out.index_maps.resize(levels);
    }
    if (levels == 0) return;
    // The width of level 0 as the tile width: each level counts as one tile.
    PrepareProgressTable(TapestryFactory<Pixel>::ComputeTapestryWidth(
                             static_cast<std::uint32_t>(source->GetFrameSize().x),
                             static_cast<std::uint32_t>(source->GetFrameCount())),
                         construct_levels, construct_inbetweens);
    if (construct_levels)
        for (std::size_t l = 0; l < levels; ++l) {
            out.levels[l].resize(1);
            SubFrameSource<Pixel> frames(source, &frame_lists[l]);
            TapestryFactory<Pixel> factory(frames, this);
            factory.recomposer.generate_index_map = generate_index_map;
            factory.Construct(out.levels[l][0], out.index_maps[l], 0, -1);
            AdvanceProgress();
        }
    if (!construct_inbetweens || levels == 1) return;
    if (out.levels.size() < levels ||
        std::any_of(out.levels.begin(), out.levels.begin() + static_cast<std::ptrdiff_t>(levels),
                    [](auto const& level) { return level.empty(); }))
        raise("WEFTMAP_INVALID_PARAMETERS: in-betweens need the %d levels built first",
              static_cast<long long>(levels));
    for (std::size_t l = 0; l + 1 < levels; ++l) {
        FindIslands(view(out.levels[l][0]), view(out.levels[l + 1][0]));
        out.levels[l].resize(static_cast<std::size_t>(std::max(inbetweens, 0)) + 1);
        for (std::int32_t i = 1; i <= inbetweens; ++i)
            ConstructAnimationFrame(out, static_cast<unsigned>(l), static_cast<unsigned>(i));
    }
}

template <class Pixel>
void MultiTapestryFactory<Pixel>::OutputJSON(std::ostream& out,
                                             MultiTapestryTileCache<Pixel> const* cache) const {
    std::vector<std::int64_t> level_widths;
    for (unsigned l = 0; l < widths.size(); ++l) level_widths.push_back(GetTapestrySize(l, 0).x);
    std::function<void(std::ostream&)> tile_info;
    if (cache != nullptr) tile_info = [cache](std::ostream& o) { cache->OutputJSON(o); };
    WriteMultiTapestryJSON(out, source->GetFrameSize(), frame_lists, level_widths, tile_info);
}

#define WEFTMAP_INSTANTIATE_MULTI_TAPESTRY_FACTORY(P) \
    template class WEFTMAP_API MultiTapestryFactory<P>;

}  // namespace WM
