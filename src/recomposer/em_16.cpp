#include "recomposer/em_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_16(WEFTMAP_INSTANTIATE_EM)
}  // namespace WM
