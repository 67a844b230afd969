#include "disk_pyramid.hpp"

#include "file_io.hpp"

#include <weftmap/host/errors.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

namespace WM::host::detail {
namespace {

[[noreturn]] void fail_file(std::string const& folder, char const* what, int error) {
    throw Error(ErrorCode::output_failed, std::string("cannot ") + what + " the working files in " +
                                              quoted(folder) + ": " + std::strerror(error));
}

// A file with no name in `folder`: made without one where the file system
// can, otherwise named for an instant and unlinked at once.
int anonymous_file(std::string const& folder) {
    int fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0) return fd;
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)
        fail_file(folder, "create", errno);
    std::string pattern = folder + "/.weftmap-XXXXXX";
    fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0) fail_file(folder, "create", errno);
    ::unlink(pattern.c_str());
    return fd;
}

template <class Channel>
using Sum = std::conditional_t<std::is_floating_point_v<Channel>, double, std::uint32_t>;

// One row of the next scale from `upper` and `lower` (the same row when the
// scale has an odd last row) of `width` pixels of `channels` channels.
template <class Channel>
void reduce_row(Reduction reduction, int channels, std::ptrdiff_t width, unsigned char const* upper,
                unsigned char const* lower, bool pair, unsigned char* out) {
    auto const* a = reinterpret_cast<Channel const*>(upper);
    auto const* b = reinterpret_cast<Channel const*>(lower);
    auto* o = reinterpret_cast<Channel*>(out);
    std::ptrdiff_t const half = (width + 1) / 2;
    for (std::ptrdiff_t x = 0; x < half; ++x) {
        std::ptrdiff_t const x0 = 2 * x, x1 = std::min(2 * x + 1, width - 1);
        unsigned const count = (x1 != x0 ? 2u : 1u) * (pair ? 2u : 1u);
        for (int c = 0; c < channels; ++c) {
            Channel const v[4] = {a[x0 * channels + c], a[x1 * channels + c], b[x0 * channels + c],
                                  b[x1 * channels + c]};
            if (reduction == Reduction::maximum) {
                o[x * channels + c] = std::max({v[0], v[1], v[2], v[3]});
                continue;
            }
            // Only the distinct pixels of a short block count.
            Sum<Channel> sum = v[0];
            if (x1 != x0) sum += v[1];
            if (pair) sum += v[2];
            if (pair && x1 != x0) sum += v[3];
            if constexpr (std::is_floating_point_v<Channel>)
                o[x * channels + c] = static_cast<Channel>(sum / count);
            else
                o[x * channels + c] = static_cast<Channel>((sum + count / 2) / count);
        }
    }
}

// Widens the rectangle `r` to hold the pixels of `row` (at `y`) that are
// not all zero.
void grow_bounds(Rect& r, unsigned char const* row, std::ptrdiff_t width, int pixel_bytes,
                 std::ptrdiff_t y) {
    std::ptrdiff_t first = -1, last = -1;
    for (std::ptrdiff_t x = 0; x < width; ++x) {
        unsigned char const* p = row + x * pixel_bytes;
        bool nonzero = false;
        for (int b = 0; b < pixel_bytes; ++b) nonzero |= p[b] != 0;
        if (!nonzero) continue;
        if (first < 0) first = x;
        last = x;
    }
    if (first < 0) return;
    if (r.empty()) {
        r = Rect{first, y, last - first + 1, 1};
        return;
    }
    std::ptrdiff_t const x0 = std::min(r.x, first), x1 = std::max(r.x + r.width, last + 1);
    r = Rect{x0, r.y, x1 - x0, y + 1 - r.y};
}

}  // namespace

// ---- RasterFile

RasterFile::RasterFile(std::string const& folder, PixelFormat format, Size size)
    : folder_(folder), format_(format), size_(size) {
    fd_ = anonymous_file(folder_);
    std::int64_t const bytes = offset(0, size.height);
    // Reserved now, so that a full disk shows before any work.
    int const error = ::posix_fallocate(fd_, 0, bytes);
    if (error == EOPNOTSUPP || error == EINVAL) {
        if (::ftruncate(fd_, bytes) != 0) {
            int const e = errno;
            ::close(fd_);
            fail_file(folder_, "create", e);
        }
    } else if (error != 0) {
        ::close(fd_);
        fail_file(folder_, "create", error);
    }
}

RasterFile::~RasterFile() {
    if (fd_ >= 0) ::close(fd_);
}

RasterFile::RasterFile(RasterFile&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      folder_(std::move(other.folder_)),
      format_(other.format_),
      size_(other.size_) {}

RasterFile& RasterFile::operator=(RasterFile&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
        folder_ = std::move(other.folder_);
        format_ = other.format_;
        size_ = other.size_;
    }
    return *this;
}

