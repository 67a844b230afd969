// The default operations of the host's pixel access and the clipping
// accessors around them. Instantiated per depth in pixel_access_*.cpp.
#pragma once

#include "twopass/overlap.hpp"

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/twopass/pixel_access.hpp>

#include <boost/gil/algorithm.hpp>

namespace WM {
namespace detail {

// The hole bounds as the access reports them at its current scale.
struct HoleBounds {
    Point origin;
    Point size;

    // Whether a rectangle lies within the bounds; the clipping never
    // produces one that does not, so a miss is an internal fault.
    bool holds(Point const& at, Point const& extent) const {
        return at.x >= origin.x && at.y >= origin.y && at.x + extent.x <= origin.x + size.x &&
               at.y + extent.y <= origin.y + size.y;
    }
};

template <class Access>
HoleBounds hole_bounds(Access& access) {
    HoleBounds h;
    h.origin = access.getHoleBoundsOrigin();
    h.size = access.getHoleBoundsSize();
    return h;
}

// Whether a view of `view_size` at `origin` lies wholly inside the bounds.
inline bool view_inside(HoleBounds const& h, Point const& origin, Point const& view_size) {
    Point const d = h.origin - origin;
    return d.x <= 0 && d.y <= 0 && view_size.x <= d.x + h.size.x && view_size.y <= d.y + h.size.y;
}

// The part of the hole bounds that a view of `view_size` at `origin` covers:
// its place within the view and where to read it from.
struct ClippedRead {
    Overlap part;
    Point read_origin;
};

inline ClippedRead clip_read(HoleBounds const& h, Point const& origin, Point const& view_size) {
    ClippedRead r;
    r.part = overlap_in_frame(h.origin - origin, h.size, view_size);
    r.read_origin = h.origin + r.part.skip;
    if (!h.holds(r.read_origin, r.part.size))
        raise("WEFTMAP_INTERNAL_ERROR: TILED read outside hole bounds");
    return r;
}

}  // namespace detail

template <class Pixel>
MultiScalePixelAccessBase<Pixel>::~MultiScalePixelAccessBase() = default;

template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::getWhichInputs(bool& hole, bool& init, bool& valid,
                                                      bool& a_constraint, bool& b_weight,
                                                      bool& a_constraint_mask) const {
    hole = init = valid = a_constraint = b_weight = a_constraint_mask = false;
}

template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::setScale(int new_scale) {
    scale = new_scale;
}

template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::getInitPixels(view_t&, Point) {}
template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::getAConstraintPixels(view_t&, Point) {}
template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::getAConstraintMaskPixels(GrayView&, Point) {}
template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::getValidPixels(GrayView&, Point) {}
template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::getBWeightPixels(GrayView&, Point) {}
template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::getHolePixels(GrayView&, Point) {}

template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::safeGetHolePixels(GrayView& out, Point origin) {
    if (out.width() <= 0 || out.height() <= 0) return;  // nothing to read, maybe no memory
    auto const h = detail::hole_bounds(*this);
    if (detail::view_inside(h, origin, out.dimensions())) {
        getHolePixels(out, origin);
        return;
    }
    gil::fill_pixels(out, gray8_pixel_t(0));
    auto const r = detail::clip_read(h, origin, out.dimensions());
    GrayView part = detail::clipped_subview(out, r.part.place, r.part.size);
    getHolePixels(part, r.read_origin);
}

template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::safeGetOutputPixels(view_t& out, Point origin) {
    if (out.width() <= 0 || out.height() <= 0) return;  // nothing to read, maybe no memory
    auto const h = detail::hole_bounds(*this);
    bool hole = false, init = false, valid = false, a_constraint = false, b_weight = false,
         a_constraint_mask = false;
    getWhichInputs(hole, init, valid, a_constraint, b_weight, a_constraint_mask);
    if (detail::view_inside(h, origin, out.dimensions())) {
        getOutputPixels(out, origin);
        return;
    }
    // Outside the hole bounds the result is the picture itself.
    if (a_constraint)
        getAConstraintPixels(out, origin);
    else
        getInputPixels(out, origin);
    auto const r = detail::clip_read(h, origin, out.dimensions());
    view_t part = detail::clipped_subview(out, r.part.place, r.part.size);
    getOutputPixels(part, r.read_origin);
}

template <class Pixel>
void MultiScalePixelAccessBase<Pixel>::safeSetOutputPixels(view_t const& in, Point origin) {
    if (in.width() <= 0 || in.height() <= 0) return;  // nothing to write
    auto const h = detail::hole_bounds(*this);
    // The view seen from the hole bounds: at `origin - h.origin`, clipped to them.
    auto const part = detail::overlap_in_frame(origin - h.origin, in.dimensions(), h.size);
    Point const write_origin = h.origin + part.place;
    if (!h.holds(write_origin, part.size))
        raise("WEFTMAP_INTERNAL_ERROR: TILED write outside hole bounds");
    view_t const inside = detail::clipped_subview(in, part.skip, part.size);
    setOutputPixels(inside, write_origin);
}

#define WEFTMAP_INSTANTIATE_PIXEL_ACCESS(P) template class WEFTMAP_API MultiScalePixelAccessBase<P>;

}  // namespace WM
