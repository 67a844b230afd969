#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/masks.hpp>

#include <boost/gil/image_view_factory.hpp>

#include <algorithm>
#include <cstdint>

namespace WM {
namespace {

constexpr int no_distance = 10000;

// The forward sliding sum along the rows of `in`, whatever view type carries
// them (plain or transposed).
template <class ViewT>
void box_filter_rows(ViewT const& in, ViewT const& out, int size) {
    if (in.dimensions() != out.dimensions())
        raise("WEFTMAP_INTERNAL_ERROR: x_box_filter: input and output have different dimensions");
    std::ptrdiff_t const width = in.width();
    // The first window is summed without a bounds test, so it must fit.
    if (size < 0 || size > width)
        raise("WEFTMAP_INTERNAL_ERROR: x_box_filter: window of %d outside a line of %d pixels",
              size, static_cast<long long>(width));
    for (std::ptrdiff_t y = 0; y < in.height(); ++y) {
        auto const src = in.row_begin(y);
        auto const dst = out.row_begin(y);
        std::uint32_t sum = 0;
        for (std::ptrdiff_t x = 0; x < size; ++x) sum += static_cast<std::uint32_t>(src[x][0]);
        for (std::ptrdiff_t x = 0; x < width; ++x) {
            // Both reads come before the write, so that `in` may be `out`
            // (for an empty window too, where they are the same pixel).
            auto const leaving = static_cast<std::uint32_t>(src[x][0]);
            auto const entering =
                x + size < width ? static_cast<std::uint32_t>(src[x + size][0]) : 0u;
            dst[x][0] = static_cast<std::int32_t>(sum);
            sum = sum - leaving + entering;
        }
    }
}

}  // namespace

void dt(ConstGrayView const& bmp, IntView const& out, ConstGrayView const* nonhole_mask,
        bool zero_border) {
    if (out.dimensions() != bmp.dimensions())
        raise("WEFTMAP_INTERNAL_ERROR:dt: outview size (%dx%d) != bmp size (%dx%d)",
              static_cast<long long>(out.width()), static_cast<long long>(out.height()),
              static_cast<long long>(bmp.width()), static_cast<long long>(bmp.height()));
    if (nonhole_mask != nullptr && out.dimensions() != nonhole_mask->dimensions())
        raise("WEFTMAP_INTERNAL_ERROR:dt: outview size (%dx%d) != nonhole_mask size (%dx%d)",
              static_cast<long long>(out.width()), static_cast<long long>(out.height()),
              static_cast<long long>(nonhole_mask->width()),
              static_cast<long long>(nonhole_mask->height()));
    std::ptrdiff_t const w = out.width();
    std::ptrdiff_t const h = out.height();
    if (w == 0 || h == 0) return;

    for (std::ptrdiff_t y = 0; y < h; ++y)
        for (std::ptrdiff_t x = 0; x < w; ++x) out(x, y)[0] = bmp(x, y)[0] == 255 ? 0 : 1;
    if (zero_border) {
        for (std::ptrdiff_t x = 0; x < w; ++x) out(x, 0)[0] = out(x, h - 1)[0] = 0;
        for (std::ptrdiff_t y = 0; y < h; ++y) out(0, y)[0] = out(w - 1, y)[0] = 0;
    }

    for (std::ptrdiff_t y = 0; y < h; ++y)
        for (std::ptrdiff_t x = 0; x < w; ++x) {
            int& d = out(x, y)[0];
            if (d != 0) d = no_distance;
            if (x > 0) d = std::min(d, out(x - 1, y)[0] + 1);
            if (y > 0) d = std::min(d, out(x, y - 1)[0] + 1);
        }
    for (std::ptrdiff_t y = h - 1; y >= 0; --y)
        for (std::ptrdiff_t x = w - 1; x >= 0; --x) {
            int& d = out(x, y)[0];
            if (x != w - 1) d = std::min(d, out(x + 1, y)[0] + 1);
            if (y != h - 1) d = std::min(d, out(x, y + 1)[0] + 1);
        }
}

void x_box_filter(IntView const& in, IntView const& out, int size) {
    box_filter_rows(in, out, size);
}

void y_box_filter(IntView const& in, IntView const& out, int size) {
    box_filter_rows(gil::transposed_view(in), gil::transposed_view(out), size);
}

void shift_mask_to_patch_corners(int patchSize, GrayView const& image) {
    int const half = patchSize / 2;
    // Reading ahead of the writing is what makes the shift safe in place.
    if (half < 0)
        raise("WEFTMAP_INTERNAL_ERROR: shift_mask_to_patch_corners: negative patch size %d",
              patchSize);
    std::ptrdiff_t const w = image.width();
    std::ptrdiff_t const h = image.height();
    for (std::ptrdiff_t y = 0; y < h; ++y)
        for (std::ptrdiff_t x = 0; x < w; ++x)
            image(x, y) =
                x + half < w && y + half < h ? image(x + half, y + half) : gray8_pixel_t(0);
}

}  // namespace WM
