#include "correspondence/patch_compare_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_32F(WEFTMAP_INSTANTIATE_PATCH_COMPARE)
}  // namespace WM
