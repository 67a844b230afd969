// The JSON description of a tapestry: which frames make up each row of each
// level and how wide the levels are, so that a viewer can map a position
// back to a frame. Written as text to a host stream whose formatting state
// is left as the host set it; the library never reads it back.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <vector>

namespace WM {

// A single tapestry of `frame_count` frames of `frame_size`.
WEFTMAP_API void WriteTapestryJSON(std::ostream& out, Point frame_size, int frame_count);

// A multi-level tapestry. `tile_info`, when set, writes the body of the
// "tile_info" object; when empty the key is left out.
WEFTMAP_API void WriteMultiTapestryJSON(std::ostream& out, Point frame_size,
                                        std::vector<std::vector<std::uint32_t>> const& frame_lists,
                                        std::vector<std::int64_t> const& level_widths,
                                        std::function<void(std::ostream&)> const& tile_info);

}  // namespace WM
