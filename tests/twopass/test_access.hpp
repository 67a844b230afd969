// An in-memory host for two-pass synthesis: a pyramid built by halving, a
// hole mask, optional inputs, the stored result at full size, a log of every
// call and a count of requests outside what the library promises. Also a
// subclass that opens the protected steps to tests.
#pragma once

#include "correspondence/recording_client.hpp"
#include "support/helpers.hpp"

#include <weftmap/image/resample.hpp>
#include <weftmap/twopass/two_pass_synthesis.hpp>

#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace WM::test {

struct AccessCall {
    std::string op;
    Point origin;
    Point size;
};

// Scale k + 1 is half of scale k; a coarse hole covers every fine hole pixel.
template <class Pixel>
std::vector<RecycledImage<Pixel>> pyramid(RecycledImage<Pixel> const& full, int scales,
                                          bool mask = false) {
    std::vector<RecycledImage<Pixel>> levels{full};
    for (int k = 1; k < scales; ++k) {
        RecycledImage<Pixel> next;
        Point const size = levels.back().dimensions();
        resample<Pixel>(const_view(levels.back()), next, (size.x + 1) / 2, (size.y + 1) / 2,
                        ResampleBilinear, -1);
        if (mask)
            for (auto& p : view(next)) p = Pixel(p[0] != 0 ? 255 : 0);
        levels.push_back(std::move(next));
    }
    return levels;
}

template <class Pixel>
class PyramidAccess : public MultiScalePixelAccessBase<Pixel> {
public:
    using view_t = View<Pixel>;
    using Gray = RecycledImage<gray8_pixel_t>;

    PyramidAccess(RecycledImage<Pixel> const& picture, Gray const& hole, int scales)
        : pictures(pyramid(picture, scales)),
          holes(pyramid(hole, scales, true)),
          constraints(pictures),
          output(picture.dimensions()) {
        gil::fill_pixels(view(output), Pixel());
    }

    // The hole's bounding rectangle at `level`.
    Box bounds(int level) const {
        Box b{1 << 30, 1 << 30, 0, 0};
        auto const v = const_view(holes[level]);
        for (int y = 0; y < v.height(); ++y)
            for (int x = 0; x < v.width(); ++x)
                if (v(x, y)[0] != 0)
                    b = {std::min(b.xmin, x), std::min(b.ymin, y), std::max(b.xmax, x + 1),
                         std::max(b.ymax, y + 1)};
        return b.empty() ? Box{} : b;
    }
    // Whether a request lies where the library promises to stay.
    bool promised(Point const& origin, Point const& size, bool scale_0) const {
        Box const b = bounds(this->scale);
        return (!scale_0 || this->scale == 0) &&
               (size.x <= 0 || size.y <= 0 ||
                (origin.x >= b.xmin && origin.y >= b.ymin && origin.x + size.x <= b.xmax &&
                 origin.y + size.y <= b.ymax));
    }
    std::vector<AccessCall> calls_of(std::string const& op) const {
        std::vector<AccessCall> found;
        for (auto const& c : calls)
            if (c.op == op) found.push_back(c);
        return found;
    }

    int getNumScales() override { return logged("getNumScales", int(pictures.size())); }
    void getWhichInputs(bool& hole, bool& init, bool& valid, bool& a_constraint, bool& b_weight,
                        bool& a_constraint_mask) const override {
        const_cast<PyramidAccess*>(this)->log("getWhichInputs");
        hole = true;
        init = b_weight = a_constraint_mask = false;
        valid = !valids.empty();
        a_constraint = offer_constraint;
    }
    void setScale(int s) override {
        MultiScalePixelAccessBase<Pixel>::setScale(s);
        log("setScale");
        deepest_scale = std::max(deepest_scale, s);
    }
    Point getSourceSize() override { return logged("size", pictures[this->scale].dimensions()); }
    Point getTargetSize() override { return logged("size", pictures[this->scale].dimensions()); }
    Point getHoleBoundsSize() override { return logged("bounds", bounds(this->scale).size()); }
    Point getHoleBoundsOrigin() override {
        return logged("bounds", bounds(this->scale).min_corner());
    }
    void getInputPixels(view_t& out, Point o) override { read("getInputPixels", pictures, out, o); }
    void getAConstraintPixels(view_t& out, Point o) override {
        read("getAConstraintPixels", constraints, out, o);
    }
    void getValidPixels(GrayView& out, Point o) override { read("getValidPixels", valids, out, o); }
    Point convertPoint(Point p, int from, int to) override {
        if (to >= from) return Point(p.x >> (to - from), p.y >> (to - from));
        return Point(p.x << (from - to), p.y << (from - to));
    }
    void setOutputPixels(view_t const& in, Point o) override {
        log("setOutputPixels", o, in.dimensions());
        if (!promised(o, in.dimensions(), true)) {
            ++violations;
            return;
        }
        for (std::ptrdiff_t y = 0; y < in.height(); ++y)
            for (std::ptrdiff_t x = 0; x < in.width(); ++x)
                view(output)(o.x + x, o.y + y) = in(x, y);
    }
    void getOutputPixels(view_t& out, Point o) override {
        log("getOutputPixels", o, out.dimensions());
        violations += !promised(o, out.dimensions(), true);
        copy_clamped(const_view(output), out, o);
    }

