#include "image/resample_impl.hpp"

namespace WM {

void get_resample_size(Point const& srcDims, int short_side, long long& width, long long& height,
                       double& scale) {
    auto const src_w = static_cast<double>(srcDims.x);
    auto const src_h = static_cast<double>(srcDims.y);
    if (short_side > 0 && srcDims.y <= srcDims.x) {
        height = short_side;
        scale = short_side / src_h;
        width = detail::round_size(src_w * scale);
        return;
    }
    if (short_side > 0) {
        width = short_side;
        height = -1;
    }
    if (width >= 0) {
        if (height < 0) {
            scale = width / src_w;
            height = detail::round_size(src_h * scale);
        }
        return;
    }
    scale = height / src_h;
    width = detail::round_size(src_w * scale);
}

void get_resample_size(Point const& srcDims, int short_side, Point& dims, double& scale) {
    long long width = dims.x;
    long long height = dims.y;
    get_resample_size(srcDims, short_side, width, height, scale);
    dims = Point(width, height);
}

}  // namespace WM
