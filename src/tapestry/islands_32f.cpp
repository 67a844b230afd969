#include "tapestry/islands_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_32F(WEFTMAP_INSTANTIATE_ISLANDS)
}  // namespace WM
