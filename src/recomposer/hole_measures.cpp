#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/masks.hpp>
#include <weftmap/recomposer/hole_measures.hpp>

#include "recomposer/hole_geometry.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace WM {
namespace {

// Counts the patch corners (0..width-w, 0..height-w) whose byte is `value`.
int count_corners(ConstGrayView const& mask, int patch_w, unsigned char value) {
    int count = 0;
    for (std::ptrdiff_t y = 0; y <= mask.height() - patch_w; ++y)
        for (std::ptrdiff_t x = 0; x <= mask.width() - patch_w; ++x)
            count += mask(x, y)[0] == value;
    return count;
}

}  // namespace

double compute_search_hole_patch_ratio(int patch_w, ConstGrayView const& smask,
                                       ConstGrayView const& tmask, int& source_count) {
    // The kept target corners are what the threshold is measured against.
    int const kept = count_corners(tmask, patch_w, 255);
    source_count = count_corners(smask, patch_w, 0);
    return static_cast<double>(source_count) / std::max(kept, 1);
}

bool check_enough_patches_to_sample_from(int patch_w, ConstGrayView const& smask,
                                         ConstGrayView const& tmask, int min_patches,
                                         bool count_only, double min_ratio) {
    if (!count_only) {
        int count = 0;
        double const ratio = compute_search_hole_patch_ratio(patch_w, smask, tmask, count);
        return count >= min_patches && ratio >= min_ratio;
    }
    std::ptrdiff_t const last_x = smask.width() - patch_w;
    std::ptrdiff_t const last_y = smask.height() - patch_w;
    if (last_x < 0 || last_y < 0) return false;
    // Stops at the first corner that completes the count.
    int count = 0;
    for (std::ptrdiff_t y = 0; y <= last_y; ++y)
        for (std::ptrdiff_t x = 0; x <= last_x; ++x) {
            if (count >= min_patches) return true;
            count += smask(x, y)[0] == 0;
        }
    return count >= min_patches;
}

DistanceInsetView fill_hole_distance(ConstGrayView const& hole, Box const& box,
                                     RecycledImage<int_gray_pixel_t>& distance, int patch_w,
                                     ConstGrayView const* tconstraint_mask, bool zero_border) {
    if (tconstraint_mask != nullptr && tconstraint_mask->dimensions() != hole.dimensions())
        raise(
            "WEFTMAP_INTERNAL_ERROR:fill_hole_distance: tconstraint_mask size (%dx%d) != hole "
            "size (%dx%d)",
            static_cast<long long>(tconstraint_mask->width()),
            static_cast<long long>(tconstraint_mask->height()),
            static_cast<long long>(hole.width()), static_cast<long long>(hole.height()));
    // Half a patch around the hole is enough for every patch that touches it.
    Box rect = detail::grow_and_clip(box, patch_w / 2, hole.dimensions());
    if (rect.empty()) {
        // No hole (or no hole view at all, as in a retarget): an empty map
        // whose default says "known" everywhere.
        distance.recreate(Point(0, 0));
        DistanceInsetView none(view(distance), hole.dimensions(), Point(0, 0));
        none.set_default(int_gray_pixel_t(0));
        return none;
    }
    Point const origin = rect.min_corner();
    Point const size = rect.size();
    distance.recreate(size);
    auto const part = gil::subimage_view(hole, origin, size);
    if (tconstraint_mask != nullptr) {
        auto const mask_part = gil::subimage_view(*tconstraint_mask, origin, size);
        OutputDebugChecksum("tconstraint_mask subimage: ", mask_part);
        dt(part, view(distance), &mask_part, zero_border);
    } else {
        dt(part, view(distance), nullptr, zero_border);
    }
    DistanceInsetView result(view(distance), hole.dimensions(), origin);
    result.set_default(int_gray_pixel_t(0));
    return result;
}

