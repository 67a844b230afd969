// An output written under a temporary name beside its final one and renamed
// only when complete, so that a failed or cancelled run leaves no file and
// an older file stays as it was.
#pragma once

#include <weftmap/host/export.hpp>

#include <string>

namespace WM::host {

class WEFTMAP_HOST_API OutputFile {
public:
    // Creates the temporary file at once (a short hidden name in the same
    // folder, so that any legal final name works), so that an unwritable
    // place fails before any work. Refuses a path that exists and is not a
    // regular file (a folder, a device such as /dev/null, a pipe): renaming
    // over it would replace it. Throws Error (output_failed).
    explicit OutputFile(std::string path);
    // Removes the temporary file unless committed.
    ~OutputFile();
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    std::string const& path() const { return path_; }
    std::string const& temporary_path() const { return temporary_; }
    // Renames the temporary file to the final name.
    void commit();

private:
    std::string path_;
    std::string temporary_;
    int slot_ = -1;
    bool committed_ = false;
};

// Removes the temporary files of every OutputFile alive, leaving their
// final names alone. Only async-signal-safe calls: made for a signal
// handler that ends the process without unwinding (a second Ctrl-C).
WEFTMAP_HOST_API void remove_temporary_outputs() noexcept;

}  // namespace WM::host
