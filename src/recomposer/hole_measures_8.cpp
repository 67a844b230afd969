#include "recomposer/hole_measures_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_8(WEFTMAP_INSTANTIATE_HOLE_MEASURES)
}  // namespace WM
