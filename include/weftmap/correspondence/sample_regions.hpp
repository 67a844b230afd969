// The allowed source patch positions, grouped by region label, from which
// field initialisation draws at random.
#pragma once

#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <array>
#include <cstddef>

namespace WM {

class WEFTMAP_API SampleRegions {
public:
    // Sizes the list for up to `patch_count` positions without filling it.
    void preallocate(Point const& patch_count);

    // Lists every position of the w x h patch grid that `excluded` leaves free
    // (non-zero bytes exclude), by the label of `regions` (0 without), in
    // raster order within a label. Both pointers may be null.
    void build(GrayView const* excluded, RegionMasks const* regions, int w, int h);

    // A random allowed position of `label`; falls back to the label handled
    // last, then to (0, 0). Advances the global generator.
    offset_pixel_t draw(int label) const;

    std::size_t region_size(int label) const { return bounds[label + 1] - bounds[label]; }
    // A list of zero size stands for "no sample regions".
    Point dimensions() const { return list.dimensions(); }
    void deallocate() { list.deallocate(); }

    offset_pixel_t default_point{0, 0};
    int last_label = 0;
    RecycledImage<offset_pixel_t> list;
    std::array<std::size_t, 257> bounds{};
    // The masks given to build; absent when `has_*` is false.
    GrayView excluded_mask;
    bool has_excluded_mask = false;
    GrayView region_map;
    bool has_region_map = false;
};

}  // namespace WM
