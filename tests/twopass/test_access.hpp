// An in-memory host for two-pass synthesis: a pyramid of pictures built by
// halving, a hole mask, optional inputs, the stored result at full size, a
// log of every call and a count of requests outside what the library
// promises. Also a host client and a subclass that opens the protected
// steps of TwoPassSynthesis to tests.
#pragma once

#include "support/helpers.hpp"

#include <weftmap/twopass/two_pass_synthesis.hpp>

#include <gtest/gtest.h>
#include <boost/gil/algorithm.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace WM::test {

struct AccessCall {
    std::string op;
    Point origin;
    Point size;
    int scale;
};

// Which optional inputs the host offers.
struct Offer {
    bool hole = true;
    bool init = false;
    bool valid = false;
    bool a_constraint = false;
    bool b_weight = false;
    bool a_constraint_mask = false;
};

// Level k + 1 of a pyramid from level k: the mean of each 2 x 2 block, or
// with `any` the largest value, so that a coarse hole covers the fine one.
template <class Pixel>
RecycledImage<Pixel> halve(ConstView<Pixel> const& v, bool any = false) {
    Point const size((v.width() + 1) / 2, (v.height() + 1) / 2);
    RecycledImage<Pixel> out(size);
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < size.x; ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double sum = 0, top = 0;
                for (int j = 0; j < 2; ++j)
                    for (int i = 0; i < 2; ++i) {
                        double const value = channel_value(v(std::min(2 * x + i, v.width() - 1),
                                                             std::min(2 * y + j, v.height() - 1)),
                                                           c);
                        sum += value;
                        top = std::max(top, value);
                    }
                set_channel(view(out)(x, y), c,
                            static_cast<channel_base_t<Pixel>>(any ? top : sum / 4));
            }
    return out;
}

template <class Pixel>
std::vector<RecycledImage<Pixel>> pyramid(RecycledImage<Pixel> const& full, int scales,
                                          bool any = false) {
    std::vector<RecycledImage<Pixel>> levels;
    levels.push_back(full);
    while (static_cast<int>(levels.size()) < scales)
        levels.push_back(halve(const_view(levels.back()), any));
    return levels;
}

template <class Pixel>
class PyramidAccess : public MultiScalePixelAccessBase<Pixel> {
public:
    using view_t = View<Pixel>;
    using Gray = RecycledImage<gray8_pixel_t>;

    PyramidAccess(RecycledImage<Pixel> const& picture, Gray const& hole_mask, int scales)
        : pictures(pyramid(picture, scales)),
          holes(pyramid(hole_mask, scales, true)),
          output(picture.dimensions()) {
        gil::fill_pixels(view(output), Pixel());
    }

    // Optional inputs, given at full size.
    void set_constraint(RecycledImage<Pixel> const& image) {
        constraints = pyramid(image, num_scales());
    }
    void set_valid(Gray const& mask) { valids = pyramid(mask, num_scales()); }

    int num_scales() const { return static_cast<int>(pictures.size()); }
    Point full_size() const { return pictures[0].dimensions(); }

    // The hole's bounding rectangle at `level`.
    Box bounds(int level) const {
        Box box{0x7fffffff, 0x7fffffff, 0, 0};
        auto const v = const_view(holes[level]);
        for (int y = 0; y < v.height(); ++y)
            for (int x = 0; x < v.width(); ++x)
                if (v(x, y)[0] != 0) {
                    box.xmin = std::min(box.xmin, x);
                    box.ymin = std::min(box.ymin, y);
                    box.xmax = std::max(box.xmax, x + 1);
                    box.ymax = std::max(box.ymax, y + 1);
                }
        return box.empty() ? Box{} : box;
    }
    bool inside_bounds(Point const& origin, Point const& size) const {
        if (size.x <= 0 || size.y <= 0) return true;
        Box const b = bounds(this->scale);
        return origin.x >= b.xmin && origin.y >= b.ymin && origin.x + size.x <= b.xmax &&
               origin.y + size.y <= b.ymax;
    }

