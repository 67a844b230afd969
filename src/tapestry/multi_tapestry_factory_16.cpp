#include "tapestry/multi_tapestry_factory_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_16(WEFTMAP_INSTANTIATE_MULTI_TAPESTRY_FACTORY)
}  // namespace WM
