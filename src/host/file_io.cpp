#include "file_io.hpp"

#include "library_errors.hpp"

#include <weftmap/host/runtime.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace WM::host::detail {

std::string quoted(std::string const& path) {
    return "'" + path + "'";
}

void bad_input(std::string const& text) {
    throw Error(ErrorCode::invalid_input, text);
}

void unreadable(std::string const& path, FileFormat format, std::string const& reason) {
    bad_input("cannot read " + quoted(path) + " as " + format_name(format) + ": " + reason);
}

void add_warning(Warnings* warnings, std::string const& path, char const* text) noexcept {
    if (warnings == nullptr) return;
    try {
        warnings->push_back(quoted(path) + ": " + text);
    } catch (...) {
        // A warning lost for want of memory is no reason to fail.
    }
}

void add_note(Warnings* warnings, std::string const& sentence) {
    if (warnings != nullptr) warnings->push_back(sentence);
}

void resize_counted(CountedBytes& bytes, std::size_t size) {
    ensure_library();
    translating_errors([&] { bytes.resize(size); });
}

std::uint64_t codec_memory_budget() {
    unsigned long long const limit = memory_limit();
    if (limit == ~0ull) return 0;
    unsigned long long const used = memory_in_use();
    // At least one byte: 0 would mean no limit to the codecs.
    return limit > used ? limit - used : 1;
}

namespace {

// Big enough that the system calls cost nothing next to the encoders.
constexpr std::size_t sink_buffer_bytes = std::size_t(1) << 18;

}  // namespace

OutputSink::OutputSink(std::string const& path, std::string shown_name)
    : shown_name_(std::move(shown_name)) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) fail(std::strerror(errno));
    buffer_.resize(sink_buffer_bytes);
}

OutputSink::~OutputSink() {
    if (fd_ >= 0) ::close(fd_);
}

bool OutputSink::record(int error) noexcept {
    if (error_ == 0) error_ = error != 0 ? error : EIO;
    return false;
}

bool OutputSink::flush() noexcept {
    if (error_ != 0) return false;
    unsigned char const* p = buffer_.data();
    std::size_t left = used_;
    while (left > 0) {
        ssize_t const n = ::write(fd_, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return record(errno);
        }
        // write() makes progress or fails; 0 would loop forever.
        if (n == 0) return record(EIO);
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    used_ = 0;
    return true;
}

bool OutputSink::write(void const* data, std::size_t size) noexcept {
    if (error_ != 0) return false;
    auto const* bytes = static_cast<unsigned char const*>(data);
    while (size > 0) {
        if (used_ == buffer_.size() && !flush()) return false;
        std::size_t const n = std::min(size, buffer_.size() - used_);
        std::memcpy(buffer_.data() + used_, bytes, n);
        used_ += n;
        bytes += n;
        size -= n;
    }
    return true;
}

std::int64_t OutputSink::seek(std::int64_t offset, int whence) noexcept {
    if (!flush()) return -1;
    off_t const at = ::lseek(fd_, static_cast<off_t>(offset), whence);
    if (at < 0) {
        record(errno);
        return -1;
    }
    return at;
}

std::int64_t OutputSink::read(void* data, std::size_t size) noexcept {
    if (!flush()) return -1;
    for (;;) {
        ssize_t const n = ::read(fd_, data, size);
        if (n >= 0) return n;
        if (errno != EINTR) {
            record(errno);
            return -1;
        }
    }
}

std::int64_t OutputSink::file_size() noexcept {
    if (!flush()) return -1;
    struct stat st = {};
    if (::fstat(fd_, &st) != 0) {
        record(errno);
        return -1;
    }
    return st.st_size;
}

void OutputSink::finish() {
    if (!flush()) fail("");
    // A file system that cannot sync this file (EINVAL) has nothing to lose.
    if (::fsync(fd_) != 0 && errno != EINVAL) record(errno);
    // close() reports what a network file system could not store; the
    // descriptor is gone either way.
    int const closed = ::close(fd_);
    int const close_error = errno;
    fd_ = -1;
    if (closed != 0 && close_error != EINTR) record(close_error);
    if (error_ != 0) fail("");
}

void OutputSink::fail(std::string const& reason) const {
    std::string const why =
        error_ != 0 || reason.empty() ? std::strerror(error_ != 0 ? error_ : EIO) : reason;
    throw Error(ErrorCode::output_failed, "cannot write " + quoted(shown_name_) + ": " + why);
}

}  // namespace WM::host::detail
