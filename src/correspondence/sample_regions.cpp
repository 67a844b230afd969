#include <weftmap/correspondence/random.hpp>
#include <weftmap/correspondence/sample_regions.hpp>

namespace WM {

void SampleRegions::preallocate(Point const& patch_count) {
    list.recreate(Point(patch_count.x * patch_count.y, 1));
    bounds.fill(0);
}

void SampleRegions::build(GrayView const* excluded, RegionMasks const* regions, int w, int h) {
    last_label = 0;
    list.recreate(Point(static_cast<std::ptrdiff_t>(w) * h, 1));
    auto const label_at = [&](int x, int y) -> int {
        return regions != nullptr ? static_cast<int>(regions->view(x, y)[0]) : 0;
    };
    auto const excluded_at = [&](int x, int y) {
        return excluded != nullptr && (*excluded)(x, y)[0] != 0;
    };

    std::array<std::size_t, 256> counts{};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (excluded_at(x, y)) continue;
            last_label = label_at(x, y);
            ++counts[last_label];
        }
    bounds[0] = 0;
    for (int l = 0; l < 256; ++l) bounds[l + 1] = bounds[l] + counts[l];

    std::array<std::size_t, 256> next{};
    std::copy(bounds.begin(), bounds.end() - 1, next.begin());
    auto const& out = view(list);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (excluded_at(x, y)) continue;
            out(static_cast<std::ptrdiff_t>(next[label_at(x, y)]++), 0) =
                offset_pixel_t(static_cast<unsigned short>(x), static_cast<unsigned short>(y));
        }

    has_excluded_mask = excluded != nullptr;
    if (has_excluded_mask) excluded_mask = *excluded;
    has_region_map = regions != nullptr;
    if (has_region_map) region_map = regions->view;
}

offset_pixel_t SampleRegions::draw(int label) const {
    std::size_t count = region_size(label);
    if (count == 0) {
        label = last_label;
        count = region_size(label);
        if (count == 0) return default_point;
    }
    RandomGenerator& g = global_random();
    g.step();
    return const_view(list)(static_cast<std::ptrdiff_t>(bounds[label] + g.r() % count), 0);
}

}  // namespace WM
