#include "twopass/two_pass_synthesis_impl.hpp"

namespace WM {
WEFTMAP_FOR_EACH_PIXEL_32F(WEFTMAP_INSTANTIATE_TWO_PASS_SYNTHESIS)
}  // namespace WM
