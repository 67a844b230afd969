#include "twopass/pixel_access_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_16(WEFTMAP_INSTANTIATE_PIXEL_ACCESS)
}  // namespace WM
