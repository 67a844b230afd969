// Kit images over the library's own buffer type.
#pragma once

#include "dispatch.hpp"

#include <weftmap/host/image.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <boost/gil/algorithm.hpp>

#include <memory>
#include <utility>

namespace WM::host::detail {

template <class Pixel>
struct RecycledStorage : Image::Storage {
    explicit RecycledStorage(RecycledImage<Pixel>&& image) : image(std::move(image)) {}
    RecycledImage<Pixel> image;
};

template <class Pixel>
ImageView view_of(RecycledImage<Pixel>& image) {
    return ImageView(image.memory(), format_of<Pixel>(), image.width(), image.height());
}

// An Image that owns `image` without copying it.
template <class Pixel>
Image adopt(RecycledImage<Pixel>&& image) {
    auto storage = std::make_unique<RecycledStorage<Pixel>>(std::move(image));
    ImageView const view = view_of(storage->image);
    return Image(std::move(storage), view);
}

// A packed copy of `from` in a library buffer, which the library may write.
template <class Pixel>
RecycledImage<Pixel> library_copy(ConstImageView const& from) {
    RecycledImage<Pixel> copy(Point(from.width, from.height));
    gil::copy_pixels(typed_view<Pixel>(from), view(copy));
    return copy;
}

}  // namespace WM::host::detail
