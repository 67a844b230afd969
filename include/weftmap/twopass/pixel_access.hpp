// The host's side of two-pass synthesis: a picture too large to hold, handed
// out in rectangles of every input at any of several scales, and taking back
// rectangles of the result. The safe accessors clip requests to the hole's
// bounding rectangle, which is all a host has to keep result pixels for.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <cstdint>

namespace WM {

// Scale 0 is the full-size picture; each higher number is coarser. Every
// call refers to the scale of the last setScale, and coordinates are those
// of that scale (except in convertPoint). Source and target share one
// coordinate system: the library also reads source-side inputs at target
// positions. "A" is the target side, "B" the source side.
template <class Pixel>
class WEFTMAP_API MultiScalePixelAccessBase {
public:
    using view_t = View<Pixel>;

    MultiScalePixelAccessBase() = default;
    MultiScalePixelAccessBase(MultiScalePixelAccessBase const& other) = default;
    MultiScalePixelAccessBase& operator=(MultiScalePixelAccessBase const& other) = default;
    virtual ~MultiScalePixelAccessBase();

    // How many scales exist; at least 1 for a usable access.
    virtual int getNumScales() = 0;
    // Which optional inputs the host provides; the base provides none.
    virtual void getWhichInputs(bool& hole, bool& init, bool& valid, bool& a_constraint,
                                bool& b_weight, bool& a_constraint_mask) const;
    // Stores the number; an override may prepare the scale.
    virtual void setScale(int scale);
    virtual Point getSourceSize() = 0;
    virtual Point getTargetSize() = 0;
    // The bounding rectangle of the hole, in target coordinates.
    virtual Point getHoleBoundsSize() = 0;
    virtual Point getHoleBoundsOrigin() = 0;
    // Fill `out` with the pixels whose top-left is `origin`.
    virtual void getInputPixels(view_t& out, Point origin) = 0;
    // The optional inputs; the base leaves `out` as it is.
    virtual void getInitPixels(view_t& out, Point origin);
    virtual void getAConstraintPixels(view_t& out, Point origin);
    virtual void getAConstraintMaskPixels(GrayView& out, Point origin);
    virtual void getValidPixels(GrayView& out, Point origin);
    virtual void getBWeightPixels(GrayView& out, Point origin);
    // Maps a point, or a size, from one scale's coordinates to another's.
    virtual Point convertPoint(Point p, int from_scale, int to_scale) = 0;
    // Result pixels. The library asks only for rectangles inside the hole
    // bounds; a view of zero width or height is nothing to do.
    virtual void setOutputPixels(view_t const& in, Point origin) = 0;
    virtual void getOutputPixels(view_t& out, Point origin) = 0;

    // The hole mask for any rectangle: 0 outside the hole bounds.
    void safeGetHolePixels(GrayView& out, Point origin);
    // Result pixels for any rectangle, with the constraint image (or the
    // input) around them outside the hole bounds.
    void safeGetOutputPixels(view_t& out, Point origin);
    // Stores the part of `in` that lies inside the hole bounds; the rest is
    // dropped, so tiles may overhang the hole freely.
    void safeSetOutputPixels(view_t const& in, Point origin);

    // The current scale, written by setScale.
    std::int32_t scale = 0;

private:
    // Nonzero inside the hole. Reached only through safeGetHolePixels.
    virtual void getHolePixels(GrayView& out, Point origin);
};

}  // namespace WM
