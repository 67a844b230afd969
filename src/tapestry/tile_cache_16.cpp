#include "tapestry/tile_cache_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_16(WEFTMAP_INSTANTIATE_TILE_CACHE)
}  // namespace WM
