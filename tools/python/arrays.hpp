// numpy arrays as the kit's views, and the kit's images as numpy arrays.
#pragma once

#include <weftmap/host/image.hpp>

#include <pybind11/numpy.h>

namespace weftmap_python {

namespace py = pybind11;
namespace host = WM::host;

// A picture array as a kit view. `pixels` is what the view points into:
// the caller's own array whenever the kit can read it in place, otherwise a
// packed copy (channels not next to each other, unaligned data, or a dtype
// the library works on in another depth).
struct Picture {
    py::array pixels;
    host::ConstImageView view;
    py::dtype dtype;  // the caller's, given back on results
    int ndim = 2;     // the caller's, given back on results
};

// uint8, uint16 and floats (worked on as float32) of shape HxW, HxWx1,
// HxWx3, or HxWx4 with `cmyk`. Throws Error (invalid_input) for others.
Picture picture_of(py::array const& array, bool cmyk);

// A mask of bool (true = 255) or uint8 (as it is), HxW or HxWx1, as an
// 8-bit gray view. `what` names it in messages.
struct Mask {
    py::array pixels;
    host::ConstImageView view;
};
Mask mask_of(py::array const& array, char const* what);

// A new array that owns the image's storage, without copying: HxW for gray
// when `ndim` is 2, HxWxC otherwise.
py::array array_of(host::Image image, int ndim);

// `image` as an array like `like`: its dtype and number of dimensions.
py::array array_like(host::Image image, Picture const& like);

}  // namespace weftmap_python
