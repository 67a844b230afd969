// A view of a large logical image of which only one rectangle is stored;
// positions outside it read a default value when one is set.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <exception>

namespace WM {

class WEFTMAP_API bounds_exception_t : public std::exception {
public:
    char const* what() const noexcept override;
};

// `N` is a plain tag that tells the two uses apart (weights and distances).
template <class ViewT, int N>
class inset_view {
public:
    using view_t = ViewT;
    using value_type = typename ViewT::value_type;

    inset_view() = default;
    // Logical size taken from `data` when `size` has a negative side.
    explicit inset_view(ViewT const& data, Point const& size = Point(-1, -1),
                        Point const& origin = Point(0, 0))
        : width(size.x < 0 || size.y < 0 ? data.width() : size.x),
          height(size.x < 0 || size.y < 0 ? data.height() : size.y),
          xmin(size.x < 0 || size.y < 0 ? 0 : origin.x),
          xmax(xmin + data.width()),
          ymin(size.x < 0 || size.y < 0 ? 0 : origin.y),
          ymax(ymin + data.height()),
          data(data) {}

    Point dimensions() const { return Point(width, height); }
    bool contains(std::ptrdiff_t x, std::ptrdiff_t y) const {
        return x >= xmin && x < xmax && y >= ymin && y < ymax;
    }

    value_type const& operator()(std::ptrdiff_t x, std::ptrdiff_t y) const {
        if (contains(x, y)) return data(x - xmin, y - ymin);
        if (has_default) return default_pixel;
        throw bounds_exception_t();
    }
    // Writes only inside the stored rectangle.
    typename ViewT::reference at(std::ptrdiff_t x, std::ptrdiff_t y) const {
        if (!contains(x, y)) throw bounds_exception_t();
        return data(x - xmin, y - ymin);
    }

    void set_default(value_type const& value) {
        default_pixel = value;
        has_default = true;
    }

    std::ptrdiff_t width = 0;
    std::ptrdiff_t height = 0;
    std::ptrdiff_t xmin = 0;
    std::ptrdiff_t xmax = 0;
    std::ptrdiff_t ymin = 0;
    std::ptrdiff_t ymax = 0;
    ViewT data;
    value_type default_pixel{};
    bool has_default = false;
};

}  // namespace WM
