#include "recomposer/level_buffers_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_32F(WEFTMAP_INSTANTIATE_LEVEL_BUFFERS)
}  // namespace WM