    int getNumScales() override {
        log("getNumScales");
        return num_scales();
    }
    void getWhichInputs(bool& hole, bool& init, bool& valid, bool& a_constraint, bool& b_weight,
                        bool& a_constraint_mask) const override {
        const_cast<PyramidAccess*>(this)->log("getWhichInputs");
        Offer const o = this->scale != 0 && coarse_offer ? *coarse_offer : offer;
        hole = o.hole;
        init = o.init;
        valid = o.valid;
        a_constraint = o.a_constraint;
        b_weight = o.b_weight;
        a_constraint_mask = o.a_constraint_mask;
    }
    void setScale(int s) override {
        MultiScalePixelAccessBase<Pixel>::setScale(s);
        log("setScale");
        deepest_scale = std::max(deepest_scale, s);
    }
    Point getSourceSize() override {
        log("getSourceSize");
        return pictures[this->scale].dimensions();
    }
    Point getTargetSize() override {
        log("getTargetSize");
        return pictures[this->scale].dimensions();
    }
    Point getHoleBoundsSize() override {
        log("getHoleBoundsSize");
        return bounds(this->scale).size();
    }
    Point getHoleBoundsOrigin() override {
        log("getHoleBoundsOrigin");
        return bounds(this->scale).min_corner();
    }
    void getInputPixels(view_t& out, Point origin) override {
        read("getInputPixels", pictures, out, origin);
    }
    void getInitPixels(view_t& out, Point origin) override {
        read("getInitPixels", pictures, out, origin);
    }
    void getAConstraintPixels(view_t& out, Point origin) override {
        read("getAConstraintPixels", constraints.empty() ? pictures : constraints, out, origin);
    }
    void getAConstraintMaskPixels(GrayView& out, Point origin) override {
        log("getAConstraintMaskPixels", origin, out.dimensions());
        gil::fill_pixels(out, gray8_pixel_t(255));
    }
    void getValidPixels(GrayView& out, Point origin) override {
        if (valids.empty()) {
            log("getValidPixels", origin, out.dimensions());
            gil::fill_pixels(out, gray8_pixel_t(255));
        } else {
            read("getValidPixels", valids, out, origin);
        }
    }
    void getBWeightPixels(GrayView& out, Point origin) override {
        log("getBWeightPixels", origin, out.dimensions());
        gil::fill_pixels(out, gray8_pixel_t(128));
    }
    Point convertPoint(Point p, int from, int to) override {
        log("convertPoint", p, Point(from, to));
        if (to >= from) return Point(p.x >> (to - from), p.y >> (to - from));
        return Point(p.x << (from - to), p.y << (from - to));
    }
    void setOutputPixels(view_t const& in, Point origin) override {
        log("setOutputPixels", origin, in.dimensions());
        if (this->scale != 0 || !inside_bounds(origin, in.dimensions())) ++violations;
        for (std::ptrdiff_t y = 0; y < in.height(); ++y)
            for (std::ptrdiff_t x = 0; x < in.width(); ++x)
                if (contains(output, origin.x + x, origin.y + y))
                    view(output)(origin.x + x, origin.y + y) = in(x, y);
    }
    void getOutputPixels(view_t& out, Point origin) override {
        log("getOutputPixels", origin, out.dimensions());
        if (this->scale != 0 || !inside_bounds(origin, out.dimensions())) ++violations;
        copy_clamped(const_view(output), out, origin);
    }

    // The calls named `op`, in order.
    std::vector<AccessCall> calls_of(std::string const& op) const {
        std::vector<AccessCall> found;
        for (auto const& c : calls)
            if (c.op == op) found.push_back(c);
        return found;
    }

    std::vector<RecycledImage<Pixel>> pictures;
    std::vector<Gray> holes;
    std::vector<RecycledImage<Pixel>> constraints;
    std::vector<Gray> valids;
    // What the hole read answers outside the hole bounds (the library must
    // not look there through safeGetHolePixels).
    std::optional<int> hole_value;
    RecycledImage<Pixel> output;
    Offer offer;
    // Answers at coarse scales, when set.
    std::optional<Offer> coarse_offer;
    std::vector<AccessCall> calls;
    // Called after each call is logged.
    std::function<void(AccessCall const&)> on_call;
    int violations = 0;
    int deepest_scale = 0;

private:
    void getHolePixels(GrayView& out, Point origin) override {
        log("getHolePixels", origin, out.dimensions());
        if (!inside_bounds(origin, out.dimensions())) ++violations;
        if (hole_value)
            gil::fill_pixels(out, gray8_pixel_t(static_cast<unsigned char>(*hole_value)));
        else
            copy_clamped(const_view(holes[this->scale]), out, origin);
    }

