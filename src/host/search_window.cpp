#include "hole_policy.hpp"

#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/search_window.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

namespace WM::host {
namespace {

using Squared = std::int64_t;
constexpr Squared unreached = std::numeric_limits<Squared>::max() / 4;

// Squared distances along a line to the nearest of its sources (the
// entries below `unreached`), by the lower envelope of the parabolas rooted
// at them; `known_ends` adds a source just beyond either end. Keeps its
// buffers from line to line.
class NearestAlong {
public:
    explicit NearestAlong(bool known_ends) : known_ends_(known_ends) {}

    void operator()(std::vector<Squared>& line) {
        roots_.clear(), starts_.clear(), heights_.clear();
        auto const n = static_cast<std::ptrdiff_t>(line.size());
        if (known_ends_) add(-1, 0);
        for (std::ptrdiff_t q = 0; q < n; ++q)
            if (line[q] < unreached) add(q, line[q]);
        if (known_ends_) add(n, 0);
        if (roots_.empty()) return;
        std::size_t k = 0;
        for (std::ptrdiff_t x = 0; x < n; ++x) {
            while (k + 1 < roots_.size() && starts_[k + 1] <= static_cast<double>(x)) ++k;
            Squared const d = x - roots_[k];
            line[x] = d * d + heights_[k];
        }
    }

private:
    // Where the parabola rooted at q, of height f, starts to lie below the
    // last one kept; the parabolas it hides are dropped.
    void add(std::ptrdiff_t q, Squared f) {
        double s = -std::numeric_limits<double>::infinity();
        while (!roots_.empty()) {
            std::ptrdiff_t const p = roots_.back();
            s = (static_cast<double>(f - heights_.back()) + static_cast<double>(q * q - p * p)) /
                (2.0 * static_cast<double>(q - p));
            if (s > starts_.back()) break;
            roots_.pop_back(), starts_.pop_back(), heights_.pop_back();
            s = -std::numeric_limits<double>::infinity();
        }
        roots_.push_back(q), starts_.push_back(s), heights_.push_back(f);
    }

    bool known_ends_;
    std::vector<std::ptrdiff_t> roots_;
    std::vector<double> starts_;
    std::vector<Squared> heights_;
};

// The largest squared distance from a hole pixel to a known one, with what
// lies beyond the picture's sides known or not. Only the columns of the
// hole's box hold hole pixels, so only they take the second pass.
Squared deepest(ConstImageView const& hole, MaskBounds const& box, bool sides_known) {
    std::ptrdiff_t const w = hole.width, h = hole.height;
    NearestAlong nearest(sides_known);
    std::vector<Squared> d(static_cast<std::size_t>(w * h));
    std::vector<Squared> line;
    for (std::ptrdiff_t y = 0; y < h; ++y) {
        line.assign(static_cast<std::size_t>(w), unreached);
        for (std::ptrdiff_t x = 0; x < w; ++x)
            if (hole.pixel(x, y)[0] == 0) line[x] = 0;
        nearest(line);
        std::copy(line.begin(), line.end(), d.begin() + y * w);
    }
    Squared deepest = 0;
    line.resize(static_cast<std::size_t>(h));
    for (std::ptrdiff_t x = box.left; x <= box.right; ++x) {
        for (std::ptrdiff_t y = 0; y < h; ++y) line[y] = d[static_cast<std::size_t>(y * w + x)];
        nearest(line);
        for (std::ptrdiff_t y = box.top; y <= box.bottom; ++y)
            if (hole.pixel(x, y)[0] != 0) deepest = std::max(deepest, line[y]);
    }
    return deepest;
}

}  // namespace

int side_hole_search_window(ConstImageView const& hole) {
    detail::check_mask_format(hole);
    MaskBounds const box = mask_bounds(hole);
    if (box.empty()) return 0;
    bool const at_side = box.left == 0 || box.top == 0 || box.right == hole.width - 1 ||
                         box.bottom == hole.height - 1;
    if (!at_side) return 0;
    // Squared depths: the ratio of the depths squared.
    auto const open = static_cast<double>(deepest(hole, box, false));
    auto const framed = static_cast<double>(deepest(hole, box, true));
    if (open < side_depth_ratio * side_depth_ratio * framed) return 0;
    std::ptrdiff_t const side = std::max(box.right - box.left, box.bottom - box.top) + 1;
    return static_cast<int>(std::min<std::ptrdiff_t>(2 * side, std::numeric_limits<int>::max()));
}

}  // namespace WM::host
