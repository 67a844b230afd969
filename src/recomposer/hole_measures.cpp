#include <weftmap/recomposer/hole_measures.hpp>

#include <algorithm>

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

}  // namespace WM
