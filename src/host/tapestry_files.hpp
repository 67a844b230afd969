// The files of a tapestry folder besides the tiles: the whole picture of
// each level, the description and the viewer.
#pragma once

#include "tile_store.hpp"

#include <weftmap/host/options.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace WM::host::detail {

// Writes `text` to `path` under a temporary name, then renames it.
void write_text_file(std::string const& path, std::string const& text);

// Assembles level `level` (in-between 0), `width` pixels wide, from its
// tiles into `path` (PNG or TIFF by `file`), a band of rows at a time.
void assemble_level(TileStore const& store, unsigned level, std::uint32_t width,
                    std::string const& path, FileFormat file, CancelFlag const* cancel);

// "index.html" and "tapestry.js" (the description as a string) in `folder`.
void write_viewer(std::string const& folder, std::string const& description);

}  // namespace WM::host::detail