WeightInsetView make_source_weights(ConstGrayView const& importance, double src_important_wt,
                                    RecycledImage<weight_pixel_t>& weights) {
    // A negative weight would turn importance into repulsion, and NaN would
    // poison every vote it touches.
    if (!(src_important_wt >= 0.0))
        raise("WEFTMAP_INVALID_PARAMETERS:src_important_weight must be zero or positive, got %f",
              src_important_wt);
    weights.recreate(importance.dimensions());
    auto const out = view(weights);
    for (std::ptrdiff_t y = 0; y < importance.height(); ++y) {
        auto const in_row = importance.row_begin(y);
        auto const out_row = out.row_begin(y);
        for (std::ptrdiff_t x = 0; x < importance.width(); ++x) {
            unsigned char const byte = in_row[x][0];
            double const w = src_important_wt == 0.0 ? byte * 0.003921569
                             : byte != 0             ? 1.0
                                                     : 1.0 / src_important_wt;
            out_row[x][0] = static_cast<float>(w);
        }
    }
    return WeightInsetView(out);
}

Box ProposeSearchBounds(Point const& image_size, Box const& hole_box, float ratio) {
    // Positions are formed in 64 bits and clipped to the image at the end, so
    // that a huge ratio cannot overflow them.
    auto const side = [](double v) {
        if (!(v > 0.0)) return 0LL;
        return static_cast<long long>(std::min(v, 1e15));
    };
    long long const cx = (static_cast<long long>(hole_box.xmin) + hole_box.xmax) / 2;
    long long const cy = (static_cast<long long>(hole_box.ymin) + hole_box.ymax) / 2;
    long long const w = std::max(static_cast<long long>(hole_box.xmax) - hole_box.xmin, 50LL);
    long long const h = std::max(static_cast<long long>(hole_box.ymax) - hole_box.ymin, 50LL);
    float const area = ratio * ratio * static_cast<float>(h) * static_cast<float>(w);
    long long nw = 0;
    long long nh = 0;
    // The longer side grows at least twofold; the other keeps the area.
    if (w > h) {
        double const m = std::max(static_cast<double>(std::sqrt(area) / w), 2.0);
        nw = side(static_cast<double>(w) * m);
        nh = nw != 0 ? side(area / nw) : 0;
    } else {
        double const m = std::max(static_cast<double>(std::sqrt(area) / h), 2.0);
        nh = side(static_cast<double>(h) * m);
        nw = nh != 0 ? side(area / nh) : 0;
    }
    long long x0 = cx - nw / 2, x1 = cx + nw / 2;
    long long y0 = cy - nh / 2, y1 = cy + nh / 2;
    long long const width = image_size.x;
    long long const height = image_size.y;
    // Move the box inside first, so that it keeps its size where it fits.
    if (y0 < 0) {
        y1 -= y0;
        y0 = 0;
    }
    if (y1 > height) {
        y0 -= y1 - height;
        y1 = height;
    }
    if (x0 < 0) {
        x1 -= x0;
        x0 = 0;
    }
    if (x1 > width) {
        x0 -= x1 - width;
        x1 = width;
    }
    auto const clip = [](long long v, long long hi) {
        return static_cast<std::int32_t>(std::min(std::max(v, 0LL), hi));
    };
    return Box{clip(x0, width), clip(y0, height), clip(x1, width), clip(y1, height)};
}

Box hole_bounding_box(ConstGrayView const& mask) {
    auto xmin = static_cast<std::int32_t>(mask.width());
    auto ymin = static_cast<std::int32_t>(mask.height());
    std::int32_t xmax = 0;
    std::int32_t ymax = 0;
    auto const width = static_cast<std::int32_t>(mask.width());
    for (std::int32_t y = 0; y < mask.height(); ++y) {
        auto const* const row = reinterpret_cast<unsigned char const*>(&*mask.row_begin(y));
        // The first and the last hole pixel of the row bound it.
        std::int32_t first = 0;
        while (first < width && row[first] == 255) ++first;
        if (first == width) continue;
        std::int32_t last = width - 1;
        while (row[last] == 255) --last;
        xmin = std::min(xmin, first);
        ymin = std::min(ymin, y);
        xmax = std::max(xmax, last + 1);
        ymax = std::max(ymax, y + 1);
    }
    if (xmax == 0) return Box{};
    return Box{xmin, ymin, xmax, ymax};
}

}  // namespace WM