std::int64_t RasterFile::offset(std::ptrdiff_t x, std::ptrdiff_t y) const {
    return (std::int64_t(y) * size_.width + x) * format_.pixel_bytes();
}

void RasterFile::read_bytes(unsigned char* to, std::size_t count, std::int64_t at) const {
    while (count > 0) {
        ssize_t const n = ::pread(fd_, to, count, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail_file(folder_, "read", n == 0 ? EIO : errno);
        to += n;
        at += n;
        count -= std::size_t(n);
    }
}

void RasterFile::write_bytes(unsigned char const* from, std::size_t count, std::int64_t at) {
    while (count > 0) {
        ssize_t const n = ::pwrite(fd_, from, count, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail_file(folder_, "write", n == 0 ? ENOSPC : errno);
        from += n;
        at += n;
        count -= std::size_t(n);
    }
}

void RasterFile::read(ImageView const& out, std::ptrdiff_t x, std::ptrdiff_t y) const {
    if (out.empty()) return;
    if (out.format.pixel_bytes() != format_.pixel_bytes())
        throw Error(ErrorCode::internal, "a working file read into a view of another format");
    int const bytes = format_.pixel_bytes();
    // The columns of the raster that the view reaches, at least its nearest
    // one, and where the first of them lands in the view.
    std::ptrdiff_t const first = std::clamp<std::ptrdiff_t>(x, 0, size_.width - 1);
    std::ptrdiff_t const end = std::clamp<std::ptrdiff_t>(x + out.width, first + 1, size_.width);
    std::ptrdiff_t const into = first - x;
    std::size_t const count = std::size_t(end - first) * bytes;
    // Straight into the view when the columns land inside it side by side.
    bool const direct = out.pixel_stride == bytes && into >= 0 && into + (end - first) <= out.width;
    std::vector<unsigned char> scratch(direct ? 0 : count);
    for (std::ptrdiff_t j = 0; j < out.height; ++j) {
        std::int64_t const at =
            offset(first, std::clamp<std::ptrdiff_t>(y + j, 0, size_.height - 1));
        if (direct) {
            read_bytes(out.pixel(into, j), count, at);
            for (std::ptrdiff_t i = 0; i < into; ++i)
                std::memcpy(out.pixel(i, j), out.pixel(into, j), bytes);
            for (std::ptrdiff_t i = into + (end - first); i < out.width; ++i)
                std::memcpy(out.pixel(i, j), out.pixel(into + (end - first) - 1, j), bytes);
            continue;
        }
        read_bytes(scratch.data(), count, at);
        for (std::ptrdiff_t i = 0; i < out.width; ++i) {
            std::ptrdiff_t const column = std::clamp<std::ptrdiff_t>(x + i, 0, size_.width - 1);
            std::memcpy(out.pixel(i, j), scratch.data() + (column - first) * bytes, bytes);
        }
    }
}

void RasterFile::write(ConstImageView const& in, std::ptrdiff_t x, std::ptrdiff_t y) {
    if (in.empty()) return;
    if (in.format.pixel_bytes() != format_.pixel_bytes())
        throw Error(ErrorCode::internal, "a working file written from a view of another format");
    if (x < 0 || y < 0 || x + in.width > size_.width || y + in.height > size_.height)
        throw Error(ErrorCode::internal, "a write of " + size_text(in.size()) + " pixels at " +
                                             std::to_string(x) + "," + std::to_string(y) +
                                             " outside a working file of " + size_text(size_));
    int const bytes = format_.pixel_bytes();
    std::size_t const count = std::size_t(in.width) * bytes;
    std::vector<unsigned char> scratch;
    if (in.pixel_stride != bytes) scratch.resize(count);
    for (std::ptrdiff_t j = 0; j < in.height; ++j) {
        unsigned char const* from = in.pixel(0, j);
        if (!scratch.empty()) {
            for (std::ptrdiff_t i = 0; i < in.width; ++i)
                std::memcpy(scratch.data() + i * bytes, in.pixel(i, j), bytes);
            from = scratch.data();
        }
        write_bytes(from, count, offset(x, y + j));
    }
}

// ---- DiskPyramid

struct DiskPyramid::Pending {
    CountedBytes upper;  // the row waiting for its partner
    bool waiting = false;
    CountedBytes reduced;  // the row of the next scale
};

int DiskPyramid::scale_count(Size size, std::ptrdiff_t smallest) {
    int scales = 1;
    while (scales < 30) {
        Size const next = scale_size(size, scales);
        if (std::min(next.width, next.height) < smallest) break;
        ++scales;
    }
    return scales;
}

Size DiskPyramid::scale_size(Size size, int scale) {
    for (int k = 0; k < scale; ++k) size = {(size.width + 1) / 2, (size.height + 1) / 2};
    return size;
}

DiskPyramid::DiskPyramid(std::string const& folder, PixelFormat format, Size size,
                         Reduction reduction, int scales)
    : format_(format), reduction_(reduction) {
    for (int k = 0; k < std::max(scales, 1); ++k) {
        Size const s = scale_size(size, k);
        levels_.emplace_back(folder, format, s);
        bounds_.emplace_back();
        level_rows_.push_back(0);
    }
    pending_.resize(levels_.size() - 1);
    for (std::size_t k = 0; k + 1 < levels_.size(); ++k) {
        resize_counted(pending_[k].upper,
                       std::size_t(levels_[k].size().width) * format.pixel_bytes());
        resize_counted(pending_[k].reduced,
                       std::size_t(levels_[k + 1].size().width) * format.pixel_bytes());
    }
}

DiskPyramid::~DiskPyramid() = default;
DiskPyramid::DiskPyramid(DiskPyramid&&) noexcept = default;
DiskPyramid& DiskPyramid::operator=(DiskPyramid&&) noexcept = default;

void DiskPyramid::append_rows(ConstImageView const& band) {
    if (band.empty()) return;
    Size const full = size(0);
    if (band.width != full.width || band.format.pixel_bytes() != format_.pixel_bytes() ||
        band.height > full.height - rows_)
        throw Error(ErrorCode::internal, "rows of " + size_text(band.size()) +
                                             " do not fit a picture of " + size_text(full) +
                                             " from row " + std::to_string(rows_));
    levels_[0].write(band, 0, rows_);
    std::size_t const row_bytes = std::size_t(full.width) * format_.pixel_bytes();
    std::vector<unsigned char> packed;
    for (std::ptrdiff_t j = 0; j < band.height; ++j) {
        unsigned char const* row = band.pixel(0, j);
        if (band.pixel_stride != format_.pixel_bytes()) {
            packed.resize(row_bytes);
            for (std::ptrdiff_t i = 0; i < band.width; ++i)
                std::memcpy(packed.data() + i * format_.pixel_bytes(), band.pixel(i, j),
                            std::size_t(format_.pixel_bytes()));
            row = packed.data();
        }
        // Scale 0 is written above as one band; its rows only go on from here.
        if (reduction_ == Reduction::maximum)
            grow_bounds(bounds_[0], row, full.width, format_.pixel_bytes(), rows_);
        ++rows_;
        ++level_rows_[0];
        if (levels_.size() > 1) {
            Pending& p = pending_[0];
            if (!p.waiting) {
                std::memcpy(p.upper.data(), row, row_bytes);
                p.waiting = true;
            } else {
                p.waiting = false;
                reduce_into(0, p.upper.data(), row);
            }
        }
    }
    if (!complete()) return;
    // Odd last rows stand alone for the row above them, from fine to coarse.
    for (std::size_t k = 0; k < pending_.size(); ++k)
        if (pending_[k].waiting) {
            pending_[k].waiting = false;
            reduce_into(int(k), pending_[k].upper.data(), nullptr);
        }
}

// Makes the row of scale + 1 from two rows of `scale` (or one, when `lower`
// is null) and passes it on.
void DiskPyramid::reduce_into(int scale, unsigned char const* upper, unsigned char const* lower) {
    Pending& p = pending_[std::size_t(scale)];
    std::ptrdiff_t const width = size(scale).width;
    bool const pair = lower != nullptr;
    if (!pair) lower = upper;
    switch (format_.depth) {
        case Depth::u8:
            reduce_row<std::uint8_t>(reduction_, format_.channels(), width, upper, lower, pair,
                                     p.reduced.data());
            break;
        case Depth::u16:
            reduce_row<std::uint16_t>(reduction_, format_.channels(), width, upper, lower, pair,
                                      p.reduced.data());
            break;
        case Depth::f32:
            reduce_row<float>(reduction_, format_.channels(), width, upper, lower, pair,
                              p.reduced.data());
            break;
    }
    add_row(scale + 1, p.reduced.data());
}

void DiskPyramid::add_row(int scale, unsigned char const* row) {
    auto const k = std::size_t(scale);
    Size const s = size(scale);
    std::ptrdiff_t const y = level_rows_[k]++;
    levels_[k].write(ConstImageView(row, format_, s.width, 1), 0, y);
    if (reduction_ == Reduction::maximum)
        grow_bounds(bounds_[k], row, s.width, format_.pixel_bytes(), y);
    if (k + 1 >= levels_.size()) return;
    Pending& p = pending_[k];
    std::size_t const row_bytes = std::size_t(s.width) * format_.pixel_bytes();
    if (!p.waiting) {
        std::memcpy(p.upper.data(), row, row_bytes);
        p.waiting = true;
    } else {
        p.waiting = false;
        reduce_into(scale, p.upper.data(), row);
    }
}

}  // namespace WM::host::detail
