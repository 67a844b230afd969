// A tapestry's tiles as files in a folder: one picture file per tile of a
// level or in-between and per index map tile, and an empty marker file per
// level tile whose in-betweens are finished. Files appear only complete
// (written under a temporary name, then renamed), so whatever a folder
// holds after a crash, a full disk or Ctrl-C can be taken as it stands.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/raster_file.hpp>

#include <cstdint>
#include <set>
#include <string>
#include <tuple>

namespace WM::host::detail {

class WEFTMAP_HOST_API TileStore {
public:
    // Tiles of `tile_size` in `format`, kept in `folder` (made if missing).
    // Stale temporary files of an interrupted write are removed.
    TileStore(std::string folder, PixelFormat format, Size tile_size);

    std::string const& folder() const { return folder_; }
    PixelFormat format() const { return format_; }
    Size tile_size() const { return tile_size_; }
    // PNG where it holds the pixels exactly (8/16-bit gray and RGB), TIFF
    // otherwise, so that a resumed run reads back what it wrote.
    FileFormat file_format() const { return file_format_; }

    // File names relative to the folder: "0-1-12.png" is tile 12 of
    // in-between 1 of level 0; "index-0-12.png" its level's index map tile.
    std::string tile_name(unsigned level, unsigned inbetween, unsigned tile) const;
    std::string index_name(unsigned level, unsigned tile) const;
    std::string marker_name(unsigned level, unsigned tile) const;
    // The same with "{level}", "{inbetween}" and "{tile}" in place of the
    // numbers, for viewers.
    std::string tile_pattern() const;
    std::string index_pattern() const;

    bool has_tile(unsigned level, unsigned inbetween, unsigned tile) const;
    bool has_index(unsigned level, unsigned tile) const;
    bool has_marker(unsigned level, unsigned tile) const;

    // The tile's pixels in format(); a missing tile reads as zeros.
    Image read_tile(unsigned level, unsigned inbetween, unsigned tile) const;
    // 8-bit RGB; a missing tile reads as zeros.
    Image read_index(unsigned level, unsigned tile) const;
    // Replace the file whole. Throw Error (output_failed).
    void write_tile(unsigned level, unsigned inbetween, unsigned tile,
                    ConstImageView const& pixels);
    void write_index(unsigned level, unsigned tile, ConstImageView const& pixels);
    void write_marker(unsigned level, unsigned tile);

    // Files this object added to the folder (rewrites of a file not counted).
    std::size_t files_made() const { return files_made_; }

private:
    using Key = std::tuple<unsigned, unsigned, unsigned>;
    Image read(std::string const& name, PixelFormat format) const;
    void write(std::string const& name, FileFormat file, ConstImageView const& pixels);

    std::string folder_;
    PixelFormat format_;
    Size tile_size_;
    FileFormat file_format_;
    std::string extension_;
    std::set<Key> tiles_;    // (level, in-between, tile)
    std::set<Key> indices_;  // (level, 0, tile)
    std::set<Key> markers_;  // (level, 0, tile)
    std::size_t files_made_ = 0;
};

}  // namespace WM::host::detail
