// The one image buffer of the library. It keeps its memory when a new size
// fits, can be locked against growing, and carries spare bytes behind the
// last pixel so that 16-byte vector loads never leave the allocation.
#pragma once

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/memory.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <boost/gil/algorithm.hpp>

#include <exception>
#include <utility>

namespace WM {

class WEFTMAP_API locked_recycled_image_error : public std::exception {
public:
    char const* what() const noexcept override;
};

template <class Pixel, int IsPlanar = 0, class Alloc = WMAllocator<unsigned char>, int Extra = 15>
class recycled_image {
    static_assert(IsPlanar == 0, "only interleaved images exist");

public:
    using value_type = Pixel;
    using view_t = View<Pixel>;
    using const_view_t = ConstView<Pixel>;
    using point_t = Point;

    recycled_image() : view_(0, 0, typename view_t::locator(nullptr, 1)) {}
    explicit recycled_image(Point const& dims) : recycled_image() { recreate(dims); }
    recycled_image(recycled_image const& other) : recycled_image() {
        allocate(other.dimensions());
        gil::copy_pixels(const_view_t(other.view_), view_);
        locked = other.locked;
    }
    recycled_image(recycled_image&& other) noexcept : recycled_image() { swap(other); }
    ~recycled_image() { release(); }

    recycled_image& operator=(recycled_image const& other) {
        if (this == &other) return *this;
        if (fits(other.dimensions())) {
            reshape(other.dimensions());
            gil::copy_pixels(const_view_t(other.view_), view_);
        } else if (locked) {
            throw locked_recycled_image_error();
        } else {
            recycled_image copy(other);
            swap(copy);
        }
        return *this;
    }
    recycled_image& operator=(recycled_image&& other) noexcept {
        swap(other);
        return *this;
    }

    // Gives the image the size `dims`, reusing the memory when it fits.
    // Pixel contents afterwards are undefined.
    void recreate(Point const& dims) {
        if (dims.x < 0 || dims.y < 0)
            raise("WEFTMAP_INTERNAL_ERROR:recycled_image: negative size (%dx%d)",
                  static_cast<long long>(dims.x), static_cast<long long>(dims.y));
        if (fits(dims)) {
            reshape(dims);
            return;
        }
        if (locked) throw locked_recycled_image_error();
        recycled_image fresh;
        fresh.allocate(dims);
        fresh.locked = locked;
        swap(fresh);
    }
    void recreate(std::ptrdiff_t width, std::ptrdiff_t height) { recreate(Point(width, height)); }

    // Releases the memory and unlocks.
    void deallocate() {
        recycled_image empty;
        swap(empty);
    }

    void lock() { locked = true; }
    void unlock() { locked = false; }

    void swap(recycled_image& other) noexcept {
        std::swap(view_, other.view_);
        std::swap(memory_, other.memory_);
        std::swap(row_alignment_, other.row_alignment_);
        std::swap(allocated_bytes_, other.allocated_bytes_);
        std::swap(locked, other.locked);
    }

    Point dimensions() const { return view_.dimensions(); }
    std::ptrdiff_t width() const { return view_.width(); }
    std::ptrdiff_t height() const { return view_.height(); }
    unsigned long long allocated_bytes() const { return allocated_bytes_; }
    unsigned char* memory() const { return memory_; }

    // Bytes an image of `dims` needs, with the spare bytes behind it.
    static unsigned long long needed_bytes(Point const& dims) {
        auto const bytes = static_cast<unsigned long long>(dims.x) *
                           static_cast<unsigned long long>(dims.y) * sizeof(Pixel);
        return bytes == 0 ? 0 : bytes + Extra;
    }

    friend view_t const& view(recycled_image& image) { return image.view_; }
    friend const_view_t const_view(recycled_image const& image) {
        return const_view_t(image.view_);
    }
    friend void swap(recycled_image& a, recycled_image& b) noexcept { a.swap(b); }

    // Public on purpose: the owner sets it around a sizing recreate.
    bool locked = false;

private:
    bool fits(Point const& dims) const { return needed_bytes(dims) <= allocated_bytes_; }

    void reshape(Point const& dims) {
        view_ = view_t(
            dims, typename view_t::locator(reinterpret_cast<Pixel*>(memory_),
                                           dims.x * static_cast<std::ptrdiff_t>(sizeof(Pixel))));
    }

    // Only on an empty image.
    void allocate(Point const& dims) {
        auto const bytes = needed_bytes(dims);
        if (bytes != 0) {
            memory_ = Alloc().allocate(bytes);
            allocated_bytes_ = bytes;
        }
        reshape(dims);
    }

    void release() {
        if (memory_ != nullptr) Alloc().deallocate(memory_, allocated_bytes_);
        memory_ = nullptr;
        allocated_bytes_ = 0;
    }

    view_t view_;
    unsigned char* memory_ = nullptr;
    unsigned long long row_alignment_ = 0;
    unsigned long long allocated_bytes_ = 0;
};

template <class Pixel>
using RecycledImage = recycled_image<Pixel, 0, WMAllocator<unsigned char>, 15>;

}  // namespace WM
