#include "tapestry/islands_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_16(WEFTMAP_INSTANTIATE_ISLANDS)
}  // namespace WM
