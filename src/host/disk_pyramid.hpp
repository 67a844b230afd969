// Pictures kept on disk instead of in memory: rasters in files without a
// name, read and written a rectangle at a time, and pyramids of them built
// while the rows of the full-size picture stream in. Reads and writes go
// through pread and pwrite, so the pixels sit in the page cache and never
// in the process's resident memory.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace WM::host::detail {

// A rectangle of a raster; empty when it has no area.
struct Rect {
    std::ptrdiff_t x = 0;
    std::ptrdiff_t y = 0;
    std::ptrdiff_t width = 0;
    std::ptrdiff_t height = 0;

    bool empty() const { return width <= 0 || height <= 0; }
    friend bool operator==(Rect const& a, Rect const& b) {
        return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
    }
};

// Pixels of one format in a file of their own, packed row after row. The
// file has no name from the start (it lives in `folder` only as space on
// its file system), so however the process ends it leaves nothing behind.
class WEFTMAP_HOST_API RasterFile {
public:
    // Creates the file at its full size. Throws Error (output_failed) when
    // `folder` cannot hold it.
    RasterFile(std::string const& folder, PixelFormat format, Size size);
    ~RasterFile();
    RasterFile(RasterFile&& other) noexcept;
    RasterFile& operator=(RasterFile&& other) noexcept;
    RasterFile(RasterFile const&) = delete;
    RasterFile& operator=(RasterFile const&) = delete;

    PixelFormat format() const { return format_; }
    Size size() const { return size_; }

    // Fills `out` (of this format) with the rectangle at (x, y) of its
    // size; outside the raster the nearest edge pixel repeats.
    void read(ImageView const& out, std::ptrdiff_t x, std::ptrdiff_t y) const;
    // Stores `in` (of this format) at (x, y); the rectangle must lie inside
    // the raster, or Error (internal) is thrown.
    void write(ConstImageView const& in, std::ptrdiff_t x, std::ptrdiff_t y);

private:
    std::int64_t offset(std::ptrdiff_t x, std::ptrdiff_t y) const;
    void read_bytes(unsigned char* to, std::size_t count, std::int64_t at) const;
    void write_bytes(unsigned char const* from, std::size_t count, std::int64_t at);

    int fd_ = -1;
    std::string folder_;
    PixelFormat format_;
    Size size_;
};

// How a coarser scale's pixel comes from the 2x2 block below it: the mean
// for pictures; the largest value for masks, so that a hole one pixel thin
// is still a hole at every scale.
enum class Reduction { mean, maximum };

// A picture at scale 0 and each coarser scale half the size of the last
// (odd sides round up, the last pixel of a row or column standing for the
// one or two below it), each in a RasterFile. Rows of scale 0 are appended
// in order; every coarser row is made as soon as the two rows below it are
// in, so memory stays at a few rows per scale whatever the picture's size.
class WEFTMAP_HOST_API DiskPyramid {
public:
    // Scales down to a side of `smallest` pixels or a little less; at least
    // one.
    static int scale_count(Size size, std::ptrdiff_t smallest = 16);
    // The size of scale `scale` of a picture of `size`.
    static Size scale_size(Size size, int scale);

    DiskPyramid(std::string const& folder, PixelFormat format, Size size, Reduction reduction,
                int scales);
    ~DiskPyramid();
    DiskPyramid(DiskPyramid&&) noexcept;
    DiskPyramid& operator=(DiskPyramid&&) noexcept;

    int scales() const { return int(levels_.size()); }
    PixelFormat format() const { return format_; }
    Size size(int scale) const { return levels_[std::size_t(scale)].size(); }
    RasterFile const& level(int scale) const { return levels_[std::size_t(scale)]; }

    // Appends the next rows of scale 0 (`band` has its width and format).
    // Throws Error (internal) past the last row.
    void append_rows(ConstImageView const& band);
    // Rows of scale 0 appended so far; complete when it reaches the height.
    std::ptrdiff_t rows() const { return rows_; }
    bool complete() const { return rows_ == size(0).height; }

    // The bounding rectangle of the pixels that are not all zero at
    // `scale`, once complete; empty when there are none.
    Rect nonzero_bounds(int scale) const { return bounds_[std::size_t(scale)]; }

private:
    struct Pending;
    void add_row(int scale, unsigned char const* row);
    void reduce_into(int scale, unsigned char const* upper, unsigned char const* lower);

    PixelFormat format_;
    Reduction reduction_;
    std::vector<RasterFile> levels_;
    std::vector<Rect> bounds_;
    // Per scale but the last: the row waiting for its partner, and the
    // row of the next scale being made.
    std::vector<Pending> pending_;
    std::vector<std::ptrdiff_t> level_rows_;
    std::ptrdiff_t rows_ = 0;
};

}  // namespace WM::host::detail
