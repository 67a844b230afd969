#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/frame/exceptions.hpp>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <utility>

namespace WM {
namespace {

// Reset values: any real position replaces them at once.
constexpr std::int32_t box_reset_min = 0x7fffffff;
constexpr std::int32_t box_reset_max = -2147483647;

// `view` of a recycled image is a hidden friend; the member of the same name
// would hide it inside RegionMasks.
GrayView whole_view(RecycledImage<gray8_pixel_t>& image) {
    return view(image);
}

// `view` as seen from `from`, moved to the same place in `to`, when it lies
// in the memory of `from`.
GrayView rebased(GrayView const& view, RecycledImage<gray8_pixel_t> const& from,
                 RecycledImage<gray8_pixel_t>& to) {
    auto const* first = reinterpret_cast<unsigned char const*>(view.row_begin(0));
    auto const* start = from.memory();
    if (start == nullptr || first < start || first >= start + from.allocated_bytes()) return view;
    auto* moved = reinterpret_cast<gray8_pixel_t*>(to.memory() + (first - start));
    return GrayView(view.dimensions(), GrayView::locator(moved, view.pixels().row_size()));
}

}  // namespace

RegionMasks::RegionMasks(RegionMasks const& other) : image(other.image) {
    view = rebased(other.view, other.image, image);
    std::copy(std::begin(other.boxes), std::end(other.boxes), boxes);
}

RegionMasks& RegionMasks::operator=(RegionMasks const& other) {
    if (this == &other) return *this;
    image = other.image;
    view = rebased(other.view, other.image, image);
    std::copy(std::begin(other.boxes), std::end(other.boxes), boxes);
    return *this;
}

void RegionMasks::recreate(Point const& size) {
    image.recreate(size);
    view = whole_view(image);
}

void RegionMasks::update_boxes(int patch_w) {
    for (Box& box : boxes) box = Box{box_reset_min, box_reset_min, box_reset_max, box_reset_max};
    auto const last_y = static_cast<std::int32_t>(view.height()) - patch_w;
    auto const last_x = static_cast<std::int32_t>(view.width()) - patch_w;
    // A mask holds long runs of one byte: each run widens its label's box once.
    for (std::int32_t y = 0; y <= last_y; ++y) {
        auto const* const row = reinterpret_cast<unsigned char const*>(&*view.row_begin(y));
        for (std::int32_t x = 0; x <= last_x;) {
            unsigned char const label = row[x];
            std::int32_t end = x + 1;
            while (end <= last_x && row[end] == label) ++end;
            Box& box = boxes[label];
            box.xmin = std::min(box.xmin, x);
            box.ymin = std::min(box.ymin, y);
            box.xmax = std::max(box.xmax, end);
            box.ymax = std::max(box.ymax, y + 1);
            x = end;
        }
    }
}

void RegionMasks::swap(RegionMasks& other) {
    image.swap(other.image);
    std::swap(view, other.view);
    std::swap(boxes, other.boxes);
}

Box get_abox(int patch_w, Point const& size, RegionMasks const* mask) {
    long long const xlimit = static_cast<long long>(size.x) - patch_w + 1;
    long long const ylimit = static_cast<long long>(size.y) - patch_w + 1;
    if (mask == nullptr)
        return Box{0, 0, static_cast<std::int32_t>(xlimit), static_cast<std::int32_t>(ylimit)};
    Box const& box = mask->boxes[0];
    if (box.xmin < 0 || box.ymin < 0 || box.xmax > xlimit || box.ymax > ylimit)
        raise("WEFTMAP_INTERNAL_ERROR:box out of range %d %d %d %d (%d %d %d %d) in get_abox",
              box.xmin, box.ymin, box.xmax, box.ymax, 0, 0, xlimit, ylimit);
    if (box.xmin < box.xmax && box.ymin < box.ymax) return box;
    return Box{0, 0, 0, 0};
}

}  // namespace WM
