#include <weftmap/correspondence/search.hpp>

namespace WM {

std::vector<Box> search_bands(Box const& box, int count) {
    if (count <= 1) return {box};
    float const rows = static_cast<float>(box.ymax - box.ymin) / static_cast<float>(count);
    if (rows <= 1.0f) return {box};
    std::vector<Box> bands(static_cast<std::size_t>(count), box);
    for (int i = 0; i < count; ++i) {
        bands[i].ymin =
            static_cast<int>(static_cast<float>(i) * rows + static_cast<float>(box.ymin));
        if (i > 0) bands[i - 1].ymax = bands[i].ymin;
    }
    bands.back().ymax = box.ymax;
    return bands;
}

int search_radius_ratio(double rs_ratio) {
    if (rs_ratio == 0.5) return 32768;
    if (rs_ratio == 0.9999847412109375) return 65535;
    return static_cast<int>(rs_ratio * 65536.0);
}

}  // namespace WM