    std::vector<RecycledImage<Pixel>> pictures;
    std::vector<Gray> holes;
    std::vector<RecycledImage<Pixel>> constraints;
    std::vector<Gray> valids;  // offered when not empty
    bool offer_constraint = false;
    // What the hole read answers, when set, even outside the hole bounds.
    std::optional<int> hole_value;
    RecycledImage<Pixel> output;
    std::vector<AccessCall> calls;
    int violations = 0;
    int deepest_scale = 0;

private:
    void getHolePixels(GrayView& out, Point o) override {
        log("getHolePixels", o, out.dimensions());
        violations += !promised(o, out.dimensions(), false);
        if (hole_value)
            gil::fill_pixels(out, gray8_pixel_t(static_cast<unsigned char>(*hole_value)));
        else
            copy_clamped(const_view(holes[this->scale]), out, o);
    }
    void log(char const* op, Point origin = Point(0, 0), Point size = Point(0, 0)) {
        calls.push_back({op, origin, size});
    }
    template <class T>
    T logged(char const* op, T value) {
        log(op);
        return value;
    }
    // Reads with the picture's edge repeated beyond its border.
    template <class From, class To>
    static void copy_clamped(From const& from, To const& to, Point o) {
        for (std::ptrdiff_t y = 0; y < to.height(); ++y)
            for (std::ptrdiff_t x = 0; x < to.width(); ++x)
                to(x, y) = from(std::clamp<std::ptrdiff_t>(o.x + x, 0, from.width() - 1),
                                std::clamp<std::ptrdiff_t>(o.y + y, 0, from.height() - 1));
    }
    template <class Images, class To>
    void read(char const* op, Images const& images, To const& out, Point o) {
        log(op, o, out.dimensions());
        copy_clamped(const_view(images[this->scale]), out, o);
    }
};

// Cancels every reservation until the access has been at `scale`: the coarse
// pass settles on that scale as if memory had run out above it.
template <class Pixel>
void refuse_scales_below(RecordingClient<Pixel>& client, PyramidAccess<Pixel>& access, int scale) {
    client.abort_when = [&access, scale] { return access.deepest_scale < scale; };
}

template <class Pixel>
class OpenTwoPass : public TwoPassSynthesis<TranslatePatchCompare<Pixel>> {
public:
    using Base = TwoPassSynthesis<TranslatePatchCompare<Pixel>>;
    using Base::Base;
    using Base::ChooseSourceRegion;
    using Base::CoarsePass;
    using Base::ConstructConstraints;
    using Base::ConstructMasks;
    using Base::SortTiles;
};

// A disc-shaped hole in a picture of slow waves (periods 50 and 40), against
// whose steps of a few levels a seam between tiles stands out.
template <class Pixel>
struct HolePicture {
    HolePicture(Point const& size, double cx, double cy, double radius)
        : picture(size), hole(size) {
        auto const v = view(picture);
        for (std::ptrdiff_t y = 0; y < size.y; ++y)
            for (std::ptrdiff_t x = 0; x < size.x; ++x)
                for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                    double const t = 0.5 + 0.2 * std::sin(2 * M_PI * x / 50.0 + c) +
                                     0.15 * std::cos(2 * M_PI * y / 40.0 + 2 * c);
                    set_channel(v(x, y), c,
                                static_cast<channel_base_t<Pixel>>(t * channel_top<Pixel>()));
                }
        paint_disc(view(hole), cx, cy, radius);
    }
    // Whether every known pixel of the hole bounds holds the picture's value.
    bool known_pixels_kept(PyramidAccess<Pixel> const& access) const {
        Box const b = access.bounds(0);
        for (int y = b.ymin; y < b.ymax; ++y)
            for (int x = b.xmin; x < b.xmax; ++x)
                if (const_view(hole)(x, y)[0] == 0 &&
                    const_view(access.output)(x, y) != const_view(picture)(x, y))
                    return false;
        return true;
    }
    RecycledImage<Pixel> picture;
    RecycledImage<gray8_pixel_t> hole;
};

// Collects what is written to std::cout while it lives.
class CaptureStdout {
public:
    CaptureStdout() : previous_(std::cout.rdbuf(text_.rdbuf())) {}
    ~CaptureStdout() { std::cout.rdbuf(previous_); }
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* previous_;
};

}  // namespace WM::test
