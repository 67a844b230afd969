// The one clipping rule of two-pass synthesis: the part of a rectangle that
// lies inside a frame, used for hole-bound reads and writes and for the
// strips that finished neighbours share with a tile.
#pragma once

#include <weftmap/image/pixel_types.hpp>

#include <algorithm>

namespace WM::detail {

struct Overlap {
    // Where the shared part starts inside the frame.
    Point place;
    // How far into the rectangle it starts.
    Point skip;
    // Its size; zero or negative when the rectangle misses the frame.
    Point size;
};

// A rectangle of `size` at `offset` from the frame's top-left corner,
// against a frame of `frame` size.
inline Overlap overlap_in_frame(Point const& offset, Point const& size, Point const& frame) {
    Overlap o;
    auto const axis = [](std::ptrdiff_t offset, std::ptrdiff_t size, std::ptrdiff_t frame,
                         std::ptrdiff_t& place, std::ptrdiff_t& skip, std::ptrdiff_t& length) {
        place = std::max<std::ptrdiff_t>(offset, 0);
        skip = std::max<std::ptrdiff_t>(-offset, 0);
        length = size - skip;
        if (place + length > frame) length = frame - place;
    };
    axis(offset.x, size.x, frame.x, o.place.x, o.skip.x, o.size.x);
    axis(offset.y, size.y, frame.y, o.place.y, o.skip.y, o.size.y);
    return o;
}

inline bool has_area(Point const& size) {
    return size.x > 0 && size.y > 0;
}

// The subview of `v` at `place` of `size`. A size without area gives an
// empty view without moving into `v`, which may itself be empty.
template <class ViewT>
ViewT clipped_subview(ViewT const& v, Point const& place, Point const& size) {
    if (!has_area(size))
        return ViewT(
            Point(std::max<std::ptrdiff_t>(size.x, 0), std::max<std::ptrdiff_t>(size.y, 0)),
            v.pixels());
    return gil::subimage_view(v, place, size);
}

}  // namespace WM::detail
