// The kit's side of two-pass synthesis: the picture and its hole mask as
// pyramids on disk, and the result as a file of the hole's bounding
// rectangle at full size. Every request reads or writes just its rectangle.
#pragma once

#include "disk_pyramid.hpp"
#include "dispatch.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/options.hpp>
#include <weftmap/twopass/pixel_access.hpp>

#include <algorithm>

namespace WM::host::detail {

// A view of the library as a view of the kit.
template <class View>
ImageView kit_view(View const& v) {
    using Pixel = typename View::value_type;
    if (v.width() <= 0 || v.height() <= 0) return {};
    return ImageView(reinterpret_cast<unsigned char*>(&v(0, 0)), format_of<Pixel>(), v.width(),
                     v.height(), std::ptrdiff_t(v.pixels().row_size()));
}

template <class Pixel>
class PyramidAccess final : public MultiScalePixelAccessBase<Pixel> {
public:
    using view_t = View<Pixel>;

    // `result` holds the rectangle nonzero_bounds(0) of `hole`. Every call
    // ends the run with Error (cancelled) once `cancel` is raised: the tile
    // loop's own steps between recompositions never ask.
    PyramidAccess(DiskPyramid const& picture, DiskPyramid const& hole, RasterFile& result,
                  CancelFlag const* cancel)
        : picture_(picture), hole_(hole), result_(result), cancel_(cancel) {}

    // The coarsest scale the library has set; after a run the scale of its
    // coarse pass.
    int deepest_scale() const { return deepest_; }

    int getNumScales() override {
        poll();
        return std::min(picture_.scales(), hole_.scales());
    }
    void getWhichInputs(bool& hole, bool& init, bool& valid, bool& a_constraint, bool& b_weight,
                        bool& a_constraint_mask) const override {
        hole = true;
        init = valid = a_constraint = b_weight = a_constraint_mask = false;
    }
    void setScale(int scale) override {
        poll();
        MultiScalePixelAccessBase<Pixel>::setScale(scale);
        deepest_ = std::max(deepest_, scale);
    }
    Point getSourceSize() override { return size(); }
    Point getTargetSize() override { return size(); }
    Point getHoleBoundsSize() override {
        Rect const r = bounds();
        return Point(r.width, r.height);
    }
    Point getHoleBoundsOrigin() override {
        Rect const r = bounds();
        return Point(r.x, r.y);
    }
    void getInputPixels(view_t& out, Point origin) override {
        poll();
        picture_.level(this->scale).read(kit_view(out), origin.x, origin.y);
    }
    // Powers of two, as the scales halve; coarser points round down.
    Point convertPoint(Point p, int from_scale, int to_scale) override {
        poll();
        if (to_scale >= from_scale) {
            std::ptrdiff_t const d = std::ptrdiff_t(1) << (to_scale - from_scale);
            return Point(floor_div(p.x, d), floor_div(p.y, d));
        }
        std::ptrdiff_t const m = std::ptrdiff_t(1) << (from_scale - to_scale);
        return Point(p.x * m, p.y * m);
    }
    void setOutputPixels(view_t const& in, Point origin) override {
        poll();
        Rect const r = hole_.nonzero_bounds(0);
        result_.write(kit_view(in), origin.x - r.x, origin.y - r.y);
    }
    void getOutputPixels(view_t& out, Point origin) override {
        poll();
        Rect const r = hole_.nonzero_bounds(0);
        result_.read(kit_view(out), origin.x - r.x, origin.y - r.y);
    }

private:
    void getHolePixels(GrayView& out, Point origin) override {
        poll();
        hole_.level(this->scale).read(kit_view(out), origin.x, origin.y);
    }

    void poll() const {
        if (cancel_ != nullptr && cancel_->requested())
            throw Error(ErrorCode::cancelled, "cancelled");
    }
    Point size() const {
        Size const s = picture_.size(this->scale);
        return Point(s.width, s.height);
    }
    Rect bounds() const { return hole_.nonzero_bounds(this->scale); }
    static std::ptrdiff_t floor_div(std::ptrdiff_t v, std::ptrdiff_t d) {
        return v >= 0 ? v / d : -((-v + d - 1) / d);
    }

    DiskPyramid const& picture_;
    DiskPyramid const& hole_;
    RasterFile& result_;
    CancelFlag const* cancel_;
    int deepest_ = 0;
};

}  // namespace WM::host::detail
