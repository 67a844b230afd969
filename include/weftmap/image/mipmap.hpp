// A chain of 2-to-1 reduced copies of one source image. A request for any
// size is served by bilinear resampling from the smallest stored level that
// is still at least as large, so no request reads more than about four
// source pixels per output pixel. The source view itself stands for level 0
// and is never copied.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <vector>

namespace WM {

// Number of reduced levels of an image of `dims`, level 0 included: halve
// while both sides are at least 2. 640x480 has 8, a side of 1 gives none.
inline int mipmap_level_count(Point const& dims) {
    int count = 0;
    for (Point d = dims; d.x >= 2 && d.y >= 2; d = Point(d.x / 2, d.y / 2)) ++count;
    return count;
}

template <class Pixel>
class WEFTMAP_API MipMap {
public:
    // Reserves and locks the levels for sources up to `dims`, so that running
    // out of memory shows up here and not halfway through an operation.
    void preallocate(Point const& dims);

    // Records `source` (which must outlive the last `get`) and fills the
    // levels from it.
    void build(ConstView<Pixel> const& source);

    // Writes the pyramid's image at (width, height) to `dst`; a negative side
    // follows from the other by the source's aspect ratio.
    void get(RecycledImage<Pixel>& dst, long long width, long long height) const;

    // Frees every level and returns to the state of a new object.
    void clear();

    // Level i holds the source's size halved i times; level 0 stays empty
    // while `uses_source_view` is set, since the source stands for it.
    std::vector<RecycledImage<Pixel>> levels;
    ConstView<Pixel> source;
    bool uses_source_view = false;
};

}  // namespace WM