    void log(char const* op, Point origin = Point(0, 0), Point size = Point(0, 0)) {
        calls.push_back({op, origin, size, this->scale});
        if (on_call) on_call(calls.back());
    }
    template <class Image>
    static bool contains(Image const& image, std::ptrdiff_t x, std::ptrdiff_t y) {
        return x >= 0 && y >= 0 && x < image.width() && y < image.height();
    }
    // Reads with the picture's edge repeated beyond its border.
    template <class ConstViewT, class ViewT>
    static void copy_clamped(ConstViewT const& from, ViewT const& to, Point origin) {
        for (std::ptrdiff_t y = 0; y < to.height(); ++y)
            for (std::ptrdiff_t x = 0; x < to.width(); ++x)
                to(x, y) = from(std::clamp<std::ptrdiff_t>(origin.x + x, 0, from.width() - 1),
                                std::clamp<std::ptrdiff_t>(origin.y + y, 0, from.height() - 1));
    }
    template <class Images, class ViewT>
    void read(char const* op, Images const& images, ViewT const& out, Point origin) {
        log(op, origin, out.dimensions());
        copy_clamped(const_view(images[this->scale]), out, origin);
    }
};

// A host client that records progress and cancels when `abort_when` says so.
template <class Pixel>
class HostClient : public ClientBase<Pixel> {
public:
    void updateProgress(float fraction) override {
        std::lock_guard<std::mutex> lock(mutex_);
        progress.push_back(fraction);
    }
    bool checkAbort() override { return abort_when && abort_when(); }

    std::vector<float> progress;
    std::function<bool()> abort_when;

private:
    std::mutex mutex_;
};

// Cancels every reservation until the access has been at `scale`: the
// coarse pass then settles on that scale as if memory had run out above it.
template <class Pixel>
void refuse_scales_below(HostClient<Pixel>& client, PyramidAccess<Pixel>& access, int scale) {
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
    using Base::ConstructInitialGuess;
    using Base::ConstructMasks;
    using Base::PrepareProgressTable;
    using Base::SortTiles;
    using Base::TiledPass;
};

// Slow waves of 50 and 40 pixels: a seam between tiles stands out against
// steps of a few levels.
template <class View>
void paint_smooth(View const& v) {
    using Pixel = typename View::value_type;
    for (std::ptrdiff_t y = 0; y < v.height(); ++y)
        for (std::ptrdiff_t x = 0; x < v.width(); ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double const t = 0.5 + 0.2 * std::sin(2 * M_PI * x / 50.0 + c) +
                                 0.15 * std::cos(2 * M_PI * y / 40.0 + 2 * c);
                set_channel(v(x, y), c,
                            static_cast<channel_base_t<Pixel>>(t * channel_top<Pixel>()));
            }
}

// A textured (or smooth) picture with a disc-shaped hole.
template <class Pixel>
struct HolePicture {
    HolePicture(Point const& size, double cx, double cy, double radius, bool smooth = false)
        : picture(size), hole(size) {
        if (smooth)
            paint_smooth(view(picture));
        else
            paint_texture(view(picture));
        paint_disc(view(hole), cx, cy, radius);
    }
    RecycledImage<Pixel> picture;
    RecycledImage<gray8_pixel_t> hole;
};

// Collects what is written to std::cout while it lives.
class CaptureStdout {
public:
    CaptureStdout() : previous_(std::cout.rdbuf(text_.rdbuf())) {}
    ~CaptureStdout() { std::cout.rdbuf(previous_); }
    CaptureStdout(CaptureStdout const&) = delete;
    CaptureStdout& operator=(CaptureStdout const&) = delete;
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* previous_;
};

// Progress that never goes back and ends at the whole job.
inline ::testing::AssertionResult monotone_to_one(std::vector<float> const& progress) {
    if (progress.empty()) return ::testing::AssertionFailure() << "no progress reported";
    for (std::size_t i = 1; i < progress.size(); ++i)
        if (progress[i] < progress[i - 1])
            return ::testing::AssertionFailure()
                   << "progress went back from " << progress[i - 1] << " to " << progress[i];
    if (progress.back() < 0.99999f || progress.back() > 1.00001f)
        return ::testing::AssertionFailure() << "progress ended at " << progress.back();
    return ::testing::AssertionSuccess();
}

}  // namespace WM::test
