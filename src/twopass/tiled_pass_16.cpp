#include "twopass/tiled_pass_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_16(WEFTMAP_INSTANTIATE_TILED_PASS)
}  // namespace WM
