#include "arrays.hpp"

#include "runs.hpp"

#include <weftmap/host/errors.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace weftmap_python {
namespace {

[[noreturn]] void refuse(std::string const& text) {
    throw host::Error(host::ErrorCode::invalid_input, text);
}

std::string shape_text(py::array const& array) {
    std::string text = "(";
    for (py::ssize_t i = 0; i < array.ndim(); ++i)
        text += (i == 0 ? "" : ", ") + std::to_string(array.shape(i));
    return text + (array.ndim() == 1 ? ",)" : ")");
}

std::string dtype_text(py::dtype const& dtype) {
    return py::str(static_cast<py::object const&>(dtype));
}

bool native_order(py::dtype const& dtype) {
    char const order = dtype.byteorder();
    return order == '=' || order == '|' || (order == '<') == (PY_LITTLE_ENDIAN != 0);
}

// The depth the library works on for `dtype`: integers keep theirs,
// every float is worked on as float32.
std::optional<host::Depth> depth_of(py::dtype const& dtype) {
    if (dtype.kind() == 'u' && dtype.itemsize() == 1) return host::Depth::u8;
    if (dtype.kind() == 'u' && dtype.itemsize() == 2) return host::Depth::u16;
    if (dtype.kind() == 'f' && dtype.itemsize() <= 8) return host::Depth::f32;
    return std::nullopt;
}

py::dtype dtype_of(host::Depth depth) {
    switch (depth) {
        case host::Depth::u8:
            return py::dtype::of<std::uint8_t>();
        case host::Depth::u16:
            return py::dtype::of<std::uint16_t>();
        case host::Depth::f32:
            break;
    }
    return py::dtype::of<float>();
}

py::array packed_copy(py::array const& array, py::dtype const& dtype) {
    return py::module_::import("numpy").attr("ascontiguousarray")(array, py::arg("dtype") = dtype);
}

// A view of the first two axes of `array`, or nothing when the kit cannot
// read it in place: channels apart, unaligned, or a stride of 0 (a
// broadcast array), which the kit takes for packed.
std::optional<host::ConstImageView> view_in_place(py::array const& array,
                                                  host::PixelFormat format) {
    auto const item = static_cast<py::ssize_t>(format.channel_bytes());
    if (array.ndim() == 3 && array.shape(2) > 1 && array.strides(2) != item) return std::nullopt;
    host::ConstImageView view(static_cast<unsigned char const*>(array.data()), format,
                              array.shape(1), array.shape(0));
    // The stride of an axis of length 1 is never used and may be anything.
    if (array.shape(1) > 1) view.pixel_stride = array.strides(1);
    if (array.shape(0) > 1) view.row_stride = array.strides(0);
    if (view.pixel_stride == 0 || view.row_stride == 0) return std::nullopt;
    if (reinterpret_cast<std::uintptr_t>(view.data) % item != 0 || view.pixel_stride % item != 0 ||
        view.row_stride % item != 0)
        return std::nullopt;
    return view;
}

}  // namespace

Picture picture_of(py::array const& array, bool cmyk) {
    Picture picture{array, {}, array.dtype(), static_cast<int>(array.ndim())};
    std::optional<host::Depth> const depth = depth_of(picture.dtype);
    if (!depth)
        refuse("the picture must be an array of uint8, uint16 or float32, not " +
               dtype_text(picture.dtype));
    py::ssize_t const channels = array.ndim() == 3 ? array.shape(2) : 1;
    if (array.ndim() < 2 || array.ndim() > 3 || (channels != 1 && channels != 3 && channels != 4))
        refuse("the picture must be an array of shape HxW, HxWx1, HxWx3 or HxWx4 (CMYK), not " +
               shape_text(array));
    if (channels == 4 && !cmyk)
        refuse(
            "an HxWx4 picture is taken as CMYK only with cmyk=True; Weftmap keeps no alpha "
            "channel, so pass image[..., :3] for RGBA");
    if (cmyk && channels != 4) refuse("cmyk=True needs an HxWx4 picture, not " + shape_text(array));
    host::PixelFormat const format{*depth, channels == 1   ? host::Colour::gray
                                           : channels == 3 ? host::Colour::rgb
                                                           : host::Colour::cmyk};

    py::dtype const work = dtype_of(*depth);
    bool const same_dtype = picture.dtype.kind() == work.kind() &&
                            picture.dtype.itemsize() == work.itemsize() &&
                            native_order(picture.dtype);
    if (same_dtype) {
        if (auto view = view_in_place(array, format)) {
            picture.view = *view;
            return picture;
        }
    }
    picture.pixels = packed_copy(array, work);
    picture.view = *view_in_place(picture.pixels, format);
    return picture;
}

Mask mask_of(py::array const& array, char const* what) {
    py::dtype const dtype = array.dtype();
    bool const is_bool = dtype.kind() == 'b';
    if (!is_bool && !(dtype.kind() == 'u' && dtype.itemsize() == 1))
        refuse(std::string("the ") + what + " must be an array of bool or uint8, not " +
               dtype_text(dtype));
    if (array.ndim() != 2 && !(array.ndim() == 3 && array.shape(2) == 1))
        refuse(std::string("the ") + what + " must be an array of shape HxW, not " +
               shape_text(array));
    Mask mask{array, {}};
    if (!is_bool) {
        if (auto view = view_in_place(array, host::mask_format)) {
            mask.view = *view;
            return mask;
        }
    }
    mask.pixels = packed_copy(array, py::dtype::of<std::uint8_t>());
    if (is_bool) {
        // True is a full 255, as a hole or a sampling area is either in or out.
        auto* byte = static_cast<std::uint8_t*>(mask.pixels.mutable_data());
        for (py::ssize_t i = 0; i < mask.pixels.size(); ++i) byte[i] = byte[i] != 0 ? 255 : 0;
    }
    mask.view = *view_in_place(mask.pixels, host::mask_format);
    return mask;
}

py::array array_of(host::Image image, int ndim) {
    host::ImageView const view = image.view();
    host::PixelFormat const format = view.format;
    std::vector<py::ssize_t> shape{view.height, view.width};
    std::vector<py::ssize_t> strides{view.row_stride, view.pixel_stride};
    if (ndim == 3 || format.channels() > 1) {
        shape.push_back(format.channels());
        strides.push_back(format.channel_bytes());
    }
    std::unique_ptr<host::Image::Storage> storage = image.release();
    if (!storage) return py::array(dtype_of(format.depth), shape);
    // The array keeps the library's buffer: no copy of the result.
    py::capsule const owner(storage.get(), [](void* p) {
        free_storage(std::unique_ptr<host::Image::Storage>(static_cast<host::Image::Storage*>(p)));
    });
    storage.release();
    return py::array(dtype_of(format.depth), shape, strides, view.data, owner);
}

py::array array_like(host::Image image, Picture const& like) {
    py::array result = array_of(std::move(image), like.ndim);
    if (!result.dtype().equal(like.dtype)) result = result.attr("astype")(like.dtype);
    return result;
}

}  // namespace weftmap_python
