// The pieces every format's file code shares: messages, buffers counted
// against the memory limit, and a checked output file.
#pragma once

#include <weftmap/host/errors.hpp>
#include <weftmap/host/raster_file.hpp>
#include <weftmap/image/memory.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace WM::host::detail {

// 'path', as messages show file names.
std::string quoted(std::string const& path);

[[noreturn]] void bad_input(std::string const& text);

// "cannot read 'path' as PNG: reason".
[[noreturn]] void unreadable(std::string const& path, FileFormat format, std::string const& reason);

// Adds "'path': text" (a codec's complaint) to `warnings` when there are
// any; never throws, so that the codecs' C callbacks may call it.
void add_warning(Warnings* warnings, std::string const& path, char const* text) noexcept;

// Adds a sentence of the kit's own.
void add_note(Warnings* warnings, std::string const& sentence);

// Decoder scratch memory that counts against the library's memory limit,
// so that a file whose header promises huge tiles or strips fails with the
// memory-limit error instead of growing the process.
using CountedBytes = std::vector<unsigned char, WMAllocator<unsigned char>>;

// Resizes `bytes`; passing the limit throws Error (memory_limit).
void resize_counted(CountedBytes& bytes, std::size_t size);

// Bytes the codecs' own allocations may still take under the memory limit,
// 0 when there is no limit.
std::uint64_t codec_memory_budget();

// A file written through a buffer, every write, flush, sync and close
// checked. Its operations never throw, so that the codecs' C callbacks may
// call them; the first failure is kept and reported by fail().
class OutputSink {
public:
    // Creates or empties the file. Throws Error (output_failed).
    OutputSink(std::string const& path, std::string shown_name);
    // Closes the file if finish() did not.
    ~OutputSink();
    OutputSink(OutputSink const&) = delete;
    OutputSink& operator=(OutputSink const&) = delete;

    std::string const& shown_name() const { return shown_name_; }

    bool write(void const* data, std::size_t size) noexcept;
    // At `offset` from `whence` (SEEK_SET, SEEK_CUR, SEEK_END); -1 on failure.
    std::int64_t seek(std::int64_t offset, int whence) noexcept;
    // Reads back (after a seek); the byte count or -1.
    std::int64_t read(void* data, std::size_t size) noexcept;
    std::int64_t file_size() noexcept;
    // Writes out the buffer.
    bool flush() noexcept;

    // True after a failed operation.
    bool failed() const { return error_ != 0; }
    // Writes out the buffer, syncs and closes: throws on any failure.
    void finish();
    // Throws Error (output_failed) with the kept failure, or `reason` when
    // the sink itself saw none.
    [[noreturn]] void fail(std::string const& reason) const;

private:
    bool record(int error) noexcept;

    int fd_ = -1;
    int error_ = 0;
    std::string shown_name_;
    std::vector<unsigned char> buffer_;
    std::size_t used_ = 0;
};

}  // namespace WM::host::detail
