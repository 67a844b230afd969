#include "recomposer/em_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_32F(WEFTMAP_INSTANTIATE_EM)
}  // namespace WM
