#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/search_window.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace WM::host {
namespace {

using Squared = std::int64_t;
constexpr Squared unreached = std::numeric_limits<Squared>::max() / 4;

// Squared distances along one line to the nearest of its `sources`
// (unreached where none), by the lower envelope of the parabolas rooted at
// them; `known_ends` adds a source just beyond either end.
void nearest_along(std::vector<Squared>& line, bool known_ends) {
    auto const n = static_cast<std::ptrdiff_t>(line.size());
    std::vector<std::ptrdiff_t> roots;
    std::vector<double> starts;
    std::vector<Squared> heights;
    auto const add = [&](std::ptrdiff_t q, Squared f) {
        auto const cross = [&](std::ptrdiff_t p, Squared g) {
            return (static_cast<double>(f - g) + static_cast<double>(q * q - p * p)) /
                   (2.0 * static_cast<double>(q - p));
        };
        double s = -std::numeric_limits<double>::infinity();
        while (!roots.empty()) {
            s = cross(roots.back(), heights.back());
            if (s > starts.back()) break;
            roots.pop_back(), starts.pop_back(), heights.pop_back();
            s = -std::numeric_limits<double>::infinity();
        }
        roots.push_back(q), starts.push_back(s), heights.push_back(f);
    };
    if (known_ends) add(-1, 0);
    for (std::ptrdiff_t q = 0; q < n; ++q)
        if (line[q] < unreached) add(q, line[q]);
    if (known_ends) add(n, 0);
    if (roots.empty()) return;
    std::size_t k = 0;
    for (std::ptrdiff_t x = 0; x < n; ++x) {
        while (k + 1 < roots.size() && starts[k + 1] <= static_cast<double>(x)) ++k;
        Squared const d = x - roots[k];
        line[x] = d * d + heights[k];
    }
}

// The largest squared distance from a hole pixel to a known one, with what
// lies beyond the picture's sides known or not.
Squared deepest(ConstImageView const& hole, bool sides_known) {
    std::ptrdiff_t const w = hole.width, h = hole.height;
    std::vector<Squared> d(static_cast<std::size_t>(w * h));
    std::vector<Squared> line;
    for (std::ptrdiff_t y = 0; y < h; ++y) {
        line.assign(static_cast<std::size_t>(w), unreached);
        for (std::ptrdiff_t x = 0; x < w; ++x)
            if (hole.pixel(x, y)[0] == 0) line[x] = 0;
        nearest_along(line, sides_known);
        std::copy(line.begin(), line.end(), d.begin() + y * w);
    }
    Squared deepest = 0;
    for (std::ptrdiff_t x = 0; x < w; ++x) {
        line.resize(static_cast<std::size_t>(h));
        for (std::ptrdiff_t y = 0; y < h; ++y) line[y] = d[static_cast<std::size_t>(y * w + x)];
        nearest_along(line, sides_known);
        for (std::ptrdiff_t y = 0; y < h; ++y)
            if (hole.pixel(x, y)[0] != 0) deepest = std::max(deepest, line[y]);
    }
    return deepest;
}

}  // namespace

int side_hole_search_window(ConstImageView const& hole) {
    if (hole.format != mask_format)
        throw Error(
            ErrorCode::invalid_input,
            std::string("a hole mask must be an 8-bit gray mask, not ") + format_name(hole.format));
    MaskBounds const box = mask_bounds(hole);
    if (box.empty()) return 0;
    bool const at_side = box.left == 0 || box.top == 0 || box.right == hole.width - 1 ||
                         box.bottom == hole.height - 1;
    if (!at_side) return 0;
    // Squared depths: the ratio of the depths squared.
    auto const open = static_cast<double>(deepest(hole, false));
    auto const framed = static_cast<double>(deepest(hole, true));
    if (open < side_depth_ratio * side_depth_ratio * framed) return 0;
    std::ptrdiff_t const side = std::max(box.right - box.left, box.bottom - box.top) + 1;
    return static_cast<int>(std::min<std::ptrdiff_t>(2 * side, std::numeric_limits<int>::max()));
}

}  // namespace WM::host
