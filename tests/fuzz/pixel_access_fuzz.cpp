// The clipping accessors of two-pass synthesis over a small in-memory host:
// for any rectangle, anywhere and of any size, they ask the host only for
// rectangles inside the hole bounds (the only pixels a host keeps results
// for) and give exactly what the host holds: the hole inside the bounds and
// 0 outside, the result inside and the picture outside; a store keeps what
// lies inside the bounds and drops the rest.
#include "fuzz_support.hpp"

#include <fuzzer/FuzzedDataProvider.h>

#include <weftmap/twopass/pixel_access.hpp>

#include <boost/gil/algorithm.hpp>

#include <cstdint>
#include <vector>

namespace {

using WM::GrayView;
using WM::Point;
using Pixel = WM::gray8_pixel_t;
using View = WM::View<Pixel>;

// A picture, its hole, its result and a hole-bounds rectangle, all at
// scale 0; every read of the host's own arrays is checked.
class MemoryAccess : public WM::MultiScalePixelAccessBase<Pixel> {
public:
    MemoryAccess(Point size, Point bounds_origin, Point bounds_size)
        : size(size),
          origin(bounds_origin),
          extent(bounds_size),
          picture(std::size_t(size.x * size.y)),
          hole(picture.size()),
          result(picture.size()) {
        for (std::size_t i = 0; i < picture.size(); ++i) {
            picture[i] = std::uint8_t(i * 7 + 1);
            hole[i] = std::uint8_t(i % 3 == 0 ? 255 : 0);
            result[i] = std::uint8_t(200 + i % 50);
        }
    }

    bool in_bounds(Point p) const {
        return p.x >= origin.x && p.y >= origin.y && p.x < origin.x + extent.x &&
               p.y < origin.y + extent.y;
    }
    bool in_picture(Point p) const { return p.x >= 0 && p.y >= 0 && p.x < size.x && p.y < size.y; }
    std::size_t at(Point p) const { return std::size_t(p.y * size.x + p.x); }

    // Asked only inside the bounds: anything else is a finding.
    void require_in_bounds(Point at_origin, Point view_size) const {
        if (view_size.x <= 0 || view_size.y <= 0) return;
        if (!in_bounds(at_origin) ||
            !in_bounds(at_origin + Point(view_size.x - 1, view_size.y - 1)))
            weftmap_fuzz::fail("the host was asked for pixels outside the hole bounds");
    }

    int getNumScales() override { return 1; }
    void getWhichInputs(bool& h, bool& init, bool& valid, bool& a_constraint, bool& b_weight,
                        bool& a_constraint_mask) const override {
        h = true;
        init = valid = a_constraint = b_weight = a_constraint_mask = false;
    }
    Point getSourceSize() override { return size; }
    Point getTargetSize() override { return size; }
    Point getHoleBoundsSize() override { return extent; }
    Point getHoleBoundsOrigin() override { return origin; }
    // The picture is read anywhere, 0 outside it, as a host would clip.
    void getInputPixels(View& out, Point o) override {
        for (std::ptrdiff_t y = 0; y < out.height(); ++y)
            for (std::ptrdiff_t x = 0; x < out.width(); ++x) {
                Point const p = o + Point(x, y);
                out(x, y) = Pixel(in_picture(p) ? picture[at(p)] : 0);
            }
    }
    Point convertPoint(Point p, int, int) override { return p; }
    void setOutputPixels(View const& in, Point o) override {
        require_in_bounds(o, in.dimensions());
        for (std::ptrdiff_t y = 0; y < in.height(); ++y)
            for (std::ptrdiff_t x = 0; x < in.width(); ++x)
                result[at(o + Point(x, y))] = in(x, y)[0];
    }
    void getOutputPixels(View& out, Point o) override {
        require_in_bounds(o, out.dimensions());
        for (std::ptrdiff_t y = 0; y < out.height(); ++y)
            for (std::ptrdiff_t x = 0; x < out.width(); ++x)
                out(x, y) = Pixel(result[at(o + Point(x, y))]);
    }

    Point size, origin, extent;
    std::vector<std::uint8_t> picture, hole, result;

private:
    void getHolePixels(GrayView& out, Point o) override {
        require_in_bounds(o, out.dimensions());
        for (std::ptrdiff_t y = 0; y < out.height(); ++y)
            for (std::ptrdiff_t x = 0; x < out.width(); ++x)
                out(x, y) = Pixel(hole[at(o + Point(x, y))]);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static weftmap_fuzz::Setup const setup;
    FuzzedDataProvider in(data, size);
    Point const picture(in.ConsumeIntegralInRange(1, 40), in.ConsumeIntegralInRange(1, 40));
    // Hole bounds inside the picture, possibly empty.
    Point const origin(in.ConsumeIntegralInRange<std::ptrdiff_t>(0, picture.x),
                       in.ConsumeIntegralInRange<std::ptrdiff_t>(0, picture.y));
    Point const extent(in.ConsumeIntegralInRange<std::ptrdiff_t>(0, picture.x - origin.x),
                       in.ConsumeIntegralInRange<std::ptrdiff_t>(0, picture.y - origin.y));
    MemoryAccess access(picture, origin, extent);

    while (in.remaining_bytes() > 0) {
        int const op = in.ConsumeIntegralInRange(0, 2);
        Point const at(in.ConsumeIntegralInRange(-100, 140), in.ConsumeIntegralInRange(-100, 140));
        Point const view_size(in.ConsumeIntegralInRange(0, 70), in.ConsumeIntegralInRange(0, 70));
        std::vector<Pixel> pixels(std::size_t(view_size.x * view_size.y), Pixel(77));
        View v = boost::gil::interleaved_view(view_size.x, view_size.y, pixels.data(),
                                              std::max<std::ptrdiff_t>(view_size.x, 1));
        auto const inside = [&](std::ptrdiff_t x, std::ptrdiff_t y) {
            return access.in_bounds(at + Point(x, y));
        };
        if (op == 0) {
            GrayView g = v;
            access.safeGetHolePixels(g, at);
            for (std::ptrdiff_t y = 0; y < view_size.y; ++y)
                for (std::ptrdiff_t x = 0; x < view_size.x; ++x)
                    if (v(x, y)[0] != (inside(x, y) ? access.hole[access.at(at + Point(x, y))] : 0))
                        weftmap_fuzz::fail("safeGetHolePixels gave another pixel");
        } else if (op == 1) {
            access.safeGetOutputPixels(v, at);
            for (std::ptrdiff_t y = 0; y < view_size.y; ++y)
                for (std::ptrdiff_t x = 0; x < view_size.x; ++x) {
                    Point const p = at + Point(x, y);
                    int const expected = inside(x, y)           ? access.result[access.at(p)]
                                         : access.in_picture(p) ? access.picture[access.at(p)]
                                                                : 0;
                    if (v(x, y)[0] != expected)
                        weftmap_fuzz::fail("safeGetOutputPixels gave another pixel");
                }
        } else {
            std::uint8_t const value = in.ConsumeIntegral<std::uint8_t>();
            if (!pixels.empty()) boost::gil::fill_pixels(v, Pixel(value));
            std::vector<std::uint8_t> expected = access.result;
            for (std::ptrdiff_t y = 0; y < view_size.y; ++y)
                for (std::ptrdiff_t x = 0; x < view_size.x; ++x)
                    if (inside(x, y)) expected[access.at(at + Point(x, y))] = value;
            access.safeSetOutputPixels(v, at);
            if (access.result != expected)
                weftmap_fuzz::fail("safeSetOutputPixels stored another set of pixels");
        }
    }
    return 0;
}
