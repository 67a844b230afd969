// Small pieces shared by the field passes (initialisation, search,
// minimisation) without instantiating the correspondence object itself.
#pragma once

#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/correspondence/vote.hpp>
#include <weftmap/image/pixel_types.hpp>

#include "frame/wrapping.hpp"

#include <algorithm>

namespace WM {
namespace detail {

// The window rule, shared by get_half_search_window and the inline uses in
// init_nnf and search.
inline int half_search_window_at(int half_search_window, int hole_max_dist_bound, int patch_w,
                                 DistanceInsetView const& distance, int x, int y, double scale) {
    int const h = half_search_window;
    if (h == 0) return 0;
    int v = h > 0 ? static_cast<int>(static_cast<double>(h) * scale)
                  : -wrap_mul(hole_max_dist_bound, h);
    if (distance.width != 0) {
        int const hp = patch_w / 2;
        v = wrap_add(v, static_cast<int>(distance(x + hp, y + hp)[0]));
    }
    return std::max(v, patch_w);
}

// Sets the gain/bias statistics for the duration of one operation when the
// caller has not set them, and clears them again on success.
template <class Compare>
class ScopedComparatorImages {
public:
    ScopedComparatorImages(Compare& comparator, ConstView<typename Compare::pixel_t> const& a,
                           ConstView<typename Compare::pixel_t> const& b, int patch_w,
                           RegionMasks* a_mask)
        : comparator_(comparator), set_here_(!comparator.is_set()) {
        if (set_here_) {
            comparator_.set_timage(a, patch_w, a_mask);
            comparator_.set_simage(b, patch_w);
        }
    }
    // Only on success: after an exception the flags stay set.
    void done() {
        if (set_here_) {
            comparator_.unset_timage();
            comparator_.unset_simage();
        }
    }

private:
    Compare& comparator_;
    bool set_here_;
};

}  // namespace detail
}  // namespace WM
