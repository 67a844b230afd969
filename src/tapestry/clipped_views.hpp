// Copies and fills of rectangles that may overhang a view on any side: only
// the part inside is touched. Tiles, frames and margins overhang freely.
#pragma once

#include <weftmap/image/pixel_types.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>

namespace WM::tapestry_detail {

// The intersection of the rectangle at `origin` of `size` with a view of
// `bounds`, as (start, size); the size is 0 when they miss.
struct ClippedRect {
    Point start;
    Point size;
    bool empty() const { return size.x <= 0 || size.y <= 0; }
};

inline ClippedRect clip(Point origin, Point size, Point bounds) {
    Point const lo(std::max<std::ptrdiff_t>(origin.x, 0), std::max<std::ptrdiff_t>(origin.y, 0));
    Point const hi(std::min<std::ptrdiff_t>(origin.x + size.x, bounds.x),
                   std::min<std::ptrdiff_t>(origin.y + size.y, bounds.y));
    return {lo, Point(std::max<std::ptrdiff_t>(hi.x - lo.x, 0),
                      std::max<std::ptrdiff_t>(hi.y - lo.y, 0))};
}

// Copies `src` into `dst` with the top-left of `src` at `offset` of `dst`.
template <class Src, class Dst>
void copy_at(Src const& src, Dst const& dst, Point offset) {
    ClippedRect const r = clip(offset, src.dimensions(), dst.dimensions());
    if (r.empty()) return;
    gil::copy_pixels(
        gil::subimage_view(src, r.start.x - offset.x, r.start.y - offset.y, r.size.x, r.size.y),
        gil::subimage_view(dst, r.start.x, r.start.y, r.size.x, r.size.y));
}

// Fills the rectangle at `origin` of `size` of `dst` with `value`.
template <class Dst>
void fill_at(Dst const& dst, Point origin, Point size, typename Dst::value_type const& value) {
    ClippedRect const r = clip(origin, size, dst.dimensions());
    if (r.empty()) return;
    gil::fill_pixels(gil::subimage_view(dst, r.start.x, r.start.y, r.size.x, r.size.y), value);
}

}  // namespace WM::tapestry_detail
