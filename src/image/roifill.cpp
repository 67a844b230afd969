#include "image/roifill_impl.hpp"

namespace WM {
namespace detail {

namespace {

// Positions are packed in 16 bits per coordinate.
constexpr std::ptrdiff_t max_side = 65535;

void check_mask_size(char const* name, ConstGrayView const& mask, Point const& dims) {
    if (mask.dimensions() != dims)
        raise("WEFTMAP_INTERNAL_ERROR: roifill: %s size (%dx%d) != image size (%dx%d)", name,
              static_cast<long long>(mask.width()), static_cast<long long>(mask.height()),
              static_cast<long long>(dims.x), static_cast<long long>(dims.y));
}

}  // namespace

Box roifill_search_box(Point const& in_dims, Point const& out_dims, ConstGrayView const& mask,
                       ConstGrayView const* sourceMask, Box const* box) {
    if (in_dims != out_dims) raise("roifill_subsamples: in and out sizes must match");
    check_mask_size("mask", mask, in_dims);
    if (sourceMask != nullptr) check_mask_size("source mask", *sourceMask, in_dims);
    if (in_dims.x > max_side || in_dims.y > max_side)
        raise("WEFTMAP_INTERNAL_ERROR: roifill: image size (%dx%d) exceeds %d pixels per side",
              static_cast<long long>(in_dims.x), static_cast<long long>(in_dims.y),
              static_cast<long long>(max_side));
    auto const width = static_cast<std::int32_t>(in_dims.x);
    auto const height = static_cast<std::int32_t>(in_dims.y);
    if (box == nullptr) return Box{0, 0, width, height};
    if (box->xmin < 0 || box->ymin < 0 || box->xmax > width || box->ymax > height)
        raise("WEFTMAP_INTERNAL_ERROR: roifill: box (%d,%d)-(%d,%d) outside the image (%dx%d)",
              box->xmin, box->ymin, box->xmax, box->ymax, width, height);
    // One pixel more on each side reaches the rim around a hole that fills the
    // box, but never past the image's edge.
    Box search = *box;
    if (search.xmin != 0) --search.xmin;
    if (search.ymin != 0) --search.ymin;
    if (search.xmax < width) ++search.xmax;
    if (search.ymax < height) ++search.ymax;
    return search;
}

std::vector<std::uint32_t> roifill_rim_order(ConstGrayView const& mask, Box const& search,
                                             ConstGrayView const* sourceMask) {
    std::ptrdiff_t const width = mask.width();
    std::ptrdiff_t const height = mask.height();
    std::size_t const area = search.empty()
                                 ? 0
                                 : static_cast<std::size_t>(search.xmax - search.xmin) *
                                       static_cast<std::size_t>(search.ymax - search.ymin);

    // Seeds in raster order; `marks` holds 1 at rim pixels not yet traversed.
    std::vector<std::uint32_t> seeds;
    seeds.reserve(area);
    std::vector<unsigned char> marks(static_cast<std::size_t>(width * height), 0);
    auto const mark = [&](std::ptrdiff_t x, std::ptrdiff_t y) -> unsigned char& {
        return marks[static_cast<std::size_t>(y * width + x)];
    };
    auto const below_full = [&](std::ptrdiff_t x, std::ptrdiff_t y) { return mask(x, y)[0] < 255; };
    for (std::ptrdiff_t y = search.ymin; y < search.ymax; ++y)
        for (std::ptrdiff_t x = search.xmin; x < search.xmax; ++x) {
            if (mask(x, y)[0] < 180) continue;
            if (sourceMask != nullptr && (*sourceMask)(x, y)[0] == 0) continue;
            bool const touches_hole =
                (x > 0 && below_full(x - 1, y)) || (y > 0 && below_full(x, y - 1)) ||
                (x + 1 < width && below_full(x + 1, y)) || (y + 1 < height && below_full(x, y + 1));
            if (!touches_hole) continue;
            seeds.push_back(pack_position(x, y));
            mark(x, y) = 1;
        }

    // Depth-first along the contours, so that neighbouring rim pixels follow
    // each other: the fallback weights go to the first ones in this order.
    std::vector<std::uint32_t> order;
    order.reserve(area);
    std::vector<std::uint32_t> stack;
    std::size_t next_seed = 0;
    for (;;) {
        while (stack.empty()) {
            while (next_seed < seeds.size() &&
                   mark(packed_x(seeds[next_seed]), packed_y(seeds[next_seed])) == 0)
                ++next_seed;
            if (next_seed == seeds.size()) return order;
            stack.push_back(seeds[next_seed++]);
        }
        std::uint32_t const p = stack.back();
        stack.pop_back();
        std::int32_t const px = packed_x(p);
        std::int32_t const py = packed_y(p);
        if (mark(px, py) == 0) continue;
        order.push_back(p);
        mark(px, py) = 0;
        for (std::int32_t dy = -1; dy <= 1; ++dy)
            for (std::int32_t dx = -1; dx <= 1; ++dx) {
                if (dx == 0 && dy == 0) continue;
                std::int32_t const nx = px + dx;
                std::int32_t const ny = py + dy;
                if (nx < 0 || ny < 0 || nx >= width || ny >= height) continue;
                if (mark(nx, ny) != 0) stack.push_back(pack_position(nx, ny));
            }
    }
}

}  // namespace detail
}  // namespace WM
